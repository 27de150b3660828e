// Linked into every program of a --sanitize=thread build (ProbemondBuild.cmake).
//
// glibc's resolver adds each thread's resolver state to one shared array
// (__resolv_conf_attach, on a thread's first lookup) under glibc's internal
// lock, which ThreadSanitizer cannot see: workers resolving their first ping
// server at once are then reported as racing in the array's growth. Only the
// frames of glibc's dynarray are named, so a race in our own code still fails.
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() {
    return "race:__libc_dynarray_emplace_enlarge\n";
}

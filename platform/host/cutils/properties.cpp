// Host stand-in for the platform's system properties: a key=value file named
// by PROBEMOND_PROPERTY_FILE. Editing the file is the host's setprop; the file
// is re-read whenever it changed, so a running daemon sees the new value at
// its next read, as on a device.
//
// bionic's lookup, read and wait of one property map onto it thus: a
// property exists once its key has a line; its serial (and the global one)
// moves whenever a read of the file finds its value changed; a wait watches
// the file's directory with inotify (property_set replaces the file by
// rename, tests append to it) and reads the file again on each change of it,
// so a waiter wakes only when its serial moved, and never polls.
#include <cutils/properties.h>

#include <android-base/unique_fd.h>
#include <android/log.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/system_properties.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>

// A property once looked up, for good, as on a device.
struct prop_info {
    std::string name;
    std::string value;  // "" once its line is gone
    uint32_t serial = 1;
};

namespace {

constexpr const char* kFileVariable = "PROBEMOND_PROPERTY_FILE";

struct FileIdentity {
    bool exists = false;
    dev_t dev = 0;
    ino_t ino = 0;
    off_t size = 0;
    struct timespec mtime = {0, 0};

    bool operator==(const FileIdentity& o) const {
        return exists == o.exists && dev == o.dev && ino == o.ino && size == o.size &&
               mtime.tv_sec == o.mtime.tv_sec && mtime.tv_nsec == o.mtime.tv_nsec;
    }
};

struct Store {
    std::mutex lock;
    std::string path;
    FileIdentity seen;
    bool loaded = false;
    std::map<std::string, std::string> values;
    uint32_t globalSerial = 1;
    std::map<std::string, std::unique_ptr<prop_info>> infos;
};

Store& store() {
    static Store* s = new Store();  // never destroyed: threads may read at exit
    return *s;
}

std::string trim(const std::string& s) {
    size_t b = s.find_first_not_of(" \t");
    if (b == std::string::npos) return "";
    size_t e = s.find_last_not_of(" \t\r\n");
    return s.substr(b, e - b + 1);
}

FileIdentity identify(const std::string& path) {
    FileIdentity id;
    struct stat st;
    if (!path.empty() && stat(path.c_str(), &st) == 0) {
        id.exists = true;
        id.dev = st.st_dev;
        id.ino = st.st_ino;
        id.size = st.st_size;
        id.mtime = st.st_mtim;
    }
    return id;
}

std::map<std::string, std::string> parse(const std::string& path) {
    std::map<std::string, std::string> out;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        std::string t = trim(line);
        if (t.empty() || t[0] == '#') continue;
        size_t eq = line.find('=');
        if (eq == std::string::npos) continue;
        std::string key = trim(line.substr(0, eq));
        if (key.empty()) continue;
        out[key] = line.substr(eq + 1);
    }
    return out;
}

std::string filePath() {
    const char* env = getenv(kFileVariable);
    return env ? env : "";
}

// Serials are never 0: a waiter that does not know one passes 0.
void bump(uint32_t& serial) {
    if (++serial == 0) serial = 1;
}

// Brings the cache up to date with the file; `force` when it is known to have
// changed. Caller holds the store lock.
void refresh(Store& s, bool force = false) {
    std::string path = filePath();
    FileIdentity id = identify(path);
    if (!force && s.loaded && path == s.path && id == s.seen) return;
    s.path = path;
    s.seen = id;
    s.loaded = true;
    std::map<std::string, std::string> values = id.exists ? parse(path) : std::map<std::string, std::string>();
    if (values == s.values) return;
    bump(s.globalSerial);
    for (auto& entry : s.infos) {
        prop_info& info = *entry.second;
        const auto it = values.find(info.name);
        const std::string value = it == values.end() ? "" : it->second;
        if (value == info.value) continue;
        info.value = value;
        bump(info.serial);
    }
    s.values = std::move(values);
}

// The property file's directory, watched for changes of that one file.
class FileWatch {
public:
    bool watching(const std::string& path) const { return fd_.ok() && path == path_; }

    void start(const std::string& path) {
        path_ = path;
        const size_t slash = path.rfind('/');
        name_ = path.substr(slash == std::string::npos ? 0 : slash + 1);
        const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
        fd_.reset(path.empty() ? -1 : inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
        if (fd_.ok() &&
            inotify_add_watch(fd_.get(), dir.c_str(), IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE) < 0) {
            __android_log_print(ANDROID_LOG_ERROR, nullptr,
                                "host properties: cannot watch %s (%s): property waits only time out",
                                dir.c_str(), strerror(errno));
            fd_.reset();
        }
    }

    // True when the file may have changed, false when `deadlineMs` (on the
    // monotonic clock; -1: none) came first.
    bool waitForChange(int64_t deadlineMs) {
        for (;;) {
            const int64_t left = deadlineMs < 0 ? -1 : std::max<int64_t>(deadlineMs - nowMs(), 0);
            pollfd p{fd_.get(), POLLIN, 0};
            const int ready = poll(&p, fd_.ok() ? 1 : 0, static_cast<int>(std::min<int64_t>(left, INT_MAX)));
            if (ready < 0 && errno == EINTR) continue;
            if (ready <= 0) return false;
            alignas(inotify_event) char buf[4096];
            const ssize_t n = read(fd_.get(), buf, sizeof(buf));
            bool changed = false;
            for (ssize_t at = 0; n > 0 && at < n;) {
                const auto* e = reinterpret_cast<const inotify_event*>(buf + at);
                // The watch is gone, or events were lost: read the file again.
                if (e->mask & (IN_IGNORED | IN_Q_OVERFLOW)) {
                    changed = true;
                    if (e->mask & IN_IGNORED) fd_.reset();
                } else if (e->len > 0 && name_ == e->name) {
                    changed = true;
                }
                at += static_cast<ssize_t>(sizeof(inotify_event) + e->len);
            }
            if (changed) return true;
        }
    }

    static int64_t nowMs() {
        timespec t{};
        clock_gettime(CLOCK_MONOTONIC, &t);
        return static_cast<int64_t>(t.tv_sec) * 1000 + t.tv_nsec / 1000000;
    }

private:
    android::base::unique_fd fd_;
    std::string path_;
    std::string name_;
};

int copyOut(char* value, const char* text) {
    size_t n = strnlen(text, PROPERTY_VALUE_MAX - 1);
    memcpy(value, text, n);
    value[n] = '\0';
    return static_cast<int>(n);
}

}  // namespace

extern "C" int property_get(const char* key, char* value, const char* default_value) {
    if (value == nullptr) return -1;
    if (key != nullptr) {
        Store& s = store();
        std::lock_guard<std::mutex> g(s.lock);
        refresh(s);
        auto it = s.values.find(key);
        if (it != s.values.end() && !it->second.empty()) return copyOut(value, it->second.c_str());
    }
    if (default_value != nullptr) return copyOut(value, default_value);
    value[0] = '\0';
    return 0;
}

extern "C" int property_set(const char* key, const char* value) {
    if (key == nullptr || *key == '\0' || strchr(key, '=') || strchr(key, '\n')) return -1;
    if (value == nullptr) value = "";
    if (strlen(value) >= PROPERTY_VALUE_MAX || strchr(value, '\n')) return -1;
    const char* env = getenv(kFileVariable);
    if (env == nullptr || *env == '\0') return -1;
    std::string path = env;

    Store& s = store();
    std::lock_guard<std::mutex> g(s.lock);
    // Rewrite line by line so comments and other keys survive.
    std::ifstream in(path);
    std::ostringstream out;
    std::string line;
    bool replaced = false;
    while (std::getline(in, line)) {
        size_t eq = line.find('=');
        std::string t = trim(line);
        if (!t.empty() && t[0] != '#' && eq != std::string::npos && trim(line.substr(0, eq)) == key) {
            if (!replaced) out << key << '=' << value << '\n';
            replaced = true;
            continue;
        }
        out << line << '\n';
    }
    if (!replaced) out << key << '=' << value << '\n';
    in.close();

    std::string tmp = path + ".tmp." + std::to_string(getpid());
    FILE* f = fopen(tmp.c_str(), "we");
    if (f == nullptr) return -1;
    const std::string data = out.str();
    bool ok = fwrite(data.data(), 1, data.size(), f) == data.size();
    ok = (fflush(f) == 0) && ok;
    ok = (fclose(f) == 0) && ok;
    if (!ok || rename(tmp.c_str(), path.c_str()) != 0) {
        unlink(tmp.c_str());
        return -1;
    }
    s.loaded = false;  // force a re-read even if stat looks the same
    return 0;
}

extern "C" int8_t property_get_bool(const char* key, int8_t default_value) {
    char buf[PROPERTY_VALUE_MAX];
    if (property_get(key, buf, "") == 0) return default_value;
    const std::string v = buf;
    if (v == "1" || v == "true" || v == "y" || v == "yes" || v == "on") return 1;
    if (v == "0" || v == "false" || v == "n" || v == "no" || v == "off") return 0;
    return default_value;
}

extern "C" int64_t property_get_int64(const char* key, int64_t default_value) {
    char buf[PROPERTY_VALUE_MAX];
    if (property_get(key, buf, "") == 0) return default_value;
    char* end = nullptr;
    errno = 0;
    long long v = strtoll(buf, &end, 0);
    if (errno != 0 || end == buf || *end != '\0') return default_value;
    return v;
}

extern "C" int32_t property_get_int32(const char* key, int32_t default_value) {
    int64_t v = property_get_int64(key, default_value);
    if (v < INT32_MIN || v > INT32_MAX) return default_value;
    return static_cast<int32_t>(v);
}

extern "C" const prop_info* __system_property_find(const char* name) {
    if (name == nullptr) return nullptr;
    Store& s = store();
    std::lock_guard<std::mutex> g(s.lock);
    refresh(s);
    auto known = s.infos.find(name);
    if (known != s.infos.end()) return known->second.get();
    const auto line = s.values.find(name);
    if (line == s.values.end()) return nullptr;
    auto info = std::make_unique<prop_info>();
    info->name = name;
    info->value = line->second;
    return s.infos.emplace(name, std::move(info)).first->second.get();
}

extern "C" void __system_property_read_callback(const prop_info* pi,
                                                void (*callback)(void*, const char*, const char*, uint32_t),
                                                void* cookie) {
    std::string name, value;
    uint32_t serial;
    {
        Store& s = store();
        std::lock_guard<std::mutex> g(s.lock);
        refresh(s);
        name = pi->name;
        value = pi->value;
        serial = pi->serial;
    }
    callback(cookie, name.c_str(), value.c_str(), serial);
}

extern "C" bool __system_property_wait(const prop_info* pi, uint32_t old_serial, uint32_t* new_serial_ptr,
                                       const struct timespec* relative_timeout) {
    const int64_t deadline =
            relative_timeout == nullptr
                    ? -1
                    : FileWatch::nowMs() + relative_timeout->tv_sec * 1000 + relative_timeout->tv_nsec / 1000000;
    FileWatch watch;
    bool changed = false;
    for (;;) {
        // Watching starts before the read, so a change in between still wakes the wait.
        const std::string path = filePath();
        if (!watch.watching(path)) watch.start(path);
        uint32_t serial;
        {
            Store& s = store();
            std::lock_guard<std::mutex> g(s.lock);
            refresh(s, changed);
            serial = pi != nullptr ? pi->serial : s.globalSerial;
        }
        if (serial != old_serial) {
            *new_serial_ptr = serial;
            return true;
        }
        changed = watch.waitForChange(deadline);
        if (!changed) return false;
    }
}

// Times killUidSockets against `ss -K` destroying the same sockets: a target
// UID's TCP and UDP sockets among 10,000 of another UID, in a private network
// namespace. Prints a table.
#include <arpa/inet.h>
#include <errno.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <spawn.h>
#include <sys/fsuid.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <vector>

#include <android/log.h>

#include "netctl/SockDiag.h"

using namespace probemond;

extern char** environ;

namespace {

constexpr uid_t kTarget = 10123;
constexpr uid_t kOther = 10124;
constexpr int kOthers = 10000;
constexpr int kRuns = 3;
// ss selects by address what killUidSockets selects by UID.
constexpr const char* kTargetAddr = "127.0.0.2";
constexpr const char* kOtherAddr = "127.0.0.3";

struct Set {
    int listener = -1;
    std::vector<int> target, others, accepted;
    Set() = default;
    Set(const Set&) = delete;
    Set& operator=(const Set&) = delete;
    ~Set() {
        linger hard{1, 0};  // reset on close: no TIME_WAIT piling up between runs
        for (auto* v : {&target, &others, &accepted})
            for (int fd : *v) {
                setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
                close(fd);
            }
        if (listener >= 0) close(listener);
    }
};

sockaddr_in addr(const char* ip, uint16_t port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    inet_pton(AF_INET, ip, &a.sin_addr);
    return a;
}

bool openAs(uid_t uid, const char* src, int type, const sockaddr_in& to, Set& set, std::vector<int>& into) {
    setfsuid(uid);
    int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    setfsuid(0);
    if (fd < 0) return false;
    into.push_back(fd);
    sockaddr_in from = addr(src, 0);
    if (bind(fd, reinterpret_cast<sockaddr*>(&from), sizeof(from)) != 0) return false;
    if (connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof(to)) != 0) return false;
    if (type == SOCK_STREAM) {
        int a = accept4(set.listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (a < 0) return false;
        set.accepted.push_back(a);
    }
    return true;
}

// Half TCP connections, half connected UDP sockets, all of one UID.
bool build(Set& set, uid_t uid, const char* src, int count, std::vector<int>& into) {
    set.listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in l = addr("127.0.0.1", 0);
    socklen_t len = sizeof(l);
    if (bind(set.listener, reinterpret_cast<sockaddr*>(&l), sizeof(l)) != 0 || listen(set.listener, 128) != 0 ||
        getsockname(set.listener, reinterpret_cast<sockaddr*>(&l), &len) != 0)
        return false;
    const sockaddr_in udpTo = addr("127.0.0.1", 9);
    for (int i = 0; i < count; ++i) {
        const int type = i % 2 ? SOCK_DGRAM : SOCK_STREAM;
        if (!openAs(uid, src, type, type == SOCK_STREAM ? l : udpTo, set, into)) return false;
    }
    return true;
}

bool gone(int fd) {
    int err = 0;
    socklen_t len = sizeof(err);
    getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
    return err == ECONNABORTED;
}

int countGone(const std::vector<int>& fds) {
    return static_cast<int>(std::count_if(fds.begin(), fds.end(), gone));
}

// The other UID's sockets live in a child process: one process may hold only
// 20,000 descriptors here, and the two sets with their accepted ends need more.
struct Holder {
    pid_t pid = -1;
    int toChild = -1, fromChild = -1;
};

bool startHolder(Holder& h) {
    int down[2], up[2];
    if (pipe2(down, O_CLOEXEC) != 0 || pipe2(up, O_CLOEXEC) != 0) return false;
    h.pid = fork();
    if (h.pid == 0) {
        close(down[1]);
        close(up[0]);
        int ok;
        int gone = -1;
        {
            Set set;
            ok = build(set, kOther, kOtherAddr, kOthers, set.others) ? 1 : 0;
            if (write(up[1], &ok, sizeof(ok)) != sizeof(ok)) _exit(1);
            char go;
            if (read(down[0], &go, 1) != 1) _exit(1);
            gone = countGone(set.others);
        }
        if (write(up[1], &gone, sizeof(gone)) != sizeof(gone)) _exit(1);
        _exit(0);
    }
    close(down[0]);
    close(up[1]);
    h.toChild = down[1];
    h.fromChild = up[0];
    int ok = 0;
    return h.pid > 0 && read(h.fromChild, &ok, sizeof(ok)) == sizeof(ok) && ok == 1;
}

// How many of the holder's sockets were destroyed; ends the holder.
int finishHolder(Holder& h) {
    int gone = -1;
    char go = 'c';
    if (write(h.toChild, &go, 1) != 1 || read(h.fromChild, &gone, sizeof(gone)) != sizeof(gone)) gone = -1;
    close(h.toChild);
    close(h.fromChild);
    waitpid(h.pid, nullptr, 0);
    return gone;
}

double killWithSockDiag() {
    auto t0 = std::chrono::steady_clock::now();
    killUidSockets("10123");
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
}

double killWithSs() {
    const char* argv[] = {"ss", "-K", "-n", "-a", "-t", "-u", "src", kTargetAddr, nullptr};
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    auto t0 = std::chrono::steady_clock::now();
    pid_t pid;
    if (posix_spawnp(&pid, "ss", &fa, nullptr, const_cast<char**>(argv), environ) != 0) return -1;
    int status;
    waitpid(pid, &status, 0);
    double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    posix_spawn_file_actions_destroy(&fa);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? ms : -1;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

}  // namespace

int main() {
    if (geteuid() != 0) {
        printf("skipped: needs root (a private network namespace and SOCK_DESTROY)\n");
        return 77;
    }
    if (unshare(CLONE_NEWNET) != 0) {
        printf("skipped: cannot create a network namespace: %s\n", strerror(errno));
        return 77;
    }
    __android_log_set_minimum_priority(ANDROID_LOG_WARN);  // one summary line per pass is noise here
    int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq ifr{};
    strcpy(ifr.ifr_name, "lo");
    ifr.ifr_flags = IFF_UP;
    ioctl(s, SIOCSIFFLAGS, &ifr);
    close(s);
    // 10,000 sockets and the accepted ends of their TCP half, in each process.
    rlimit rl;
    getrlimit(RLIMIT_NOFILE, &rl);
    rl.rlim_cur = rl.rlim_max;
    setrlimit(RLIMIT_NOFILE, &rl);
    if (rl.rlim_cur != RLIM_INFINITY && rl.rlim_cur < 15100) {
        fprintf(stderr, "needs 15100 descriptors per process; the hard limit is %llu\n",
                static_cast<unsigned long long>(rl.rlim_max));
        return 1;
    }

    printf("%-14s %-14s %18s %12s %14s\n", "target UID", "other UID", "killUidSockets ms", "ss -K ms", "ss/killUid");
    for (int targets : {1000, 10000}) {
        std::vector<double> ours, theirs;
        for (int run = 0; run < kRuns; ++run) {
            for (int method = 0; method < 2; ++method) {
                Holder holder;
                Set set;
                if (!startHolder(holder) || !build(set, kTarget, kTargetAddr, targets, set.target)) {
                    fprintf(stderr, "cannot build the socket sets: %s\n", strerror(errno));
                    return 1;
                }
                double ms = method == 0 ? killWithSockDiag() : killWithSs();
                const int othersGone = finishHolder(holder);
                if (ms < 0) {
                    fprintf(stderr, "ss -K failed\n");
                    return 1;
                }
                // Both must destroy exactly the target set.
                if (countGone(set.target) != targets || othersGone != 0) {
                    fprintf(stderr, "%s destroyed %d of %d target sockets and %d others\n",
                            method == 0 ? "killUidSockets" : "ss -K", countGone(set.target), targets, othersGone);
                    return 1;
                }
                (method == 0 ? ours : theirs).push_back(ms);
            }
        }
        const double a = median(ours), b = median(theirs);
        printf("%-14d %-14d %18.1f %12.1f %14.2f\n", targets, kOthers, a, b, b / a);
    }
    printf("(median of %d runs; half TCP connections, half connected UDP; ss -K selects the same sockets by source "
           "address, and its time includes starting the process)\n",
           kRuns);
    return 0;
}

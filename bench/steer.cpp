// One row of the steering benchmark, run in the lab's device namespace next
// to a daemon that steers UIDs BASE..BASE+N-1 and has wlan0 selected:
//   probemond-bench-steer PROBEMONCTL BASE N PER CHANGES
// Holds PER sockets (half TCP, half UDP) for each UID, then CHANGES times:
// times `probemonctl select` (alternating rmnet_data0 / wlan0), re-opens the
// destroyed sockets, times the change's own wrapper commands run again
// through the same runner (they leave the chains as they are), times
// killUidSockets over the same UIDs in this process, and times a call that
// changes nothing (`probemonctl rtt wlan0`).
// Prints: UIDS SOCKETS SELECT FIREWALL KILL CALL (medians, ms) DESTROYED-OK
#include <android-base/unique_fd.h>
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/fsuid.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <android/log.h>

#include "netctl/SockDiag.h"
#include "netctl/WrapperCommand.h"

extern char** environ;

namespace {

using android::base::unique_fd;

struct Slot {
    uid_t uid = 0;
    bool tcp = false;
    unique_fd fd;
    unique_fd accepted;
};

unique_fd gListener;
sockaddr_in gListenAddr{};

void closeSlot(Slot& s) {
    s.fd.reset();
    s.accepted.reset();
}

bool openSlot(Slot& s) {
    setfsuid(s.uid);  // the socket belongs to the file-system UID that created it
    s.fd.reset(socket(AF_INET, (s.tcp ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC, 0));
    setfsuid(0);
    if (s.fd < 0) return false;
    if (!s.tcp) {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(9);
        inet_pton(AF_INET, "8.8.8.8", &to.sin_addr);
        return connect(s.fd, reinterpret_cast<sockaddr*>(&to), sizeof to) == 0;
    }
    if (connect(s.fd, reinterpret_cast<sockaddr*>(&gListenAddr), sizeof gListenAddr) != 0) return false;
    s.accepted.reset(accept4(gListener, nullptr, nullptr, SOCK_CLOEXEC));
    return s.accepted >= 0;
}

bool destroyed(const Slot& s) {
    int err = 0;
    socklen_t len = sizeof err;
    getsockopt(s.fd, SOL_SOCKET, SO_ERROR, &err, &len);
    return err == ECONNABORTED;
}

// Re-opens destroyed sockets; returns how many there were.
int reopen(std::vector<Slot>& slots, bool* ok) {
    int n = 0;
    for (Slot& s : slots) {
        if (s.fd >= 0 && !destroyed(s)) continue;
        if (s.fd >= 0) ++n;
        closeSlot(s);
        if (!openSlot(s)) *ok = false;
    }
    return n;
}

double msSince(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
}

// Runs the client and returns its wall time in ms, or -1 when it failed.
double timedCall(const char* ctl, const char* cmd, const char* arg) {
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
    char* argv[] = {const_cast<char*>(ctl), const_cast<char*>(cmd), const_cast<char*>(arg), nullptr};
    const auto t0 = std::chrono::steady_clock::now();
    pid_t pid = -1;
    int rc = posix_spawn(&pid, ctl, &fa, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&fa);
    if (rc != 0) return -1;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    const double ms = msSince(t0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? ms : -1;
}

#define IPTABLES "/system/bin/iptables-wrapper-1.0 -w "

// The commands a selection of IFACE runs, in order.
std::vector<std::string> selectionCommands(const std::string& iface) {
    if (iface.compare(0, 10, "rmnet_data") == 0)
        return {IPTABLES "-t mangle -F kest_probemon_iface_wlan", IPTABLES "-t mangle -F kest_probemon_iface_rmnet",
                IPTABLES "-t mangle -I kest_probemon_iface_rmnet -j kest_probemon_" + iface};
    return {IPTABLES "-t mangle -F kest_probemon_iface_rmnet", IPTABLES "-t mangle -F kest_probemon_iface_wlan"};
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n == 0 ? 0 : n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        fprintf(stderr, "usage: %s PROBEMONCTL BASE N PER CHANGES\n", argv[0]);
        return 2;
    }
    const char* ctl = argv[1];
    const uid_t base = static_cast<uid_t>(atol(argv[2]));
    const int uids = atoi(argv[3]), per = atoi(argv[4]), changes = atoi(argv[5]);
    // The kills log one summary line per UID; the table is the output here.
    __android_log_set_minimum_priority(ANDROID_LOG_WARN);

    gListener.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    gListenAddr.sin_family = AF_INET;
    inet_pton(AF_INET, "127.0.0.1", &gListenAddr.sin_addr);
    socklen_t len = sizeof gListenAddr;
    if (gListener < 0 || bind(gListener, reinterpret_cast<sockaddr*>(&gListenAddr), len) != 0 ||
        listen(gListener, 512) != 0 || getsockname(gListener, reinterpret_cast<sockaddr*>(&gListenAddr), &len) != 0) {
        perror("listener");
        return 1;
    }
    std::vector<Slot> slots;
    for (int u = 0; u < uids; ++u)
        for (int k = 0; k < per; ++k) {
            slots.emplace_back();
            slots.back().uid = base + static_cast<uid_t>(u);
            slots.back().tcp = k % 2 == 0;
        }
    bool ok = true;
    reopen(slots, &ok);
    if (!ok) {
        fprintf(stderr, "cannot open the sockets\n");
        return 1;
    }
    std::vector<std::string> uidText;
    for (int u = 0; u < uids; ++u) uidText.push_back(std::to_string(base + static_cast<uid_t>(u)));

    std::vector<double> select, kill, call, firewall;
    bool commandsOk = true;
    bool allDestroyed = true;
    for (int c = 0; c < changes; ++c) {
        const char* iface = c % 2 == 0 ? "rmnet_data0" : "wlan0";
        const double s = timedCall(ctl, "select", iface);
        if (s < 0) {
            fprintf(stderr, "probemonctl select %s failed\n", iface);
            return 1;
        }
        if (reopen(slots, &ok) != static_cast<int>(slots.size())) allDestroyed = false;
        const auto t0 = std::chrono::steady_clock::now();
        for (const std::string& u : uidText) killUidSockets(u.c_str());
        const double k = msSince(t0);
        if (reopen(slots, &ok) != static_cast<int>(slots.size())) allDestroyed = false;
        const auto f0 = std::chrono::steady_clock::now();
        static probemond::PopenCommandExecutor runner;
        for (const std::string& cmd : selectionCommands(iface))
            commandsOk = runWrapperCommand(runner, cmd.c_str(), "cannot run %s") && commandsOk;
        const double f = msSince(f0);
        const double n = timedCall(ctl, "rtt", "wlan0");
        if (!ok || n < 0 || !commandsOk) {
            fprintf(stderr, "cannot re-open sockets, run the commands or reach the daemon\n");
            return 1;
        }
        select.push_back(s);
        kill.push_back(k);
        call.push_back(n);
        firewall.push_back(f);
    }
    printf("%5d %8zu %10.1f %12.1f %10.1f %10.1f %s\n", uids, slots.size(), median(select), median(firewall),
           median(kill), median(call), allDestroyed ? "yes" : "NO");
    return allDestroyed ? 0 : 1;
}

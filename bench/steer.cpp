// One row of the steering benchmark, run in the lab's device namespace next
// to a daemon that steers UIDs BASE..BASE+N-1 and has wlan0 selected:
//   probemond-bench-steer PROBEMONCTL BASE N PER CHANGES
// Holds PER sockets (half TCP, half UDP) for each UID, then CHANGES times:
// times `probemonctl select` (alternating rmnet_data0 / wlan0), re-opens the
// destroyed sockets, has a rule manager of its own (on a runner that times
// each line) make the same change again (it leaves the chains as they are)
// and kill the same UIDs' sockets, adds and deletes a policy rule of its own,
// and times a call that changes nothing (`probemonctl rtt wlan0`).
// Prints: UIDS SOCKETS SELECT FIREWALL KILL IPRULE CALL (medians, ms) DESTROYED-OK
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

#include "netctl/IpRuleManager.h"
#include "netctl/IptablesRuleManager.h"
#include "netctl/WrapperCommand.h"

using namespace probemond;

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

// Runs each line for real and keeps how long it took. Until armed it runs
// nothing: the daemon next door built the chain tree and steers the UIDs, and
// the start-up and add-UID lines of this process's manager would only flush
// and duplicate its rules. The tools' complaints (a delete that finds no
// rule) would land in the table: their stderr goes nowhere.
class TimingExecutor : public probemond::CommandExecutor {
public:
    bool execute(const char* command, const std::function<void(const char*)>& onOutput) override {
        if (!armed) return true;
        const std::string quiet = std::string(command) + " 2>/dev/null";
        const auto t0 = std::chrono::steady_clock::now();
        const bool started = real_.execute(quiet.c_str(), onOutput);
        lineMs_.push_back(msSince(t0));
        allStarted = allStarted && started;
        return started;
    }
    int executeForStatus(const char* command, const std::function<void(const char*)>& onOutput) override {
        return armed ? real_.executeForStatus(command, onOutput) : 0;
    }
    // The time of the lines run since the last call, or -1 when none ran.
    double takeMs() {
        double sum = lineMs_.empty() ? -1 : 0;
        for (double ms : lineMs_) sum += ms;
        lineMs_.clear();
        return sum;
    }
    bool armed = false;
    bool allStarted = true;

private:
    probemond::PopenCommandExecutor real_;
    std::vector<double> lineMs_;
};

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
    TimingExecutor runner;
    probemond::KernelSocketKiller killer;
    IptablesRuleManager iptables(runner, killer);
    IpRuleManager ipRules(runner);
    for (int u = 0; u < uids; ++u) iptables.addUid(std::to_string(base + static_cast<uid_t>(u)).c_str());
    runner.armed = true;

    std::vector<double> select, kill, call, firewall, ipRule;
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
        iptables.killUidSocket();
        const double k = msSince(t0);
        if (reopen(slots, &ok) != static_cast<int>(slots.size())) allDestroyed = false;
        iptables.selectIface(iface, c % 2 == 0 ? InterfaceKind::kCellular : InterfaceKind::kWifi, false);
        const double f = runner.takeMs();
        // rmnet_data7's rule, which the daemon here never adds: a line the wrappers run.
        ipRules.addIpRule("rmnet_data7", "0xd7", "30400");
        ipRules.delIpRule("30400");
        const double r = runner.takeMs();
        const double n = timedCall(ctl, "rtt", "wlan0");
        if (!ok || n < 0 || f < 0 || r < 0 || !runner.allStarted) {
            fprintf(stderr, "cannot re-open sockets, run the commands or reach the daemon\n");
            return 1;
        }
        select.push_back(s);
        kill.push_back(k);
        call.push_back(n);
        firewall.push_back(f);
        ipRule.push_back(r);
    }
    printf("%5d %8zu %10.1f %12.1f %10.1f %10.1f %10.1f %s\n", uids, slots.size(), median(select), median(firewall),
           median(kill), median(ipRule), median(call), allDestroyed ? "yes" : "NO");
    return allDestroyed ? 0 : 1;
}

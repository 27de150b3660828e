#include "daemon/KestNetworkProbeMondDump.h"

#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>

namespace probemond {
namespace {

// A dump reader that goes away must not kill the daemon with SIGPIPE: the
// signal is blocked on this thread while writing and a pending one is eaten.
class ScopedSigpipeBlock {
public:
    ScopedSigpipeBlock() {
        sigset_t pipeOnly;
        sigemptyset(&pipeOnly);
        sigaddset(&pipeOnly, SIGPIPE);
        blocked_ = pthread_sigmask(SIG_BLOCK, &pipeOnly, &previous_) == 0;
    }
    ~ScopedSigpipeBlock() {
        if (!blocked_) return;
        sigset_t pipeOnly;
        sigemptyset(&pipeOnly);
        sigaddset(&pipeOnly, SIGPIPE);
        const struct timespec noWait = {0, 0};
        while (sigtimedwait(&pipeOnly, nullptr, &noWait) == SIGPIPE) {
        }
        pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
    }
    ScopedSigpipeBlock(const ScopedSigpipeBlock&) = delete;
    ScopedSigpipeBlock& operator=(const ScopedSigpipeBlock&) = delete;

private:
    sigset_t previous_;
    bool blocked_ = false;
};

// Chunks of PIPE_BUF never block once poll reports the pipe writable.
constexpr int kDumpWriteTimeoutMs = 2000;

int writeAll(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        pollfd p{fd, POLLOUT, 0};
        int ready = poll(&p, 1, kDumpWriteTimeoutMs);
        if (ready < 0 && errno == EINTR) continue;
        if (ready == 0) return -ETIMEDOUT;
        if (ready < 0) return -errno;
        if (p.revents & (POLLERR | POLLNVAL)) return -EPIPE;
        size_t chunk = std::min<size_t>(text.size() - done, PIPE_BUF);
        ssize_t n = write(fd, text.data() + done, chunk);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return -errno;
        done += static_cast<size_t>(n);
    }
    return 0;
}

const char* orNone(const std::string& s) { return s.empty() ? "(none)" : s.c_str(); }

std::string msAgo(int64_t ms) { return ms < 0 ? "never" : std::to_string(ms); }

// Local wall-clock time, as the log's timestamps show it.
std::string wallClock(int64_t unixMs) {
    const time_t seconds = static_cast<time_t>(unixMs / 1000);
    tm local{};
    localtime_r(&seconds, &local);
    char text[32];
    const size_t n = strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &local);
    snprintf(text + n, sizeof(text) - n, ".%03d", static_cast<int>(unixMs % 1000));
    return text;
}

void formatSwitches(std::ostringstream& out, const char* title,
                    const SwitchHistory& h) {
    out << title << ": count=" << h.count << " lastMsAgo=" << msAgo(h.msSinceLast) << "\n";
    for (const auto& r : h.recent) {
        out << "  " << wallClock(r.wallMs) << " " << orNone(r.from) << " (" << r.fromMrtt
            << "ms) -> " << r.to << " (" << r.toMrtt << "ms)\n";
    }
}

}  // namespace

std::string formatState(const InterfaceManagerSnapshot& state, const std::vector<std::string>& uids) {
    std::ostringstream out;
    out << "interfaces (" << state.interfaces.size() << "):\n";
    for (const InterfaceSnapshot& i : state.interfaces) {
        out << "  " << i.name << " fwmark=" << i.fwmark << " prio=" << i.prio
            << " server=" << orNone(i.pingServer) << " running=" << i.isPingThreadRunning
            << " suspended=" << i.isPingThreadSuspended << " alive=" << i.isPingThreadAlive
            << " auto=" << i.isControlByAutoSelect << " wifi=" << i.isWifi << " rtt=" << i.rtt
            << " mrtt=" << i.mrtt << " switch=" << i.switchCount << " history=[";
        for (size_t k = 0; k < i.rttHistory.size(); ++k) out << (k ? " " : "") << i.rttHistory[k];
        out << "]\n";
    }
    out << "userSelectIface: " << orNone(state.userSelectIface) << "\n";
    out << "autoSelectIface: " << orNone(state.autoSelectIface) << "\n";
    out << "autoSelect: enabled=" << state.isAutoSelectEnabled << " forcePing=" << state.isAutoSelectForcePing
        << " rttDebug=" << state.rttDebug << "\n";
    out << "steered uids (" << uids.size() << "):";
    for (const std::string& uid : uids) out << " " << uid;
    out << "\n";
    out << "probes (" << state.interfaces.size() << "):\n";
    for (const InterfaceSnapshot& i : state.interfaces) {
        out << "  " << i.name << " made=" << i.probes << " failed=" << i.probesFailed
            << " historyFailed=" << i.historyFailurePercent << "% lastProbeMsAgo="
            << msAgo(i.msSinceLastProbe) << " rotations=" << i.serverRotations << "\n";
    }
    formatSwitches(out, "autoSelect switches", state.autoSwitches);
    formatSwitches(out, "manual selections", state.manualSelections);
    return out.str();
}

int writeState(int fd, const InterfaceManagerSnapshot& state, const std::vector<std::string>& uids) {
    const std::string text = formatState(state, uids);
    ScopedSigpipeBlock noSigpipe;
    return writeAll(fd, text);
}

}  // namespace probemond

#include "daemon/KestNetworkProbeMondDump.h"

#include <errno.h>
#include <fcntl.h>
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

// The client's descriptor may block a write that poll said would go (a
// terminal with a little room takes a chunk only as it drains), so it is
// written non-blocking while the dump lasts.
class ScopedNonBlocking {
public:
    explicit ScopedNonBlocking(int fd) : fd_(fd), flags_(fcntl(fd, F_GETFL)) {
        if (flags_ >= 0 && (flags_ & O_NONBLOCK) == 0) fcntl(fd_, F_SETFL, flags_ | O_NONBLOCK);
    }
    ~ScopedNonBlocking() {
        if (flags_ >= 0 && (flags_ & O_NONBLOCK) == 0) fcntl(fd_, F_SETFL, flags_);
    }
    ScopedNonBlocking(const ScopedNonBlocking&) = delete;
    ScopedNonBlocking& operator=(const ScopedNonBlocking&) = delete;

private:
    const int fd_;
    const int flags_;
};

// A reader that stops draining must not hold a binder thread for ever: the
// dump ends after this long without progress.
constexpr int kDumpWriteTimeoutMs = 2000;

int64_t nowMs() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<int64_t>(t.tv_sec) * 1000 + t.tv_nsec / 1000000;
}

int writeAll(int fd, const std::string& text) {
    ScopedNonBlocking nonBlocking(fd);
    size_t done = 0;
    int64_t deadline = nowMs() + kDumpWriteTimeoutMs;
    while (done < text.size()) {
        const int64_t left = deadline - nowMs();
        if (left <= 0) return -ETIMEDOUT;
        pollfd p{fd, POLLOUT, 0};
        int ready = poll(&p, 1, static_cast<int>(left));
        if (ready < 0 && errno == EINTR) continue;
        if (ready == 0) return -ETIMEDOUT;
        if (ready < 0) return -errno;
        if (p.revents & (POLLERR | POLLNVAL)) return -EPIPE;
        size_t chunk = std::min<size_t>(text.size() - done, PIPE_BUF);
        ssize_t n = write(fd, text.data() + done, chunk);
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (n <= 0) return -errno;
        done += static_cast<size_t>(n);
        deadline = nowMs() + kDumpWriteTimeoutMs;
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

std::string formatState(const InterfaceManagerSnapshot& state, const std::vector<std::string>& uids,
                        const RestorationHistory& restorations) {
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
    out << "restored after platform restarts: count=" << restorations.count
        << " lastMsAgo=" << msAgo(restorations.msSinceLast) << "\n";
    if (restorations.count != 0) {
        out << "  " << wallClock(restorations.lastWallMs) << " " << restorations.lastRestored << "\n";
    }
    if (!restorations.refused.empty()) {
        out << "  refused, " << (restorations.retrying ? "trying again" : "given up") << ": the ip rules of "
            << restorations.refused << "\n";
    }
    return out.str();
}

int writeState(int fd, const InterfaceManagerSnapshot& state, const std::vector<std::string>& uids,
               const RestorationHistory& restorations) {
    const std::string text = formatState(state, uids, restorations);
    ScopedSigpipeBlock noSigpipe;
    return writeAll(fd, text);
}

}  // namespace probemond

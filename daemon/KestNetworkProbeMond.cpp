#include "daemon/KestNetworkProbeMond.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include "common/Log.h"
#include "daemon/KestNetworkProbeMondDump.h"
#include "interfaces/InterfaceManager.h"
#include "netctl/IptablesRuleManager.h"

namespace android {
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

status_t writeAll(int fd, const std::string& text) {
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
    return OK;
}

}  // namespace

KestNetworkProbeMond::KestNetworkProbeMond(probemond::InterfaceManager& interfaces,
                                           probemond::IptablesRuleManager& iptables)
    : interfaces_(interfaces), iptables_(iptables) {}

void KestNetworkProbeMond::useBinderIPC() {
    ProcessState::initWithDriver(kDriver);
    sp<IServiceManager> sm = defaultServiceManager();
    String16 name(kServiceName);
    sp<KestNetworkProbeMond> service = this;
    // Not reachable from isolated processes; no retry: a daemon that failed
    // to register keeps running unreachable.
    sm->addService(name, service, false, IServiceManager::DUMP_FLAG_PRIORITY_DEFAULT);
    sm.clear();
    ProcessState::self()->startThreadPool();
}

int32_t KestNetworkProbeMond::startPingInternal(std::string iface) {
    LOGD("%s, iface=%s", "startPingInternal", iface.c_str());
    return interfaces_.startPingThread(iface.c_str());
}

int32_t KestNetworkProbeMond::stopPingInternal(std::string iface) {
    LOGD("%s, iface=%s", "stopPingInternal", iface.c_str());
    return interfaces_.stopPingThread(iface.c_str());
}

int32_t KestNetworkProbeMond::stopAllPingInternal() {
    LOGD("%s", "stopAllPingInternal");
    return interfaces_.stopAllPingThreads();
}

int32_t KestNetworkProbeMond::suspendAllPingInternal() {
    LOGD("%s", "suspendAllPingInternal");
    return interfaces_.suspendAllPingThreads();
}

int32_t KestNetworkProbeMond::resumeAllPingInternal() {
    LOGD("%s", "resumeAllPingInternal");
    return interfaces_.resumeAllPingThreads();
}

int32_t KestNetworkProbeMond::getRttInternal(std::string iface) {
    LOGD("%s, iface=%s", "getRttInternal", iface.c_str());
    return interfaces_.getInterfaceRtt(iface.c_str());
}

int32_t KestNetworkProbeMond::addUidInternal(std::string uid) {
    LOGD("%s, uid=%s", "addUidInternal", uid.c_str());
    return iptables_.addUid(uid.c_str());
}

int32_t KestNetworkProbeMond::delUidInternal(std::string uid) {
    // The uid stays out of this line; the iptables manager logs it.
    LOGD("%s", "delUidInternal");
    return iptables_.delUid(uid.c_str());
}

int32_t KestNetworkProbeMond::addIpRuleInternal(std::string iface) {
    LOGD("%s, iface=%s", "addIpRuleInternal", iface.c_str());
    return interfaces_.addInterfaceIpRule(iface.c_str());
}

int32_t KestNetworkProbeMond::delIpRuleInternal(std::string iface) {
    LOGD("%s, iface=%s", "delIpRuleInternal", iface.c_str());
    return interfaces_.delInterfaceIpRule(iface.c_str());
}

int32_t KestNetworkProbeMond::selectInterfaceInternal(std::string iface) {
    LOGD("%s, iface=%s", "selectInterfaceInternal", iface.c_str());
    return interfaces_.selectInterface(iface.c_str());
}

int32_t KestNetworkProbeMond::enableAutoSelectInternal(std::string ifaces) {
    LOGD("%s, ifaces=%s", "enableAutoSelectInternal", ifaces.c_str());
    interfaces_.enableAutoSelect(ifaces.c_str());
    return 0;
}

int32_t KestNetworkProbeMond::disableAutoSelectInternal() {
    LOGD("%s", "disableAutoSelectInternal");
    interfaces_.disableAutoSelect();
    return 0;
}

status_t KestNetworkProbeMond::dump(int fd, const Vector<String16>& /*args*/) {
    ScopedSigpipeBlock noSigpipe;
    return writeAll(fd, probemond::formatState(interfaces_.snapshot(), iptables_.uidListSnapshot()));
}

}  // namespace android

#include "daemon/KestNetworkProbeMond.h"

#include <errno.h>
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

// A reader that stops draining must not hold a binder thread for ever: each
// chunk waits at most this long for room. Chunks of PIPE_BUF never block once
// poll reports the pipe writable.
constexpr int kDumpWriteTimeoutMs = 2000;

status_t writeAll(int fd, const std::string& text) {
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

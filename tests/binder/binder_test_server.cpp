// Helper process for the binder tests.
//   binder_test_server service NAME POOL   serves the service interface as NAME on POOL threads
//   binder_test_server dying-client   serves NetworkProbeMon_Binder and dies inside the call
#include <dirent.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>

#include "daemon/IKestNetworkProbeMon.h"
#include "daemon/IKestNetworkProbeMonCallback.h"

using namespace android;

namespace {

int openFdCount() {
    int n = 0;
    DIR* d = opendir("/proc/self/fd");
    if (d == nullptr) return -1;
    while (dirent* e = readdir(d))
        if (e->d_name[0] != '.') n++;
    closedir(d);
    return n - 1;  // the directory's own descriptor
}

// getRtt answers 3n+1 for "n", and its open descriptor count for "fds".
class LoadService : public BnKestNetworkProbeMon {
public:
    int32_t startPingInternal(std::string) override { return 0; }
    int32_t stopPingInternal(std::string) override { return 0; }
    int32_t stopAllPingInternal() override { return 0; }
    int32_t suspendAllPingInternal() override { return 0; }
    int32_t resumeAllPingInternal() override { return 0; }
    int32_t getRttInternal(std::string arg) override {
        if (arg == "fds") return openFdCount();
        char* end = nullptr;
        const long v = strtol(arg.c_str(), &end, 10);
        return end != arg.c_str() && *end == '\0' ? static_cast<int32_t>(3 * v + 1) : -1;
    }
    int32_t addUidInternal(std::string) override { return 0; }
    int32_t delUidInternal(std::string) override { return 0; }
    int32_t addIpRuleInternal(std::string) override { return 0; }
    int32_t delIpRuleInternal(std::string) override { return 0; }
    int32_t selectInterfaceInternal(std::string) override { return 0; }
    int32_t enableAutoSelectInternal(std::string) override { return 0; }
    int32_t disableAutoSelectInternal() override { return 0; }
};

class DyingClient : public BnKestNetworkProbeMonCallback {
public:
    int32_t onAutoSelect(std::string) override {
        kill(getpid(), SIGKILL);
        pause();
        return 0;
    }
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    ProcessState::initWithDriver("/dev/vndbinder");
    status_t status;
    if (strcmp(argv[1], "service") == 0 && argc == 4) {
        ProcessState::self()->setThreadPoolMaxThreadCount(static_cast<size_t>(atoi(argv[3])));
        status = defaultServiceManager()->addService(String16(argv[2]), new LoadService());
    } else if (strcmp(argv[1], "dying-client") == 0) {
        status = defaultServiceManager()->addService(String16("NetworkProbeMon_Binder"), new DyingClient());
    } else {
        return 2;
    }
    if (status != OK) {
        fprintf(stderr, "addService: %d\n", status);
        return 1;
    }
    ProcessState::self()->startThreadPool();
    IPCThreadState::self()->joinThreadPool();
}

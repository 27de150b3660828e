// Helper process for the binder tests.
//   binder_test_server service NAME POOL   serves NAME on POOL threads; rtt of "n" is 3n+1,
//                                          of "fds" the server's open descriptor count
#include <dirent.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>

#include "RecordingService.h"

using namespace android;

namespace {

class LoadService : public probemond::test::RecordingService {
    int32_t result(int, const std::string& arg) override {
        if (arg != "fds") return static_cast<int32_t>(3 * atol(arg.c_str()) + 1);
        int n = -1;  // the directory's own descriptor
        DIR* d = opendir("/proc/self/fd");
        while (dirent* e = readdir(d)) n += e->d_name[0] != '.';
        closedir(d);
        return n;
    }
};

}  // namespace

int main(int argc, char** argv) {
    ProcessState::initWithDriver("/dev/vndbinder");
    status_t status = BAD_VALUE;
    if (argc == 4 && strcmp(argv[1], "service") == 0) {
        ProcessState::self()->setThreadPoolMaxThreadCount(static_cast<size_t>(atoi(argv[3])));
        status = defaultServiceManager()->addService(String16(argv[2]), new LoadService());
    }
    if (status != OK) return 2;
    ProcessState::self()->startThreadPool();
    IPCThreadState::self()->joinThreadPool();
}

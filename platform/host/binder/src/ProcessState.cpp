#include <binder/IPCThreadState.h>
#include <binder/ProcessState.h>

#include <stdlib.h>

#include <mutex>

#include <log/log.h>

#include "Server.h"

namespace android {
namespace {

constexpr const char* kDefaultDriver = "/dev/binder";
constexpr const char* kDefaultDirectory = "/run/probemond-binder";
// The platform grows its pool on demand; a fixed pool serves the same purpose here.
constexpr size_t kDefaultPoolThreads = 4;
constexpr size_t kMaxPoolThreads = 16;

std::mutex gLock;
ProcessState* gProcess = nullptr;
size_t gPoolThreads = kDefaultPoolThreads;

std::string directoryFor(const char* driver) {
    const char* base = getenv("PROBEMOND_BINDER_DIR");
    std::string dir = base != nullptr && base[0] != '\0' ? base : kDefaultDirectory;
    std::string name = driver;
    const size_t slash = name.rfind('/');
    if (slash != std::string::npos) name = name.substr(slash + 1);
    return dir + "/" + name;
}

}  // namespace

sp<ProcessState> ProcessState::init(const char* driver) {
    std::lock_guard<std::mutex> g(gLock);
    if (gProcess == nullptr) {
        gProcess = new ProcessState(driver);
        // Process-wide for good, as on the platform: the pool threads use it until exit.
        gProcess->incStrong(&gProcess);
    } else if (driver != nullptr && gProcess->driverName() != driver) {
        __android_log_print(ANDROID_LOG_ERROR, nullptr,
                            "ProcessState was already initialized with %s, not %s",
                            gProcess->driverName().c_str(), driver);
    }
    return gProcess;
}

ProcessState::ProcessState(const char* driver) : mDriverName(driver), mDirectory(directoryFor(driver)) {}
ProcessState::~ProcessState() = default;

sp<ProcessState> ProcessState::self() {
    {
        std::lock_guard<std::mutex> g(gLock);
        if (gProcess != nullptr) return gProcess;
    }
    return init(kDefaultDriver);
}

sp<ProcessState> ProcessState::initWithDriver(const char* driver) { return init(driver); }

status_t ProcessState::setThreadPoolMaxThreadCount(size_t maxThreads) {
    std::lock_guard<std::mutex> g(gLock);
    gPoolThreads = maxThreads == 0 ? 1 : (maxThreads > kMaxPoolThreads ? kMaxPoolThreads : maxThreads);
    return OK;
}

void ProcessState::startThreadPool() {
    size_t threads;
    {
        std::lock_guard<std::mutex> g(gLock);
        threads = gPoolThreads;
    }
    binder_host::Server::instance().startThreads(threads);
}

IPCThreadState* IPCThreadState::self() {
    thread_local IPCThreadState state;
    return &state;
}

void IPCThreadState::joinThreadPool(bool) { binder_host::Server::instance().serve(); }

}  // namespace android

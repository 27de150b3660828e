// Host stand-in for libbinder's ProcessState: the driver becomes a directory
// ($PROBEMOND_BINDER_DIR/<driver basename>) and the pool serves its sockets.
#pragma once

#include <stddef.h>

#include <string>

#include <binder/IBinder.h>

namespace android {

class ProcessState : public virtual RefBase {
public:
    static sp<ProcessState> self();
    static sp<ProcessState> initWithDriver(const char* driver);

    void startThreadPool();
    status_t setThreadPoolMaxThreadCount(size_t maxThreads);

    const std::string& driverName() const { return mDriverName; }
    // Host only: the directory standing in for the driver.
    const std::string& hostDirectory() const { return mDirectory; }

private:
    static sp<ProcessState> init(const char* driver);
    explicit ProcessState(const char* driver);
    ~ProcessState() override;

    std::string mDriverName;
    std::string mDirectory;
};

}  // namespace android

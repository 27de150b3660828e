// Host stand-in for libbinder's BpBinder: a service in another process,
// reached through its socket in the driver's directory.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include <binder/IBinder.h>

namespace android {

class BpBinder : public IBinder {
public:
    // path: the service's socket; pid: the process that served it when looked up.
    BpBinder(std::string path, pid_t pid);

    const String16& getInterfaceDescriptor() const override;
    bool isBinderAlive() const override;
    status_t pingBinder() override;
    status_t dump(int fd, const Vector<String16>& args) override;
    status_t transact(uint32_t code, const Parcel& data, Parcel* reply,
                      uint32_t flags = 0) override;
    BpBinder* remoteBinder() override;

    pid_t servingPid() const { return mPid; }
    // Host only: hands over a connection made during the lookup.
    void adoptConnection(int fd);

protected:
    ~BpBinder() override;

private:
    int takeConnection();
    void returnConnection(int fd);

    const std::string mPath;
    const pid_t mPid;
    std::atomic<bool> mAlive{true};
    std::mutex mLock;
    std::vector<int> mIdle;  // open connections, reused so a busy client does not reconnect
    mutable std::mutex mDescriptorLock;
    mutable String16 mDescriptor;
    mutable bool mDescriptorFetched = false;
};

}  // namespace android

#include <binder/BpBinder.h>

#include <sys/socket.h>

#include <binder/Parcel.h>

#include "ServiceDirectory.h"
#include "UniqueFd.h"
#include "Wire.h"

namespace android {

using binder_host::ServiceDirectory;
using binder_host::UniqueFd;
using binder_host::Wire;

namespace {
constexpr size_t kMaxIdleConnections = 8;
}

BpBinder::BpBinder(std::string path, pid_t pid) : mPath(std::move(path)), mPid(pid) {}

BpBinder::~BpBinder() {
    for (int fd : mIdle) ::close(fd);
}

BpBinder* BpBinder::remoteBinder() { return this; }

bool BpBinder::isBinderAlive() const { return mAlive.load(); }

status_t BpBinder::pingBinder() {
    Parcel data;
    Parcel reply;
    return transact(PING_TRANSACTION, data, &reply);
}

status_t BpBinder::dump(int fd, const Vector<String16>& args) {
    Parcel data;
    Parcel reply;
    data.writeFileDescriptor(fd);
    data.writeInt32(static_cast<int32_t>(args.size()));
    for (size_t i = 0; i < args.size(); i++) data.writeString16(args[i]);
    return transact(DUMP_TRANSACTION, data, &reply);
}

const String16& BpBinder::getInterfaceDescriptor() const {
    std::lock_guard<std::mutex> g(mDescriptorLock);
    if (!mDescriptorFetched) {
        Parcel data;
        Parcel reply;
        if (const_cast<BpBinder*>(this)->transact(INTERFACE_TRANSACTION, data, &reply) == OK) {
            mDescriptor = reply.readString16();
            mDescriptorFetched = true;
        }
    }
    return mDescriptor;
}

int BpBinder::takeConnection() {
    {
        std::lock_guard<std::mutex> g(mLock);
        if (!mIdle.empty()) {
            const int fd = mIdle.back();
            mIdle.pop_back();
            return fd;
        }
    }
    UniqueFd conn;
    if (ServiceDirectory::connectPath(mPath, &conn) != 0) return -1;
    // The same name may since belong to another process: that is not this object.
    ucred cred{};
    socklen_t len = sizeof(cred);
    if (getsockopt(conn.get(), SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 || cred.pid != mPid) {
        return -1;
    }
    return conn.release();
}

void BpBinder::returnConnection(int fd) {
    std::lock_guard<std::mutex> g(mLock);
    if (mIdle.size() < kMaxIdleConnections) {
        mIdle.push_back(fd);
    } else {
        ::close(fd);
    }
}

void BpBinder::adoptConnection(int fd) { returnConnection(fd); }

status_t BpBinder::transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    if (!mAlive.load()) return DEAD_OBJECT;
    UniqueFd conn(takeConnection());
    if (!conn.ok()) {
        mAlive = false;
        return DEAD_OBJECT;
    }
    status_t status = Wire::sendRequest(conn.get(), code, flags, data);
    if (status == FAILED_TRANSACTION) {
        returnConnection(conn.release());
        return status;
    }
    if (status != OK) {
        mAlive = false;
        return status;
    }
    if ((flags & FLAG_ONEWAY) != 0) {
        returnConnection(conn.release());
        return OK;
    }
    Parcel discarded;
    if (!Wire::receiveReply(conn.get(), reply != nullptr ? reply : &discarded, &status)) {
        mAlive = false;
        return DEAD_OBJECT;
    }
    if (reply != nullptr) reply->setDataPosition(0);
    returnConnection(conn.release());
    return status;
}

}  // namespace android

#include "tools/probemonctl/Service.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <thread>

#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>

#include "daemon/IKestNetworkProbeMon.h"

using namespace android;

namespace probemond::ctl {

sp<IBinder> findService(std::string* error) {
    const char* name = IKestNetworkProbeMon::kServiceName;
#ifdef PROBEMOND_HOST
    // The host stand-in's services are sockets in a folder: name it, and tell
    // a refused caller from an absent service, which a device cannot.
    sp<IBinder> binder;
    const status_t status = hostCheckService(String16(name), &binder);
    if (binder != nullptr) return binder;
    const std::string dir = ProcessState::self()->hostDirectory();
    if (status == PERMISSION_DENIED) {
        *error = "permission denied: " + dir + "/" + name +
                 " (only its owner, root and the group in PROBEMOND_BINDER_GROUP may call it)";
    } else {
        *error = std::string("service ") + name + " is not running (looked in " + dir + ")";
    }
    return nullptr;
#else
    sp<IBinder> binder = defaultServiceManager()->checkService(String16(name));
    if (binder == nullptr) *error = std::string("service ") + name + " is not running";
    return binder;
#endif
}

const char* statusName(status_t status) {
    switch (status) {
        case OK: return "OK";
        case PERMISSION_DENIED: return "PERMISSION_DENIED";
        case NAME_NOT_FOUND: return "NAME_NOT_FOUND";
        case NO_MEMORY: return "NO_MEMORY";
        case BAD_VALUE: return "BAD_VALUE";
        case DEAD_OBJECT: return "DEAD_OBJECT";
        case INVALID_OPERATION: return "INVALID_OPERATION";
        case NOT_ENOUGH_DATA: return "NOT_ENOUGH_DATA";
        case UNKNOWN_TRANSACTION: return "UNKNOWN_TRANSACTION";
        case BAD_TYPE: return "BAD_TYPE";
        case FAILED_TRANSACTION: return "FAILED_TRANSACTION";
        case UNEXPECTED_NULL: return "UNEXPECTED_NULL";
        default: return "error";
    }
}

bool readDump(std::string* text, std::string* error) {
    text->clear();
    sp<IBinder> binder = findService(error);
    if (binder == nullptr) return false;
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        *error = std::string("pipe: ") + strerror(errno);
        return false;
    }
    // Read while the service writes, so a dump larger than the pipe cannot stall it.
    std::thread reader([readFd = fds[0], text] {
        char buf[4096];
        ssize_t n;
        while ((n = read(readFd, buf, sizeof(buf))) > 0 || (n < 0 && errno == EINTR)) {
            if (n > 0) text->append(buf, static_cast<size_t>(n));
        }
        close(readFd);
    });
    status_t status;
    {
        Parcel data;
        Parcel reply;
        data.writeFileDescriptor(fds[1]);
        data.writeInt32(0);
        status = binder->transact(IBinder::DUMP_TRANSACTION, data, &reply);
    }
    close(fds[1]);
    reader.join();
    if (status != OK) {
        *error = std::string("dump failed: ") + statusName(status) + " (" + std::to_string(status) + ")";
        return false;
    }
    return true;
}

}  // namespace probemond::ctl

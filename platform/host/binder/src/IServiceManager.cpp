#include <binder/IServiceManager.h>

#include <map>
#include <mutex>
#include <set>

#include <binder/BpBinder.h>
#include <binder/ProcessState.h>
#include <utils/String8.h>

#include "ServiceDirectory.h"
#include "Server.h"

namespace android {
namespace {

using binder_host::ServiceDirectory;
using binder_host::UniqueFd;

std::string toUtf8(const String16& s) { return std::string(String8(s).string()); }

class HostServiceManager : public IServiceManager {
public:
    explicit HostServiceManager(std::string dir) : mDirectory(std::move(dir)) {}

    sp<IBinder> getService(const String16& name) const override {
        // No polling here: the answer comes at once.
        return checkService(name);
    }

    sp<IBinder> checkService(const String16& name) const override {
        sp<IBinder> service;
        lookup(name, &service);
        return service;
    }

    status_t lookup(const String16& name16, sp<IBinder>* service) const {
        const std::string name = toUtf8(name16);
        if (!binder_host::isValidServiceName(name)) return NAME_NOT_FOUND;
        {
            // Our own services are the objects themselves, as the driver hands them back.
            std::lock_guard<std::mutex> g(mLock);
            auto it = mLocal.find(name);
            if (it != mLocal.end()) {
                *service = it->second;
                return OK;
            }
        }
        UniqueFd conn;
        pid_t pid = 0;
        if (status_t err = mDirectory.connect(name, &conn, &pid); err != OK) return err;
        sp<BpBinder> proxy = new BpBinder(mDirectory.path() + "/" + binder_host::serviceFileName(name), pid);
        proxy->adoptConnection(conn.release());
        *service = proxy;
        return OK;
    }

    status_t addService(const String16& name16, const sp<IBinder>& service, bool, int) override {
        const std::string name = toUtf8(name16);
        if (!binder_host::isValidServiceName(name) || service == nullptr) return BAD_VALUE;
        // Only objects of this process can be served from here.
        if (service->localBinder() == nullptr) return INVALID_OPERATION;
        UniqueFd listener;
        const status_t err = mDirectory.publish(name, &listener);
        if (err != OK) return err;
        binder_host::Server::instance().addListener(name, std::move(listener), service);
        std::lock_guard<std::mutex> g(mLock);
        mLocal[name] = service;
        return OK;
    }

    Vector<String16> listServices(int) override {
        std::set<std::string> names;
        {
            std::lock_guard<std::mutex> g(mLock);
            for (const auto& [name, binder] : mLocal) names.insert(name);
        }
        for (const std::string& name : mDirectory.names()) {
            if (names.count(name) == 0 && checkService(String16(name.c_str())) != nullptr) names.insert(name);
        }
        Vector<String16> out;
        for (const std::string& name : names) out.add(String16(name.c_str()));
        return out;
    }

protected:
    IBinder* onAsBinder() override { return nullptr; }

private:
    const ServiceDirectory mDirectory;
    mutable std::mutex mLock;
    std::map<std::string, sp<IBinder>> mLocal;
};

}  // namespace

status_t hostCheckService(const String16& name, sp<IBinder>* service) {
    *service = nullptr;
    return static_cast<HostServiceManager*>(defaultServiceManager().get())->lookup(name, service);
}

sp<IServiceManager> defaultServiceManager() {
    static IServiceManager* const manager = [] {
        IServiceManager* sm = new HostServiceManager(ProcessState::self()->hostDirectory());
        sm->incStrong(&manager);  // process-wide, never released
        return sm;
    }();
    return manager;
}

}  // namespace android

// The serving side of a process: its published services' listeners and their
// connections in one epoll set, shared by every pool thread.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include <binder/IBinder.h>

#include "UniqueFd.h"

namespace android::binder_host {

class Server {
public:
    static Server& instance();

    // Starts serving binder on listener; a previous listener under the same key stops.
    void addListener(const std::string& key, UniqueFd listener, const sp<IBinder>& binder);
    // Pool threads; later calls add none once the first has started them.
    void startThreads(size_t count);
    // Serves on the calling thread; never returns.
    [[noreturn]] void serve();

private:
    struct Endpoint {
        bool listening;
        UniqueFd fd;
        sp<IBinder> binder;
        std::string key;
    };

    Server();
    void handle(Endpoint* ep);
    bool arm(Endpoint* ep, int op);
    void closeConnection(Endpoint* ep);

    UniqueFd mEpoll;
    std::mutex mLock;
    bool mStarted = false;
    // Retired listeners stay open: another thread may still be inside accept() on them,
    // and their path is gone so nobody can reach them.
    std::vector<std::unique_ptr<Endpoint>> mListeners;
    std::unordered_set<Endpoint*> mConnections;
};

}  // namespace android::binder_host

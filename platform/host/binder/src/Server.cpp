#include "Server.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <thread>

#include <binder/Parcel.h>

#include "Wire.h"

namespace android::binder_host {
namespace {

// A client that stops reading its replies must not hold a pool thread for good.
constexpr int kReplySendTimeoutSec = 5;
// Clients that open connections and keep them must not use up the process's
// descriptors (its probes and commands need some); past this many, new ones
// are closed at once and their callers see a dead object.
constexpr size_t kMaxConnections = 256;

}  // namespace

Server& Server::instance() {
    // Lives as long as the process: pool threads never stop.
    static Server* const server = new Server();
    return *server;
}

Server::Server() : mEpoll(epoll_create1(EPOLL_CLOEXEC)) {}

void Server::addListener(const std::string& key, UniqueFd listener, const sp<IBinder>& binder) {
    // Non-blocking, so threads that lose the race for a connection go back to waiting.
    fcntl(listener.get(), F_SETFL, fcntl(listener.get(), F_GETFL) | O_NONBLOCK);
    std::lock_guard<std::mutex> g(mLock);
    for (auto& ep : mListeners) {
        if (ep->key == key) {
            epoll_ctl(mEpoll.get(), EPOLL_CTL_DEL, ep->fd.get(), nullptr);
            ep->key.clear();
        }
    }
    auto ep = std::make_unique<Endpoint>(Endpoint{true, std::move(listener), binder, key});
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.ptr = ep.get();
    epoll_ctl(mEpoll.get(), EPOLL_CTL_ADD, ep->fd.get(), &ev);
    mListeners.push_back(std::move(ep));
}

void Server::startThreads(size_t count) {
    std::lock_guard<std::mutex> g(mLock);
    if (mStarted) return;
    mStarted = true;
    for (size_t i = 0; i < count; i++) std::thread([this] { serve(); }).detach();
}

void Server::serve() {
    for (;;) {
        epoll_event ev{};
        const int n = epoll_wait(mEpoll.get(), &ev, 1, -1);
        if (n == 1) handle(static_cast<Endpoint*>(ev.data.ptr));
    }
}

void Server::handle(Endpoint* ep) {
    if (ep->listening) {
        // Several threads may wake for one connection; the losers get EAGAIN.
        UniqueFd conn(accept4(ep->fd.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!conn.ok()) return;
        timeval tv{kReplySendTimeoutSec, 0};
        setsockopt(conn.get(), SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
        Endpoint* c;
        {
            // Counted as it is taken: two threads accepting at once cannot
            // both take the last place.
            std::lock_guard<std::mutex> g(mLock);
            if (mConnections.size() >= kMaxConnections) return;
            c = new Endpoint{false, std::move(conn), ep->binder, std::string()};
            mConnections.insert(c);
        }
        if (!arm(c, EPOLL_CTL_ADD)) closeConnection(c);
        return;
    }

    // One-shot: this thread alone owns the connection until it re-arms it.
    uint32_t code = 0;
    uint32_t flags = 0;
    Parcel data;
    switch (Wire::receiveRequest(ep->fd.get(), &code, &flags, &data)) {
        case Wire::Received::kClosed:
            closeConnection(ep);
            return;
        case Wire::Received::kNothing:
        case Wire::Received::kRefused:
            break;
        case Wire::Received::kRequest: {
            Parcel reply;
            const status_t status = ep->binder->transact(code, data, &reply, flags);
            if ((flags & IBinder::FLAG_ONEWAY) == 0 && !Wire::sendReply(ep->fd.get(), status, reply)) {
                closeConnection(ep);
                return;
            }
            break;
        }
    }
    if (!arm(ep, EPOLL_CTL_MOD)) closeConnection(ep);
}

bool Server::arm(Endpoint* ep, int op) {
    // Under the lock: once armed, another thread may take the connection and free it,
    // and it must see everything this thread did first.
    std::lock_guard<std::mutex> g(mLock);
    epoll_event ev{};
    ev.events = EPOLLIN | EPOLLONESHOT;
    ev.data.ptr = ep;
    if (epoll_ctl(mEpoll.get(), op, ep->fd.get(), &ev) != 0) return false;
    mConnections.insert(ep);
    return true;
}

void Server::closeConnection(Endpoint* ep) {
    std::lock_guard<std::mutex> g(mLock);
    epoll_ctl(mEpoll.get(), EPOLL_CTL_DEL, ep->fd.get(), nullptr);
    mConnections.erase(ep);
    delete ep;
}

}  // namespace android::binder_host

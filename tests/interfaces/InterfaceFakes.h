// Test doubles for the interface manager's seams, and a peer that reaches the
// manager's private selection state.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "interfaces/InterfaceManager.h"
#include "interfaces/InterfaceSeams.h"
#include "netctl/IptablesRuleManager.h"

class InterfaceManagerTestPeer {
public:
    static void setUserSelectIface(InterfaceManager& m, const std::string& name) {
        probemond::MutexLock g(m.selectionLock_);
        m.userSelectIface = name;
    }
    static void setAutoSelectIface(InterfaceManager& m, const std::string& name) {
        m.setAutoSelectIface(name);
    }
    // Takes ifaceMutex: only while no engine runs.
    static std::vector<InterfaceInfo*> autoSelectIfaces(InterfaceManager& m) {
        m.ifaceMutex.lock();
        std::vector<InterfaceInfo*> copy = m.autoSelectIfaces;
        m.ifaceMutex.unlock();
        return copy;
    }
};

namespace probemond::test {

// Polls `done` every millisecond; false when it is still false at the timeout.
template <typename Pred>
bool waitUntil(Pred done, int timeoutMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Answers every probe through one function; records (iface, server) calls.
class FakeProbes : public ifaces::RttProberFactory {
public:
    using Answer = std::function<int32_t(const std::string& iface, const std::string& server)>;

    explicit FakeProbes(Answer answer = nullptr) : answer_(std::move(answer)) {}

    void setAnswer(Answer answer) {
        std::lock_guard<std::mutex> g(lock_);
        answer_ = std::move(answer);
    }
    std::vector<std::pair<std::string, std::string>> calls() const {
        std::lock_guard<std::mutex> g(lock_);
        return calls_;
    }
    size_t callCount(const std::string& iface) const {
        std::lock_guard<std::mutex> g(lock_);
        size_t n = 0;
        for (const auto& c : calls_) n += c.first == iface;
        return n;
    }
    void clear() {
        std::lock_guard<std::mutex> g(lock_);
        calls_.clear();
    }

    std::unique_ptr<ifaces::RttProber> create(const InterfaceInfo&) override {
        return std::make_unique<Prober>(*this);
    }

private:
    class Prober : public ifaces::RttProber {
    public:
        explicit Prober(FakeProbes& owner) : owner_(owner) {}
        int32_t ping(const char* iface, const char* server) override {
            return owner_.answer(iface, server ? server : "");
        }

    private:
        FakeProbes& owner_;
    };

    int32_t answer(const std::string& iface, const std::string& server) {
        Answer a;
        {
            std::lock_guard<std::mutex> g(lock_);
            calls_.emplace_back(iface, server);
            a = answer_;
        }
        return a ? a(iface, server) : 30;
    }

    mutable std::mutex lock_;
    Answer answer_;
    std::vector<std::pair<std::string, std::string>> calls_;
};

// Records every requested sleep. By default returns at once; with a scale it
// really sleeps us/scale, so threads keep their rhythm but run faster.
class RecordingSleeper : public ifaces::Sleeper {
public:
    explicit RecordingSleeper(uint32_t scale = 0) : scale_(scale) {}

    void sleepUs(uint32_t us) override {
        {
            std::lock_guard<std::mutex> g(lock_);
            requests_.push_back(us);
        }
        if (scale_ != 0) std::this_thread::sleep_for(std::chrono::microseconds(us / scale_));
    }
    std::vector<uint32_t> requests() const {
        std::lock_guard<std::mutex> g(lock_);
        return requests_;
    }
    void clear() {
        std::lock_guard<std::mutex> g(lock_);
        requests_.clear();
    }

private:
    const uint32_t scale_;
    mutable std::mutex lock_;
    std::vector<uint32_t> requests_;
};

class RecordingNotifier : public ifaces::AutoSelectNotifier {
public:
    int32_t notify(const std::string& iface) override {
        std::lock_guard<std::mutex> g(lock_);
        names_.push_back(iface);
        changed_.notify_all();
        return 0;
    }
    std::vector<std::string> names() const {
        std::lock_guard<std::mutex> g(lock_);
        return names_;
    }
    // Waits until at least `count` notifications arrived.
    bool waitForCount(size_t count, int timeoutMs) const {
        std::unique_lock<std::mutex> l(lock_);
        return changed_.wait_for(l, std::chrono::milliseconds(timeoutMs),
                                 [&] { return names_.size() >= count; });
    }

private:
    mutable std::mutex lock_;
    mutable std::condition_variable changed_;
    std::vector<std::string> names_;
};

// Records the firewall and rule calls as short text lines.
class RecordingSteering : public ifaces::SteeringControl {
public:
    void initMangleRules(const char* iface, const char* mark) override {
        add(std::string("initMangleRules ") + iface + " " + mark);
    }
    void initNatRules(const char* iface) override { add(std::string("initNatRules ") + iface); }
    int32_t selectIface(const char* iface, bool killSockets) override {
        add(std::string("selectIface ") + iface + (killSockets ? " kill" : " nokill"));
        return 0;
    }
    void enableAutoSelect(const char* iface) override {
        add(std::string("enableAutoSelect ") + iface);
    }
    void disableAutoSelect() override { add("disableAutoSelect"); }
    void killUidSocket() override { add("killUidSocket"); }
    int32_t addIpRule(const char* table, const char* fwmark, const char* prio) override {
        add(std::string("addIpRule ") + table + " " + fwmark + " " + prio);
        return 0;
    }
    int32_t delIpRule(const char* prio) override {
        add(std::string("delIpRule ") + prio);
        return 0;
    }

    std::vector<std::string> calls() const {
        std::lock_guard<std::mutex> g(lock_);
        return calls_;
    }
    void clear() {
        std::lock_guard<std::mutex> g(lock_);
        calls_.clear();
    }

private:
    void add(std::string line) {
        std::lock_guard<std::mutex> g(lock_);
        calls_.push_back(std::move(line));
    }
    mutable std::mutex lock_;
    std::vector<std::string> calls_;
};

// Records the UIDs whose sockets the rule manager would destroy.
class RecordingKiller : public SocketKiller {
public:
    int32_t killUidSockets(const char* uid) override {
        std::lock_guard<std::mutex> g(lock_);
        uids_.push_back(uid);
        return 0;
    }
    std::vector<std::string> uids() const {
        std::lock_guard<std::mutex> g(lock_);
        return uids_;
    }

private:
    mutable std::mutex lock_;
    std::vector<std::string> uids_;
};

// A manager on fakes, by default without worker threads.
struct FakeManager {
    FakeProbes probes;
    RecordingSleeper sleeper;
    RecordingNotifier notifier;
    RecordingSteering steering;
    std::unique_ptr<InterfaceManager> manager;

    explicit FakeManager(bool startWorkers = false, uint32_t sleepScale = 0)
        : sleeper(sleepScale) {
        ifaces::InterfaceManagerSeams seams;
        seams.probers = &probes;
        seams.sleeper = &sleeper;
        seams.notifier = &notifier;
        seams.steering = &steering;
        seams.startWorkers = startWorkers;
        manager = InterfaceManager::create(seams);
    }
    ~FakeManager() { manager.reset(); }  // before the fakes it uses
    InterfaceManager* operator->() { return manager.get(); }
    InterfaceInfo& info(const std::string& name) { return *manager->getIfaceInfo(name); }
};

}  // namespace probemond::test

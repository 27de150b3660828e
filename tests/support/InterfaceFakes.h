// Test doubles for the interface manager's seams, the registry's records on
// their own, and a manager built on the doubles.
#pragma once

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "interfaces/InterfaceManager.h"
#include "interfaces/PingServers.h"

namespace probemond::test {

using Strings = std::vector<std::string>;

// Polls `done` every millisecond; false when it still fails after `ms`.
template <typename Pred>
bool waitUntil(Pred done, int ms = 5000) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Probes answer `rtt` and record the server asked.
struct FakeProbes : RttProberFactory {
    std::atomic<int32_t> rtt{30};

    Strings servers() {
        std::lock_guard<std::mutex> g(lock);
        return asked;
    }

    struct Prober : RttProber {
        FakeProbes& p;
        explicit Prober(FakeProbes& probes) : p(probes) {}
        ProbeResult ping(const char*, const char* server) override {
            std::lock_guard<std::mutex> g(p.lock);
            p.asked.push_back(server);
            return {p.rtt, false};
        }
    };
    std::unique_ptr<RttProber> create(const InterfaceInfo&) override {
        return std::make_unique<Prober>(*this);
    }

    std::mutex lock;
    Strings asked;
};

// Records every sleep and never really sleeps. Once stepped, each sleep
// waits for the test's next release(): every sleeping thread's loop then
// moves exactly one turn.
class FakeSleeper : public Sleeper {
public:
    void sleepUs(uint32_t us) override {
        std::unique_lock<std::mutex> l(lock_);
        requests_.push_back(us);
        const size_t turn = released_;
        changed_.notify_all();
        changed_.wait(l, [&] { return !stepped_ || released_ != turn; });
    }
    std::vector<uint32_t> requests() {
        std::lock_guard<std::mutex> g(lock_);
        return requests_;
    }
    // Waits until the sleeping threads are in their n-th sleep, together.
    bool waitForSleep(size_t n) {
        std::unique_lock<std::mutex> l(lock_);
        return changed_.wait_for(l, std::chrono::seconds(5), [&] { return requests_.size() >= n; });
    }
    void step(bool stepped = true) {
        std::lock_guard<std::mutex> g(lock_);
        stepped_ = stepped;
        changed_.notify_all();
    }
    void release() {
        std::lock_guard<std::mutex> g(lock_);
        ++released_;
        changed_.notify_all();
    }

private:
    std::mutex lock_;
    std::condition_variable changed_;
    std::vector<uint32_t> requests_;
    bool stepped_ = false;
    size_t released_ = 0;
};

// Records the client callbacks and the firewall calls, in one order.
class Recorder : public AutoSelectNotifier, public SteeringControl {
public:
    void notify(const std::string& iface) override { add("notify " + iface); }
    void prepareInterface(const char* iface, const char* mark, InterfaceKind kind) override {
        add(std::string("prepare ") + iface + " " + mark + kindText(kind));
    }
    void steerToUserChoice(const char* iface, InterfaceKind kind, bool reset) override {
        add(std::string("user ") + iface + kindText(kind) + (reset ? " reset" : ""));
    }
    void steerToAutoChoice(const char* iface) override { add(std::string("auto ") + iface); }
    void clearAutoChoice() override { add("clear auto"); }
    void resetSteeredSockets() override { add("reset"); }
    void addIpRule(const char* table, const char* mark, const char* prio) override {
        add(std::string("addIpRule ") + table + " " + mark + " " + prio);
    }
    // Recorded as addIpRule: the lines are the same.
    bool addIpRuleAccepted(const char* table, const char* mark, const char* prio) override {
        addIpRule(table, mark, prio);
        std::lock_guard<std::mutex> g(lock_);
        return refusedTables.count(table) == 0;
    }
    void delIpRule(const char* prio) override { add(std::string("delIpRule ") + prio); }
    std::set<std::string> refusedTables;  // guarded by lock_ once threads run

    Strings calls() {
        std::lock_guard<std::mutex> g(lock_);
        return calls_;
    }
    void clear() {
        std::lock_guard<std::mutex> g(lock_);
        calls_.clear();
    }

private:
    static const char* kindText(InterfaceKind kind) { return kind == InterfaceKind::kWifi ? " wifi" : " cell"; }
    void add(std::string call) {
        std::lock_guard<std::mutex> g(lock_);
        calls_.push_back(std::move(call));
    }
    std::mutex lock_;
    Strings calls_;
};

// Runs each thread on a std::thread that join() waits for; or refuses.
struct JoiningLauncher : ThreadLauncher {
    bool refuse = false;

    int start(std::function<void()> body) override {
        if (refuse) return EAGAIN;
        std::lock_guard<std::mutex> g(lock_);
        threads_.emplace_back(std::move(body));
        return 0;
    }
    void join() {
        std::lock_guard<std::mutex> g(lock_);
        for (std::thread& t : threads_) t.join();
        threads_.clear();
    }

private:
    std::mutex lock_;
    std::vector<std::thread> threads_;
};

// One record per row of the interface table, as the manager builds them.
struct Records {
    Records() {
        for (const InterfaceRow& row : kInterfaceTable) {
            owned.push_back(std::make_unique<InterfaceInfo>(row, PingServers::startServer()));
            map[row.name] = owned.back().get();
        }
    }
    InterfaceInfo& operator[](const std::string& name) { return *map.at(name); }
    std::vector<std::unique_ptr<InterfaceInfo>> owned;
    InterfaceMap map;
};

// A manager on the fakes; it stops and joins its engine and any workers
// before it goes.
struct FakeManager {
    FakeProbes probes;
    FakeSleeper sleeper;
    Recorder recorder;
    JoiningLauncher launcher;
    InterfaceManager m{probes, sleeper, recorder, recorder, launcher};

    ~FakeManager() {
        m.disableAutoSelect();
        for (const auto& entry : m.interfaces()) entry.second->isPingThreadAlive = false;
        sleeper.step(false);
        launcher.join();
    }
    InterfaceInfo& info(const std::string& name) { return *m.getIfaceInfo(name); }
    // n results of `mrtt` in the history, so that is the median.
    void history(const std::string& name, size_t n, int32_t mrtt) {
        info(name).clearRttHistory();
        for (size_t i = 0; i < n; ++i) info(name).addRtt(mrtt, false);
    }
};

}  // namespace probemond::test

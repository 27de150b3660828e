#include "daemon/KestNetworkProbeMond.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <future>
#include <string>
#include <thread>

#include <android/log.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <gtest/gtest.h>

#include "LogCapture.h"
#include "RecordingCommandExecutor.h"
#include "TempPropertyFile.h"
#include "daemon/KestNetworkProbeMondDump.h"
#include "netctl/IptablesRuleManager.h"

using android::KestNetworkProbeMond;
using android::sp;
using probemond::test::LogCapture;
using probemond::test::RecordingCommandExecutor;
using probemond::test::TempPropertyFile;

namespace {

class NoSocketKiller : public probemond::SocketKiller {
public:
    int32_t killUidSockets(const char*) override { return 0; }
};

std::string readAll(int fd) {
    std::string out;
    char buf[4096];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
    return out;
}

bool contains(const std::string& haystack, const std::string& needle) {
    return haystack.find(needle) != std::string::npos;
}

// Each test runs in a process of its own (ctest runs cases one by one), so
// the singletons it builds, and any mutex a case leaves held, die with it.
class ServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        char dir[] = "/tmp/probemond-svc-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        binderDir_ = dir;
        setenv("PROBEMOND_BINDER_DIR", dir, 1);
        previousKiller_ = probemond::setSocketKiller(&killer_);
    }
    void TearDown() override {
        probemond::setSocketKiller(previousKiller_);
        // Sockets of the registered service may remain; the directory is private.
        std::string cmd = "rm -rf '" + binderDir_ + "'";
        ASSERT_EQ(system(cmd.c_str()), 0);
    }

    bool sawCommand(const std::string& part) const {
        for (const auto& c : commands_.commands())
            if (contains(c, part)) return true;
        return false;
    }

    // Calls dump() on `binder` and returns what it wrote, or "<timeout>".
    static std::string dumpThrough(const sp<android::IBinder>& binder) {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) return "<pipe>";
        auto reader = std::async(std::launch::async, [fd = fds[0]] { return readAll(fd); });
        auto writer = std::async(std::launch::async, [binder, fd = fds[1]] {
            android::Vector<android::String16> args;
            android::status_t st = binder->dump(fd, args);
            close(fd);
            return st;
        });
        if (writer.wait_for(std::chrono::seconds(5)) != std::future_status::ready) {
            // A hung dump keeps its thread; the process ends with the test.
            new auto(std::move(writer));
            close(fds[0]);
            return "<timeout>";
        }
        EXPECT_EQ(writer.get(), android::OK);
        std::string text = reader.get();
        close(fds[0]);
        return text;
    }

    TempPropertyFile props_;
    RecordingCommandExecutor commands_;
    LogCapture log_;
    NoSocketKiller killer_;
    probemond::SocketKiller* previousKiller_ = nullptr;
    std::string binderDir_;
};

TEST_F(ServiceTest, EveryOperationLogsItsLineAndPassesTheManagersResultBack) {
    sp<KestNetworkProbeMond> svc = new KestNetworkProbeMond();

    EXPECT_EQ(svc->startPingInternal("wlan1"), 0);
    EXPECT_EQ(svc->startPingInternal("wlan1"), -1);  // already running: the manager's -1 comes through
    EXPECT_EQ(svc->stopPingInternal("wlan1"), 0);
    EXPECT_EQ(svc->stopPingInternal("wlan5"), -1);
    EXPECT_EQ(svc->stopAllPingInternal(), 0);
    EXPECT_EQ(svc->suspendAllPingInternal(), 0);
    EXPECT_EQ(svc->resumeAllPingInternal(), 0);
    EXPECT_EQ(svc->getRttInternal("lo"), -1);  // running in the kernel, not in the registry
    EXPECT_EQ(svc->addIpRuleInternal("wlan0"), 0);
    EXPECT_EQ(svc->delIpRuleInternal("eth0"), -1);
    EXPECT_EQ(svc->selectInterfaceInternal("wlan0"), 0);
    EXPECT_EQ(svc->selectInterfaceInternal("wlan0"), -1);  // same choice again

    const char* expected[] = {
        "startPingInternal, iface=wlan1", "stopPingInternal, iface=wlan1", "stopPingInternal, iface=wlan5",
        "stopAllPingInternal",            "suspendAllPingInternal",        "resumeAllPingInternal",
        "getRttInternal, iface=lo",       "addIpRuleInternal, iface=wlan0", "delIpRuleInternal, iface=eth0",
        "selectInterfaceInternal, iface=wlan0",
    };
    for (const char* line : expected) EXPECT_TRUE(log_.has(line, ANDROID_LOG_DEBUG)) << line << "\n" << log_.dump();
    EXPECT_EQ(log_.count("startPingInternal, iface=wlan1"), 2u);
    EXPECT_TRUE(log_.has("getInterfaceRtt ifaceInfo of lo is NULL")) << log_.dump();
    EXPECT_TRUE(sawCommand("ip-wrapper-1.0 -4 rule add fwmark 0xa0/0xffff table wlan0 prio 29500"));
    // wlan1 may have begun a probe in between; let it finish before exit.
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
}

TEST_F(ServiceTest, DelUidLogsOnlyItsNameWhileAddUidLogsTheUid) {
    sp<KestNetworkProbeMond> svc = new KestNetworkProbeMond();
    EXPECT_EQ(svc->addUidInternal("10123"), 0);
    EXPECT_EQ(svc->delUidInternal("10123"), 0);

    EXPECT_TRUE(log_.has("addUidInternal, uid=10123", ANDROID_LOG_DEBUG)) << log_.dump();
    EXPECT_TRUE(log_.has("delUidInternal", ANDROID_LOG_DEBUG)) << log_.dump();
    for (const auto& text : log_.texts()) {
        if (text.rfind("delUidInternal", 0) == 0) {
            EXPECT_EQ(text, "delUidInternal");
        }
    }
    EXPECT_TRUE(sawCommand("-t mangle -I kest_probemon_uid -m owner --uid-owner 10123 -j kest_probemon_iface"));
    EXPECT_TRUE(sawCommand("-t mangle -F kest_probemon_uid"));
}

TEST_F(ServiceTest, AutoSelectCallsAnswerZeroWhateverTheManagerDid) {
    sp<KestNetworkProbeMond> svc = new KestNetworkProbeMond();
    // No comma: no candidate at all, still 0.
    EXPECT_EQ(svc->enableAutoSelectInternal("wlan0"), 0);
    EXPECT_EQ(svc->disableAutoSelectInternal(), 0);
    EXPECT_EQ(svc->enableAutoSelectInternal("wlan0,rmnet_data0,"), 0);
    EXPECT_EQ(svc->disableAutoSelectInternal(), 0);
    EXPECT_TRUE(log_.has("enableAutoSelectInternal, ifaces=wlan0,rmnet_data0,")) << log_.dump();
    EXPECT_EQ(log_.count("disableAutoSelectInternal"), 2u);
}

TEST_F(ServiceTest, SecondRegistrationReusesTheServiceObject) {
    EXPECT_EQ(KestNetworkProbeMond::serviceInstance(), nullptr);
    KestNetworkProbeMond::useBinderIPC();
    sp<KestNetworkProbeMond> first = KestNetworkProbeMond::serviceInstance();
    ASSERT_NE(first, nullptr);
    KestNetworkProbeMond::useBinderIPC();
    EXPECT_EQ(KestNetworkProbeMond::serviceInstance(), first);

    // Reachable by name, and a call goes all the way to the manager.
    sp<android::IBinder> binder = android::defaultServiceManager()->checkService(android::String16("probemond_Binder"));
    ASSERT_NE(binder, nullptr);
    android::Parcel data, reply;
    data.writeInterfaceToken(android::String16("probemond_Binder"));
    data.writeCString("wlan9");
    ASSERT_EQ(binder->transact(6, data, &reply), android::OK);
    EXPECT_EQ(reply.readInt32(), -1);
    EXPECT_TRUE(log_.has("getRttInternal, iface=wlan9")) << log_.dump();
}

TEST_F(ServiceTest, DumpShowsInterfacesSelectionsAndSteeredUids) {
    KestNetworkProbeMond::useBinderIPC();
    sp<KestNetworkProbeMond> svc = KestNetworkProbeMond::serviceInstance();
    ASSERT_EQ(svc->addUidInternal("10123"), 0);
    ASSERT_EQ(svc->addUidInternal("10124"), 0);
    ASSERT_EQ(svc->startPingInternal("rmnet_data3"), 0);
    ASSERT_EQ(svc->selectInterfaceInternal("rmnet_data0"), 0);

    sp<android::IBinder> binder = android::defaultServiceManager()->checkService(android::String16("probemond_Binder"));
    ASSERT_NE(binder, nullptr);
    std::string text = dumpThrough(binder);

    // All ten, in map order.
    size_t at = 0;
    for (const char* name : {"rmnet_data0", "rmnet_data1", "rmnet_data2", "rmnet_data3", "rmnet_data4",
                             "rmnet_data5", "rmnet_data6", "rmnet_data7", "wlan0", "wlan1"}) {
        size_t found = text.find(std::string("  ") + name + " fwmark=", at);
        ASSERT_NE(found, std::string::npos) << name << "\n" << text;
        at = found + 1;
    }
    EXPECT_TRUE(contains(text, "  wlan1 fwmark=0xa1 prio=29600 server=8.8.8.8 running=0")) << text;
    EXPECT_TRUE(contains(text, "  rmnet_data3 fwmark=0xd3 prio=30000 server=8.8.8.8 running=1")) << text;
    EXPECT_TRUE(contains(text, "userSelectIface: rmnet_data0\n")) << text;
    EXPECT_TRUE(contains(text, "autoSelectIface: (none)\n")) << text;
    EXPECT_TRUE(contains(text, "steered uids (2): 10123 10124\n")) << text;

    // Workers outlive the test; one still probing while the process exits
    // would log through liblog after its statics are gone.
    svc->stopAllPingInternal();
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
}

TEST_F(ServiceTest, DumpAnswersWhileSelectionAndFirewallMutexesAreHeld) {
    KestNetworkProbeMond::useBinderIPC();
    sp<KestNetworkProbeMond> svc = KestNetworkProbeMond::serviceInstance();
    ASSERT_EQ(svc->addUidInternal("10123"), 0);
    // Both failure paths leave their mutex held for good.
    ASSERT_EQ(svc->selectInterfaceInternal("eth0"), -1);
    ASSERT_EQ(IptablesRuleManager::instance()->selectIface("eth0", false), -1);

    // Proof that ifaceMutex is really held: a valid selection now hangs.
    auto* done = new std::atomic<bool>(false);
    std::thread([svc, done] {
        svc->selectInterfaceInternal("wlan0");
        *done = true;
    }).detach();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_FALSE(*done);

    sp<android::IBinder> binder = android::defaultServiceManager()->checkService(android::String16("probemond_Binder"));
    ASSERT_NE(binder, nullptr);
    std::string text = dumpThrough(binder);
    EXPECT_TRUE(contains(text, "steered uids (1): 10123\n")) << text;
    EXPECT_TRUE(contains(text, "userSelectIface: (none)\n")) << text;
}

TEST_F(ServiceTest, DumpToAVanishedReaderFailsWithoutKillingTheProcess) {
    sp<KestNetworkProbeMond> svc = new KestNetworkProbeMond();
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
    close(fds[0]);
    android::Vector<android::String16> args;
    EXPECT_EQ(svc->dump(fds[1], args), -EPIPE);
    close(fds[1]);
    // Still here, and a later dump works.
    ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
    EXPECT_EQ(svc->dump(fds[1], args), android::OK);
    close(fds[1]);
    EXPECT_TRUE(contains(readAll(fds[0]), "interfaces (10):"));
    close(fds[0]);
}

TEST_F(ServiceTest, DumpToAReaderThatNeverDrainsGivesUpInsteadOfHoldingTheThread) {
    sp<KestNetworkProbeMond> svc = new KestNetworkProbeMond();
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
    char fill[4096] = {};
    while (write(fds[1], fill, sizeof fill) > 0) {
    }
    ASSERT_EQ(errno, EAGAIN);
    // The daemon gets a blocking descriptor, as from a client.
    ASSERT_EQ(fcntl(fds[1], F_SETFL, 0), 0);
    android::Vector<android::String16> args;
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(svc->dump(fds[1], args), -ETIMEDOUT);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    close(fds[0]);
    close(fds[1]);
}

TEST(DumpFormat, RendersHistoryOldestFirstAndEmptyValuesAsNone) {
    InterfaceManagerSnapshot state;
    InterfaceSnapshot wlan;
    wlan.name = "wlan0";
    wlan.fwmark = "0xa0";
    wlan.prio = "29500";
    wlan.pingServer = "1.1.1.1";
    wlan.isPingThreadRunning = true;
    wlan.isPingThreadAlive = true;
    wlan.isControlByAutoSelect = true;
    wlan.isWifi = true;
    wlan.rtt = 150;
    wlan.mrtt = 40;
    wlan.switchCount = 2;
    wlan.rttHistory = {20, 150, 40};
    state.interfaces.push_back(wlan);
    state.autoSelectIface = "rmnet_data0";
    state.isAutoSelectEnabled = true;

    // The counters and switch history follow today's lines, which stay as they were.
    const std::string dump = probemond::formatState(state, {});
    EXPECT_EQ(dump.substr(0, dump.find("probes (1):\n")),
              "interfaces (1):\n"
              "  wlan0 fwmark=0xa0 prio=29500 server=1.1.1.1 running=1 suspended=0 alive=1 auto=1 wifi=1 "
              "rtt=150 mrtt=40 switch=2 history=[20 150 40]\n"
              "userSelectIface: (none)\n"
              "autoSelectIface: rmnet_data0\n"
              "autoSelect: enabled=1 forcePing=0 rttDebug=0\n"
              "steered uids (0):\n");
}

}  // namespace

// In the lab's device namespace, with the process-wide managers and the real
// wrapper tools: the kernel holds the chain tree, a steered UID's rules and
// the policy rule, and that UID's traffic (only its) leaves through the
// selected interface.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <sys/fsuid.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <tuple>

#include <gtest/gtest.h>

#include "Lab.h"
#include "interfaces/InterfaceManager.h"
#include "netctl/IpRuleManager.h"
#include "netctl/IptablesRuleManager.h"

using probemond::test::labCounter;

namespace {

constexpr long kDatagrams = 20;

std::string capture(const char* command) {
    std::string out;
    FILE* f = popen(command, "re");
    char buf[512];
    while (f != nullptr && fgets(buf, sizeof(buf), f) != nullptr) out += buf;
    if (f != nullptr) pclose(f);
    return out;
}

// Sends datagrams to a resolver of the lab's internet from a socket owned by `uid`.
void sendAs(uid_t uid) {
    setfsuid(uid);
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    setfsuid(0);
    ASSERT_GE(fd, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(9);
    inet_pton(AF_INET, "8.8.8.8", &to.sin_addr);
    for (long i = 0; i < kDatagrams; ++i) sendto(fd, "probe", 5, 0, reinterpret_cast<sockaddr*>(&to), sizeof(to));
    close(fd);
}

// Packets counted on `iface` since `before`, once at least kDatagrams arrived or 3 s passed.
long arrived(const char* iface, long before) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while (labCounter(iface) - before < kDatagrams && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return labCounter(iface) - before;
}

class SteeringLab : public ::testing::Test {
protected:
    void SetUp() override {
        if (!probemond::test::labAvailable()) GTEST_SKIP() << "the lab is not available here";
    }
    void TearDown() override {
        // Leave the lab's kernel as found: no jumps, chains or rule of ours.
        capture("while iptables-legacy -t mangle -D OUTPUT -j kest_probemon_uid 2>/dev/null; do :; done;"
                "while iptables-legacy -t nat -D POSTROUTING -j kest_probemon_snat 2>/dev/null; do :; done;"
                "for t in mangle nat; do for op in F X; do"
                " for c in $(iptables-legacy -t $t -S | sed -n 's/^-N \\(kest_[a-z0-9_]*\\)$/\\1/p'); do"
                " iptables-legacy -t $t -$op $c; done; done; done; ip -4 rule del prio 29900 2>/dev/null");
    }
};

TEST_F(SteeringLab, SteeredUidLeavesThroughTheSelectedInterfaceOnly) {
    using namespace probemond::ifaces;
    IptablesRuleManager* m = IptablesRuleManager::instance();
    for (size_t i = 0; interfaceNames[i] != nullptr; ++i) {
        m->initMangleRules(interfaceNames[i], interfaceFwmarks[i]);
        m->initNatRules(interfaceNames[i]);
    }
    ASSERT_EQ(m->addUid("54321"), 0);
    ASSERT_EQ(m->selectIface("rmnet_data2", true), 0);
    m->enableAutoSelect("wlan1");
    m->disableAutoSelect();
    ASSERT_EQ(IpRuleManager::instance()->addIpRule("rmnet_data2", "0xd2", "29900"), 0);
    ASSERT_EQ(IpRuleManager::instance()->addIpRule("rmnet_data2", "0xd2", "29900"), 0);

    // The tree as the kernel lists it, in rule order within each chain.
    const std::string save = capture("iptables-legacy-save");
    for (const char* rules : {
             "-A OUTPUT -j kest_probemon_uid",
             "-A kest_probemon_iface -j kest_probemon_iface_rmnet\n-A kest_probemon_iface -j kest_probemon_iface_auto\n"
             "-A kest_probemon_iface -j kest_probemon_iface_wlan\n",
             "-A kest_probemon_iface_rmnet -j kest_probemon_rmnet_data2\n",
             "-A kest_probemon_rmnet_data2 -j MARK --set-xmark 0xd2/0xffffffff\n",
             "-A kest_probemon_rmnet_data2 -j ACCEPT\n",
             "-A kest_probemon_wlan1 -j RETURN\n",
             "-A kest_probemon_uid -m owner --uid-owner 54321 -j kest_probemon_iface\n",
             "-A POSTROUTING -j kest_probemon_snat",
             "-A kest_probemon_snat -m owner --uid-owner 54321 -j kest_masquerade\n",
             "-A kest_masquerade -o rmnet_data2 -j MASQUERADE\n",
         }) {
        EXPECT_NE(save.find(rules), std::string::npos) << rules << "\n" << save;
    }
    for (const char* absent : {"-A kest_probemon_iface_wlan ", "-A kest_probemon_iface_auto "})
        EXPECT_EQ(save.find(absent), std::string::npos) << absent << "\n" << save;
    EXPECT_EQ(capture("ip -4 rule show prio 29900"), "29900:\tfrom all fwmark 0xd2/0xffff lookup rmnet_data2\n");

    // The steered UID leaves through rmnet_data2, any other through the default wlan0.
    for (auto [uid, via, other] : {std::tuple<uid_t, const char*, const char*>{54321, "rmnet_data2", "wlan0"},
                                   {54322, "wlan0", "rmnet_data2"}}) {
        const long before = labCounter(via), otherBefore = labCounter(other);
        ASSERT_GE(before, 0);
        sendAs(uid);
        EXPECT_GE(arrived(via, before), kDatagrams) << uid;
        EXPECT_LT(labCounter(other) - otherBefore, kDatagrams) << uid;
    }
}

}  // namespace

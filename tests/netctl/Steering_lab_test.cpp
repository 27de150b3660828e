// In the lab's device namespace: the chain tree, a steered UID and the policy
// rule really move that UID's traffic to the chosen interface, and only its.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <sys/fsuid.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Lab.h"
#include "netctl/IpRuleManager.h"
#include "netctl/IptablesRuleManager.h"

using probemond::test::labAvailable;
using probemond::test::labCounter;

namespace {

constexpr uid_t kSteered = 54321;
constexpr uid_t kOther = 54322;
constexpr int kDatagrams = 20;

struct Iface {
    const char* name;
    const char* mark;
};
const Iface kIfaces[] = {{"wlan0", "0xa0"},       {"wlan1", "0xa1"},       {"rmnet_data0", "0xd0"},
                         {"rmnet_data1", "0xd1"}, {"rmnet_data2", "0xd2"}, {"rmnet_data3", "0xd3"},
                         {"rmnet_data4", "0xd4"}, {"rmnet_data5", "0xd5"}, {"rmnet_data6", "0xd6"},
                         {"rmnet_data7", "0xd7"}};

std::string capture(const char* command) {
    std::string out;
    FILE* f = popen(command, "re");
    if (f == nullptr) return out;
    char buf[512];
    while (fgets(buf, sizeof(buf), f) != nullptr) out += buf;
    pclose(f);
    return out;
}

// Sends datagrams to a resolver address of the lab's internet from a socket owned by `uid`.
void sendAs(uid_t uid) {
    setfsuid(uid);
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    setfsuid(0);
    ASSERT_GE(fd, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(9);
    inet_pton(AF_INET, "8.8.8.8", &to.sin_addr);
    for (int i = 0; i < kDatagrams; ++i) {
        EXPECT_EQ(sendto(fd, "probe", 5, 0, reinterpret_cast<sockaddr*>(&to), sizeof(to)), 5);
    }
    close(fd);
    usleep(100 * 1000);  // let the veth peers count them
}

class SteeringLabTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!labAvailable()) GTEST_SKIP() << "the lab is not available here";
    }
    void TearDown() override {
        // Leave the shared lab as found: no jumps, chains or rule of ours.
        capture("while iptables-legacy -t mangle -D OUTPUT -j kest_probemon_uid 2>/dev/null; do :; done;"
                "while iptables-legacy -t nat -D POSTROUTING -j kest_probemon_snat 2>/dev/null; do :; done;"
                "for t in mangle nat; do iptables-legacy -t $t -S | sed -n 's/^-N \\(kest_[a-z0-9_]*\\)$/\\1/p' |"
                " while read c; do iptables-legacy -t $t -F $c; done;"
                " iptables-legacy -t $t -S | sed -n 's/^-N \\(kest_[a-z0-9_]*\\)$/\\1/p' |"
                " while read c; do iptables-legacy -t $t -X $c; done; done;"
                "ip -4 rule del prio 29900 2>/dev/null");
        IptablesRuleManager::resetForTest();
        IpRuleManager::resetForTest();
    }
};

TEST_F(SteeringLabTest, SteeredUidLeavesThroughTheSelectedInterfaceOnly) {
    IptablesRuleManager* m = IptablesRuleManager::instance();
    for (const Iface& i : kIfaces) {
        m->initMangleRules(i.name, i.mark);
        m->initNatRules(i.name);
    }
    ASSERT_EQ(m->addUid(std::to_string(kSteered).c_str()), 0);
    ASSERT_EQ(m->selectIface("rmnet_data2", true), 0);
    ASSERT_EQ(IpRuleManager::instance()->addIpRule("rmnet_data2", "0xd2", "29900"), 0);
    ASSERT_EQ(IpRuleManager::instance()->addIpRule("rmnet_data2", "0xd2", "29900"), 0);

    const std::string save = capture("iptables-legacy-save");
    for (const char* line : {
             "-A OUTPUT -j kest_probemon_uid",
             "-A kest_probemon_iface -j kest_probemon_iface_rmnet\n"
             "-A kest_probemon_iface -j kest_probemon_iface_auto\n"
             "-A kest_probemon_iface -j kest_probemon_iface_wlan",
             "-A kest_probemon_iface_rmnet -j kest_probemon_rmnet_data2",
             "-A kest_probemon_rmnet_data2 -j MARK --set-xmark 0xd2/0xffffffff",
             "-A kest_probemon_rmnet_data2 -j ACCEPT",
             "-A kest_probemon_wlan1 -j RETURN",
             "-A kest_probemon_uid -m owner --uid-owner 54321 -j kest_probemon_iface",
             "-A POSTROUTING -j kest_probemon_snat",
             "-A kest_probemon_snat -m owner --uid-owner 54321 -j kest_masquerade",
             "-A kest_masquerade -o rmnet_data2 -j MASQUERADE",
         }) {
        EXPECT_NE(save.find(line), std::string::npos) << line << "\n" << save;
    }
    EXPECT_EQ(save.find("-A kest_probemon_iface_wlan "), std::string::npos) << save;
    EXPECT_EQ(save.find("-A kest_probemon_iface_auto "), std::string::npos) << save;
    const std::string rules = capture("ip -4 rule show prio 29900");
    EXPECT_EQ(rules, "29900:\tfrom all fwmark 0xd2/0xffff lookup rmnet_data2\n");

    long rmnet = labCounter("rmnet_data2"), wlan = labCounter("wlan0");
    ASSERT_GE(rmnet, 0);
    sendAs(kSteered);
    EXPECT_GE(labCounter("rmnet_data2") - rmnet, kDatagrams);
    EXPECT_LT(labCounter("wlan0") - wlan, kDatagrams);

    rmnet = labCounter("rmnet_data2");
    wlan = labCounter("wlan0");
    sendAs(kOther);
    EXPECT_LT(labCounter("rmnet_data2") - rmnet, kDatagrams);
    EXPECT_GE(labCounter("wlan0") - wlan, kDatagrams);
}

}  // namespace

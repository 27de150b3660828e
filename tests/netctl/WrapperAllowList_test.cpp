// Every command line the managers can issue, produced by the managers
// themselves, against the platform wrappers' patterns in device/wrappers/,
// matched the way the wrapper matches them.
#include <regex.h>

#include <deque>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "RecordingCommandExecutor.h"
#include "interfaces/InterfaceManager.h"
#include "netctl/IpRuleManager.h"
#include "netctl/IptablesRuleManager.h"

using Lines = std::vector<std::string>;

namespace {

struct NoKill : probemond::SocketKiller {
    int32_t killUidSockets(const char*) override { return 0; }
};

Lines everyCommandLine() {
    using namespace probemond::ifaces;
    probemond::test::RecordingCommandExecutor rec;
    NoKill none;
    IptablesRuleManager ipt(rec, none);
    IpRuleManager ip(rec);
    for (size_t i = 0; interfaceNames[i] != nullptr; ++i) {
        ipt.initMangleRules(interfaceNames[i], interfaceFwmarks[i]);
        ipt.initNatRules(interfaceNames[i]);
    }
    for (const char* uid : {"0", "10123", "999999999", "4294967294"}) ipt.addUid(uid);
    ipt.delUid("10123");
    for (size_t i = 0; interfaceNames[i] != nullptr; ++i) {
        for (bool kill : {false, true}) ipt.selectIface(interfaceNames[i], kill);
        ipt.enableAutoSelect(interfaceNames[i]);
        ip.addIpRule(interfaceNames[i], interfaceFwmarks[i], interfacePrios[i]);
        ip.delIpRule(interfacePrios[i]);
    }
    ipt.disableAutoSelect();
    return rec.commands();
}

// The text the wrapper matches: its own name replaced by the real tool's
// path, then every word of the line joined with single spaces.
std::string wrapperText(const std::string& command) {
    std::istringstream words(command);
    std::string first, text, w;
    words >> first;
    for (const char* tool : {"iptables", "ip6tables", "ip"})
        if (first == std::string("/system/bin/") + tool + "-wrapper-1.0") text = std::string("/system/bin/") + tool;
    EXPECT_FALSE(text.empty()) << "not a wrapper: " << command;
    while (words >> w) text += " " + w;
    return text;
}

// One list, as the wrapper holds it: any one pattern found anywhere accepts.
struct AllowList {
    explicit AllowList(std::initializer_list<const char*> files) {
        for (const char* name : files) {
            std::ifstream in(std::string(WRAPPER_LISTS_DIR) + "/" + name);
            EXPECT_TRUE(in.good()) << name;
            for (std::string line; std::getline(in, line);) {
                if (line.empty() || line[0] == '#') continue;
                patterns.emplace_back();
                if (regcomp(&patterns.back(), line.c_str(), REG_EXTENDED | REG_NOSUB) != 0) {
                    patterns.pop_back();
                    ADD_FAILURE() << name << ": " << line;
                }
            }
        }
    }
    ~AllowList() {
        for (auto& re : patterns) regfree(&re);
    }
    bool accepts(const std::string& command) const {
        const std::string text = wrapperText(command);
        for (const auto& re : patterns)
            if (regexec(&re, text.c_str(), 0, nullptr, 0) == 0) return true;
        return false;
    }
    std::deque<regex_t> patterns;  // never moved once compiled
};

TEST(WrapperAllowList, StockRunsOnlyTheRmnetMasqueradeLines) {
    const AllowList stock{"stock.allow"};
    const Lines all = everyCommandLine();
    // Output on a vendor interface is stock's own pattern; every other line
    // names a chain, an interface or a rule stock knows nothing of.
    size_t passed = 0;
    for (const auto& c : all) {
        const bool rmnetMasquerade = c.find(" kest_masquerade -o rmnet_data") != std::string::npos;
        EXPECT_EQ(stock.accepts(c), rmnetMasquerade) << c;
        passed += rmnetMasquerade;
    }
    EXPECT_EQ(passed, 16u);
}

TEST(WrapperAllowList, WithTheAdditionsEveryLineRunsAndStrangersStillDoNot) {
    const AllowList list{"stock.allow", "probemond.allow"};
    const Lines all = everyCommandLine();
    EXPECT_GT(all.size(), 150u);
    for (const auto& c : all) EXPECT_TRUE(list.accepts(c)) << c;
    const std::string ipt = "/system/bin/iptables-wrapper-1.0 -w ", ipt6 = "/system/bin/ip6tables-wrapper-1.0 -w ",
                      ip = "/system/bin/ip-wrapper-1.0 -4 ";
    for (const std::string& stranger :
         {ipt + "-t mangle -F OUTPUT", ipt + "-t filter -F kest_probemon_uid", ipt + "-t mangle -N kest_probemon_wlan2",
          ipt + "-t mangle -A kest_probemon_wlan0 -j MARK --set-mark 0xd0",
          ipt + "-t mangle -I kest_probemon_uid -m owner --uid-owner 4294967295 -j kest_probemon_iface",
          ipt + "-t nat -I kest_probemon_snat -m owner --uid-owner 010 -j kest_masquerade",
          ipt6 + "-t mangle -F kest_probemon_uid", ip + "rule del prio 29550",
          ip + "rule add fwmark 0xa0/0xffff table rmnet_data0 prio 29500", ip + "rule add fwmark 0xa0/0xffff table main prio 29500"})
        EXPECT_FALSE(list.accepts(stranger)) << stranger;
}

}  // namespace

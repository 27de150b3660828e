// Every command line the managers can issue, produced by the managers
// themselves, against the wrappers' allow-lists in device/wrappers/.
#include <regex.h>

#include <deque>
#include <fstream>
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
    for (const char* uid : {"0", "10123", "4294967294"}) ipt.addUid(uid);
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

struct AllowList {
    ~AllowList() {
        for (auto& re : patterns) regfree(&re);
    }
    // Adds the patterns of one list file.
    void load(const std::string& name) {
        std::ifstream in(std::string(WRAPPER_LISTS_DIR) + "/" + name);
        ASSERT_TRUE(in.good()) << name;
        for (std::string line; std::getline(in, line);) {
            if (line.empty() || line[0] == '#') continue;
            const size_t space = line.find(' ');
            tools.push_back(line.substr(0, space));
            patterns.emplace_back();
            ASSERT_EQ(regcomp(&patterns.back(), line.substr(space + 1).c_str(), REG_EXTENDED | REG_NOSUB), 0) << line;
        }
    }
    // "/system/bin/<tool>-wrapper-1.0 <arguments>": accepted when a pattern of the tool matches the arguments.
    bool accepts(const std::string& command) const {
        const size_t slash = command.rfind('/', command.find(' ')), space = command.find(' ');
        const std::string tool = command.substr(slash + 1, command.find("-wrapper-1.0") - slash - 1);
        for (size_t i = 0; i < patterns.size(); ++i)
            if (tools[i] == tool && regexec(&patterns[i], command.c_str() + space + 1, 0, nullptr, 0) == 0) return true;
        return false;
    }
    Lines refused(const Lines& commands) const {
        Lines out;
        for (const auto& c : commands)
            if (!accepts(c)) out.push_back(c);
        return out;
    }
    Lines tools;
    std::deque<regex_t> patterns;  // never moved once compiled
};

TEST(WrapperAllowList, TheStockListRefusesTheDaemonsLines) {
    AllowList stock;
    stock.load("stock.allow");
    const Lines all = everyCommandLine();
    EXPECT_GT(stock.refused(all).size() * 10, all.size() * 9);
    // What gets through acts on a chain the stock list never lets the daemon create.
    for (const auto& c : all)
        EXPECT_TRUE(!stock.accepts(c) || c.find(" kest_masquerade -o rmnet_data") != std::string::npos) << c;
}

TEST(WrapperAllowList, WithTheAdditionsNothingIsRefusedAndStrangersStillAre) {
    AllowList list;
    list.load("stock.allow");
    list.load("probemond.allow");
    const Lines all = everyCommandLine();
    EXPECT_GT(all.size(), 150u);
    EXPECT_EQ(list.refused(all), Lines{});
    const std::string ipt = "/system/bin/iptables-wrapper-1.0 -w ", ip = "/system/bin/ip-wrapper-1.0 -4 ";
    for (const std::string& stranger : {ipt + "-t mangle -F OUTPUT", ipt + "-t filter -F kest_probemon_uid",
                                        ipt + "-t mangle -N kest_probemon_wlan2", ip + "rule del prio 100",
                                        ipt + "-t nat -I kest_probemon_snat -m owner --uid-owner 010 -j kest_masquerade",
                                        ip + "rule add fwmark 0xa0/0xffff table main prio 29500"})
        EXPECT_FALSE(list.accepts(stranger)) << stranger;
}

}  // namespace

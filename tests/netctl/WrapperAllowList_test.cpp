// Every command line the managers can issue, produced by the managers
// themselves, against the platform wrappers' patterns in device/wrappers/,
// matched the way the wrapper matches them.
#include <regex.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "RecordingCommandExecutor.h"
#include "interfaces/InterfaceTable.h"
#include "netctl/IpRuleManager.h"
#include "netctl/IptablesRuleManager.h"

using namespace probemond;

using Lines = std::vector<std::string>;
using namespace std::string_literals;

namespace {

struct NoKill : probemond::SocketKiller {
    int32_t killUidSockets(const char*) override { return 0; }
};

Lines everyCommandLine() {
    using namespace probemond;
    probemond::test::RecordingCommandExecutor rec;
    NoKill none;
    IptablesRuleManager ipt(rec, none);
    IpRuleManager ip(rec);
    for (const char* uid : {"0", "10123", "999999999", "4294967294"}) ipt.addUid(uid);
    ipt.delUid("10123");
    for (const InterfaceRow& row : kInterfaceTable) {
        ipt.initMangleRules(row.name, row.fwmark, row.kind);
        ipt.initNatRules(row.name);
        for (bool kill : {false, true}) ipt.selectIface(row.name, row.kind, kill);
        ipt.enableAutoSelect(row.name);
        ip.addIpRule(row.name, row.fwmark, row.prio);
        ip.delIpRule(row.prio);
    }
    ipt.disableAutoSelect();
    rec.statuses = {1, 1};  // both jumps missing
    ipt.restoreJumps(ipt.checkHooks());
    return rec.commands();
}

// The lists' patterns as one list, as the wrapper holds them.
Lines patterns(std::initializer_list<const char*> files) {
    Lines out;
    for (const char* name : files) {
        std::ifstream in(std::string(WRAPPER_LISTS_DIR) + "/" + name);
        EXPECT_TRUE(in.good()) << name;
        for (std::string line; std::getline(in, line);)
            if (!line.empty() && line[0] != '#') out.push_back(line);
    }
    return out;
}

// The wrapper replaces its own name with the real tool's path, joins every
// word with single spaces and runs the line when any pattern is found in it.
bool accepts(const Lines& list, const std::string& command) {
    std::istringstream words(command);
    std::string text, w;
    words >> text;  // /system/bin/<tool>-wrapper-1.0
    EXPECT_EQ(text.rfind("/system/bin/ip", 0), 0u) << command;
    text = text.substr(0, text.find("-wrapper-1.0"));
    while (words >> w) text += " " + w;
    bool found = false;
    for (const auto& p : list) {
        regex_t re;
        EXPECT_EQ(regcomp(&re, p.c_str(), REG_EXTENDED | REG_NOSUB), 0) << p;
        found |= regexec(&re, text.c_str(), 0, nullptr, 0) == 0;
        regfree(&re);
    }
    return found;
}

TEST(WrapperAllowList, StockRunsOnlyTheRmnetMasqueradeLines) {
    const Lines stock = patterns({"stock.allow"});
    size_t passed = 0;
    // Output on a vendor interface is a stock pattern; every other line names
    // a chain, an interface or a rule stock knows nothing of.
    for (const auto& c : everyCommandLine()) {
        passed += accepts(stock, c);
        EXPECT_EQ(accepts(stock, c), c.find(" kest_masquerade -o rmnet_data") != std::string::npos) << c;
    }
    EXPECT_EQ(passed, 16u);
}

TEST(WrapperAllowList, WithTheAdditionsEveryLineRunsAndStrangersStillDoNot) {
    const Lines list = patterns({"stock.allow", "probemond.allow"});
    const Lines all = everyCommandLine();
    EXPECT_GT(all.size(), 150u);
    for (const auto& c : all) EXPECT_TRUE(accepts(list, c)) << c;
    const std::string ipt = "/system/bin/iptables-wrapper-1.0 -w -t ", ip = "/system/bin/ip-wrapper-1.0 -4 rule ";
    for (const std::string& stranger :
         {ipt + "mangle -F OUTPUT", ipt + "filter -F kest_probemon_uid", ipt + "mangle -N kest_probemon_wlan2",
          ipt + "mangle -A kest_probemon_wlan0 -j MARK --set-mark 0xd0",
          ipt + "mangle -I kest_probemon_uid -m owner --uid-owner 4294967295 -j kest_probemon_iface",
          ipt + "nat -I kest_probemon_snat -m owner --uid-owner 010 -j kest_masquerade",
          "/system/bin/ip6tables-wrapper-1.0 -w -t mangle -F kest_probemon_uid"s, ip + "del prio 29550",
          ip + "add fwmark 0xa0/0xffff table rmnet_data0 prio 29500", ip + "add fwmark 0xa0/0xffff table main prio 29500"})
        EXPECT_FALSE(accepts(list, stranger)) << stranger;
}

}  // namespace

// Every command line the managers can issue, produced by the managers
// themselves, against the platform wrappers' patterns in device/wrappers/,
// matched by the lab's wrapper.
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "RecordingCommandExecutor.h"
#include "interfaces/InterfaceTable.h"
#include "lab/wrappers/AllowList.h"
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

// The lists as one, as the wrapper holds them.
lab::AllowList lists(std::initializer_list<const char*> files) {
    lab::AllowList list;
    for (const char* name : files) EXPECT_TRUE(list.load(std::string(WRAPPER_LISTS_DIR) + "/" + name)) << name;
    return list;
}

// A command line as the shell splits it, matched by the wrapper it starts.
bool accepts(const lab::AllowList& list, const std::string& command) {
    std::istringstream words(command);
    std::string self, w;
    std::vector<std::string> args;
    words >> self;
    while (words >> w) args.push_back(w);
    const std::string tool = lab::wrapperTool(self);
    EXPECT_FALSE(tool.empty()) << command;
    return list.allows(lab::wrapperText(tool, args));
}

TEST(WrapperAllowList, StockRunsOnlyTheRmnetMasqueradeLines) {
    const lab::AllowList stock = lists({"stock.allow"});
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
    const lab::AllowList list = lists({"stock.allow", "probemond.allow"});
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

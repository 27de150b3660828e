// The auto-select engine: its decisions one step at a time, and the
// manager's thread driving it one 100 ms turn at a time by a sleeper the
// test releases.
#include "interfaces/AutoSelectEngine.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "LogCapture.h"
#include "TempPropertyFile.h"
#include "common/Properties.h"
#include "interfaces/InterfaceManager.h"
#include "InterfaceFakes.h"

using namespace probemond;
using namespace probemond::test;

namespace {

// An engine of its own over a manager's records.
struct EngineRig : FakeManager {
    Selection selection;
    AutoSelectEngine engine{m.interfaces(), recorder, recorder};
};

struct DecisionRow {
    const char* what;
    const char* current;  // the user's choice, which the engine starts from
    int32_t currentRtt;
    size_t currentHistory;
    std::vector<std::pair<const char*, int32_t>> medians;  // each with a history of 5
    std::vector<const char*> list;                         // candidates in list order
    const char* winner;                                    // nullptr: no switch
    bool forcePing;
};

const char* nameOf(const InterfaceInfo* info) { return info ? info->name.c_str() : ""; }

TEST(AutoSelectDecision, RuleTable) {
    const DecisionRow rows[] = {
        {"no selection yet", "", 0, 0, {{"wlan0", 10}}, {"wlan0"}, nullptr, false},
        {"Wi-Fi at 100 stays", "wlan0", 100, 10,
         {{"wlan0", 100}, {"rmnet_data0", 1}}, {"rmnet_data0", "wlan0"}, nullptr, false},
        {"Wi-Fi at 101 leaves for 99", "wlan0", 101, 5,
         {{"wlan0", 101}, {"rmnet_data0", 99}}, {"rmnet_data0", "wlan0"}, "rmnet_data0", true},
        {"a best of 100 is not good enough", "wlan0", 150, 5,
         {{"wlan0", 150}, {"rmnet_data0", 100}}, {"rmnet_data0", "wlan0"}, nullptr, true},
        {"Wi-Fi that is the best stays", "wlan0", 90, 5,
         {{"wlan0", 120}, {"rmnet_data0", 130}}, {"rmnet_data0", "wlan0"}, nullptr, false},
        {"Wi-Fi to the other Wi-Fi", "wlan0", 150, 5, {{"wlan0", 150}, {"wlan1", 40}, {"rmnet_data0", 60}},
         {"rmnet_data0", "wlan1", "wlan0"}, "wlan1", true},
        {"cellular leaves for a slower Wi-Fi", "rmnet_data0", 20, 5,
         {{"rmnet_data0", 20}, {"wlan0", 300}}, {"wlan0"}, "wlan0", false},
        {"cellular stays while it is best", "rmnet_data0", 20, 5,
         {{"rmnet_data0", 20}, {"wlan0", 300}}, {"rmnet_data0", "wlan0"}, nullptr, false},
        {"never cellular to cellular; a failed probe's 200 forces pings", "rmnet_data0", 200, 5,
         {{"rmnet_data0", 250}, {"rmnet_data1", 10}, {"wlan0", 90}}, {"rmnet_data1", "rmnet_data0", "wlan0"}, nullptr, true},
        {"a tie goes to the first in the list", "rmnet_data0", 50, 5,
         {{"rmnet_data0", 70}, {"wlan0", 60}, {"wlan1", 60}}, {"wlan1", "wlan0", "rmnet_data0"}, "wlan1", false},
        {"medians of 0 or below never win", "wlan0", 150, 5,
         {{"wlan0", 150}, {"rmnet_data0", 0}, {"rmnet_data1", -4}, {"rmnet_data2", 50}},
         {"rmnet_data0", "rmnet_data1", "rmnet_data2"}, "rmnet_data2", true},
        {"a history of 4 waits", "wlan0", 150, 4,
         {{"wlan0", 150}, {"rmnet_data0", 10}}, {"rmnet_data0", "wlan0"}, nullptr, false},
        {"no candidate at all", "rmnet_data0", 300, 5, {{"rmnet_data0", 300}}, {}, nullptr, true},
    };
    // One engine through every row: a row that raises the force-ping hint
    // is followed by rows whose decision must clear it.
    TempPropertyFile props;
    EngineRig fake;
    AbandonableLock held(fake.selection.ifaceMutex);
    for (const DecisionRow& row : rows) {
        SCOPED_TRACE(row.what);
        if (*row.current) fake.selection.setUser(fake.info(row.current));
        std::vector<InterfaceInfo*> list;
        for (const char* name : row.list) list.push_back(&fake.info(name));
        fake.engine.begin(fake.selection, list);
        for (const auto& [name, mrtt] : row.medians) fake.history(name, 5, mrtt);
        if (*row.current) {
            fake.history(row.current, row.currentHistory, fake.info(row.current).median().mrtt);
            fake.info(row.current).rtt = row.currentRtt;
        }
        fake.recorder.clear();

        EXPECT_EQ(row.winner != nullptr, fake.engine.decide(fake.selection, list));
        EXPECT_EQ(row.forcePing, fake.engine.isForcePing());
        const std::string now = row.winner ? row.winner : row.current;
        EXPECT_EQ(now, nameOf(fake.selection.autoChoice()));
        EXPECT_EQ(row.winner ? (Strings{"notify " + now, "auto " + now}) : Strings{}, fake.recorder.calls());
    }
    // Ending after a row that raised the hint, on the user's own choice:
    // nothing to reset (the thread test ends away from it).
    fake.recorder.clear();
    fake.engine.end(fake.selection);
    EXPECT_EQ(Strings{}, fake.recorder.calls());
    EXPECT_EQ(nullptr, fake.selection.autoChoice());
    EXPECT_FALSE(fake.engine.isForcePing());

    // Results from before a run began are not fresh: it waits for new ones.
    fake.selection.setUser(fake.info("wlan0"));
    fake.history("wlan0", 5, 150);
    fake.history("rmnet_data0", 5, 10);
    const Candidates stale{&fake.info("rmnet_data0"), &fake.info("wlan0")};
    fake.engine.begin(fake.selection, stale);
    EXPECT_FALSE(fake.engine.decide(fake.selection, stale)) << "decided on results from before the engine began";
}

// On equal medians the name written later wins (neither the first written
// nor the first in the map).
TEST(AutoSelectThread, SwitchesAndStopsInOrderWhileSelectionWaits) {
    TempPropertyFile props;
    FakeManager fake;
    fake.sleeper.step();
    ASSERT_EQ(0, fake.m.selectInterface("rmnet_data0"));
    fake.recorder.clear();
    fake.m.enableAutoSelect(",bogus,wlan0,,wlan1,wlan1,wlan0");
    ASSERT_TRUE(fake.sleeper.waitForSleep(1));  // no history yet: no decision
    for (auto& [name, info] : fake.m.interfaces()) {
        EXPECT_EQ(name == "wlan0" || name == "wlan1", info->isControlByAutoSelect.load()) << name;
    }
    fake.history("rmnet_data0", 5, 70);
    fake.history("wlan0", 5, 60);
    fake.history("wlan1", 5, 60);
    fake.sleeper.release();
    ASSERT_TRUE(fake.sleeper.waitForSleep(2));
    EXPECT_EQ(0u, fake.info("wlan0").median().historySize);  // the next decision waits for fresh results

    std::atomic<int> selected{99};
    std::thread select([&] { selected = fake.m.selectInterface("wlan0"); });
    EXPECT_FALSE(waitUntil([&] { return selected != 99; }, 150)) << "selection ran beside the engine";
    fake.m.disableAutoSelect();
    fake.sleeper.release();
    select.join();
    fake.launcher.join();
    EXPECT_EQ(0, selected);
    EXPECT_EQ((Strings{"clear auto", "notify ", "notify rmnet_data0", "notify wlan1", "auto wlan1",
                       "clear auto", "notify ", "reset", "user wlan0 wifi reset"}),
              fake.recorder.calls());
    EXPECT_EQ((std::vector<uint32_t>{100000, 100000}), fake.sleeper.requests());
}

Strings names(const Candidates& c) {
    Strings out;
    for (const InterfaceInfo* info : c) out.push_back(info->name);
    return out;
}

// The list is comma-terminated, unknown names are skipped, a repeat stands
// again and the last listed comes first. A parcel's worth of repeats keeps
// the list short and decides as the full list would: each interface where its
// last mention puts it (a repeat that were merely dropped would leave
// rmnet_data0 behind wlan1).
TEST(AutoSelectList, ParsedInOrderAndRepeatsPastTheBoundMoveToTheFront) {
    TempPropertyFile props;
    EngineRig fake;
    EXPECT_EQ((Strings{"wlan1", "wlan1", "wlan0"}),
              names(fake.engine.restartOn(fake.selection, ",bogus,wlan0,,wlan1,wlan1,rmnet_data0")));
    std::string list = "wlan0,rmnet_data0,";
    for (int i = 0; i < 20000; ++i) list += "wlan1,";
    LogCapture log;
    const Candidates c = fake.engine.restartOn(fake.selection, (list + "rmnet_data0,bogus,").c_str());
    EXPECT_EQ(kMaxCandidates, c.size());
    EXPECT_EQ(kMaxCandidates, log.texts().size());
    Strings order;
    for (const std::string& name : names(c)) {
        if (std::find(order.begin(), order.end(), name) == order.end()) order.push_back(name);
    }
    EXPECT_EQ((Strings{"rmnet_data0", "wlan1", "wlan0"}), order);
    fake.engine.stop();
}

}  // namespace

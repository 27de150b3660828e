// Client text through the real operations that take it: interface names to
// the worker controls, policy rules and rtt; candidate lists to the
// auto-select engine; UID text to the firewall manager. Their seams record
// instead of acting. Nothing may end the process, and what each operation did
// must follow from its text alone.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz/FuzzCommon.h"
#include "interfaces/AutoSelectEngine.h"
#include "interfaces/InterfaceManager.h"
#include "netctl/IptablesRuleManager.h"
#include "tests/support/InterfaceFakes.h"
#include "tests/support/RecordingCommandExecutor.h"

using namespace probemond;

namespace {

// The suite's seam fakes: no engine thread or worker runs, and nothing
// here sleeps.
probemond::test::FakeManager* gFake;
probemond::test::RecordingCommandExecutor* gCommands;
InterfaceManager* gManager;
AutoSelectEngine* gEngine;
Selection* gSelection;
IptablesRuleManager* gIptables;
std::vector<std::string> gLines;

void keepLine(const struct __android_logger_data*, const char* line) { gLines.emplace_back(line); }

bool known(const std::string& name) { return gManager->interfaces().count(name) != 0; }

void checkRtt(const std::string& name) {
    gLines.clear();
    const int32_t rtt = gManager->getInterfaceRtt(name.c_str());
    FUZZ_CHECK(rtt == -1 || (known(name) && rtt == gManager->getIfaceInfo(name)->rtt));
    if (name.size() < 16) return;
    // No interface is named so; the line that says so is short and printable.
    FUZZ_CHECK(rtt == -1);
    for (const std::string& line : gLines) {
        FUZZ_CHECK(line.size() < 128);
        for (unsigned char c : line) FUZZ_CHECK(c >= 0x20 && c < 0x7f);
    }
}

void checkControls(const std::string& name) {
    gFake->recorder.clear();
    const int32_t started = gManager->startPingThread(name.c_str());
    const int32_t stopped = gManager->stopPingThread(name.c_str());
    gManager->addInterfaceIpRule(name.c_str());
    gManager->delInterfaceIpRule(name.c_str());
    FUZZ_CHECK(started == (known(name) ? 0 : -1) && stopped == started);
    FUZZ_CHECK(gFake->recorder.calls().size() == (known(name) ? 3u : 0u));
}

// Each record once, in the order a walk meets it.
std::vector<InterfaceInfo*> distinct(const std::vector<InterfaceInfo*>& list) {
    std::vector<InterfaceInfo*> out;
    for (InterfaceInfo* info : list) {
        if (std::find(out.begin(), out.end(), info) == out.end()) out.push_back(info);
    }
    return out;
}

void checkCandidates(const std::string& text) {
    // The list as written: comma-terminated, unknown names skipped, the
    // last listed first, every repeat standing.
    std::vector<InterfaceInfo*> full;
    size_t start = 0;
    for (size_t comma; (comma = text.find(',', start)) != std::string::npos; start = comma + 1) {
        const std::string token = text.substr(start, comma - start);
        if (known(token)) full.insert(full.begin(), gManager->getIfaceInfo(token));
    }
    const Candidates got = gEngine->restartOn(*gSelection, text.c_str());
    gEngine->stop();
    if (full.size() <= kMaxCandidates) {
        FUZZ_CHECK(got == full);
    } else {
        FUZZ_CHECK(got.size() < kMaxCandidates + std::size(kInterfaceTable));
        FUZZ_CHECK(distinct(got) == distinct(full));
    }
}

void checkUid(const std::string& text) {
    gCommands->take();
    gIptables->addUid(text.c_str());
    gIptables->delUid(text.c_str());
    if (gCommands->take().empty()) return;
    // Taken: the text reads back as the same UID whoever parses it.
    char* end = nullptr;
    const unsigned long long uid = strtoull(text.c_str(), &end, 10);
    FUZZ_CHECK(*end == '\0' && std::to_string(uid) == text && uid < 4294967295ull);
    FUZZ_CHECK(gIptables->uidListSnapshot().empty());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    probemond::fuzz::quietLogs();
    gFake = new probemond::test::FakeManager();
    gManager = &gFake->m;
    gSelection = new Selection();
    gEngine = new AutoSelectEngine(gManager->interfaces(), gFake->recorder, gFake->recorder);
    gCommands = new probemond::test::RecordingCommandExecutor();
    gIptables = new IptablesRuleManager(*gCommands, *gCommands);
    __android_log_set_logger(keepLine);
    return 0;
}

// Byte 0 picks the operation; the rest, up to a NUL, is the client's text.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const std::string text(reinterpret_cast<const char*>(data + 1),
                           strnlen(reinterpret_cast<const char*>(data + 1), size - 1));
    switch (data[0] % 4) {
        case 0: checkRtt(text); break;
        case 1: checkControls(text); break;
        case 2: checkCandidates(text); break;
        case 3: checkUid(text); break;
    }
    gLines.clear();
    gFake->recorder.clear();
    return 0;
}

// IPv4 policy rules that route packets with an interface's mark to the
// routing table named after that interface.
#pragma once

#include <cstdint>

#include "common/ThreadAnnotations.h"

class IpRuleManager {
public:
    static IpRuleManager* instance();

    // 0 when the add command could be started, -1 otherwise.
    int32_t addIpRule(const char* table, const char* fwmark, const char* prio) PM_EXCLUDES(mMutex);
    // 0 when the delete command could be started, -1 otherwise.
    int32_t delIpRule(const char* prio) PM_EXCLUDES(mMutex);

    // Tests only: the next instance() builds a fresh manager. The old one is
    // kept alive, never destroyed.
    static void resetForTest();

private:
    IpRuleManager() = default;

    probemond::Mutex mMutex;
};

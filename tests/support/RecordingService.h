// A stand-in for the daemon's service: records which operation ran with what
// (by the transaction code its operation belongs to) and answers result().
#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "daemon/IKestNetworkProbeMon.h"

namespace probemond::test {

class RecordingService : public android::BnKestNetworkProbeMon {
public:
    using Call = std::pair<int, std::string>;
    std::vector<Call> calls() const {
        std::lock_guard<std::mutex> g(lock_);
        return calls_;
    }
    void clear() {
        std::lock_guard<std::mutex> g(lock_);
        calls_.clear();
    }

    int32_t startPingInternal(std::string a) override { return rec(1, a); }
    int32_t stopPingInternal(std::string a) override { return rec(2, a); }
    int32_t stopAllPingInternal() override { return rec(3, ""); }
    int32_t suspendAllPingInternal() override { return rec(4, ""); }
    int32_t resumeAllPingInternal() override { return rec(5, ""); }
    int32_t getRttInternal(std::string a) override { return rec(6, a); }
    int32_t addUidInternal(std::string a) override { return rec(7, a); }
    int32_t delUidInternal(std::string a) override { return rec(8, a); }
    int32_t addIpRuleInternal(std::string a) override { return rec(9, a); }
    int32_t delIpRuleInternal(std::string a) override { return rec(10, a); }
    int32_t selectInterfaceInternal(std::string a) override { return rec(11, a); }
    int32_t enableAutoSelectInternal(std::string a) override { return rec(12, a); }
    int32_t disableAutoSelectInternal() override { return rec(13, ""); }

protected:
    // Non-zero by default, so a reply of 0 proves the result was dropped.
    virtual int32_t result(int code, const std::string&) { return 100 + code; }

private:
    int32_t rec(int code, const std::string& arg) {
        {
            std::lock_guard<std::mutex> g(lock_);
            calls_.emplace_back(code, arg);
        }
        return result(code, arg);
    }
    mutable std::mutex lock_;
    std::vector<Call> calls_;
};

}  // namespace probemond::test

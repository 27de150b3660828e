// Any transaction, any parcel bytes, through the service stub. The service
// behind it only records what the stub decoded, so every checked property is
// about the stub: which method ran, with what, and what went back.
#include <cstring>
#include <string>
#include <vector>

#include <binder/IBinder.h>
#include <binder/Parcel.h>

#include "daemon/IKestNetworkProbeMon.h"
#include "fuzz/FuzzCommon.h"
#include "tests/support/RecordingService.h"

using namespace android;

namespace {

// The suite's recording service, reporting `rtt` for an rtt call.
struct Service : probemond::test::RecordingService {
    int32_t rtt = 0;
    int32_t result(int code, const std::string& arg) override {
        return code == IKestNetworkProbeMon::GET_RTT ? rtt : RecordingService::result(code, arg);
    }
};

const uint32_t kPlatformCodes[] = {
        IBinder::PING_TRANSACTION,      IBinder::DUMP_TRANSACTION,
        IBinder::INTERFACE_TRANSACTION, IBinder::DEBUG_PID_TRANSACTION,
        IBinder::SHELL_COMMAND_TRANSACTION, IBinder::LAST_CALL_TRANSACTION,
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    probemond::fuzz::quietLogs();
    return 0;
}

// Byte 0 picks the code: 0..15 as is (the thirteen calls and both sides of
// them), 16.. a platform code, 0xFF the next four bytes raw. Byte 1: bit 0
// one-way, bit 1 no reply parcel, bits 2.. the RTT the service reports.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    uint32_t code;
    size_t used = 2;
    if (data[0] < 16) {
        code = data[0];
    } else if (data[0] < 0xFF) {
        code = kPlatformCodes[data[0] % (sizeof(kPlatformCodes) / sizeof(kPlatformCodes[0]))];
    } else {
        if (size < 6) return 0;
        memcpy(&code, data + 2, sizeof(code));
        used = 6;
    }
    const uint32_t flags = data[1] & IBinder::FLAG_ONEWAY;
    const bool withReply = (data[1] & 2) == 0;

    sp<Service> service = new Service();
    service->rtt = static_cast<int32_t>(data[1] >> 2) - 1;
    Parcel parcel;
    FUZZ_CHECK(parcel.setData(data + used, size - used) == OK);
    Parcel reply;
    const status_t status = service->transact(code, parcel, withReply ? &reply : nullptr, flags);

    const bool ours = code >= IKestNetworkProbeMon::START_PING && code <= IKestNetworkProbeMon::DISABLE_AUTO_SELECT;
    const std::vector<probemond::test::RecordingService::Call> calls = service->calls();
    if (!ours) {
        FUZZ_CHECK(calls.empty());
        return 0;
    }
    if (status != OK) {
        // Only a missing argument refuses a call, and then nothing ran.
        FUZZ_CHECK(status == BAD_VALUE && IKestNetworkProbeMon::takesArgument(code));
        FUZZ_CHECK(calls.empty());
        FUZZ_CHECK(reply.dataSize() == 0);
        return 0;
    }
    FUZZ_CHECK(calls.size() == 1);
    const auto& [calledCode, arg] = calls[0];
    FUZZ_CHECK(static_cast<uint32_t>(calledCode) == code);
    if (!IKestNetworkProbeMon::takesArgument(code)) FUZZ_CHECK(arg.empty());
    // The argument is a C string taken from the parcel: it fits in it, no NUL inside.
    FUZZ_CHECK(arg.size() < size);
    FUZZ_CHECK(memchr(arg.data(), 0, arg.size()) == nullptr);
    if (!arg.empty()) {
        const std::string body(reinterpret_cast<const char*>(data + used), size - used);
        FUZZ_CHECK(body.find(arg) != std::string::npos);
    }
    if (withReply) {
        FUZZ_CHECK(reply.dataSize() == sizeof(int32_t));
        reply.setDataPosition(0);
        const int32_t result = reply.readInt32();
        // Only the rtt's result goes back; the others' (non-zero) results are dropped.
        FUZZ_CHECK(result == (code == IKestNetworkProbeMon::GET_RTT ? service->rtt : 0));
    }
    return 0;
}

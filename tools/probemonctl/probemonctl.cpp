// Command-line client of probemond: one transaction per invocation, or a
// callback watcher that stands in for the vendor client.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>

#include <mutex>
#include <string>

#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>

#include "daemon/IKestNetworkProbeMon.h"
#include "daemon/IKestNetworkProbeMonCallback.h"
#include "tools/probemonctl/Service.h"
#include "tools/probemonctl/Top.h"

using namespace android;
using probemond::ctl::statusName;

namespace {

constexpr const char* kDriver = IKestNetworkProbeMon::kDriver;
constexpr const char* kCallbackName = IKestNetworkProbeMonCallback::kServiceName;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

struct Command {
    const char* name;
    uint32_t code;
    const char* argName;  // null: takes no argument
};

const Command kCommands[] = {
    {"start-ping", IKestNetworkProbeMon::START_PING, "IFACE"},
    {"stop-ping", IKestNetworkProbeMon::STOP_PING, "IFACE"},
    {"stop-all-ping", IKestNetworkProbeMon::STOP_ALL_PING, nullptr},
    {"suspend-all-ping", IKestNetworkProbeMon::SUSPEND_ALL_PING, nullptr},
    {"resume-all-ping", IKestNetworkProbeMon::RESUME_ALL_PING, nullptr},
    {"rtt", IKestNetworkProbeMon::GET_RTT, "IFACE"},
    {"add-uid", IKestNetworkProbeMon::ADD_UID, "UID"},
    {"del-uid", IKestNetworkProbeMon::DEL_UID, "UID"},
    {"add-ip-rule", IKestNetworkProbeMon::ADD_IP_RULE, "IFACE"},
    {"del-ip-rule", IKestNetworkProbeMon::DEL_IP_RULE, "IFACE"},
    {"select", IKestNetworkProbeMon::SELECT_INTERFACE, "IFACE"},
    {"auto-select", IKestNetworkProbeMon::ENABLE_AUTO_SELECT, "LIST"},
    {"disable-auto-select", IKestNetworkProbeMon::DISABLE_AUTO_SELECT, nullptr},
};

// Asked for (--help): on stdout, exit 0; after a wrong use: on stderr, exit 2.
int usage(const char* problem, bool asked = false) {
    FILE* out = asked ? stdout : stderr;
    if (problem != nullptr) fprintf(stderr, "probemonctl: %s\n", problem);
    fprintf(out, "usage: probemonctl COMMAND [ARG]\n");
    for (const Command& c : kCommands) {
        fprintf(out, "  %s%s%s\n", c.name, c.argName ? " " : "", c.argName ? c.argName : "");
    }
    fprintf(out,
            "  dump                  print the service's state\n"
            "  top [--interval S] [--once]  live table of the interfaces, from the dump\n"
            "  watch [--reply N]     serve %s, print each onAutoSelect, answer N (default 0)\n"
            "  call CODE [STRING]    send transaction CODE with an optional C string\n"
            "Each command prints the reply integer.\n",
            kCallbackName);
    return asked ? 0 : kExitUsage;
}

bool parseInt(const char* text, long long lo, long long hi, long long* out) {
    errno = 0;
    char* end = nullptr;
    // Decimal, or hex with 0x; never octal, so "010" is ten.
    const bool hex = text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const long long v = strtoll(text, &end, hex ? 16 : 10);
    if (errno != 0 || end == text || *end != '\0' || v < lo || v > hi) return false;
    *out = v;
    return true;
}

sp<IBinder> findService() {
    std::string error;
    sp<IBinder> binder = probemond::ctl::findService(&error);
    if (binder == nullptr) fprintf(stderr, "probemonctl: %s\n", error.c_str());
    return binder;
}

int runCall(uint32_t code, const char* arg) {
    sp<IBinder> binder = findService();
    if (binder == nullptr) return kExitFailed;
    sp<BpKestNetworkProbeMon> service = new BpKestNetworkProbeMon(binder);
    int32_t result = 0;
    const status_t status = service->call(code, arg, &result);
    if (status != OK) {
        fprintf(stderr, "probemonctl: transaction %u failed: %s (%d)\n", code, statusName(status), status);
        return kExitFailed;
    }
    printf("%d\n", result);
    return 0;
}

int runDump() {
    std::string text, error;
    const bool done = probemond::ctl::readDump(&text, &error);
    fwrite(text.data(), 1, text.size(), stdout);
    fflush(stdout);
    if (!done) {
        fprintf(stderr, "probemonctl: %s\n", error.c_str());
        return kExitFailed;
    }
    return 0;
}

class Watcher : public BnKestNetworkProbeMonCallback {
public:
    explicit Watcher(int32_t reply) : mReply(reply) {}

    int32_t onAutoSelect(std::string iface) override {
        timeval tv;
        gettimeofday(&tv, nullptr);
        tm local;
        localtime_r(&tv.tv_sec, &local);
        char when[32];
        strftime(when, sizeof(when), "%Y-%m-%d %H:%M:%S", &local);
        std::lock_guard<std::mutex> g(mLock);
        printf("%s.%03ld onAutoSelect(%s) -> %d\n", when, static_cast<long>(tv.tv_usec / 1000),
               iface.c_str(), mReply);
        fflush(stdout);
        return mReply;
    }

private:
    const int32_t mReply;
    std::mutex mLock;
};

int runWatch(int32_t reply) {
    sp<Watcher> watcher = new Watcher(reply);
    const status_t status = defaultServiceManager()->addService(String16(kCallbackName), watcher);
    if (status != OK) {
        fprintf(stderr, "probemonctl: cannot register %s: %s (%d)\n", kCallbackName, statusName(status),
                status);
        return kExitFailed;
    }
    fprintf(stderr, "probemonctl: serving %s, answering %d\n", kCallbackName, reply);
    ProcessState::self()->startThreadPool();
    IPCThreadState::self()->joinThreadPool();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return usage(nullptr);
    const std::string cmd = argv[1];
    if (cmd == "--help" || cmd == "-h") return usage(nullptr, true);
    const int extra = argc - 2;
    ProcessState::initWithDriver(kDriver);

    for (const Command& c : kCommands) {
        if (cmd != c.name) continue;
        const int wanted = c.argName != nullptr ? 1 : 0;
        if (extra != wanted) {
            return usage((cmd + (wanted ? " takes one argument" : " takes no argument")).c_str());
        }
        return runCall(c.code, wanted ? argv[2] : nullptr);
    }
    if (cmd == "dump") {
        if (extra != 0) return usage("dump takes no argument");
        return runDump();
    }
    if (cmd == "top") return probemond::ctl::runTop(extra, argv + 2);
    if (cmd == "watch") {
        long long reply = 0;
        if (extra == 2 && strcmp(argv[2], "--reply") == 0) {
            if (!parseInt(argv[3], INT32_MIN, INT32_MAX, &reply)) return usage("--reply takes an int32");
        } else if (extra != 0) {
            return usage("watch takes only --reply N");
        }
        return runWatch(static_cast<int32_t>(reply));
    }
    if (cmd == "call") {
        long long code = 0;
        if (extra < 1 || extra > 2) return usage("call takes CODE and an optional STRING");
        if (!parseInt(argv[2], 0, UINT32_MAX, &code)) return usage("CODE must be an unsigned 32-bit number");
        return runCall(static_cast<uint32_t>(code), extra == 2 ? argv[3] : nullptr);
    }
    return usage(("unknown command " + cmd).c_str());
}

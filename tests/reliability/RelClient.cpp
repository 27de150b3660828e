// Client side of the reliability lab tests, one role per run:
//   probemond-rel-client stress SECONDS SEED [CYCLE]  random calls; every CYCLE s auto-select off, two selects, on
//   probemond-rel-client malformed                     broken requests, each followed by a proper one
//   probemond-rel-client hang-watcher                  serves the callback and never answers it
// stress and malformed print one summary line and exit 1 on any unexpected answer.
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>

#include "daemon/IKestNetworkProbeMon.h"
#include "daemon/IKestNetworkProbeMonCallback.h"

using namespace android;
using M = IKestNetworkProbeMon;
using Fd = android::base::unique_fd;

namespace {

sp<IBinder> gService;
sp<BpKestNetworkProbeMon> gProxy;  // proper calls, as the vendor client makes them
int gCalls = 0, gBad = 0;

void note(bool ok, const std::string& what) {
    gCalls++;
    if (!ok && ++gBad <= 20) fprintf(stderr, "rel-client: %s\n", what.c_str());
}

std::string tokenBytes() {
    Parcel p;
    p.writeInterfaceToken(M::descriptor);
    return std::string(reinterpret_cast<const char*>(p.data()), p.dataSize());
}

// Sends the token (unless raw), the bytes as they are and the descriptors.
status_t send(uint32_t code, const std::string& bytes, std::vector<int> fds = {}, bool raw = false) {
    Parcel data, reply;
    const std::string all = (raw ? "" : tokenBytes()) + bytes;
    data.setData(reinterpret_cast<const uint8_t*>(all.data()), all.size());
    data.setDataPosition(all.size());
    for (int fd : fds) data.writeFileDescriptor(fd);
    return gService->transact(code, data, &reply);
}

status_t dumpTo(int fd, int32_t argc = 0) {
    Parcel data, reply;
    data.writeFileDescriptor(fd);
    data.writeInt32(argc);
    data.writeInt32(0x7ffffff0);  // an argument length far beyond the data
    return gService->transact(IBinder::DUMP_TRANSACTION, data, &reply);
}

// The daemon still answers a proper call (a crash shows here: the proxy stays dead).
void stillServes(const std::string& what) {
    int32_t r = 0;
    note(gProxy->call(M::GET_RTT, "wlan0", &r) == OK, what + ": no answer afterwards");
}

int stress(double seconds, unsigned seed, double cycle) {
    const char* names[] = {"wlan0", "wlan1", "rmnet_data0", "rmnet_data7", "eth0", "", "wlan0;id", "10200", "abc",
                           "rmnet_data0wlan0", "wlan0\x01\xff rmnet_data0 rmnet_data1 rmnet_data2"};
    std::mt19937 rng(seed);
    const auto start = std::chrono::steady_clock::now();
    auto elapsed = [&] { return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(); };
    double lastCycle = 0;
    while (elapsed() < seconds) {
        int32_t r = 0;
        if (cycle > 0 && elapsed() - lastCycle >= cycle) {
            // Only this client calls select, and with auto-select off: the
            // engine stops, the selects wait for it at most, then it restarts.
            lastCycle = elapsed();
            for (auto [code, arg] : {std::make_pair(M::DISABLE_AUTO_SELECT, ""), {M::SELECT_INTERFACE, "wlan1"},
                                     {M::SELECT_INTERFACE, "wlan0"}, {M::ENABLE_AUTO_SELECT, "wlan0,rmnet_data0,"}})
                note(gProxy->call(code, *arg ? arg : nullptr, &r) == OK && r == 0, "cycle");
            // Under an emulator every wrapper command forks it: only a hang fails there.
            const char* emu = getenv("PROBEMOND_EMULATOR");
            const double bound = emu != nullptr && *emu != '\0' ? 30 : 5;
            note(elapsed() - lastCycle < bound, "cycle took " + std::to_string(elapsed() - lastCycle) + " s");
            continue;
        }
        // Mostly reads, as a client polls; 14 goes to the platform's default.
        const uint32_t codes[] = {6, 6, 6, 6, 6, 6, 6, 6, 1, 1, 2, 2, 3, 4, 5, 7, 8, 9, 10, 14};
        const uint32_t code = codes[rng() % 20];
        const std::string arg = names[rng() % std::size(names)];
        const status_t s = gProxy->call(code, arg.c_str(), &r);
        if (code == 14) note(s == UNKNOWN_TRANSACTION, "code 14: " + std::to_string(s));
        else if (code == M::GET_RTT) note(s == OK && r >= -1 && r <= 5000, "rtt " + arg + ": " + std::to_string(r));
        else note(s == OK && r == 0, "code " + std::to_string(code) + " " + arg + ": " + std::to_string(s));
        if (rng() % 20 == 0) {
            int fds[2];
            if (pipe2(fds, O_CLOEXEC) != 0) return 1;
            Fd readEnd(fds[0]), writeEnd(fds[1]);
            note(dumpTo(writeEnd.get()) == OK, "dump");  // fits the pipe
        }
    }
    printf("calls=%d bad=%d\n", gCalls, gBad);
    return gBad == 0 ? 0 : 1;
}

// The host transport's framing, for a client that writes its own bytes.
std::string frame(uint32_t code, uint32_t flags, uint32_t fdCount, const std::string& body) {
    const uint32_t h[4] = {B_PACK_CHARS('P', 'B', 'T', 'X'), code, flags, fdCount};
    return std::string(reinterpret_cast<const char*>(h), sizeof h) + body;
}

// What a raw connection hears back within two seconds: "closed", "silent" or the status.
std::string raw(const std::string& bytes, int fd = -1) {
    Fd s(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un addr{AF_UNIX, {}};
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s/probemond_Binder", ProcessState::self()->hostDirectory().c_str());
    if (connect(s.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) return "no connection";
    iovec iov{const_cast<char*>(bytes.data()), bytes.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    msghdr msg{nullptr, 0, &iov, 1, fd >= 0 ? control : nullptr, fd >= 0 ? sizeof control : 0, 0};
    if (fd >= 0) {
        *CMSG_FIRSTHDR(&msg) = cmsghdr{CMSG_LEN(sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
        memcpy(CMSG_DATA(CMSG_FIRSTHDR(&msg)), &fd, sizeof fd);
    }
    sendmsg(s.get(), &msg, MSG_NOSIGNAL);
    pollfd p{s.get(), POLLIN, 0};
    char buf[64];
    if (poll(&p, 1, 2000) != 1) return "silent";
    const ssize_t n = recv(s.get(), buf, sizeof buf, 0);
    int32_t status = 0;
    if (n >= 8) memcpy(&status, buf + 4, 4);
    return n <= 0 ? "closed" : std::to_string(status);
}

int malformed() {
    const std::string token = tokenBytes();
    Fd pipeRead, pipeWrite;
    int fds[2];
    if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) return 1;
    pipeRead.reset(fds[0]);
    pipeWrite.reset(fds[1]);
    for (uint32_t code = M::START_PING; code <= M::ENABLE_AUTO_SELECT; code++) {
        if (!M::takesArgument(code)) continue;
        // No string or no terminator: refused before anything runs (for select,
        // that keeps ifaceMutex free).
        note(send(code, "") == BAD_VALUE, "missing string to " + std::to_string(code));
        note(send(code, "wlan0wlan") == BAD_VALUE, "unterminated string to " + std::to_string(code));
    }
    for (uint32_t code : {M::START_PING, M::ADD_UID, M::STOP_ALL_PING}) send(code, "", {pipeRead.get()});
    stillServes("descriptors where strings belong");
    note(send(M::STOP_PING, std::string("wlan0\0\0", 8), std::vector<int>(16, pipeWrite.get())) == OK, "16 fds");
    int32_t r = 0;
    note(gProxy->call(M::ADD_UID, std::string(200 * 1024, '7').c_str(), &r) == FAILED_TRANSACTION, "oversized parcel");
    // Dumps to nowhere, to a reader gone, to a full pipe nobody drains, with absurd counts: each ends.
    const char junk[4096] = {};
    while (write(pipeWrite.get(), junk, sizeof junk) > 0) {
    }
    fcntl(pipeWrite.get(), F_SETFL, 0);
    dumpTo(pipeWrite.get(), 0x7fffffff);
    pipeRead.reset();
    dumpTo(pipeWrite.get(), -1);
    send(IBinder::DUMP_TRANSACTION, std::string(4, '\0'), {}, true);
    stillServes("dumps");
    // The wire itself: short, wrong magic, descriptors not announced or missing, oversized.
    std::string wrongMagic = frame(M::STOP_ALL_PING, 0, 0, token);
    wrongMagic[0] ^= 0x7f;
    const std::string failed = std::to_string(FAILED_TRANSACTION);
    for (const auto& [bytes, fd, expected] : std::vector<std::tuple<std::string, int, std::string>>{
             {"", -1, "closed"}, {"abc", -1, "closed"}, {wrongMagic, -1, "closed"},
             {frame(M::STOP_ALL_PING, 0, 3, token), -1, failed}, {frame(M::STOP_ALL_PING, 0, 0, token), 0, failed},
             {frame(M::ADD_UID, 0, 0, std::string(150 * 1024, '7')), -1, failed},
             {frame(M::ADD_UID, IBinder::FLAG_ONEWAY, 0, "\xde\xad"), -1, "silent"}}) {
        const std::string got = raw(bytes, fd);
        note(got == expected, "raw message of " + std::to_string(bytes.size()) + " bytes: " + got);
    }
    stillServes("raw messages");
    // Client text at its limits: names too long for any interface, a parcel's worth of list.
    for (const std::string& name : {std::string("rmnet_data0wlan0"), "wlan0\x01\xff" + std::string(40, 'x')})
        note(gProxy->call(M::GET_RTT, name.c_str(), &r) == OK && r == -1, "rtt of a long name: " + std::to_string(r));
    std::string repeats;
    while (repeats.size() < 120 * 1024) repeats += "wlan0,";
    for (const std::string& list : {repeats, std::string(120 * 1024, ',')})
        note(gProxy->call(M::ENABLE_AUTO_SELECT, list.c_str(), &r) == OK && r == 0, "a list of 120 KiB");
    note(gProxy->call(M::DISABLE_AUTO_SELECT, nullptr, &r) == OK, "disable");
    // Idle connections beyond the bound are closed at once; the others stay.
    std::vector<Fd> idle;
    std::vector<pollfd> watched;
    for (int i = 0; i < 300; i++) {
        Fd c(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        sockaddr_un addr{AF_UNIX, {}};
        snprintf(addr.sun_path, sizeof addr.sun_path, "%s/probemond_Binder", ProcessState::self()->hostDirectory().c_str());
        if (connect(c.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) return 1;
        watched.push_back({c.get(), POLLIN, 0});
        idle.push_back(std::move(c));
    }
    int closed = 0;
    for (auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
         closed < 300 - 256 && std::chrono::steady_clock::now() < deadline;) {
        poll(watched.data(), watched.size(), 100);
        closed = static_cast<int>(std::count_if(watched.begin(), watched.end(), [](const pollfd& p) { return p.revents != 0; }));
    }
    note(closed >= 300 - 256 && closed <= 100, "idle connections closed by the daemon: " + std::to_string(closed));
    idle.clear();
    gService = defaultServiceManager()->checkService(String16("probemond_Binder"));
    if (gService == nullptr) return 1;
    gProxy = new BpKestNetworkProbeMon(gService);
    stillServes("idle connections");
    printf("malformed calls=%d bad=%d\n", gCalls, gBad);
    return gBad == 0 ? 0 : 1;
}

class HangWatcher : public BnKestNetworkProbeMonCallback {
    int32_t onAutoSelect(std::string iface) override {
        printf("onAutoSelect(%s) taken, not answering\n", iface.c_str());
        fflush(stdout);
        for (;;) pause();
    }
};

}  // namespace

int main(int argc, char** argv) {
    ProcessState::initWithDriver("/dev/vndbinder");
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "hang-watcher") {
        if (defaultServiceManager()->addService(String16("NetworkProbeMon_Binder"), new HangWatcher()) != OK) return 1;
        printf("serving\n");
        fflush(stdout);
        ProcessState::self()->startThreadPool();
        IPCThreadState::self()->joinThreadPool();
    }
    gService = defaultServiceManager()->checkService(String16("probemond_Binder"));
    if (gService == nullptr) return 1;
    gProxy = new BpKestNetworkProbeMon(gService);
    if (mode == "stress" && argc >= 4) return stress(atof(argv[2]), atoi(argv[3]), argc > 4 ? atof(argv[4]) : 0);
    if (mode == "malformed") return malformed();
    fprintf(stderr, "usage: probemond-rel-client stress SECONDS SEED [CYCLE] | malformed | hang-watcher\n");
    return 2;
}

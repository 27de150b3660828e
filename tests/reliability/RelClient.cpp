// Client side of the reliability lab tests, one role per run:
//   probemond-rel-client stress SECONDS MAXCALLS SEED [--auto-cycle SECONDS]
//   probemond-rel-client malformed
//   probemond-rel-client hang-watcher
// stress and malformed print one summary line and exit 1 on any unexpected
// answer; hang-watcher serves the callback and never answers it.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>

#include "daemon/IKestNetworkProbeMon.h"
#include "daemon/IKestNetworkProbeMonCallback.h"

using namespace android;
using Clock = std::chrono::steady_clock;

namespace {

constexpr const char* kServiceName = "probemond_Binder";
constexpr const char* kCallbackName = "NetworkProbeMon_Binder";
using M = IKestNetworkProbeMon;

class Fd {
public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd() { reset(); }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return fd_; }
    void reset(int fd = -1) {
        if (fd_ >= 0) close(fd_);
        fd_ = fd;
    }

private:
    int fd_;
};

double secondsSince(Clock::time_point t) {
    return std::chrono::duration<double>(Clock::now() - t).count();
}

sp<IBinder> findService() {
    sp<IBinder> b = defaultServiceManager()->checkService(String16(kServiceName));
    if (b == nullptr) fprintf(stderr, "rel-client: %s is not registered\n", kServiceName);
    return b;
}

// A request: optional token, optional C string, sent as is.
status_t call(const sp<IBinder>& b, uint32_t code, const char* arg, int32_t* result) {
    Parcel data;
    Parcel reply;
    data.writeInterfaceToken(M::descriptor);
    if (arg != nullptr) data.writeCString(arg);
    const status_t s = b->transact(code, data, &reply);
    *result = 0;
    if (s == OK) reply.readInt32(result);
    return s;
}

// The state dump through a pipe; the text in *out.
status_t dumpState(const sp<IBinder>& b, std::string* out) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return -errno;
    Fd readEnd(fds[0]);
    Fd writeEnd(fds[1]);
    Parcel data;
    Parcel reply;
    data.writeFileDescriptor(writeEnd.get());
    data.writeInt32(0);
    // The dump is a few hundred bytes: it fits the pipe, so reading after the call is fine.
    const status_t s = b->transact(IBinder::DUMP_TRANSACTION, data, &reply);
    writeEnd.reset();
    char buf[4096];
    ssize_t n;
    while ((n = read(readEnd.get(), buf, sizeof(buf))) > 0) out->append(buf, static_cast<size_t>(n));
    return s;
}

// ---------------------------------------------------------------- stress

struct Tally {
    std::map<std::string, long> calls;
    long total = 0;
    long bad = 0;
    std::vector<std::string> problems;

    void note(const std::string& op, bool ok, const std::string& detail) {
        calls[op]++;
        total++;
        if (ok) return;
        bad++;
        if (problems.size() < 20) problems.push_back(op + ": " + detail);
    }
};

// Names a call may carry. Every one is shorter than 16 characters: a longer
// name to the rtt call ends the daemon on purpose.
const char* const kNames[] = {"wlan0",       "wlan1",       "rmnet_data0", "rmnet_data1", "rmnet_data7",
                              "eth0",        "wlan5",       "",            "rmnet_data99", "wlan0;id",
                              "rmnet_data0 "};
const char* const kUids[] = {"10200", "10201", "1000", "abc", "", "-1", "99999999999", "10200;id",
                             "4294967295", "010"};

int runStress(double seconds, long maxCalls, unsigned seed, double autoCycle) {
    sp<IBinder> b = findService();
    if (b == nullptr) return 1;
    std::mt19937 rng(seed);
    auto pick = [&rng](size_t n) { return static_cast<size_t>(rng() % n); };
    Tally t;
    const Clock::time_point start = Clock::now();
    Clock::time_point lastCycle = start;
    int32_t r = 0;

    auto expectZero = [&](const std::string& op, uint32_t code, const char* arg) {
        const status_t s = call(b, code, arg, &r);
        t.note(op, s == OK && r == 0,
               "status " + std::to_string(s) + " reply " + std::to_string(r) + " arg '" + (arg ? arg : "") + "'");
    };

    while (t.total < maxCalls && secondsSince(start) < seconds) {
        if (autoCycle > 0 && secondsSince(lastCycle) >= autoCycle) {
            // Only this client touches ifaceMutex users, and only in this order:
            // with auto-select off a select waits at most for the old engine to
            // stop; while it runs, a select would hold a pool thread until then.
            lastCycle = Clock::now();
            expectZero("disable-auto-select", M::DISABLE_AUTO_SELECT, nullptr);
            const Clock::time_point s0 = Clock::now();
            expectZero("select", M::SELECT_INTERFACE, "wlan1");
            expectZero("select", M::SELECT_INTERFACE, "wlan0");
            const double waited = secondsSince(s0);
            // Under an emulator every wrapper command forks it: only a hang fails there.
            const char* emu = getenv("PROBEMOND_EMULATOR");
            t.note("select-wait", waited < (emu != nullptr && *emu != '\0' ? 30.0 : 5.0),
                   "selects took " + std::to_string(waited) + " s");
            expectZero("auto-select", M::ENABLE_AUTO_SELECT, "wlan0,rmnet_data0,");
            continue;
        }
        const size_t op = pick(20);
        if (op < 6) {
            const char* name = kNames[pick(sizeof(kNames) / sizeof(kNames[0]))];
            const status_t s = call(b, M::GET_RTT, name, &r);
            t.note("rtt", s == OK && r >= -1 && r <= 5000,
                   "status " + std::to_string(s) + " rtt " + std::to_string(r) + " of '" + name + "'");
        } else if (op < 8) {
            expectZero("start-ping", M::START_PING, kNames[pick(sizeof(kNames) / sizeof(kNames[0]))]);
        } else if (op < 10) {
            expectZero("stop-ping", M::STOP_PING, kNames[pick(sizeof(kNames) / sizeof(kNames[0]))]);
        } else if (op == 10) {
            expectZero("stop-all-ping", M::STOP_ALL_PING, nullptr);
        } else if (op == 11) {
            // In a pair, so probing (and with it auto-select) is paused only briefly.
            expectZero("suspend-all-ping", M::SUSPEND_ALL_PING, nullptr);
            expectZero("resume-all-ping", M::RESUME_ALL_PING, nullptr);
        } else if (op == 12) {
            expectZero("add-uid", M::ADD_UID, kUids[pick(sizeof(kUids) / sizeof(kUids[0]))]);
        } else if (op == 13) {
            expectZero("del-uid", M::DEL_UID, kUids[pick(sizeof(kUids) / sizeof(kUids[0]))]);
        } else if (op == 14) {
            expectZero("add-ip-rule", M::ADD_IP_RULE, kNames[pick(sizeof(kNames) / sizeof(kNames[0]))]);
        } else if (op == 15) {
            expectZero("del-ip-rule", M::DEL_IP_RULE, kNames[pick(sizeof(kNames) / sizeof(kNames[0]))]);
        } else if (op == 16) {
            std::string text;
            const status_t s = dumpState(b, &text);
            t.note("dump", s == OK && text.find("interfaces (10):") != std::string::npos,
                   "status " + std::to_string(s) + ", " + std::to_string(text.size()) + " bytes");
        } else if (op == 17) {
            Parcel data;
            Parcel reply;
            const status_t s = b->transact(IBinder::PING_TRANSACTION, data, &reply);
            t.note("ping", s == OK, "status " + std::to_string(s));
        } else if (op == 18) {
            Parcel data;
            Parcel reply;
            const status_t s = b->transact(IBinder::INTERFACE_TRANSACTION, data, &reply);
            t.note("interface", s == OK && reply.readString16() == M::descriptor, "status " + std::to_string(s));
        } else {
            // Codes next to the table go to the platform's default handling.
            const uint32_t code = pick(2) == 0 ? 0u : 14u;
            const status_t s = call(b, code, "wlan0", &r);
            t.note("unknown-code", s == UNKNOWN_TRANSACTION, "code " + std::to_string(code) + " status " + std::to_string(s));
        }
    }

    printf("calls=%ld bad=%ld seconds=%.1f", t.total, t.bad, secondsSince(start));
    for (const auto& [op, n] : t.calls) printf(" %s=%ld", op.c_str(), n);
    printf("\n");
    for (const std::string& p : t.problems) fprintf(stderr, "rel-client: %s\n", p.c_str());
    return t.bad == 0 ? 0 : 1;
}

// ------------------------------------------------------------- malformed

// The host transport's framing, as a client that writes its own bytes sees it.
constexpr uint32_t kRequestMagic = B_PACK_CHARS('P', 'B', 'T', 'X');
constexpr uint32_t kReplyMagic = B_PACK_CHARS('P', 'B', 'R', 'X');

struct RawHeader {
    uint32_t magic;
    uint32_t code;
    uint32_t flags;
    uint32_t fdCount;
};

std::string servicePath() {
    return ProcessState::self()->hostDirectory() + "/" + kServiceName;
}

bool rawConnect(Fd* sock) {
    sock->reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    const std::string path = servicePath();
    if (sock->get() < 0 || path.size() >= sizeof(addr.sun_path)) return false;
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    return connect(sock->get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
}

bool rawSend(int sock, const std::vector<uint8_t>& bytes, const std::vector<int>& fds) {
    iovec iov{const_cast<uint8_t*>(bytes.data()), bytes.size()};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * 8)];
    if (!fds.empty()) {
        msg.msg_control = control;
        msg.msg_controllen = CMSG_SPACE(sizeof(int) * fds.size());
        cmsghdr* c = CMSG_FIRSTHDR(&msg);
        c->cmsg_level = SOL_SOCKET;
        c->cmsg_type = SCM_RIGHTS;
        c->cmsg_len = CMSG_LEN(sizeof(int) * fds.size());
        memcpy(CMSG_DATA(c), fds.data(), sizeof(int) * fds.size());
    }
    return sendmsg(sock, &msg, MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

// What came back within two seconds: "closed", "silent", or "status N".
std::string rawAnswer(int sock) {
    pollfd p{sock, POLLIN, 0};
    if (poll(&p, 1, 2000) != 1) return "silent";
    uint8_t buf[256];
    const ssize_t n = recv(sock, buf, sizeof(buf), 0);
    if (n <= 0) return "closed";
    uint32_t magic = 0;
    int32_t status = 0;
    if (n < 8) return "short";
    memcpy(&magic, buf, 4);
    memcpy(&status, buf + 4, 4);
    return magic == kReplyMagic ? "status " + std::to_string(status) : "garbage";
}

std::vector<uint8_t> frame(uint32_t code, uint32_t flags, uint32_t fdCount, const std::vector<uint8_t>& body) {
    RawHeader h{kRequestMagic, code, flags, fdCount};
    std::vector<uint8_t> out(sizeof(h) + body.size());
    memcpy(out.data(), &h, sizeof(h));
    if (!body.empty()) memcpy(out.data() + sizeof(h), body.data(), body.size());
    return out;
}

std::vector<uint8_t> tokenBytes() {
    Parcel p;
    p.writeInterfaceToken(M::descriptor);
    return std::vector<uint8_t>(p.data(), p.data() + p.dataSize());
}

void appendInt32(std::vector<uint8_t>* v, int32_t x) {
    uint8_t b[4];
    memcpy(b, &x, 4);
    v->insert(v->end(), b, b + 4);
}

void appendCString(std::vector<uint8_t>* v, const std::string& s) {
    v->insert(v->end(), s.begin(), s.end());
    v->push_back(0);
    while (v->size() % 4 != 0) v->push_back(0);
}

class MalformedRun {
public:
    explicit MalformedRun(sp<IBinder> b) : b_(std::move(b)) {}

    // Sends raw parcel bytes (and fds) through the ordinary client path.
    status_t sendBytes(uint32_t code, const std::vector<uint8_t>& bytes, const std::vector<int>& fds = {},
                       uint32_t flags = 0) {
        Parcel data;
        Parcel reply;
        data.setData(bytes.data(), bytes.size());
        data.setDataPosition(bytes.size());
        for (int fd : fds) data.writeFileDescriptor(fd);
        return b_->transact(code, data, &reply, flags);
    }

    // The daemon still serves a well-formed request after each case; a crash
    // shows there, as the proxy stays dead once its peer went away.
    void check(const std::string& name, status_t got, const std::vector<status_t>& allowed) {
        cases_++;
        bool ok = allowed.empty();
        for (status_t a : allowed) ok = ok || got == a;
        if (got != OK) refused_++;
        int32_t r = 0;
        const status_t alive = call(b_, M::GET_RTT, "wlan0", &r);
        if (!ok || alive != OK) {
            failures_++;
            fprintf(stderr, "rel-client: case %s: status %d, then rtt status %d\n", name.c_str(), got, alive);
        }
    }

    void checkRaw(const std::string& name, const std::string& got, const std::vector<std::string>& allowed) {
        cases_++;
        bool ok = false;
        for (const std::string& a : allowed) ok = ok || got == a;
        if (got != "status 0") refused_++;
        int32_t r = 0;
        const status_t alive = call(b_, M::GET_RTT, "wlan0", &r);
        if (!ok || alive != OK) {
            failures_++;
            fprintf(stderr, "rel-client: raw case %s: answer '%s', then rtt status %d\n", name.c_str(), got.c_str(),
                    alive);
        }
    }

    int run();

private:
    void randomParcels();
    void tokenCases();
    void stringCases();
    void descriptorCases();
    void dumpCases();
    void wireCases();

    sp<IBinder> b_;
    int cases_ = 0;
    int refused_ = 0;
    int failures_ = 0;
};

void MalformedRun::randomParcels() {
    std::mt19937 rng(20240611);
    // Select, rtt and auto-select are left out of the random part: a name the
    // registry does not know locks ifaceMutex for good and a name of 16 or
    // more characters to rtt ends the process, both on purpose. They get
    // crafted cases below instead.
    const uint32_t codes[] = {0, M::START_PING, M::STOP_PING, M::STOP_ALL_PING, M::SUSPEND_ALL_PING,
                              M::RESUME_ALL_PING, M::ADD_UID, M::DEL_UID, M::ADD_IP_RULE, M::DEL_IP_RULE,
                              M::DISABLE_AUTO_SELECT, 14, IBinder::LAST_CALL_TRANSACTION,
                              IBinder::INTERFACE_TRANSACTION, IBinder::SHELL_COMMAND_TRANSACTION};
    for (int i = 0; i < 300; i++) {
        std::vector<uint8_t> bytes(rng() % 600);
        for (uint8_t& c : bytes) c = static_cast<uint8_t>(rng());
        // Half of them start with a proper token, so the bytes reach the string read.
        if (i % 2 == 0) {
            std::vector<uint8_t> t = tokenBytes();
            bytes.insert(bytes.begin(), t.begin(), t.end());
        }
        const uint32_t code = codes[rng() % (sizeof(codes) / sizeof(codes[0]))];
        check("random " + std::to_string(i) + " code " + std::to_string(code), sendBytes(code, bytes), {});
    }
}

void MalformedRun::tokenCases() {
    const std::vector<uint8_t> token = tokenBytes();
    // Every cut of the token, with no argument after it. The cut bytes hold a
    // zero at least every ten bytes, so any string read from them is short.
    for (size_t cut = 0; cut < token.size(); cut++) {
        std::vector<uint8_t> bytes(token.begin(), token.begin() + static_cast<long>(cut));
        for (uint32_t code : {M::START_PING, M::STOP_ALL_PING, M::GET_RTT, M::ADD_UID, M::DEL_IP_RULE}) {
            check("token cut at " + std::to_string(cut) + " code " + std::to_string(code), sendBytes(code, bytes),
                  {OK, BAD_VALUE});
        }
    }
    // Absurd String16 lengths in the token, then a real argument.
    for (int32_t len : {0x7fffffff, 0x3fffffff, 0x10000, -2, INT32_MIN}) {
        std::vector<uint8_t> bytes;
        appendInt32(&bytes, static_cast<int32_t>(0x80000000u));
        appendInt32(&bytes, -1);
        appendInt32(&bytes, static_cast<int32_t>(B_PACK_CHARS('V', 'N', 'D', 'R')));
        appendInt32(&bytes, len);
        appendCString(&bytes, "wlan0");
        for (uint32_t code : {M::START_PING, M::GET_RTT, M::ADD_UID}) {
            check("token length " + std::to_string(len) + " code " + std::to_string(code), sendBytes(code, bytes),
                  {OK, BAD_VALUE});
        }
    }
}

void MalformedRun::stringCases() {
    const std::vector<uint8_t> token = tokenBytes();
    // No string at all, and a string without its terminator: refused before
    // any operation runs. For select this is what keeps ifaceMutex free.
    for (uint32_t code : {M::START_PING, M::STOP_PING, M::GET_RTT, M::ADD_UID, M::DEL_UID, M::ADD_IP_RULE,
                          M::DEL_IP_RULE, M::SELECT_INTERFACE, M::ENABLE_AUTO_SELECT}) {
        check("missing string code " + std::to_string(code), sendBytes(code, token), {BAD_VALUE});
        std::vector<uint8_t> open = token;
        for (char c : std::string("wlan0wlan")) open.push_back(static_cast<uint8_t>(c));
        check("unterminated string code " + std::to_string(code), sendBytes(code, open), {BAD_VALUE});
    }
    // Long strings where the daemon takes them (not rtt, see above).
    const std::string longName(100000, 'w');
    const std::string longUid(100000, '7');
    for (const auto& [code, text] : std::vector<std::pair<uint32_t, std::string>>{
             {M::START_PING, longName}, {M::STOP_PING, longName}, {M::ADD_IP_RULE, longName},
             {M::DEL_IP_RULE, longName}, {M::ADD_UID, longUid}, {M::DEL_UID, longUid}}) {
        int32_t r = 0;
        check("long string code " + std::to_string(code), call(b_, code, text.c_str(), &r), {OK});
    }
    // A candidate list of a thousand entries, then auto-select off again.
    std::string list;
    for (int i = 0; i < 1000; i++) list += "wlan0,";
    int32_t r = 0;
    check("long candidate list", call(b_, M::ENABLE_AUTO_SELECT, list.c_str(), &r), {OK});
    check("auto-select off", call(b_, M::DISABLE_AUTO_SELECT, nullptr, &r), {OK});
    // Larger than the transport carries: the client refuses to send it.
    const std::string huge(200 * 1024, 'x');
    check("oversized parcel", call(b_, M::ADD_UID, huge.c_str(), &r), {FAILED_TRANSACTION});
}

void MalformedRun::descriptorCases() {
    const std::vector<uint8_t> token = tokenBytes();
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        failures_++;
        return;
    }
    Fd a(fds[0]);
    Fd b(fds[1]);
    // A descriptor where a string belongs: the string read meets the
    // descriptor's slot bytes, a short unknown name.
    for (uint32_t code : {M::START_PING, M::GET_RTT, M::ADD_UID, M::STOP_ALL_PING, M::DISABLE_AUTO_SELECT}) {
        check("fd instead of string code " + std::to_string(code), sendBytes(code, token, {a.get()}),
              {OK, BAD_VALUE});
    }
    // As many descriptors as the transport carries, before a proper argument.
    std::vector<uint8_t> withArg = token;
    appendCString(&withArg, "wlan0");
    check("sixteen fds", sendBytes(M::STOP_PING, withArg, std::vector<int>(16, b.get())), {OK});
    check("fds on a one-way call", sendBytes(M::RESUME_ALL_PING, token, {a.get(), b.get()}, IBinder::FLAG_ONEWAY),
          {OK});
}

void MalformedRun::dumpCases() {
    // No descriptor, a closed reader, a full device, absurd argument counts.
    std::vector<uint8_t> none;
    appendInt32(&none, 0);
    check("dump without fd", sendBytes(IBinder::DUMP_TRANSACTION, none), {});

    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        failures_++;
        return;
    }
    Fd readEnd(fds[0]);
    Fd writeEnd(fds[1]);
    readEnd.reset();
    {
        Parcel data;
        Parcel reply;
        data.writeFileDescriptor(writeEnd.get());
        data.writeInt32(0);
        check("dump into a pipe without reader", b_->transact(IBinder::DUMP_TRANSACTION, data, &reply), {});
    }
    Fd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    if (full.get() >= 0) {
        Parcel data;
        Parcel reply;
        data.writeFileDescriptor(full.get());
        data.writeInt32(0);
        check("dump into /dev/full", b_->transact(IBinder::DUMP_TRANSACTION, data, &reply), {});
    }
    for (int32_t argc : {0x7fffffff, -1, 3}) {
        Parcel data;
        Parcel reply;
        data.writeFileDescriptor(full.get() >= 0 ? full.get() : writeEnd.get());
        data.writeInt32(argc);
        data.writeInt32(0x7ffffff0);  // a String16 length far beyond the data
        check("dump argc " + std::to_string(argc), b_->transact(IBinder::DUMP_TRANSACTION, data, &reply), {});
    }
}

void MalformedRun::wireCases() {
    std::vector<uint8_t> body = tokenBytes();
    appendCString(&body, "wlan0");
    struct RawCase {
        const char* name;
        std::vector<uint8_t> bytes;
        int extraFds;
        std::vector<std::string> allowed;
    };
    std::vector<uint8_t> wrongMagic = frame(M::START_PING, 0, 0, body);
    wrongMagic[0] ^= 0xff;
    std::vector<uint8_t> big = frame(M::ADD_UID, 0, 0, std::vector<uint8_t>(150 * 1024, '7'));
    const std::vector<RawCase> cases = {
        {"empty message", {}, 0, {"closed"}},
        {"short header", {1, 2, 3}, 0, {"closed"}},
        {"wrong magic", wrongMagic, 0, {"closed"}},
        {"fd count without fds", frame(M::START_PING, 0, 3, body), 0, {"status " + std::to_string(FAILED_TRANSACTION)}},
        {"fds without fd count", frame(M::START_PING, 0, 0, body), 2, {"status " + std::to_string(FAILED_TRANSACTION)}},
        {"oversized message", big, 0, {"status " + std::to_string(FAILED_TRANSACTION)}},
        {"one-way garbage", frame(M::ADD_UID, IBinder::FLAG_ONEWAY, 0, {0xde, 0xad}), 0, {"silent"}},
        {"header only", frame(M::STOP_ALL_PING, 0, 0, {}), 0, {"status 0"}},
    };
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        failures_++;
        return;
    }
    Fd a(fds[0]);
    Fd b(fds[1]);
    for (const RawCase& c : cases) {
        Fd sock;
        if (!rawConnect(&sock)) {
            failures_++;
            fprintf(stderr, "rel-client: cannot connect to %s\n", servicePath().c_str());
            return;
        }
        std::vector<int> fdsToSend;
        for (int i = 0; i < c.extraFds; i++) fdsToSend.push_back(i % 2 ? b.get() : a.get());
        std::string got = rawSend(sock.get(), c.bytes, fdsToSend) ? rawAnswer(sock.get()) : "send failed";
        // A zero-length datagram reads as the end of the stream: the server hangs up.
        checkRaw(c.name, got, c.allowed);
    }
    // A request whose client is gone before the reply, and a crowd of idle
    // connections: neither may keep descriptors in the daemon once closed.
    {
        Fd sock;
        if (rawConnect(&sock)) rawSend(sock.get(), frame(M::STOP_ALL_PING, 0, 0, tokenBytes()), {});
    }
    std::vector<Fd> idle(200);
    int connected = 0;
    for (Fd& s : idle) connected += rawConnect(&s) ? 1 : 0;
    checkRaw("200 idle connections", connected == 200 ? "connected" : "refused", {"connected"});
}

int MalformedRun::run() {
    randomParcels();
    tokenCases();
    stringCases();
    descriptorCases();
    dumpCases();
    wireCases();
    printf("malformed cases=%d refused=%d failures=%d\n", cases_, refused_, failures_);
    return failures_ == 0 ? 0 : 1;
}

// ---------------------------------------------------------- hang-watcher

// A client callback that takes the call and never answers it.
class HangWatcher : public BnKestNetworkProbeMonCallback {
public:
    int32_t onAutoSelect(std::string iface) override {
        printf("onAutoSelect(%s) taken, not answering\n", iface.c_str());
        fflush(stdout);
        for (;;) pause();
    }
};

int runHangWatcher() {
    sp<HangWatcher> w = new HangWatcher();
    if (defaultServiceManager()->addService(String16(kCallbackName), w) != OK) {
        fprintf(stderr, "rel-client: cannot register %s\n", kCallbackName);
        return 1;
    }
    printf("serving %s\n", kCallbackName);
    fflush(stdout);
    ProcessState::self()->startThreadPool();
    IPCThreadState::self()->joinThreadPool();
    return 0;
}

int usage() {
    fprintf(stderr,
            "usage: probemond-rel-client stress SECONDS MAXCALLS SEED [--auto-cycle SECONDS]\n"
            "       probemond-rel-client malformed\n"
            "       probemond-rel-client hang-watcher\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return usage();
    ProcessState::initWithDriver("/dev/vndbinder");
    const std::string mode = argv[1];
    if (mode == "stress" && (argc == 5 || argc == 7)) {
        double autoCycle = 0;
        if (argc == 7) {
            if (strcmp(argv[5], "--auto-cycle") != 0) return usage();
            autoCycle = atof(argv[6]);
        }
        return runStress(atof(argv[2]), atol(argv[3]), static_cast<unsigned>(atol(argv[4])), autoCycle);
    }
    if (mode == "malformed" && argc == 2) {
        sp<IBinder> b = findService();
        if (b == nullptr) return 1;
        return MalformedRun(b).run();
    }
    if (mode == "hang-watcher" && argc == 2) return runHangWatcher();
    return usage();
}

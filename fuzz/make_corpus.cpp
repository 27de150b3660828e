// Writes the seed corpora: well-formed inputs of each fuzz target, built with
// the same writers the daemon and its clients use. Usage: fuzz_make_corpus DIR
// (creates DIR/<target>/<name>).
#include <arpa/inet.h>
#include <linux/sock_diag.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <binder/IBinder.h>
#include <binder/Parcel.h>

#include "daemon/IKestNetworkProbeMon.h"
#include "netctl/SockDiag.h"
#include "probe/IcmpPacket.h"

using namespace probemond;

using namespace android;

namespace {

std::string gRoot;
using Bytes = std::vector<uint8_t>;

bool writeSeed(const std::string& target, const std::string& name, const Bytes& bytes) {
    const std::string dir = gRoot + "/" + target;
    mkdir(dir.c_str(), 0755);
    FILE* f = fopen((dir + "/" + name).c_str(), "wbe");
    if (f == nullptr) return false;
    const bool ok = fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    return fclose(f) == 0 && ok;
}

void append(Bytes& out, const void* p, size_t n) {
    const uint8_t* b = static_cast<const uint8_t*>(p);
    out.insert(out.end(), b, b + n);
}

bool transactSeeds() {
    bool ok = true;
    struct Call {
        uint32_t code;
        const char* arg;
    };
    const Call calls[] = {
            {1, "wlan0"}, {2, "rmnet_data0"}, {3, nullptr}, {4, nullptr}, {5, nullptr},
            {6, "wlan1"}, {7, "10123"}, {8, "10123"}, {9, "wlan0"}, {10, "rmnet_data7"},
            {11, "rmnet_data0"}, {12, "wlan0,rmnet_data0"}, {13, nullptr},
    };
    for (const Call& c : calls) {
        Parcel p;
        p.writeInterfaceToken(IKestNetworkProbeMon::descriptor);
        if (c.arg != nullptr) p.writeCString(c.arg);
        Bytes in = {static_cast<uint8_t>(c.code), 0};
        append(in, p.data(), p.dataSize());
        ok &= writeSeed("fuzz_transact", "code" + std::to_string(c.code), in);
    }
    // A platform code (interface query), and a raw code past the last call.
    ok &= writeSeed("fuzz_transact", "platform", Bytes{16, 0});
    Bytes raw = {0xFF, 1};
    const uint32_t past = 0x00ffffff;
    append(raw, &past, sizeof(past));
    ok &= writeSeed("fuzz_transact", "raw-oneway", raw);
    return ok;
}

struct IcmpHeader {
    uint8_t mode;
    uint8_t ihlWords;
    uint16_t sequence;
    uint32_t destination;
    int64_t sentSec, sentUsec, recvSec, recvUsec;
};

Bytes icmpInput(uint8_t mode, uint16_t seq, uint8_t replyType, size_t tail) {
    const uint32_t dst = inet_addr("8.8.8.8");
    IcmpHeader h{mode, 0, seq, dst, 1700000000, 250000, 3, 275000};
    Bytes in;
    append(in, &h, sizeof(h));
    uint8_t ip[20] = {0x45};
    memcpy(ip + 12, &dst, 4);
    append(in, ip, sizeof(ip));
    uint8_t icmpPart[icmp::kRequestSize];
    timeval sent{1700000000, 250000};
    icmp::buildEchoRequest(icmpPart, 0x1234, seq, sent);
    icmpPart[0] = replyType;
    icmpPart[2] = icmpPart[3] = 0;
    const uint16_t sum = icmp::checksum(icmpPart);
    memcpy(icmpPart + 2, &sum, sizeof(sum));
    append(in, icmpPart, sizeof(icmpPart));
    in.resize(in.size() + tail, 0);
    return in;
}

bool icmpSeeds() {
    bool ok = true;
    ok &= writeSeed("fuzz_icmp_reply", "reply", icmpInput(1, 7, icmp::kTypeEchoReply, 40));
    ok &= writeSeed("fuzz_icmp_reply", "reply-genuine", icmpInput(3, 7, icmp::kTypeEchoReply, 40));
    ok &= writeSeed("fuzz_icmp_reply", "unreachable", icmpInput(1, 7, 3, 40));
    ok &= writeSeed("fuzz_icmp_reply", "short", icmpInput(1, 7, icmp::kTypeEchoReply, 0));
    return ok;
}

void diagMessage(Bytes& out, uint16_t type, const void* payload, size_t len) {
    nlmsghdr nlh{};
    nlh.nlmsg_len = static_cast<uint32_t>(NLMSG_LENGTH(len));
    nlh.nlmsg_type = type;
    nlh.nlmsg_flags = NLM_F_MULTI;
    append(out, &nlh, sizeof(nlh));
    append(out, payload, len);
    out.resize(out.size() + (NLMSG_ALIGN(nlh.nlmsg_len) - nlh.nlmsg_len), 0);
}

inet_diag_msg record(uint8_t family, const char* src, const char* dst, uint32_t uid) {
    inet_diag_msg m{};
    m.idiag_family = family;
    m.idiag_state = 1;
    m.idiag_uid = uid;
    m.id.idiag_sport = htons(40000);
    m.id.idiag_dport = htons(443);
    inet_pton(family, src, m.id.idiag_src);
    inet_pton(family, dst, m.id.idiag_dst);
    return m;
}

bool sockDiagSeeds() {
    bool ok = true;
    Bytes dump;
    const inet_diag_msg a = record(AF_INET, "10.0.0.2", "93.184.216.34", 10123);
    const inet_diag_msg b = record(AF_INET, "127.0.0.1", "127.0.0.1", 10123);
    const inet_diag_msg c = record(AF_INET6, "::ffff:10.0.0.2", "2001:db8::1", 10123);
    diagMessage(dump, SOCK_DIAG_BY_FAMILY, &a, sizeof(a));
    diagMessage(dump, SOCK_DIAG_BY_FAMILY, &b, sizeof(b));
    diagMessage(dump, SOCK_DIAG_BY_FAMILY, &c, sizeof(c));
    const int32_t zero = 0;
    Bytes done = dump;
    diagMessage(done, NLMSG_DONE, &zero, sizeof(zero));
    ok &= writeSeed("fuzz_sockdiag", "dump-done", done);
    ok &= writeSeed("fuzz_sockdiag", "dump-partial", dump);
    nlmsgerr err{};
    err.error = -EPERM;
    Bytes error;
    diagMessage(error, NLMSG_ERROR, &err, sizeof(err));
    ok &= writeSeed("fuzz_sockdiag", "error", error);
    Bytes shortRecord;
    diagMessage(shortRecord, SOCK_DIAG_BY_FAMILY, &a, 8);
    ok &= writeSeed("fuzz_sockdiag", "short-record", shortRecord);
    return ok;
}

bool clientTextSeeds() {
    bool ok = true;
    auto seed = [&](const char* name, uint8_t op, const std::string& text) {
        Bytes in = {op};
        append(in, text.data(), text.size());
        ok &= writeSeed("fuzz_client_text", name, in);
    };
    seed("rtt-known", 0, "wlan0");
    seed("rtt-long", 0, "rmnet_data0rmnet_data1rmnet_data2wlan0wlan1");
    seed("controls", 1, "rmnet_data7");
    seed("list", 2, "wlan0,bogus,,rmnet_data0,wlan0,wlan1");
    std::string repeats = "wlan0,rmnet_data0,";
    for (int i = 0; i < 100; ++i) repeats += "wlan1,";
    seed("list-repeats", 2, repeats + "rmnet_data0,");
    seed("uid", 3, "10123");
    seed("uid-octal", 3, "010");
    return ok;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s DIR\n", argv[0]);
        return 2;
    }
    gRoot = argv[1];
    mkdir(gRoot.c_str(), 0755);
    const bool ok = transactSeeds() && icmpSeeds() && sockDiagSeeds() && clientTextSeeds();
    if (!ok) perror("fuzz_make_corpus");
    return ok ? 0 : 1;
}

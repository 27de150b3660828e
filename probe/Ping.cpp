#include "probe/Ping.h"

#include <android-base/unique_fd.h>
#include <arpa/inet.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "common/Log.h"
#include "common/Properties.h"
#include "probe/IcmpPacket.h"

namespace probemond {

namespace {

constexpr int kResolveAttempts = 3;

// Shared by every ping worker; last writer wins.
std::atomic<bool> pingDebugEnabled{false};

using SocketFd = android::base::unique_fd;

int readTimeout() { return readIntProperty(kPingTimeoutProperty, "200"); }

// strerror's buffer is shared between threads; several workers log at once.
const char* errorText(int err, char* buf, size_t len) { return strerror_r(err, buf, len); }

// A raw ICMP socket bound to `iface`; closed (-1) when that fails.
SocketFd openBound(const char* iface) {
    SocketFd sock(socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP));
    if (setsockopt(sock.get(), SOL_SOCKET, SO_BINDTODEVICE, iface,
                   static_cast<socklen_t>(strlen(iface) + 1)) < 0) {
        LOGE("Failed to bind socket on %s", iface);
        sock.reset();
    }
    return sock;
}

// gethostbyname's result is static; the reentrant form keeps workers apart.
bool resolveOnce(const char* server, in_addr* out) {
    hostent entry;
    hostent* result = nullptr;
    char scratch[2048];
    int herr = 0;
    if (gethostbyname_r(server, &entry, scratch, sizeof(scratch), &result, &herr) != 0 ||
        result == nullptr || result->h_addr_list == nullptr || result->h_addr_list[0] == nullptr) {
        return false;
    }
    memcpy(&out->s_addr, result->h_addr_list[0], 4);
    return true;
}

// The server's first IPv4 address, in three attempts without a pause.
bool resolve(const char* iface, const char* server, sockaddr_in* destination) {
    memset(destination, 0, sizeof(*destination));
    destination->sin_family = AF_INET;
    destination->sin_port = 0;
    for (int attempt = 0; attempt < kResolveAttempts; ++attempt) {
        if (resolveOnce(server, &destination->sin_addr)) return true;
    }
    // Both lines name the interface, not the server.
    LOGE("Failed to get host name of %s", iface);
    LOGE("Failed to init destination address on %s", iface);
    return false;
}

// Only 0 counts as a failed send; -1 is left to end by timeout.
bool sendRequest(int sock, const char* iface, const sockaddr_in& destination, uint16_t sequence, timeval* sent) {
    uint8_t request[icmp::kRequestSize];
    gettimeofday(sent, nullptr);
    icmp::buildEchoRequest(request, static_cast<uint16_t>(getpid() & 0xFFFF), sequence, *sent);
    if (sendto(sock, request, sizeof(request), 0, reinterpret_cast<const sockaddr*>(&destination),
               sizeof(destination)) == 0) {
        LOGW("Failed to send ICMP request on %s", iface);
        return false;
    }
    return true;
}

// Waits like select() on one descriptor with a T ms timeout. poll has no
// FD_SETSIZE ceiling; a negative T fails as select's EINVAL would.
int waitReadable(int fd, int timeoutMs) {
    if (timeoutMs < 0) {
        errno = EINVAL;
        return -1;
    }
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, timeoutMs);
}

void logRejected(const icmp::ReplyInfo& reply, bool debug) {
    switch (reply.verdict) {
        case icmp::Verdict::kForeignSource:
            if (debug) LOGE("Source does not equal to our destination.");
            break;
        case icmp::Verdict::kWrongSequence:
            LOGE("Wrong sequence number.");
            break;
        case icmp::Verdict::kNotEchoReply:
            LOGE("ICMP code: %d", reply.code);
            break;
        case icmp::Verdict::kBadChecksum:
            LOGE("Wrong checksum.");
            break;
        default:
            break;
    }
}

void logDiagnostic(const icmp::ReplyInfo& reply, const sockaddr_in& destination, uint16_t sequence) {
    char sourceText[16] = {};
    inet_ntop(AF_INET, &reply.sourceRaw, sourceText, sizeof(sourceText));
    char destinationText[16] = {};
    inet_ntop(AF_INET, &destination.sin_addr, destinationText, sizeof(destinationText));
    LOGE("%d, %d, %s (%u), %s (%u), %u, %u, %d, %d, %d", reply.type, reply.code, sourceText,
         reply.sourceRaw, destinationText, destination.sin_addr.s_addr, static_cast<unsigned>(sequence),
         static_cast<unsigned>(reply.sequence), reply.secondsMs, reply.microsMs, reply.rtt);
}

// Waits for the reply to `sequence`. Every rejected packet restarts a full
// wait and re-reads the timeout as the result of a failure.
ProbeResult awaitReply(int sock, const char* iface, const sockaddr_in& destination, uint16_t sequence,
                       const timeval& sent, int32_t failedRtt) {
    uint8_t received[icmp::kReceiveBufferSize];
    memset(received, 0, sizeof(received));
    char errBuf[128];
    for (;;) {
        if (waitReadable(sock, readTimeout()) < 1) {
            LOGW("Failed to read socket or timeout on %s", iface);
            return {failedRtt, true};
        }
        if (recvfrom(sock, received, sizeof(received), 0, nullptr, nullptr) < 1) {
            LOGE("Failed to recv on %s (%s)", iface, errorText(errno, errBuf, sizeof(errBuf)));
            continue;
        }
        pingDebugEnabled.store(readDebugFlag(kPingDebugProperty));
        timeval arrived{};
        gettimeofday(&arrived, nullptr);

        const icmp::ReplyInfo reply =
                icmp::checkEchoReply(received, sizeof(received), destination.sin_addr, sequence, sent, arrived);
        if (reply.verdict == icmp::Verdict::kAccepted) return {reply.rtt, false};
        const bool debug = pingDebugEnabled.load();
        logRejected(reply, debug);
        // A reply of 0 ms is dropped without the diagnostic line.
        if (debug && !(reply.verdict == icmp::Verdict::kRttNotPositive && reply.rtt == 0)) {
            logDiagnostic(reply, destination, sequence);
        }
        failedRtt = readTimeout();
        LOGE("Failed to parseICMPReply on %s (%s)", iface, errorText(errno, errBuf, sizeof(errBuf)));
    }
}

}  // namespace

ProbeResult Ping::ping(const char* iface, const char* server) {
    const ProbeResult failed{readTimeout(), true};
    if (iface == nullptr || server == nullptr) {
        LOGE("interface or server is null");
        return failed;
    }
    const SocketFd sock = openBound(iface);
    if (sock.get() < 0) return failed;
    sockaddr_in destination;
    if (!resolve(iface, server, &destination)) return failed;

    timeval sent{};
    ProbeResult result = failed;
    if (sendRequest(sock.get(), iface, destination, sequenceNumber, &sent)) {
        result = awaitReply(sock.get(), iface, destination, sequenceNumber, sent, failed.rtt);
    }
    ++sequenceNumber;
    return result;
}

}  // namespace probemond

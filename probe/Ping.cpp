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

constexpr const char* kTimeoutProperty = "vendor.kest.probemond.ping_timeout";
constexpr const char* kTimeoutDefault = "200";
constexpr const char* kDebugProperty = "vendor.kest.probemond.ping_debug";
constexpr int kResolveAttempts = 3;

// Shared by every ping worker; last writer wins.
std::atomic<bool> pingDebugEnabled{false};

int readTimeout() { return readIntProperty(kTimeoutProperty, kTimeoutDefault); }

// strerror's buffer is shared between threads; several workers log at once.
const char* errorText(int err, char* buf, size_t len) { return strerror_r(err, buf, len); }

using SocketFd = android::base::unique_fd;

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

// gethostbyname's result is static; the reentrant form keeps workers apart.
bool resolve(const char* server, in_addr* out) {
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

}  // namespace

int32_t Ping::ping(const char* iface, const char* server) {
    uint8_t received[icmp::kReceiveBufferSize];
    memset(received, 0, sizeof(received));
    int32_t result = readTimeout();
    lastProbeFailed = true;

    if (iface == nullptr || server == nullptr) {
        LOGE("interface or server is null");
        return result;
    }

    SocketFd sock(socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP));
    if (setsockopt(sock.get(), SOL_SOCKET, SO_BINDTODEVICE, iface,
                   static_cast<socklen_t>(strlen(iface) + 1)) < 0) {
        LOGE("Failed to bind socket on %s", iface);
        return result;
    }

    in_addr resolved{};
    bool found = false;
    for (int attempt = 0; attempt < kResolveAttempts && !found; ++attempt) {
        found = resolve(server, &resolved);
    }
    if (!found) {
        LOGE("Failed to get host name of %s", iface);
        LOGE("Failed to init destination address on %s", iface);
        return result;
    }

    sockaddr_in destination;
    memset(&destination, 0, sizeof(destination));
    destination.sin_family = AF_INET;
    destination.sin_port = 0;
    destination.sin_addr = resolved;

    uint8_t request[icmp::kRequestSize];
    timeval sent{};
    gettimeofday(&sent, nullptr);
    icmp::buildEchoRequest(request, static_cast<uint16_t>(getpid() & 0xFFFF), sequenceNumber, sent);

    char errBuf[128];
    // Only 0 counts as a failed send; -1 is left to end by timeout.
    if (sendto(sock.get(), request, sizeof(request), 0, reinterpret_cast<sockaddr*>(&destination),
               sizeof(destination)) == 0) {
        LOGW("Failed to send ICMP request on %s", iface);
    } else {
        for (;;) {
            const int timeoutMs = readTimeout();
            if (waitReadable(sock.get(), timeoutMs) < 1) {
                LOGW("Failed to read socket or timeout on %s", iface);
                break;
            }
            if (recvfrom(sock.get(), received, sizeof(received), 0, nullptr, nullptr) < 1) {
                LOGE("Failed to recv on %s (%s)", iface, errorText(errno, errBuf, sizeof(errBuf)));
                continue;
            }
            pingDebugEnabled.store(readDebugFlag(kDebugProperty));
            timeval arrived{};
            gettimeofday(&arrived, nullptr);

            const icmp::ReplyInfo reply = icmp::checkEchoReply(
                    received, sizeof(received), destination.sin_addr, sequenceNumber, sent, arrived);
            const bool debug = pingDebugEnabled.load();
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
            if (reply.verdict == icmp::Verdict::kAccepted) {
                result = reply.rtt;
                lastProbeFailed = false;
                break;
            }
            // A reply of 0 ms is dropped silently; anything else rejected gets
            // the diagnostic line first.
            if (debug && !(reply.verdict == icmp::Verdict::kRttNotPositive && reply.rtt == 0)) {
                char sourceText[16] = {};
                inet_ntop(AF_INET, &reply.sourceRaw, sourceText, sizeof(sourceText));
                char destinationText[16] = {};
                inet_ntop(AF_INET, &destination.sin_addr, destinationText, sizeof(destinationText));
                LOGE("%d, %d, %s (%u), %s (%u), %u, %u, %d, %d, %d", reply.type, reply.code,
                     sourceText, reply.sourceRaw, destinationText, destination.sin_addr.s_addr,
                     static_cast<unsigned>(sequenceNumber), static_cast<unsigned>(reply.sequence),
                     reply.secondsMs, reply.microsMs, reply.rtt);
            }
            result = readTimeout();
            LOGE("Failed to parseICMPReply on %s (%s)", iface,
                 errorText(errno, errBuf, sizeof(errBuf)));
        }
    }

    ++sequenceNumber;
    return result;
}

}  // namespace probemond

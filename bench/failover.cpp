// Datagram flow for the failover benchmark, run inside the lab:
//   probemond-bench-failover listen ADDR PORT   print "<unix-ns> <ifname>" each time
//                                               the ingress interface changes
//   probemond-bench-failover send ADDR PORT MS  send a datagram every MS ms, for ever
// The sender's socket is destroyed at every switch; it opens a new one and
// goes on, as an application would.
#include <android-base/unique_fd.h>
#include <arpa/inet.h>
#include <errno.h>
#include <net/if.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <string>

namespace {

using android::base::unique_fd;

bool parseAddr(const char* addr, const char* port, sockaddr_in* out) {
    *out = sockaddr_in{};
    out->sin_family = AF_INET;
    char* end = nullptr;
    long p = strtol(port, &end, 10);
    if (*end != '\0' || p <= 0 || p > 65535) return false;
    out->sin_port = htons(static_cast<uint16_t>(p));
    return inet_pton(AF_INET, addr, &out->sin_addr) == 1;
}

int64_t nowNs() {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);  // the shell stamps its changes with the same clock
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

int listenMode(const sockaddr_in& at) {
    unique_fd s(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    int one = 1;
    if (s.get() < 0 || setsockopt(s.get(), IPPROTO_IP, IP_PKTINFO, &one, sizeof one) != 0 ||
        bind(s.get(), reinterpret_cast<const sockaddr*>(&at), sizeof at) != 0) {
        fprintf(stderr, "listen: %s\n", strerror(errno));
        return 1;
    }
    printf("listening\n");
    fflush(stdout);
    int lastIndex = 0;
    for (;;) {
        char data[64];
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in_pktinfo))];
        iovec iov{data, sizeof data};
        msghdr msg{};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = sizeof control;
        if (recvmsg(s.get(), &msg, 0) < 0) {
            if (errno == EINTR) continue;
            fprintf(stderr, "recvmsg: %s\n", strerror(errno));
            return 1;
        }
        const int64_t at = nowNs();
        int index = 0;
        for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
            if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO) {
                in_pktinfo info;
                memcpy(&info, CMSG_DATA(c), sizeof info);
                index = info.ipi_ifindex;
            }
        }
        if (index == 0 || index == lastIndex) continue;
        lastIndex = index;
        char name[IF_NAMESIZE] = {};
        if (if_indextoname(static_cast<unsigned>(index), name) == nullptr) snprintf(name, sizeof name, "if%d", index);
        printf("%lld %s\n", static_cast<long long>(at), name);
        fflush(stdout);
    }
}

int sendMode(const sockaddr_in& to, const char* msText) {
    const long ms = atol(msText);
    if (ms <= 0) return 2;
    unique_fd s;
    const timespec pause{ms / 1000, (ms % 1000) * 1000000};
    for (;;) {
        if (s.get() < 0) s.reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        if (s.get() >= 0 &&
            sendto(s.get(), "probemond", 9, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to) != 9) {
            s.reset();  // destroyed under us: the next round opens a new one
        }
        nanosleep(&pause, nullptr);
    }
}

}  // namespace

int main(int argc, char** argv) {
    sockaddr_in addr{};
    if (argc >= 4 && parseAddr(argv[2], argv[3], &addr)) {
        const std::string mode = argv[1];
        if (mode == "listen" && argc == 4) return listenMode(addr);
        if (mode == "send" && argc == 5) return sendMode(addr, argv[4]);
    }
    fprintf(stderr, "usage: %s listen ADDR PORT | send ADDR PORT MS\n", argv[0]);
    return 2;
}

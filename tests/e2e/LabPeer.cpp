// Traffic ends for the end-to-end tests and the demo, run inside the lab:
//   probemond-lab-peer listen ADDR PORT    accept TCP connections and keep them open
//   probemond-lab-peer hold ADDR PORT      connect, then wait until the connection dies
//   probemond-lab-peer udp ADDR PORT COUNT send COUNT datagrams
// The caller picks the UID (setpriv) and the namespace (lab.sh exec/netexec).
#include <android-base/unique_fd.h>
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

using Fd = android::base::unique_fd;

bool parseAddr(const char* addr, const char* port, sockaddr_in* out) {
    *out = sockaddr_in{};
    out->sin_family = AF_INET;
    char* end = nullptr;
    long p = strtol(port, &end, 10);
    if (*end != '\0' || p <= 0 || p > 65535) return false;
    out->sin_port = htons(static_cast<uint16_t>(p));
    return inet_pton(AF_INET, addr, &out->sin_addr) == 1;
}

std::string peerText(const sockaddr_in& a) {
    char buf[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &a.sin_addr, buf, sizeof buf);
    return std::string(buf) + ":" + std::to_string(ntohs(a.sin_port));
}

int listenMode(const sockaddr_in& at) {
    Fd srv(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    int one = 1;
    setsockopt(srv.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (srv.get() < 0 || bind(srv.get(), reinterpret_cast<const sockaddr*>(&at), sizeof at) != 0 ||
        listen(srv.get(), 16) != 0) {
        fprintf(stderr, "listen: %s\n", strerror(errno));
        return 1;
    }
    printf("listening on %s\n", peerText(at).c_str());
    fflush(stdout);
    std::vector<Fd> conns;
    std::vector<std::string> names;
    for (;;) {
        std::vector<pollfd> fds{{srv.get(), POLLIN, 0}};
        for (const Fd& c : conns) fds.push_back({c.get(), POLLIN, 0});
        if (poll(fds.data(), fds.size(), -1) < 0) {
            if (errno == EINTR) continue;
            return 1;
        }
        for (size_t i = fds.size(); i-- > 1;) {
            if (fds[i].revents == 0) continue;
            char buf[256];
            if (read(fds[i].fd, buf, sizeof buf) > 0) continue;
            printf("closed %s\n", names[i - 1].c_str());
            fflush(stdout);
            conns.erase(conns.begin() + static_cast<long>(i - 1));
            names.erase(names.begin() + static_cast<long>(i - 1));
        }
        if (fds[0].revents & POLLIN) {
            sockaddr_in from{};
            socklen_t len = sizeof from;
            int c = accept4(srv.get(), reinterpret_cast<sockaddr*>(&from), &len, SOCK_CLOEXEC);
            if (c < 0) continue;
            conns.emplace_back(c);
            names.push_back(peerText(from));
            printf("accepted %s\n", names.back().c_str());
            fflush(stdout);
        }
    }
}

int holdMode(const sockaddr_in& to) {
    Fd s(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (s.get() < 0 || connect(s.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0) {
        fprintf(stderr, "connect: %s\n", strerror(errno));
        return 1;
    }
    sockaddr_in local{};
    socklen_t len = sizeof local;
    getsockname(s.get(), reinterpret_cast<sockaddr*>(&local), &len);
    printf("connected from %s uid %u\n", peerText(local).c_str(), getuid());
    fflush(stdout);
    char buf[256];
    ssize_t n;
    while ((n = read(s.get(), buf, sizeof buf)) > 0) {
    }
    printf("closed: %s\n", n == 0 ? "end of stream" : strerror(errno));
    fflush(stdout);
    return 0;
}

int udpMode(const sockaddr_in& to, const char* countText) {
    int count = atoi(countText);
    Fd s(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (s.get() < 0) return 1;
    int sent = 0;
    for (int i = 0; i < count; ++i)
        if (sendto(s.get(), "probemond", 9, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to) == 9) ++sent;
    printf("sent %d\n", sent);
    return sent == count ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    sockaddr_in addr{};
    if (argc >= 4 && parseAddr(argv[2], argv[3], &addr)) {
        std::string mode = argv[1];
        if (mode == "listen" && argc == 4) return listenMode(addr);
        if (mode == "hold" && argc == 4) return holdMode(addr);
        if (mode == "udp" && argc == 5) return udpMode(addr, argv[4]);
    }
    fprintf(stderr, "usage: %s listen|hold ADDR PORT | udp ADDR PORT COUNT\n", argv[0]);
    return 2;
}

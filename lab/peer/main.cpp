// Traffic ends for the end-to-end tests and the demo, run inside the lab:
//   probemond-lab-peer listen ADDR PORT    accept TCP connections and keep them open
//   probemond-lab-peer hold ADDR PORT      connect, then wait until the connection dies
//   probemond-lab-peer udp ADDR PORT COUNT send COUNT datagrams
// The caller picks the UID (setpriv) and the namespace (lab.sh exec/netexec).
#include <android-base/unique_fd.h>
#include <arpa/inet.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

using Fd = android::base::unique_fd;

std::string text(const sockaddr_in& a) {
    char buf[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &a.sin_addr, buf, sizeof buf);
    return std::string(buf) + ":" + std::to_string(ntohs(a.sin_port));
}

void say(const std::string& line) {
    printf("%s\n", line.c_str());
    fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    sockaddr_in at{};
    at.sin_family = AF_INET;
    const std::string mode = argc >= 4 ? argv[1] : "";
    if (argc < 4 || inet_pton(AF_INET, argv[2], &at.sin_addr) != 1) {
        fprintf(stderr, "usage: probemond-lab-peer listen|hold ADDR PORT | udp ADDR PORT COUNT\n");
        return 2;
    }
    at.sin_port = htons(static_cast<uint16_t>(atoi(argv[3])));
    const auto* addr = reinterpret_cast<const sockaddr*>(&at);
    Fd s(socket(AF_INET, (mode == "udp" ? SOCK_DGRAM : SOCK_STREAM) | SOCK_CLOEXEC, 0));
    if (mode == "listen") {
        int one = 1;
        setsockopt(s.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        if (bind(s.get(), addr, sizeof at) != 0 || listen(s.get(), 16) != 0) return perror("listen"), 1;
        say("listening on " + text(at));
        for (std::vector<Fd> open;;) {
            sockaddr_in from{};
            socklen_t len = sizeof from;
            open.emplace_back(accept4(s.get(), reinterpret_cast<sockaddr*>(&from), &len, SOCK_CLOEXEC));
            if (open.back().get() >= 0) say("accepted " + text(from));
        }
    }
    if (mode == "hold") {
        if (connect(s.get(), addr, sizeof at) != 0) return perror("connect"), 1;
        sockaddr_in local{};
        socklen_t len = sizeof local;
        getsockname(s.get(), reinterpret_cast<sockaddr*>(&local), &len);
        say("connected from " + text(local) + " uid " + std::to_string(getuid()));
        char buf[256];
        ssize_t n;
        while ((n = read(s.get(), buf, sizeof buf)) > 0) {
        }
        say(std::string("closed: ") + (n == 0 ? "end of stream" : strerror(errno)));
        return 0;
    }
    if (mode == "udp" && argc == 5) {
        int sent = 0;
        for (int i = 0; i < atoi(argv[4]); ++i) sent += sendto(s.get(), "probemond", 9, 0, addr, sizeof at) == 9;
        say("sent " + std::to_string(sent));
        return sent == atoi(argv[4]) ? 0 : 1;
    }
    return 2;
}

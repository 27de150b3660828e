#include "lab/responder/Responder.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

namespace probemond::lab {

namespace {

FILE* gLog = stderr;

int64_t toNs(const timespec& t) { return static_cast<int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec; }

int64_t nowNs(clockid_t c) {
    timespec t;
    clock_gettime(c, &t);
    return toNs(t);
}

}  // namespace

void setLogFile(FILE* file) { gLog = file; }

void logLine(const char* fmt, ...) {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    struct tm tmv;
    localtime_r(&now.tv_sec, &tmv);
    char stamp[32];
    strftime(stamp, sizeof(stamp), "%H:%M:%S", &tmv);
    fprintf(gLog, "%s.%06ld ", stamp, now.tv_nsec / 1000);
    va_list ap;
    va_start(ap, fmt);
    vfprintf(gLog, fmt, ap);
    va_end(ap);
    fputc('\n', gLog);
    fflush(gLog);
}

void Responder::ControlValue::refresh() {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        present = false;
        text.clear();
        return;
    }
    if (present && st.st_ino == seen.st_ino && st.st_size == seen.st_size &&
        st.st_mtim.tv_sec == seen.st_mtim.tv_sec && st.st_mtim.tv_nsec == seen.st_mtim.tv_nsec) {
        return;
    }
    seen = st;
    present = true;
    text.clear();
    if (FILE* f = fopen(path.c_str(), "re")) {
        char buf[64] = {};
        if (fgets(buf, sizeof(buf), f)) text = buf;
        fclose(f);
    }
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
}

Settings Responder::InterfaceControl::current(const std::string& iface) {
    delay.refresh();
    loss.refresh();
    fault.refresh();
    Settings s;
    s.delayMs = delay.present ? atoi(delay.text.c_str()) : 0;
    s.lossPercent = loss.present ? atoi(loss.text.c_str()) : 0;
    if (fault.present && !parseFault(fault.text, &s)) {
        logLine("%s: unknown fault '%s', treated as off", iface.c_str(), fault.text.c_str());
    }
    if (s.delayMs < 0) s.delayMs = 0;
    return s;
}

bool Responder::open() {
    rx_.reset(socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP));
    tx_.reset(socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW));
    timer_.reset(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    epoll_.reset(epoll_create1(EPOLL_CLOEXEC));
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGHUP);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    signals_.reset(signalfd(-1, &set, SFD_CLOEXEC));
    if (!rx_.ok() || !tx_.ok() || !timer_.ok() || !epoll_.ok() || !signals_.ok()) {
        logLine("cannot open sockets: %s", strerror(errno));
        return false;
    }
    const int on = 1;
    setsockopt(rx_.get(), IPPROTO_IP, IP_PKTINFO, &on, sizeof(on));
    // Kernel arrival time, so our own wake-up latency does not add to the delay.
    setsockopt(rx_.get(), SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof(on));
    for (int fd : {rx_.get(), timer_.get(), signals_.get()}) {
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.fd = fd;
        epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &ev);
    }
    return true;
}

std::string Responder::interfaceFor(int ifindex) {
    auto it = names_.find(ifindex);
    if (it != names_.end()) return it->second;
    char name[IF_NAMESIZE] = {};
    if (if_indextoname(static_cast<unsigned>(ifindex), name) == nullptr) return "";
    std::string iface = name;
    if (iface.rfind("n-", 0) == 0) iface = iface.substr(2);
    names_[ifindex] = iface;
    return iface;
}

Responder::InterfaceControl& Responder::controlFor(const std::string& iface) {
    auto it = controls_.find(iface);
    if (it != controls_.end()) return it->second;
    InterfaceControl& c = controls_[iface];
    const std::string base = stateDir_ + "/ctl/" + iface + "/";
    c.delay.path = base + "delay";
    c.loss.path = base + "loss";
    c.fault.path = base + "fault";
    return c;
}

void Responder::onRequest() {
    for (;;) {
        uint8_t buf[65536];
        char control[512];
        iovec iov{buf, sizeof(buf)};
        msghdr msg{};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = sizeof(control);
        const ssize_t n = recvmsg(rx_.get(), &msg, MSG_DONTWAIT);
        if (n < 0) return;
        const int64_t monoNow = nowNs(CLOCK_MONOTONIC);
        const int64_t realNow = nowNs(CLOCK_REALTIME);
        int ifindex = 0;
        int64_t arrivedReal = realNow;
        for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
            if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO) {
                in_pktinfo info;
                memcpy(&info, CMSG_DATA(c), sizeof(info));
                ifindex = info.ipi_ifindex;
            } else if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_TIMESTAMPNS) {
                timespec ts;
                memcpy(&ts, CMSG_DATA(c), sizeof(ts));
                arrivedReal = toNs(ts);
            }
        }
        if (n < 20) continue;
        const size_t ihl = 4u * (buf[0] & 0x0F);
        if (ihl < 20 || static_cast<size_t>(n) < ihl + 8) continue;
        const uint8_t* icmp = buf + ihl;
        if (icmp[0] != 8 || icmp[1] != 0) continue;  // only echo requests
        in_addr from, to;
        memcpy(&from, buf + 12, 4);
        memcpy(&to, buf + 16, 4);
        const std::string iface = interfaceFor(ifindex);
        if (iface.empty()) continue;

        const Settings s = controlFor(iface).current(iface);
        uint16_t seq;
        memcpy(&seq, icmp + 6, 2);
        char fromText[16], toText[16];
        inet_ntop(AF_INET, &from, fromText, sizeof(fromText));
        inet_ntop(AF_INET, &to, toText, sizeof(toText));
        if (s.lossPercent > 0 &&
            static_cast<int>(std::uniform_int_distribution<int>(0, 99)(random_)) < s.lossPercent) {
            logLine("%s %s->%s seq %u: lost", iface.c_str(), fromText, toText, ntohs(seq));
            continue;
        }
        const std::vector<Outgoing> out =
                plan(s, icmp, static_cast<size_t>(n) - ihl, from, to, buf);
        logLine("%s %s->%s seq %u: delay %d fault %d, %zu packet(s)", iface.c_str(), fromText,
                toText, ntohs(seq), s.delayMs, static_cast<int>(s.fault), out.size());
        // Measure the delay from the kernel's arrival stamp, on the monotonic clock.
        const int64_t arrivedMono = monoNow - (realNow - arrivedReal);
        for (const auto& o : out) {
            queue_.push(Pending{arrivedMono + static_cast<int64_t>(o.afterMs) * 1000000, serial_++,
                                ifindex, o});
        }
    }
}

void Responder::send(const Pending& p) {
    std::vector<uint8_t> packet(20 + p.packet.icmp.size(), 0);
    packet[0] = 0x45;
    const uint16_t total = htons(static_cast<uint16_t>(packet.size()));
    memcpy(&packet[2], &total, 2);
    packet[8] = 64;  // TTL
    packet[9] = IPPROTO_ICMP;
    memcpy(&packet[12], &p.packet.source, 4);
    memcpy(&packet[16], &p.packet.destination, 4);
    memcpy(&packet[20], p.packet.icmp.data(), p.packet.icmp.size());

    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr = p.packet.destination;
    // Leave by the interface the request came in on.
    char control[CMSG_SPACE(sizeof(in_pktinfo))] = {};
    iovec iov{packet.data(), packet.size()};
    msghdr msg{};
    msg.msg_name = &to;
    msg.msg_namelen = sizeof(to);
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof(control);
    cmsghdr* c = CMSG_FIRSTHDR(&msg);
    c->cmsg_level = IPPROTO_IP;
    c->cmsg_type = IP_PKTINFO;
    c->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
    in_pktinfo info{};
    info.ipi_ifindex = p.ifindex;
    memcpy(CMSG_DATA(c), &info, sizeof(info));
    if (sendmsg(tx_.get(), &msg, 0) < 0) logLine("send failed: %s", strerror(errno));
}

void Responder::sendDue() {
    uint64_t expirations;
    while (read(timer_.get(), &expirations, sizeof(expirations)) > 0) {
    }
    const int64_t now = nowNs(CLOCK_MONOTONIC);
    while (!queue_.empty() && queue_.top().dueNs <= now) {
        const int64_t lateUs = (now - queue_.top().dueNs) / 1000;
        if (lateUs > 500) logLine("reply %lld us late", static_cast<long long>(lateUs));
        send(queue_.top());
        queue_.pop();
    }
}

void Responder::armTimer() {
    itimerspec when{};
    if (!queue_.empty()) {
        // An absolute deadline already past fires at once; 0 would disarm.
        const int64_t due = std::max<int64_t>(queue_.top().dueNs, 1);
        when.it_value.tv_sec = due / 1000000000;
        when.it_value.tv_nsec = due % 1000000000;
    }
    timerfd_settime(timer_.get(), TFD_TIMER_ABSTIME, &when, nullptr);
}

int Responder::run() {
    logLine("responder ready (pid %d)", getpid());
    for (;;) {
        epoll_event events[4];
        const int n = epoll_wait(epoll_.get(), events, 4, -1);
        if (n < 0 && errno != EINTR) return 1;
        for (int i = 0; i < n; ++i) {
            const int fd = events[i].data.fd;
            if (fd == signals_.get()) {
                logLine("responder stopping");
                return 0;
            }
            if (fd == rx_.get()) onRequest();
        }
        sendDue();
        armTimer();
    }
}

}  // namespace probemond::lab

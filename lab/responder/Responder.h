// The lab's ICMP echo responder: answers echo requests in the internet
// namespace per ingress interface, after a delay, with optional loss and
// deliberate faults. Settings live in files under the lab's state directory
// (ctl/<iface>/{delay,loss,fault}) and are re-read when they change.
#pragma once

#include <android-base/unique_fd.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <queue>
#include <random>
#include <string>
#include <vector>

#include "lab/responder/ReplyPlan.h"

namespace probemond::lab {

// The responder's log: stderr until a file is set.
void setLogFile(FILE* file);
void logLine(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

class Responder {
public:
    explicit Responder(std::string stateDir) : stateDir_(std::move(stateDir)) {}

    // Its sockets, timer and signal descriptor; false (logged) when one fails.
    bool open();
    // Answers until SIGTERM, SIGINT or SIGHUP (0), or a failed wait (1).
    int run();

private:
    // One control value, re-read only when its file changed.
    struct ControlValue {
        std::string path;
        struct stat seen {};
        bool present = false;
        std::string text;

        void refresh();
    };

    struct InterfaceControl {
        ControlValue delay, loss, fault;

        Settings current(const std::string& iface);
    };

    struct Pending {
        int64_t dueNs;  // CLOCK_MONOTONIC
        uint64_t serial;
        int ifindex;
        Outgoing packet;
        bool operator>(const Pending& o) const {
            return dueNs != o.dueNs ? dueNs > o.dueNs : serial > o.serial;
        }
    };

    void onRequest();
    void sendDue();
    void armTimer();
    void send(const Pending& p);
    std::string interfaceFor(int ifindex);
    InterfaceControl& controlFor(const std::string& iface);

    std::string stateDir_;
    android::base::unique_fd rx_, tx_, timer_, signals_, epoll_;
    std::priority_queue<Pending, std::vector<Pending>, std::greater<Pending>> queue_;
    uint64_t serial_ = 0;
    std::map<int, std::string> names_;
    std::map<std::string, InterfaceControl> controls_;
    std::mt19937 random_{std::random_device{}()};
};

}  // namespace probemond::lab

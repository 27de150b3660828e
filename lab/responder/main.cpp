// probemond-responder --state-dir DIR [--netns PATH]
// Runs in the lab's internet namespace (entering PATH first when given) and
// answers ICMP echo requests per ingress interface. The ingress interface
// "n-<iface>" takes its settings from DIR/ctl/<iface>/{delay,loss,fault}.
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "lab/responder/Responder.h"

using namespace probemond::lab;

int main(int argc, char** argv) {
    std::string stateDir, netns;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string opt = argv[i];
        if (opt == "--state-dir") stateDir = argv[i + 1];
        else if (opt == "--netns") netns = argv[i + 1];
    }
    if (stateDir.empty()) {
        fprintf(stderr, "usage: %s --state-dir DIR [--netns PATH]\n", argv[0]);
        return 2;
    }
    if (FILE* f = fopen((stateDir + "/responder.log").c_str(), "ae")) setLogFile(f);
    if (!netns.empty()) {
        android::base::unique_fd ns(open(netns.c_str(), O_RDONLY | O_CLOEXEC));
        if (!ns.ok() || setns(ns.get(), CLONE_NEWNET) != 0) {
            logLine("cannot enter %s: %s", netns.c_str(), strerror(errno));
            return 1;
        }
    }
    // Delay accuracy: fine timer slack and, where allowed, real-time priority.
    prctl(PR_SET_TIMERSLACK, 1UL, 0, 0, 0);
    sched_param prio{};
    prio.sched_priority = 10;
    if (sched_setscheduler(0, SCHED_FIFO, &prio) != 0) logLine("no real-time priority: %s", strerror(errno));

    Responder responder(stateDir);
    if (!responder.open()) return 1;
    // Written whole then renamed: the lab treats the pid file as "ready".
    const std::string pidFile = stateDir + "/responder.pid";
    if (FILE* f = fopen((pidFile + ".tmp").c_str(), "we")) {
        fprintf(f, "%d\n", getpid());
        fclose(f);
        rename((pidFile + ".tmp").c_str(), pidFile.c_str());
    }
    return responder.run();
}

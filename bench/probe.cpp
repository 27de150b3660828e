// probemond-bench-probe IFACE SERVER COUNT INTERVAL_MS
// Runs COUNT probes with Ping::ping and prints one RTT (ms) per line.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "probe/Ping.h"

using namespace probemond;

int main(int argc, char** argv) {
    if (argc != 5) {
        fprintf(stderr, "usage: %s IFACE SERVER COUNT INTERVAL_MS\n", argv[0]);
        return 2;
    }
    const int count = atoi(argv[3]);
    const int intervalMs = atoi(argv[4]);
    Ping ping;
    for (int i = 0; i < count; ++i) {
        if (i > 0) usleep(static_cast<useconds_t>(intervalMs) * 1000);
        printf("%d\n", ping.ping(argv[1], argv[2]).rtt);
        fflush(stdout);
    }
    return 0;
}

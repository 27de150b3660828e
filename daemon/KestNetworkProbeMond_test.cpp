// The state dump against a reader that stops reading.
#include "daemon/KestNetworkProbeMond.h"

#include <gtest/gtest.h>

#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <string>
#include <thread>

#include "RecordingCommandExecutor.h"
#include "TempPropertyFile.h"
#include "WatcherFakes.h"
#include "InterfaceFakes.h"

using namespace probemond;
using namespace probemond::test;
using android::base::unique_fd;

namespace {

// A terminal with a little room: poll calls it writable, yet a blocking
// write of a chunk waits for a reader that never comes. Its room frees in
// steps of 3584 bytes once 1024 are read, and the dump is made larger.
TEST(Dump, EndsWhenTheReaderStopsReading) {
    TempPropertyFile props;
    FakeManager fake;
    RecordingCommandExecutor commands;
    IptablesRuleManager iptables(commands, commands);
    for (int uid = 1000000000; uid < 1000000400; ++uid) iptables.addUid(std::to_string(uid).c_str());
    ScriptedWatch zygote;
    FakeHooks hooks;
    NetdRestartWatcher watcher(zygote, hooks);
    android::sp<android::KestNetworkProbeMond> service = new android::KestNetworkProbeMond(fake.m, iptables, watcher);

    unique_fd master(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_TRUE(master.ok() && grantpt(master.get()) == 0 && unlockpt(master.get()) == 0);
    unique_fd tty(open(ptsname(master.get()), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    termios raw{};
    ASSERT_EQ(0, tcgetattr(tty.get(), &raw));
    cfmakeraw(&raw);
    ASSERT_EQ(0, tcsetattr(tty.get(), TCSANOW, &raw));
    while (write(tty.get(), "x", 1) == 1) {
    }
    char drained[1024];
    pollfd room{tty.get(), POLLOUT, 0};
    ASSERT_TRUE(read(master.get(), drained, sizeof drained) == static_cast<ssize_t>(sizeof drained) &&
                poll(&room, 1, 2000) == 1);
    fcntl(tty.get(), F_SETFL, 0);

    std::promise<android::status_t> result;
    std::thread writer([&] { result.set_value(service->dump(tty.get(), {})); });
    const bool ended = result.get_future().wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    master.reset();  // a write still waiting fails now
    writer.join();
    EXPECT_TRUE(ended) << "the dump waited for the reader";
    EXPECT_EQ(0, fcntl(tty.get(), F_GETFL) & O_NONBLOCK) << "the reader's descriptor was left changed";
}

}  // namespace

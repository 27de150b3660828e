#include <binder/BpBinder.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>

#include <gtest/gtest.h>

#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "BinderTestEnvironment.h"
#include "src/ServiceDirectory.h"
#include "src/Wire.h"

using namespace android;

namespace {

const auto* const kEnv =
    ::testing::AddGlobalTestEnvironment(new probemond::test::BinderTestEnvironment("host_binder_test"));

std::string serviceDir() { return probemond::test::BinderTestEnvironment::path() + "/vndbinder"; }

class Echo : public BBinder {
public:
    std::atomic<int> oneways{0};

protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        if (code == 2 && (flags & FLAG_ONEWAY)) oneways++;
        if (code == 2) return OK;
        if (code == 3) return PERMISSION_DENIED;
        if (code == 4) return reply->writeCString(std::string(binder_host::kMaxParcelData, 'x').c_str());
        return BBinder::onTransact(code, data, reply, flags);
    }
};

TEST(ServiceManager, NamesRegistrationLookupAndDeadServices) {
    sp<IServiceManager> sm = defaultServiceManager();
    sp<Echo> echo = new Echo();
    for (const std::string& bad : {std::string(), std::string(128, 'a'), std::string("a b"), std::string("a%b")})
        EXPECT_EQ(BAD_VALUE, sm->addService(String16(bad.c_str()), echo)) << bad;
    EXPECT_EQ(BAD_VALUE, sm->addService(String16("x"), nullptr));
    // Names never leave the service directory.
    EXPECT_EQ("=..%x", binder_host::serviceFileName("../x"));
    EXPECT_EQ("../x", binder_host::serviceNameForFile("=..%x"));
    ASSERT_EQ(OK, sm->addService(String16("echo/one"), echo));
    EXPECT_EQ(echo.get(), sm->checkService(String16("echo/one")).get());
    EXPECT_EQ(nullptr, sm->checkService(String16("echo/two")).get());

    // A socket whose process is gone counts as absent, and goes.
    const std::string ghost = serviceDir() + "/ghost";
    int s = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", ghost.c_str());
    ASSERT_EQ(0, bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)));
    close(s);
    EXPECT_EQ(nullptr, sm->checkService(String16("ghost")).get());
    EXPECT_NE(0, access(ghost.c_str(), F_OK));
    sp<BpBinder> wrongPid = new BpBinder(serviceDir() + "/echo%one", getpid() + 1);
    EXPECT_EQ(DEAD_OBJECT, wrongPid->pingBinder());
    EXPECT_FALSE(wrongPid->isBinderAlive());
}

// Connecting takes write permission: the owner's alone, or its and the
// named group's (by name or by number); a name of no group publishes nothing.
TEST(ServiceManager, SocketsAdmitTheOwnerAndTheNamedGroupOnly) {
    sp<Echo> echo = new Echo();
    const std::pair<std::string, gid_t> groups[] = {
        {"", getegid()}, {getgrgid(getegid())->gr_name, getegid()}, {getuid() == 0 ? "4242" : "", 4242}};
    for (const auto& [group, gid] : groups) {
        setenv("PROBEMOND_BINDER_GROUP", group.c_str(), 1);
        const std::string name = "mode" + std::to_string(gid) + group;
        ASSERT_EQ(OK, defaultServiceManager()->addService(String16(name.c_str()), echo)) << group;
        struct stat st {};
        ASSERT_EQ(0, stat((serviceDir() + "/" + name).c_str(), &st));
        EXPECT_EQ(group.empty() ? 0600u : 0660u, st.st_mode & 0777) << group;
        EXPECT_TRUE(group.empty() || st.st_gid == gid) << group;
    }
    setenv("PROBEMOND_BINDER_GROUP", "no-such-group-here", 1);
    EXPECT_EQ(BAD_VALUE, defaultServiceManager()->addService(String16("nogroup"), echo));
    EXPECT_NE(0, access((serviceDir() + "/nogroup").c_str(), F_OK));
    unsetenv("PROBEMOND_BINDER_GROUP");
}

TEST(Transport, StatusesOnewayAndOversizeReply) {
    sp<Echo> echo = new Echo();
    ASSERT_EQ(OK, defaultServiceManager()->addService(String16("echo.transport"), echo));
    // A proxy that skips the same-process shortcut, so the socket transport carries the calls.
    sp<BpBinder> p = new BpBinder(serviceDir() + "/echo.transport", getpid());
    // Replies crossing processes under load are the reliability stress's.
    Parcel reply, empty, failed;
    EXPECT_EQ(UNKNOWN_TRANSACTION, p->transact(0, empty, &failed));
    EXPECT_EQ(0u, failed.dataSize()) << "a failed call carries no data";
    EXPECT_EQ(PERMISSION_DENIED, p->transact(3, empty, &failed));

    for (int i = 0; i < 5; i++) EXPECT_EQ(OK, p->transact(2, empty, nullptr, IBinder::FLAG_ONEWAY));
    EXPECT_EQ(OK, p->pingBinder());  // served after the one-way calls on the same connection
    for (int i = 0; i < 1000 && echo->oneways < 5; i++) usleep(1000);
    EXPECT_EQ(5, echo->oneways.load());

    // A request over the bound is the reliability client's; this is the reply's.
    EXPECT_EQ(FAILED_TRANSACTION, p->transact(4, empty, &reply)) << "reply over the bound";
    EXPECT_EQ(OK, p->pingBinder()) << "the service and the proxy survive";
}

}  // namespace

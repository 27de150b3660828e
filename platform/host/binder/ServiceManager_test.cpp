#include <binder/BpBinder.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <string>

#include "src/ServiceDirectory.h"
#include "src/Wire.h"
#include "BinderTestEnvironment.h"

using namespace android;

namespace {

const auto* const kEnv =
    ::testing::AddGlobalTestEnvironment(new probemond::test::BinderTestEnvironment("host_binder_test"));
const std::string& gDir = probemond::test::BinderTestEnvironment::path();

std::string serviceDir() { return gDir + "/vndbinder"; }

class Echo : public BBinder {
public:
    const String16& getInterfaceDescriptor() const override {
        static const String16 d("test.Echo");
        return d;
    }
    status_t dump(int fd, const Vector<String16>& args) override {
        std::string text = "dump " + std::to_string(args.size()) + "\n";
        return write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? OK : UNKNOWN_ERROR;
    }
    std::atomic<int> oneways{0};

protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        if (code == 1) {
            // Echo the rest of the parcel back, with its size first.
            reply->writeInt32(static_cast<int32_t>(data.dataSize()));
            return OK;
        }
        if (code == 2) {
            if (flags & FLAG_ONEWAY) oneways++;
            return OK;
        }
        if (code == 3) return PERMISSION_DENIED;
        if (code == 4) {
            std::string big(binder_host::kMaxParcelData, 'x');
            reply->writeCString(big.c_str());
            return OK;
        }
        return BBinder::onTransact(code, data, reply, flags);
    }
};

// A proxy to one of our own services, bypassing the same-process shortcut so the
// socket transport itself is exercised.
sp<BpBinder> proxyTo(const std::string& name) {
    return new BpBinder(serviceDir() + "/" + binder_host::serviceFileName(name), getpid());
}

TEST(ServiceNames, ValidationAndFileMapping) {
    EXPECT_TRUE(binder_host::isValidServiceName("probemond_Binder"));
    EXPECT_TRUE(binder_host::isValidServiceName("a.b-c/d_9"));
    EXPECT_TRUE(binder_host::isValidServiceName(std::string(127, 'a')));
    EXPECT_FALSE(binder_host::isValidServiceName(""));
    EXPECT_FALSE(binder_host::isValidServiceName(std::string(128, 'a')));
    EXPECT_FALSE(binder_host::isValidServiceName("a b"));
    EXPECT_FALSE(binder_host::isValidServiceName("a%b"));
    EXPECT_FALSE(binder_host::isValidServiceName("é"));

    const std::pair<const char*, const char*> files[] = {
        {"probemond_Binder", "probemond_Binder"}, {"a/b", "a%b"}, {"../x", "=..%x"},
        {".", "=."}, {"..", "=.."}, {"/", "%"}};
    for (const auto& [name, file] : files) {
        EXPECT_EQ(file, binder_host::serviceFileName(name));
        EXPECT_EQ(name, binder_host::serviceNameForFile(file));
    }
    EXPECT_EQ("", binder_host::serviceNameForFile("."));
    EXPECT_EQ("", binder_host::serviceNameForFile(".."));
    EXPECT_EQ("", binder_host::serviceNameForFile("#123.0"));
}

TEST(ServiceManager, RegistersLooksUpAndLists) {
    sp<IServiceManager> sm = defaultServiceManager();
    sp<Echo> echo = new Echo();
    EXPECT_EQ(BAD_VALUE, sm->addService(String16(""), echo));
    EXPECT_EQ(BAD_VALUE, sm->addService(String16("bad name"), echo));
    EXPECT_EQ(BAD_VALUE, sm->addService(String16("x"), nullptr));
    ASSERT_EQ(OK, sm->addService(String16("echo/one"), echo));
    ASSERT_EQ(OK, sm->addService(String16(std::string(127, 'L').c_str()), echo));

    // Same process: the object itself comes back.
    EXPECT_EQ(echo.get(), sm->checkService(String16("echo/one")).get());
    EXPECT_EQ(nullptr, sm->checkService(String16("echo/two")).get());
    EXPECT_EQ(nullptr, sm->checkService(String16("../etc")).get());
    struct stat st;
    EXPECT_EQ(0, stat((serviceDir() + "/echo%one").c_str(), &st));
    EXPECT_TRUE(S_ISSOCK(st.st_mode));

    Vector<String16> names = sm->listServices();
    bool found = false;
    for (size_t i = 0; i < names.size(); i++) found |= names[i] == String16("echo/one");
    EXPECT_TRUE(found);

    // Long names reach their service through the socket as well.
    sp<BpBinder> longProxy = proxyTo(std::string(127, 'L'));
    EXPECT_EQ(OK, longProxy->pingBinder());
}

TEST(ServiceManager, StaleSocketIsAbsentAndRemoved) {
    sp<IServiceManager> sm = defaultServiceManager();
    sm->addService(String16("placeholder"), new Echo());  // creates the directory
    const std::string path = serviceDir() + "/ghost";
    {
        int s = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path.c_str());
        ASSERT_EQ(0, bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)));
        close(s);  // a registration whose process is gone
    }
    ASSERT_EQ(0, access(path.c_str(), F_OK));
    EXPECT_EQ(nullptr, sm->checkService(String16("ghost")).get());
    EXPECT_NE(0, access(path.c_str(), F_OK));
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    EXPECT_EQ(nullptr, sm->getService(String16("ghost")).get());
#pragma GCC diagnostic pop
}

TEST(Transport, DefaultCodesStatusesAndOneway) {
    sp<IServiceManager> sm = defaultServiceManager();
    sp<Echo> echo = new Echo();
    ASSERT_EQ(OK, sm->addService(String16("echo.defaults"), echo));
    sp<BpBinder> p = proxyTo("echo.defaults");

    EXPECT_EQ(OK, p->pingBinder());
    EXPECT_EQ(String16("test.Echo"), p->getInterfaceDescriptor());

    Parcel data, reply;
    data.writeInt32(1);
    data.writeCString("abc");
    ASSERT_EQ(OK, p->transact(1, data, &reply));
    EXPECT_EQ(8, reply.readInt32());

    Parcel empty;
    Parcel r2;
    EXPECT_EQ(UNKNOWN_TRANSACTION, p->transact(0, empty, &r2));
    EXPECT_EQ(0u, r2.dataSize()) << "a failed call carries no data";
    EXPECT_EQ(PERMISSION_DENIED, p->transact(3, empty, &r2));
    EXPECT_EQ(UNKNOWN_TRANSACTION, p->transact(IBinder::SHELL_COMMAND_TRANSACTION, empty, &r2));

    for (int i = 0; i < 5; i++) EXPECT_EQ(OK, p->transact(2, empty, nullptr, IBinder::FLAG_ONEWAY));
    // A two-way call after them on the same connection proves they were all consumed.
    EXPECT_EQ(OK, p->pingBinder());
    for (int i = 0; i < 100 && echo->oneways < 5; i++) usleep(1000);
    EXPECT_EQ(5, echo->oneways.load());
}

TEST(Transport, DumpCarriesTheDescriptorAndArgs) {
    sp<IServiceManager> sm = defaultServiceManager();
    ASSERT_EQ(OK, sm->addService(String16("echo.dump"), new Echo()));
    sp<BpBinder> p = proxyTo("echo.dump");
    int fds[2];
    ASSERT_EQ(0, pipe2(fds, O_CLOEXEC));
    Vector<String16> args;
    args.add(String16("-a"));
    args.add(String16("b"));
    EXPECT_EQ(OK, p->dump(fds[1], args));
    close(fds[1]);
    char buf[64] = {};
    ssize_t n = read(fds[0], buf, sizeof(buf) - 1);
    close(fds[0]);
    EXPECT_STREQ("dump 2\n", n > 0 ? buf : "");
}

TEST(Transport, OversizedMessagesAreRefusedCleanly) {
    sp<IServiceManager> sm = defaultServiceManager();
    ASSERT_EQ(OK, sm->addService(String16("echo.big"), new Echo()));
    sp<BpBinder> p = proxyTo("echo.big");
    Parcel big, reply;
    std::string text(binder_host::kMaxParcelData, 'y');
    big.writeCString(text.c_str());
    EXPECT_EQ(FAILED_TRANSACTION, p->transact(1, big, &reply));
    Parcel empty;
    EXPECT_EQ(FAILED_TRANSACTION, p->transact(4, empty, &reply)) << "reply over the bound";
    EXPECT_EQ(OK, p->pingBinder()) << "the service and the proxy survive";
    EXPECT_TRUE(p->isBinderAlive());

    // A raw peer sending more than the bound gets a refusal, not a crash.
    binder_host::UniqueFd conn;
    ASSERT_EQ(0, binder_host::ServiceDirectory::connectPath(serviceDir() + "/echo.big", &conn));
    int sndbuf = 1 << 20;
    setsockopt(conn.get(), SOL_SOCKET, SO_SNDBUFFORCE, &sndbuf, sizeof(sndbuf));
    std::vector<uint8_t> raw(binder_host::kMaxParcelData + 64, 0);
    const uint32_t header[4] = {B_PACK_CHARS('P', 'B', 'T', 'X'), 1, 0, 0};
    memcpy(raw.data(), header, sizeof(header));
    if (send(conn.get(), raw.data(), raw.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(raw.size())) {
        Parcel r;
        status_t st = OK;
        ASSERT_TRUE(binder_host::Wire::receiveReply(conn.get(), &r, &st));
        EXPECT_EQ(FAILED_TRANSACTION, st);
    }
    // Garbage closes that connection only.
    const char junk[] = "hello";
    send(conn.get(), junk, sizeof(junk), MSG_NOSIGNAL);
    char c;
    EXPECT_EQ(0, recv(conn.get(), &c, 1, 0));
    EXPECT_EQ(OK, p->pingBinder());
}

TEST(Transport, ProxyToAnotherProcessIdentityIsDead) {
    sp<IServiceManager> sm = defaultServiceManager();
    ASSERT_EQ(OK, sm->addService(String16("echo.pid"), new Echo()));
    sp<BpBinder> wrong = new BpBinder(serviceDir() + "/echo.pid", getpid() + 1);
    Parcel empty, reply;
    EXPECT_EQ(DEAD_OBJECT, wrong->transact(1, empty, &reply));
    EXPECT_FALSE(wrong->isBinderAlive());
    sp<BpBinder> missing = new BpBinder(serviceDir() + "/nobody", getpid());
    EXPECT_EQ(DEAD_OBJECT, missing->pingBinder());
}

}  // namespace

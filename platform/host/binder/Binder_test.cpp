#include <binder/Binder.h>
#include <binder/Parcel.h>

#include <gtest/gtest.h>

#include <vector>

namespace android {
namespace {

class DumpArgs : public BBinder {
public:
    size_t argCount = 0;
    status_t dump(int, const Vector<String16>& args) override {
        argCount = args.size();
        return OK;
    }
};

// A dump request claiming many arguments, whose bytes run out mid-length,
// ends at the last argument that is really there.
TEST(BBinderDump, ArgumentCountIsBoundedByTheParcel) {
    Parcel p;
    p.writeInt32(1000);  // no descriptor first: this reads as the count
    p.writeString16(String16("-a"));
    std::vector<uint8_t> bytes(p.data(), p.data() + p.dataSize());
    bytes.push_back(0x61);  // a tail too short to hold a length
    Parcel in;
    ASSERT_EQ(OK, in.setData(bytes.data(), bytes.size()));
    sp<DumpArgs> b = new DumpArgs();
    EXPECT_EQ(OK, b->transact(IBinder::DUMP_TRANSACTION, in, nullptr, 0));
    // "-a", and at most the empty one read where the bytes ran out.
    EXPECT_LE(b->argCount, 2u);
}

}  // namespace
}  // namespace android

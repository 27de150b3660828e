#include <binder/Binder.h>
#include <binder/Parcel.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

using android::Parcel;
using android::String16;

namespace {

std::vector<uint8_t> bytes(const Parcel& p) { return {p.data(), p.data() + p.dataSize()}; }

std::vector<uint8_t> hex(const std::string& text) {
    std::vector<uint8_t> out;
    std::string digits;
    for (char c : text)
        if (c != ' ') digits += c;
    for (size_t i = 0; i + 1 < digits.size(); i += 2) out.push_back(std::stoi(digits.substr(i, 2), nullptr, 16));
    return out;
}

TEST(ParcelLayout, InterfaceTokenIsVendorToken) {
    Parcel p;
    ASSERT_EQ(android::OK, p.writeInterfaceToken(String16("a.b")));
    EXPECT_EQ(hex("00000080 ffffffff 52444e56 03000000 61002e00 62000000"), bytes(p));

    Parcel q;
    q.writeInterfaceToken(String16("probemond_Binder"));
    // 12-byte header, length 16, 16 UTF-16 units, NUL, two bytes of padding.
    ASSERT_EQ(12u + 4u + 34u + 2u, q.dataSize());
    EXPECT_EQ(hex("00000080 ffffffff 52444e56 10000000 7000 7200 6f00"),
              std::vector<uint8_t>(q.data(), q.data() + 22));
    EXPECT_EQ(hex("7200 0000 0000"), std::vector<uint8_t>(q.data() + q.dataSize() - 6, q.data() + q.dataSize()));
}

TEST(ParcelLayout, String16Encodings) {
    struct Case {
        const char16_t* str;
        size_t len;
        const char* expected;
    } cases[] = {
        {u"", 0, "00000000 00000000"},
        {u"a", 1, "01000000 61000000"},
        {u"ab", 2, "02000000 61006200 00000000"},
        {u"abc", 3, "03000000 61006200 63000000"},
        {nullptr, 0, "ffffffff"},
    };
    for (const Case& c : cases) {
        Parcel p;
        p.writeString16(c.str, c.len);
        EXPECT_EQ(hex(c.expected), bytes(p)) << c.expected;
        p.setDataPosition(0);
        String16 back(u"sentinel");
        if (c.str == nullptr) {
            EXPECT_EQ(android::UNEXPECTED_NULL, p.readString16(&back));
            EXPECT_EQ(0u, back.size());
        } else {
            EXPECT_EQ(android::OK, p.readString16(&back));
            EXPECT_EQ(String16(c.str, c.len), back);
        }
        EXPECT_EQ(p.dataSize(), p.dataPosition());
    }
}

TEST(ParcelLayout, CStringPadsToFourBytes) {
    const std::pair<const char*, const char*> cases[] = {
        {"", "00000000"},
        {"abc", "61626300"},
        {"wlan0", "776c616e 30000000"},
        {"rmnet_data0", "726d6e65 745f6461 74613000"},
    };
    Parcel p;
    std::vector<uint8_t> all;
    for (const auto& [str, expected] : cases) {
        p.writeCString(str);
        auto e = hex(expected);
        all.insert(all.end(), e.begin(), e.end());
    }
    EXPECT_EQ(all, bytes(p));
    p.setDataPosition(0);
    for (const auto& [str, expected] : cases) {
        const char* back = p.readCString();
        ASSERT_NE(nullptr, back);
        EXPECT_STREQ(str, back);
    }
    EXPECT_EQ(nullptr, p.readCString()) << "no data left";
    EXPECT_EQ(p.dataSize(), p.dataPosition());
}

TEST(ParcelRead, CStringWithoutNulIsRefusedInPlace) {
    Parcel p;
    const uint8_t raw[] = {'w', 'l', 'a', 'n'};
    p.setData(raw, sizeof(raw));
    EXPECT_EQ(nullptr, p.readCString());
    EXPECT_EQ(0u, p.dataPosition());
}

TEST(ParcelRead, Int32OnShortDataLeavesEverythingAlone) {
    Parcel p;
    const uint8_t raw[] = {7, 0, 0, 0, 1, 2, 3};
    p.setData(raw, sizeof(raw));
    int32_t v = 0;
    EXPECT_EQ(android::OK, p.readInt32(&v));
    EXPECT_EQ(7, v);
    int32_t untouched = 12345;
    EXPECT_EQ(android::NOT_ENOUGH_DATA, p.readInt32(&untouched));
    EXPECT_EQ(12345, untouched);
    EXPECT_EQ(4u, p.dataPosition());
    EXPECT_EQ(0, p.readInt32());
    EXPECT_EQ(4u, p.dataPosition());

    Parcel empty;
    EXPECT_EQ(android::NOT_ENOUGH_DATA, empty.readInt32(&untouched));
    // A position past the end (after an unpadded C string) is no crash either.
    empty.setDataPosition(64);
    EXPECT_EQ(0, empty.readInt32());
    EXPECT_EQ(nullptr, empty.readCString());
}

TEST(ParcelInterface, EnforceAcceptsOwnTokenAndLeavesPositionAfterIt) {
    Parcel p;
    p.writeInterfaceToken(String16("probemond_Binder"));
    p.writeCString("wlan0");
    p.setDataPosition(0);
    EXPECT_TRUE(p.enforceInterface(String16("probemond_Binder")));
    EXPECT_STREQ("wlan0", p.readCString());
}

TEST(ParcelInterface, MismatchKeepsWhatWasRead) {
    // Wrong header: policy, work source and header consumed, nothing more.
    Parcel sys;
    const uint8_t systemToken[] = {0, 0, 0, 0x80, 0xff, 0xff, 0xff, 0xff, 0x54, 0x53, 0x59, 0x53,
                                   1, 0, 0, 0, 'a', 0, 0, 0};
    sys.setData(systemToken, sizeof(systemToken));
    EXPECT_FALSE(sys.enforceInterface(String16("a")));
    EXPECT_EQ(12u, sys.dataPosition());

    // Right header, other descriptor: the whole String16 consumed.
    Parcel other;
    other.writeInterfaceToken(String16("probemond_Binde"));
    const size_t tokenEnd = other.dataSize();
    other.writeCString("wlan0");
    other.setDataPosition(0);
    EXPECT_FALSE(other.enforceInterface(String16("probemond_Binder")));
    EXPECT_EQ(tokenEnd, other.dataPosition());
    EXPECT_STREQ("wlan0", other.readCString());

    // Same length, different content.
    Parcel sameLength;
    sameLength.writeInterfaceToken(String16("probemond_Bindex"));
    sameLength.setDataPosition(0);
    EXPECT_FALSE(sameLength.enforceInterface(String16("probemond_Binder")));

    // No token at all.
    Parcel none;
    EXPECT_FALSE(none.enforceInterface(String16("probemond_Binder")));
}

class Named : public android::BBinder {
public:
    const String16& getInterfaceDescriptor() const override {
        static const String16 d("x.y");
        return d;
    }
};

TEST(ParcelInterface, CheckInterfaceUsesTheBinderDescriptor) {
    android::sp<Named> b = new Named();
    Parcel good;
    good.writeInterfaceToken(String16("x.y"));
    good.setDataPosition(0);
    EXPECT_TRUE(good.checkInterface(b.get()));
    Parcel bad;
    bad.writeInterfaceToken(String16("x.z"));
    bad.setDataPosition(0);
    EXPECT_FALSE(bad.checkInterface(b.get()));
}

TEST(ParcelFd, DescriptorIsReadBackAndMissingOneIsBadType) {
    Parcel p;
    p.writeInt32(5);
    EXPECT_EQ(android::BAD_VALUE, p.writeFileDescriptor(-1));
    p.writeFileDescriptor(1);
    p.setDataPosition(0);
    EXPECT_EQ(android::BAD_TYPE, p.readFileDescriptor());
    EXPECT_EQ(0u, p.dataPosition());
    EXPECT_EQ(5, p.readInt32());
    EXPECT_EQ(1, p.readFileDescriptor());
}

}  // namespace

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
    std::string digits;
    for (char c : text)
        if (c != ' ') digits += c;
    std::vector<uint8_t> out;
    for (size_t i = 0; i + 1 < digits.size(); i += 2) out.push_back(std::stoi(digits.substr(i, 2), nullptr, 16));
    return out;
}

void set(Parcel* p, const std::vector<uint8_t>& raw) { p->setData(raw.data(), raw.size()); }

TEST(ParcelLayout, TokenString16AndCStringBytes) {
    Parcel p;
    p.writeInterfaceToken(String16("a.b"));
    EXPECT_EQ(hex("00000080 ffffffff 52444e56 03000000 61002e00 62000000"), bytes(p));

    const std::pair<const char16_t*, const char*> strings[] = {
        {u"", "00000000 00000000"}, {u"ab", "02000000 61006200 00000000"}, {nullptr, "ffffffff"}};
    for (const auto& [str, expected] : strings) {
        Parcel s;
        s.writeString16(str, str ? std::char_traits<char16_t>::length(str) : 0);
        EXPECT_EQ(hex(expected), bytes(s)) << expected;
    }

    Parcel c;
    for (const char* s : {"", "abc", "wlan0"}) c.writeCString(s);
    EXPECT_EQ(hex("00000000 61626300 776c616e 30000000"), bytes(c));
    c.setDataPosition(0);
    for (const char* s : {"", "abc", "wlan0"}) EXPECT_STREQ(s, c.readCString());
    EXPECT_EQ(nullptr, c.readCString()) << "no data left";
}

TEST(ParcelRead, ShortDataLeavesOutputAndPositionAlone) {
    Parcel noNul, p;
    set(&noNul, {'w', 'l', 'a', 'n'});
    EXPECT_EQ(nullptr, noNul.readCString());
    EXPECT_EQ(0u, noNul.dataPosition());

    set(&p, {7, 0, 0, 0, 1, 2, 3});
    int32_t v = 12345;
    EXPECT_EQ(android::OK, p.readInt32(&v));
    EXPECT_EQ(7, v);
    EXPECT_EQ(android::NOT_ENOUGH_DATA, p.readInt32(&v));
    EXPECT_EQ(7, v);
    EXPECT_EQ(0, p.readInt32());
    EXPECT_EQ(4u, p.dataPosition());
}

TEST(ParcelInterface, MismatchLeavesThePositionAfterWhatWasRead) {
    // A system header fails after policy, work source and header.
    Parcel sys;
    set(&sys, hex("00000080 ffffffff 54535953 01000000 61000000"));
    EXPECT_FALSE(sys.enforceInterface(String16("a")));
    EXPECT_EQ(12u, sys.dataPosition());

    // A near miss is refused but read past, like the own token.
    for (const char* token : {"probemond_Binde", "probemond_Binder"}) {
        Parcel p;
        p.writeInterfaceToken(String16(token));
        p.writeCString("wlan0");
        p.setDataPosition(0);
        EXPECT_EQ(std::string(token) == "probemond_Binder", p.enforceInterface(String16("probemond_Binder")));
        EXPECT_STREQ("wlan0", p.readCString()) << token;
    }
    EXPECT_FALSE(Parcel().enforceInterface(String16("probemond_Binder")));
}

}  // namespace

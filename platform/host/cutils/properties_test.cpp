#include <cutils/properties.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include "TempPropertyFile.h"

using probemond::test::TempPropertyFile;

namespace {

std::string get(const char* key, const char* def = "dflt") {
    char buf[PROPERTY_VALUE_MAX];
    int n = property_get(key, buf, def);
    EXPECT_EQ(n, static_cast<int>(strlen(buf)));
    return buf;
}

void writeFile(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::trunc) << text;
}

TEST(Properties, DefaultsWhenUnsetEmptyOrNoFile) {
    {
        TempPropertyFile props;
        writeFile(props.path(), "# comment\nvendor.a=\n  vendor.b = x \nnot a line\n=orphan\n");
        EXPECT_EQ(get("vendor.a"), "dflt");     // empty counts as unset
        EXPECT_EQ(get("vendor.b"), " x ");     // key trimmed, value kept as written
        EXPECT_EQ(get("vendor.missing"), "dflt");
        char buf[PROPERTY_VALUE_MAX] = "junk";
        EXPECT_EQ(property_get("vendor.missing", buf, nullptr), 0);
        EXPECT_STREQ(buf, "");
    }
    unsetenv("PROBEMOND_PROPERTY_FILE");
    EXPECT_EQ(get("vendor.b", "200"), "200");
    EXPECT_EQ(property_set("vendor.b", "1"), -1);  // nowhere to write
}

TEST(Properties, LongValuesAreBoundedByTheBuffer) {
    TempPropertyFile props;
    writeFile(props.path(), "k=" + std::string(200, 'v') + "\n");
    std::string v = get("k");
    EXPECT_EQ(v.size(), static_cast<size_t>(PROPERTY_VALUE_MAX - 1));
    std::string longDefault(300, 'd');
    char buf[PROPERTY_VALUE_MAX];
    EXPECT_EQ(property_get("nokey", buf, longDefault.c_str()), PROPERTY_VALUE_MAX - 1);
    EXPECT_EQ(property_set("k", std::string(PROPERTY_VALUE_MAX, 'x').c_str()), -1);
}

TEST(Properties, EditingTheFileIsSeenAtTheNextRead) {
    TempPropertyFile props;
    writeFile(props.path(), "vendor.kest.probemond.ping_timeout=500\n");
    EXPECT_EQ(get("vendor.kest.probemond.ping_timeout"), "500");
    // Same size, same second: the cache must still notice the new content.
    writeFile(props.path(), "vendor.kest.probemond.ping_timeout=700\n");
    EXPECT_EQ(get("vendor.kest.probemond.ping_timeout"), "700");
    std::remove(props.path().c_str());
    EXPECT_EQ(get("vendor.kest.probemond.ping_timeout"), "dflt");
}

TEST(Properties, SetKeepsOtherLinesAndReplacesInPlace) {
    TempPropertyFile props;
    writeFile(props.path(), "# keep me\na=1\nb=2\n");
    ASSERT_EQ(property_set("a", "9"), 0);
    ASSERT_EQ(property_set("c", "3"), 0);
    std::ifstream in(props.path());
    std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(all, "# keep me\na=9\nb=2\nc=3\n");
    EXPECT_EQ(get("a"), "9");
    EXPECT_EQ(property_set("bad=key", "1"), -1);
    EXPECT_EQ(property_get_int32("b", -1), 2);
    EXPECT_EQ(property_get_int32("zzz", -1), -1);
}

TEST(Properties, ReadersNeverSeeATornFileWhileAWriterRewritesIt) {
    TempPropertyFile props;
    props.set("x", "aaaa");
    std::atomic<bool> stop{false};
    std::atomic<int> bad{0};
    std::thread reader([&] {
        while (!stop) {
            std::string v = get("x", "missing");
            if (v != "aaaa" && v != "bbbbbbbb") ++bad;
        }
    });
    for (int i = 0; i < 300; ++i) props.set("x", i % 2 ? "aaaa" : "bbbbbbbb");
    stop = true;
    reader.join();
    EXPECT_EQ(bad.load(), 0);
}

}  // namespace

#include <cutils/properties.h>
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "TempPropertyFile.h"

using probemond::test::TempPropertyFile;

namespace {

std::string get(const char* key, const char* def = "dflt") {
    char buf[PROPERTY_VALUE_MAX];
    property_get(key, buf, def);
    return buf;
}

void writeFile(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::trunc) << text; }

TEST(Properties, FileIsReReadAndSetReplacesInPlace) {
    TempPropertyFile props;
    writeFile(props.path(), "# keep me\na=\n  b = x \nnot a line\nt=500\n");
    EXPECT_EQ("dflt", get("a"));  // empty counts as unset
    EXPECT_EQ(" x ", get("b"));
    EXPECT_EQ("500", get("t"));
    // Same size, same second: the new content must still be seen.
    writeFile(props.path(), "# keep me\na=\n  b = x \nnot a line\nt=700\n");
    EXPECT_EQ("700", get("t"));
    ASSERT_EQ(0, property_set("t", "9"));
    ASSERT_EQ(0, property_set("c", "3"));
    EXPECT_EQ(-1, property_set("bad=key", "1"));
    std::stringstream all;
    all << std::ifstream(props.path()).rdbuf();
    EXPECT_EQ("# keep me\na=\n  b = x \nnot a line\nt=9\nc=3\n", all.str());
    std::remove(props.path().c_str());
    EXPECT_EQ("dflt", get("t"));
}

TEST(Properties, ReadersNeverSeeATornFileWhileAWriterRewritesIt) {
    TempPropertyFile props;
    props.set("x", "aaaa");
    std::atomic<bool> stop{false};
    std::atomic<int> bad{0};
    std::thread reader([&] {
        while (!stop)
            if (std::string v = get("x", "missing"); v != "aaaa" && v != "bbbbbbbb") ++bad;
    });
    for (int i = 0; i < 300; ++i) props.set("x", i % 2 ? "aaaa" : "bbbbbbbb");
    stop = true;
    reader.join();
    EXPECT_EQ(0, bad.load());
}

}  // namespace

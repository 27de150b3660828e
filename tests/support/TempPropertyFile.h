// A private property file for one test: points PROBEMOND_PROPERTY_FILE at a
// fresh temporary file, and unsets it afterwards.
#pragma once

#include <string>

namespace probemond::test {

class TempPropertyFile {
public:
    TempPropertyFile();
    ~TempPropertyFile();
    TempPropertyFile(const TempPropertyFile&) = delete;
    TempPropertyFile& operator=(const TempPropertyFile&) = delete;

    // Sets (or, with an empty value, clears) one property through property_set.
    void set(const std::string& key, const std::string& value);
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

}  // namespace probemond::test

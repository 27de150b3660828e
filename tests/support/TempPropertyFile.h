// A private property file for one test: points PROBEMOND_PROPERTY_FILE at a
// fresh temporary file, and unsets it afterwards.
#pragma once

#include <cutils/properties.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

namespace probemond::test {

class TempPropertyFile {
public:
    TempPropertyFile() {
        char tmpl[] = "/tmp/probemond-props-XXXXXX";
        const int fd = mkstemp(tmpl);
        if (fd >= 0) close(fd);
        path_ = tmpl;
        setenv("PROBEMOND_PROPERTY_FILE", path_.c_str(), 1);
    }
    ~TempPropertyFile() {
        unlink(path_.c_str());
        unsetenv("PROBEMOND_PROPERTY_FILE");
    }
    TempPropertyFile(const TempPropertyFile&) = delete;
    TempPropertyFile& operator=(const TempPropertyFile&) = delete;

    // Sets (or, with an empty value, clears) one property through property_set.
    // A test must not run on with a default it did not ask for.
    void set(const std::string& key, const std::string& value) {
        if (property_set(key.c_str(), value.c_str()) != 0) abort();
    }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

}  // namespace probemond::test

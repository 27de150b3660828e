#include "TempPropertyFile.h"

#include <cutils/properties.h>
#include <unistd.h>

#include <cstdlib>

namespace probemond::test {

TempPropertyFile::TempPropertyFile() {
    char tmpl[] = "/tmp/probemond-props-XXXXXX";
    int fd = mkstemp(tmpl);
    if (fd >= 0) close(fd);
    path_ = tmpl;
    setenv("PROBEMOND_PROPERTY_FILE", path_.c_str(), 1);
}

TempPropertyFile::~TempPropertyFile() {
    unlink(path_.c_str());
    unsetenv("PROBEMOND_PROPERTY_FILE");
}

void TempPropertyFile::set(const std::string& key, const std::string& value) {
    // A test must not run on with a default it did not ask for.
    if (property_set(key.c_str(), value.c_str()) != 0) abort();
}

}  // namespace probemond::test

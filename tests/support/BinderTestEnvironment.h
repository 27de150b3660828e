// For test binaries that talk binder: a private binder directory for the
// whole process (PROBEMOND_BINDER_DIR), the vendor driver opened and the pool
// started before any test; the directory goes with the process's last test.
#pragma once

#include <binder/ProcessState.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

namespace probemond::test {

class BinderTestEnvironment : public ::testing::Environment {
public:
    explicit BinderTestEnvironment(const char* prefix) : prefix_(prefix) {}

    void SetUp() override {
        std::string tmpl = std::string("/tmp/") + prefix_ + ".XXXXXX";
        ASSERT_NE(mkdtemp(tmpl.data()), nullptr);
        path() = tmpl;
        setenv("PROBEMOND_BINDER_DIR", tmpl.c_str(), 1);
        android::ProcessState::initWithDriver("/dev/vndbinder");
        android::ProcessState::self()->startThreadPool();
    }
    void TearDown() override {
        std::error_code ignored;
        std::filesystem::remove_all(path(), ignored);
    }

    // The directory of the running binary's environment.
    static std::string& path() {
        static std::string p;
        return p;
    }

private:
    const char* prefix_;
};

}  // namespace probemond::test

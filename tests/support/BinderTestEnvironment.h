// For test binaries that talk binder: a private binder directory for the
// whole process, the vendor driver opened and the pool started before any test.
#pragma once

#include <binder/ProcessState.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "PrivateBinderDir.h"

namespace probemond::test {

class BinderTestEnvironment : public ::testing::Environment {
public:
    explicit BinderTestEnvironment(const char* prefix) : prefix_(prefix) {}

    void SetUp() override {
        dir_ = std::make_unique<PrivateBinderDir>(prefix_);
        ASSERT_TRUE(dir_->ok());
        path() = dir_->path();
        android::ProcessState::initWithDriver("/dev/vndbinder");
        android::ProcessState::self()->startThreadPool();
    }
    void TearDown() override { dir_.reset(); }

    // The directory of the running binary's environment.
    static std::string& path() {
        static std::string p;
        return p;
    }

private:
    const char* prefix_;
    std::unique_ptr<PrivateBinderDir> dir_;
};

}  // namespace probemond::test

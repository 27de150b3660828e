#pragma once

#include <unistd.h>

#include <utility>

namespace android::binder_host {

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : mFd(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd&& o) noexcept : mFd(o.release()) {}
    UniqueFd& operator=(UniqueFd&& o) noexcept {
        if (this != &o) reset(o.release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int get() const { return mFd; }
    bool ok() const { return mFd >= 0; }
    int release() { return std::exchange(mFd, -1); }
    void reset(int fd = -1) {
        if (mFd >= 0) ::close(mFd);
        mFd = fd;
    }

private:
    int mFd = -1;
};

}  // namespace android::binder_host

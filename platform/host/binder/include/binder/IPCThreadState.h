// Host stand-in for libbinder's IPCThreadState.
#pragma once

#include <binder/ProcessState.h>

namespace android {

class IPCThreadState {
public:
    static IPCThreadState* self();
    // Serves transactions on the calling thread for good.
    void joinThreadPool(bool isMain = true);

private:
    IPCThreadState() = default;
};

}  // namespace android

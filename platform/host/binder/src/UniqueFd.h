#pragma once

#include <android-base/unique_fd.h>

namespace android::binder_host {

using UniqueFd = android::base::unique_fd;

}  // namespace android::binder_host

// Where services live on the host: one socket per service in the driver's directory.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include <utils/Errors.h>

#include "UniqueFd.h"

namespace android::binder_host {

// 1 to 127 characters of [A-Za-z0-9_.-/], as the service manager accepts.
bool isValidServiceName(const std::string& name);
// File name for a service: '/' becomes '%' and a leading '.' gets a '=' in front,
// so no name escapes the directory and every file maps back to one name.
std::string serviceFileName(const std::string& name);
// The service name for a file, or "" for files that are not services.
std::string serviceNameForFile(const std::string& file);

class ServiceDirectory {
public:
    explicit ServiceDirectory(std::string dir) : mDir(std::move(dir)) {}
    const std::string& path() const { return mDir; }

    // A listening socket published atomically under the service's name. Only
    // this process's user, root and the group named by PROBEMOND_BINDER_GROUP
    // (a name or a number; BAD_VALUE when it names no group) may connect.
    status_t publish(const std::string& name, UniqueFd* listener) const;
    // A connection to the named service and the pid serving it: OK,
    // PERMISSION_DENIED when its socket does not admit this process, or
    // NAME_NOT_FOUND. A stale socket (its process died) is removed and
    // reported as absent.
    status_t connect(const std::string& name, UniqueFd* conn, pid_t* pid) const;
    std::vector<std::string> names() const;

    // Connects to a socket path (any length); -errno on failure.
    static int connectPath(const std::string& path, UniqueFd* conn);

private:
    std::string mDir;
};

}  // namespace android::binder_host

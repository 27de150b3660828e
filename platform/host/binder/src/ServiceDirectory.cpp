#include "ServiceDirectory.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>

namespace android::binder_host {
namespace {

constexpr int kBacklog = 128;

bool validChar(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '.' || c == '-' || c == '/';
}

// Paths longer than sun_path are reached through /proc/self/fd, which keeps the
// address short whatever the directory or the name.
sockaddr_un procAddress(int fd, const char* rest, socklen_t* len) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "/proc/self/fd/%d%s", fd, rest);
    *len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(addr.sun_path) + 1);
    return addr;
}

int makeDirs(const std::string& dir) {
    std::string partial;
    size_t pos = 0;
    while (pos != std::string::npos) {
        pos = dir.find('/', pos + 1);
        partial = dir.substr(0, pos);
        if (partial.empty()) continue;
        if (mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST) return -errno;
    }
    return 0;
}

int connectFd(int sock, int pathFd) {
    socklen_t len;
    sockaddr_un addr = procAddress(pathFd, "", &len);
    int rc;
    do {
        rc = ::connect(sock, reinterpret_cast<sockaddr*>(&addr), len);
    } while (rc != 0 && errno == EINTR);
    return rc == 0 ? 0 : -errno;
}

}  // namespace

bool isValidServiceName(const std::string& name) {
    if (name.empty() || name.size() > 127) return false;
    for (char c : name)
        if (!validChar(c)) return false;
    return true;
}

std::string serviceFileName(const std::string& name) {
    std::string file = name[0] == '.' ? "=" : "";
    for (char c : name) file += c == '/' ? '%' : c;
    return file;
}

std::string serviceNameForFile(const std::string& file) {
    std::string name = file.size() > 1 && file[0] == '=' && file[1] == '.' ? file.substr(1) : file;
    for (char& c : name)
        if (c == '%') c = '/';
    if (!isValidServiceName(name) || serviceFileName(name) != file) return "";
    return name;
}

int ServiceDirectory::connectPath(const std::string& path, UniqueFd* conn) {
    UniqueFd pathFd(open(path.c_str(), O_PATH | O_CLOEXEC));
    if (!pathFd.ok()) return -errno;
    UniqueFd sock(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!sock.ok()) return -errno;
    int rc = connectFd(sock.get(), pathFd.get());
    if (rc != 0) return rc;
    *conn = std::move(sock);
    return 0;
}

status_t ServiceDirectory::publish(const std::string& name, UniqueFd* listener) const {
    static std::atomic<unsigned> counter{0};
    if (int rc = makeDirs(mDir); rc != 0) return rc;
    UniqueFd dirFd(open(mDir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!dirFd.ok()) return -errno;
    UniqueFd sock(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!sock.ok()) return -errno;

    // Bound and listening under a private name first, then renamed into place, so a
    // client never meets a socket that is not yet accepting (it would take it for stale).
    char tmp[64];
    snprintf(tmp, sizeof(tmp), "#%d.%u", getpid(), counter++);
    socklen_t len;
    sockaddr_un addr = procAddress(dirFd.get(), (std::string("/") + tmp).c_str(), &len);
    unlinkat(dirFd.get(), tmp, 0);
    if (bind(sock.get(), reinterpret_cast<sockaddr*>(&addr), len) != 0) return -errno;
    int rc = 0;
    if (fchmodat(dirFd.get(), tmp, 0666, 0) != 0 || listen(sock.get(), kBacklog) != 0 ||
        renameat(dirFd.get(), tmp, dirFd.get(), serviceFileName(name).c_str()) != 0) {
        rc = -errno;
        unlinkat(dirFd.get(), tmp, 0);
        return rc;
    }
    *listener = std::move(sock);
    return OK;
}

bool ServiceDirectory::connect(const std::string& name, UniqueFd* conn, pid_t* pid) const {
    const std::string path = mDir + "/" + serviceFileName(name);
    UniqueFd pathFd(open(path.c_str(), O_PATH | O_CLOEXEC | O_NOFOLLOW));
    if (!pathFd.ok()) return false;
    struct stat before;
    if (fstat(pathFd.get(), &before) != 0 || !S_ISSOCK(before.st_mode)) return false;
    UniqueFd sock(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!sock.ok()) return false;
    const int rc = connectFd(sock.get(), pathFd.get());
    if (rc == -ECONNREFUSED) {
        // Nobody listens: the registering process died. Remove the socket unless a
        // new registration has replaced it meanwhile.
        struct stat now;
        if (lstat(path.c_str(), &now) == 0 && now.st_ino == before.st_ino &&
            now.st_dev == before.st_dev) {
            unlink(path.c_str());
        }
        return false;
    }
    if (rc != 0) return false;
    ucred cred{};
    socklen_t credLen = sizeof(cred);
    if (getsockopt(sock.get(), SOL_SOCKET, SO_PEERCRED, &cred, &credLen) != 0) return false;
    *pid = cred.pid;
    *conn = std::move(sock);
    return true;
}

std::vector<std::string> ServiceDirectory::names() const {
    std::vector<std::string> out;
    DIR* d = opendir(mDir.c_str());
    if (d == nullptr) return out;
    while (dirent* e = readdir(d)) {
        std::string name = serviceNameForFile(e->d_name);
        if (!name.empty()) out.push_back(name);
    }
    closedir(d);
    return out;
}

}  // namespace android::binder_host

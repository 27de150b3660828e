#include "ServiceDirectory.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>

#include <log/log.h>

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

// The group that may connect besides the owner and root, or -1 for none.
status_t binderGroup(gid_t* gid) {
    *gid = static_cast<gid_t>(-1);
    const char* text = getenv("PROBEMOND_BINDER_GROUP");
    if (text == nullptr || text[0] == '\0') return OK;
    std::vector<char> buf(1024);
    group entry{};
    group* found = nullptr;
    int rc;
    while ((rc = getgrnam_r(text, &entry, buf.data(), buf.size(), &found)) == ERANGE &&
           buf.size() < (1u << 20)) {
        buf.resize(buf.size() * 2);
    }
    if (rc == 0 && found != nullptr) {
        *gid = found->gr_gid;
        return OK;
    }
    char* end = nullptr;
    errno = 0;
    const unsigned long number = strtoul(text, &end, 10);
    if (text[0] >= '0' && text[0] <= '9' && *end == '\0' && errno == 0 &&
        number < static_cast<gid_t>(-1)) {
        *gid = static_cast<gid_t>(number);
        return OK;
    }
    __android_log_print(ANDROID_LOG_ERROR, nullptr,
                        "host binder: PROBEMOND_BINDER_GROUP=%s names no group; nothing published",
                        text);
    return BAD_VALUE;
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
    gid_t group;
    if (status_t rc = binderGroup(&group); rc != OK) return rc;
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
    // Connecting takes write permission on the socket. Set before listen(), so
    // nobody connects while it is looser.
    const bool grouped = group != static_cast<gid_t>(-1);
    int rc = 0;
    if ((grouped && fchownat(dirFd.get(), tmp, static_cast<uid_t>(-1), group, 0) != 0) ||
        fchmodat(dirFd.get(), tmp, grouped ? 0660 : 0600, 0) != 0 || listen(sock.get(), kBacklog) != 0 ||
        renameat(dirFd.get(), tmp, dirFd.get(), serviceFileName(name).c_str()) != 0) {
        rc = -errno;
        unlinkat(dirFd.get(), tmp, 0);
        return rc;
    }
    *listener = std::move(sock);
    return OK;
}

status_t ServiceDirectory::connect(const std::string& name, UniqueFd* conn, pid_t* pid) const {
    const std::string path = mDir + "/" + serviceFileName(name);
    UniqueFd pathFd(open(path.c_str(), O_PATH | O_CLOEXEC | O_NOFOLLOW));
    if (!pathFd.ok()) return errno == EACCES ? PERMISSION_DENIED : NAME_NOT_FOUND;
    struct stat before;
    if (fstat(pathFd.get(), &before) != 0 || !S_ISSOCK(before.st_mode)) return NAME_NOT_FOUND;
    UniqueFd sock(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!sock.ok()) return NAME_NOT_FOUND;
    const int rc = connectFd(sock.get(), pathFd.get());
    if (rc == -EACCES) return PERMISSION_DENIED;
    if (rc == -ECONNREFUSED) {
        // Nobody listens: the registering process died. Remove the socket unless a
        // new registration has replaced it meanwhile.
        struct stat now;
        if (lstat(path.c_str(), &now) == 0 && now.st_ino == before.st_ino &&
            now.st_dev == before.st_dev) {
            unlink(path.c_str());
        }
        return NAME_NOT_FOUND;
    }
    if (rc != 0) return NAME_NOT_FOUND;
    ucred cred{};
    socklen_t credLen = sizeof(cred);
    if (getsockopt(sock.get(), SOL_SOCKET, SO_PEERCRED, &cred, &credLen) != 0) return NAME_NOT_FOUND;
    *pid = cred.pid;
    *conn = std::move(sock);
    return OK;
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

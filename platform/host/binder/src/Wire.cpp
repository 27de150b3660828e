#include "Wire.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vector>

#include <binder/IBinder.h>

namespace android::binder_host {
namespace {

constexpr uint32_t kRequestMagic = B_PACK_CHARS('P', 'B', 'T', 'X');
constexpr uint32_t kReplyMagic = B_PACK_CHARS('P', 'B', 'R', 'X');

struct RequestHeader {
    uint32_t magic;
    uint32_t code;
    uint32_t flags;
    uint32_t fdCount;
};

struct ReplyHeader {
    uint32_t magic;
    int32_t status;
};

constexpr size_t kMaxMessage = sizeof(RequestHeader) + kMaxParcelData;

std::vector<uint8_t>& receiveBuffer() {
    // One extra byte so a message at the bound is told apart from a larger one.
    thread_local std::vector<uint8_t> buffer(kMaxMessage + 1);
    return buffer;
}

struct ReceivedMessage {
    ssize_t len = -1;
    int err = 0;
    bool truncated = false;
    std::vector<int> fds;  // owned until handed to a parcel
};

ReceivedMessage receiveMessage(int sock, int flags) {
    ReceivedMessage m;
    std::vector<uint8_t>& buf = receiveBuffer();
    iovec iov{buf.data(), buf.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxFds)];
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof(control);
    do {
        m.len = recvmsg(sock, &msg, flags | MSG_CMSG_CLOEXEC);
    } while (m.len < 0 && errno == EINTR);
    if (m.len < 0) {
        m.err = errno;
        return m;
    }
    for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
        if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
        const size_t n = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < n; i++) {
            int fd;
            memcpy(&fd, CMSG_DATA(c) + i * sizeof(int), sizeof(int));
            m.fds.push_back(fd);
        }
    }
    m.truncated = (msg.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0 ||
                  static_cast<size_t>(m.len) > kMaxMessage;
    return m;
}

void closeAll(std::vector<int>& fds) {
    for (int fd : fds) ::close(fd);
    fds.clear();
}

bool sendAll(int sock, const void* header, size_t headerLen, const Parcel& data,
             const std::vector<int>& fds) {
    iovec iov[2] = {{const_cast<void*>(header), headerLen},
                    {const_cast<uint8_t*>(data.data()), data.dataSize()}};
    msghdr msg{};
    msg.msg_iov = iov;
    msg.msg_iovlen = data.dataSize() > 0 ? 2 : 1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxFds)];
    if (!fds.empty()) {
        msg.msg_control = control;
        msg.msg_controllen = CMSG_SPACE(sizeof(int) * fds.size());
        cmsghdr* c = CMSG_FIRSTHDR(&msg);
        c->cmsg_level = SOL_SOCKET;
        c->cmsg_type = SCM_RIGHTS;
        c->cmsg_len = CMSG_LEN(sizeof(int) * fds.size());
        memcpy(CMSG_DATA(c), fds.data(), sizeof(int) * fds.size());
    }
    ssize_t n;
    do {
        n = sendmsg(sock, &msg, MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    return n == static_cast<ssize_t>(headerLen + data.dataSize());
}

}  // namespace

status_t Wire::sendRequest(int sock, uint32_t code, uint32_t flags, const Parcel& data) {
    if (data.dataSize() > kMaxParcelData || data.mFds.size() > kMaxFds) return FAILED_TRANSACTION;
    std::vector<int> fds;
    for (const Parcel::FdSlot& slot : data.mFds) fds.push_back(slot.fd);
    RequestHeader h{kRequestMagic, code, flags, static_cast<uint32_t>(fds.size())};
    return sendAll(sock, &h, sizeof(h), data, fds) ? OK : DEAD_OBJECT;
}

bool Wire::receiveReply(int sock, Parcel* reply, status_t* status) {
    ReceivedMessage m = receiveMessage(sock, 0);
    // Replies never carry descriptors.
    closeAll(m.fds);
    ReplyHeader h;
    if (m.len < static_cast<ssize_t>(sizeof(h))) return false;
    memcpy(&h, receiveBuffer().data(), sizeof(h));
    if (h.magic != kReplyMagic) return false;
    if (m.truncated) {
        *status = FAILED_TRANSACTION;
        return true;
    }
    reply->setData(receiveBuffer().data() + sizeof(h), static_cast<size_t>(m.len) - sizeof(h));
    *status = h.status;
    return true;
}

Wire::Received Wire::receiveRequest(int sock, uint32_t* code, uint32_t* flags, Parcel* data) {
    ReceivedMessage m = receiveMessage(sock, MSG_DONTWAIT);
    if (m.len < 0) {
        closeAll(m.fds);
        return m.err == EAGAIN || m.err == EWOULDBLOCK ? Received::kNothing : Received::kClosed;
    }
    if (m.len == 0) {
        closeAll(m.fds);
        return Received::kClosed;
    }
    RequestHeader h;
    if (static_cast<size_t>(m.len) < sizeof(h)) {
        closeAll(m.fds);
        return Received::kClosed;
    }
    memcpy(&h, receiveBuffer().data(), sizeof(h));
    if (h.magic != kRequestMagic) {
        closeAll(m.fds);
        return Received::kClosed;
    }
    if (m.truncated || h.fdCount != m.fds.size()) {
        closeAll(m.fds);
        if ((h.flags & IBinder::FLAG_ONEWAY) == 0) sendReply(sock, FAILED_TRANSACTION, Parcel());
        return Received::kRefused;
    }
    *code = h.code;
    *flags = h.flags;
    data->setData(receiveBuffer().data() + sizeof(h), static_cast<size_t>(m.len) - sizeof(h));
    for (int fd : m.fds) data->mFds.push_back(Parcel::FdSlot{fd, true});
    return Received::kRequest;
}

bool Wire::sendReply(int sock, status_t status, const Parcel& reply) {
    if (status == OK && reply.dataSize() > kMaxParcelData) status = FAILED_TRANSACTION;
    ReplyHeader h{kReplyMagic, status};
    // A failed call carries its status alone, as the driver delivers it.
    Parcel empty;
    return sendAll(sock, &h, sizeof(h), status == OK ? reply : empty, {});
}

}  // namespace android::binder_host

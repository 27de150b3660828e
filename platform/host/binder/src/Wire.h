// One transaction is one SOCK_SEQPACKET message; one reply is one message.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <binder/Parcel.h>

namespace android::binder_host {

// Both well under the default socket send buffer, so a bounded message always fits.
constexpr size_t kMaxParcelData = 128 * 1024;
constexpr size_t kMaxFds = 16;

class Wire {
public:
    // Client side. sendRequest: OK, FAILED_TRANSACTION (too big) or DEAD_OBJECT.
    static status_t sendRequest(int sock, uint32_t code, uint32_t flags, const Parcel& data);
    // False when the peer went away; otherwise *status is the peer's answer.
    static bool receiveReply(int sock, Parcel* reply, status_t* status);

    // Server side.
    enum class Received { kRequest, kNothing, kClosed, kRefused };
    // kRefused: a malformed or oversized message, already answered when two-way.
    static Received receiveRequest(int sock, uint32_t* code, uint32_t* flags, Parcel* data);
    static bool sendReply(int sock, status_t status, const Parcel& reply);
};

}  // namespace android::binder_host

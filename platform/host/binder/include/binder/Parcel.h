// Host stand-in for libbinder's Parcel: the same byte layout for the types the
// daemon uses (interface token, C string, int32, String16), plus file
// descriptors carried beside the data.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <vector>

#include <utils/Errors.h>
#include <utils/String16.h>

namespace android {

class IBinder;
class IPCThreadState;

namespace binder_host {
class Wire;
}

class Parcel {
public:
    Parcel();
    ~Parcel();
    Parcel(const Parcel&) = delete;
    Parcel& operator=(const Parcel&) = delete;

    const uint8_t* data() const;
    size_t dataSize() const;
    size_t dataAvail() const;
    size_t dataPosition() const;
    void setDataPosition(size_t pos) const;
    // Replaces the contents; descriptors held by the parcel are released.
    status_t setData(const uint8_t* buffer, size_t len);
    void freeData();

    status_t writeInterfaceToken(const String16& interface);
    status_t writeInterfaceToken(const char16_t* str, size_t len);
    bool enforceInterface(const String16& interface, IPCThreadState* threadState = nullptr) const;
    bool enforceInterface(const char16_t* interface, size_t len,
                          IPCThreadState* threadState = nullptr) const;
    bool checkInterface(IBinder* binder) const;

    status_t writeInt32(int32_t val);
    status_t writeCString(const char* str);
    status_t writeString16(const String16& str);
    status_t writeString16(const char16_t* str, size_t len);
    // Writes a reference to fd; the caller keeps ownership unless takeOwnership.
    status_t writeFileDescriptor(int fd, bool takeOwnership = false);

    status_t readInt32(int32_t* pArg) const;
    int32_t readInt32() const;
    const char* readCString() const;
    String16 readString16() const;
    status_t readString16(String16* pArg) const;
    const char16_t* readString16Inplace(size_t* outLen) const;
    // The descriptor stays owned by the parcel; BAD_TYPE when there is none here.
    int readFileDescriptor() const;

private:
    friend class binder_host::Wire;

    struct FdSlot {
        int fd;
        bool owned;
    };

    const uint8_t* readInPlace(size_t len) const;
    uint8_t* writeInPlace(size_t len);
    void closeFds();

    std::vector<uint8_t> mData;
    mutable size_t mDataPos = 0;
    std::vector<FdSlot> mFds;
};

}  // namespace android

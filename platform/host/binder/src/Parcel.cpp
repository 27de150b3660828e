#include <binder/Parcel.h>

#include <string.h>
#include <unistd.h>

#include <binder/IBinder.h>

namespace android {
namespace {

// Vendor processes stamp their tokens 'VNDR'; a system process would use 'SYST'.
constexpr int32_t kHeader = static_cast<int32_t>(B_PACK_CHARS('V', 'N', 'D', 'R'));
// Strict-mode policy with the gather penalty bit, as an untouched thread sends it.
constexpr int32_t kStrictModePolicy = static_cast<int32_t>(0x80000000u);
constexpr int32_t kUnsetWorkSource = -1;
// Marks a descriptor slot in the data; the value is the kernel's BINDER_TYPE_FD.
constexpr int32_t kFdMarker = static_cast<int32_t>(B_PACK_CHARS('f', 'd', '*', 0x85));
constexpr size_t kMaxItem = 0x7fffffff;

size_t padSize(size_t len) { return (len + 3) & ~size_t{3}; }

}  // namespace

Parcel::Parcel() = default;

Parcel::~Parcel() { closeFds(); }

void Parcel::closeFds() {
    for (const FdSlot& slot : mFds)
        if (slot.owned) ::close(slot.fd);
    mFds.clear();
}

const uint8_t* Parcel::data() const { return mData.data(); }
size_t Parcel::dataSize() const { return mData.size(); }
size_t Parcel::dataAvail() const { return mDataPos < mData.size() ? mData.size() - mDataPos : 0; }
size_t Parcel::dataPosition() const { return mDataPos; }
void Parcel::setDataPosition(size_t pos) const { mDataPos = pos; }

status_t Parcel::setData(const uint8_t* buffer, size_t len) {
    if (len > kMaxItem || (buffer == nullptr && len > 0)) return BAD_VALUE;
    closeFds();
    mData.assign(buffer, buffer + len);
    mDataPos = 0;
    return OK;
}

void Parcel::freeData() {
    closeFds();
    mData.clear();
    mDataPos = 0;
}

uint8_t* Parcel::writeInPlace(size_t len) {
    if (len > kMaxItem) return nullptr;
    const size_t padded = padSize(len);
    // Writing happens at the position, like the platform; the data grows as needed.
    if (mDataPos + padded > mData.size()) mData.resize(mDataPos + padded);
    uint8_t* out = mData.data() + mDataPos;
    memset(out + len, 0, padded - len);
    mDataPos += padded;
    return out;
}

const uint8_t* Parcel::readInPlace(size_t len) const {
    if (len > kMaxItem) return nullptr;
    const size_t padded = padSize(len);
    if (mDataPos > mData.size() || padded > mData.size() - mDataPos) return nullptr;
    const uint8_t* in = mData.data() + mDataPos;
    mDataPos += padded;
    return in;
}

status_t Parcel::writeInt32(int32_t val) {
    uint8_t* out = writeInPlace(sizeof(val));
    if (out == nullptr) return NO_MEMORY;
    memcpy(out, &val, sizeof(val));
    return OK;
}

status_t Parcel::readInt32(int32_t* pArg) const {
    if (mDataPos > mData.size() || mData.size() - mDataPos < sizeof(int32_t)) return NOT_ENOUGH_DATA;
    memcpy(pArg, mData.data() + mDataPos, sizeof(int32_t));
    mDataPos += sizeof(int32_t);
    return OK;
}

int32_t Parcel::readInt32() const {
    int32_t v = 0;
    readInt32(&v);
    return v;
}

status_t Parcel::writeCString(const char* str) {
    if (str == nullptr) return BAD_VALUE;
    const size_t len = strlen(str) + 1;
    uint8_t* out = writeInPlace(len);
    if (out == nullptr) return NO_MEMORY;
    memcpy(out, str, len);
    return OK;
}

const char* Parcel::readCString() const {
    if (mDataPos >= mData.size()) return nullptr;
    const size_t avail = mData.size() - mDataPos;
    const char* str = reinterpret_cast<const char*>(mData.data() + mDataPos);
    const void* eos = memchr(str, 0, avail);
    if (eos == nullptr) return nullptr;
    // The position may pass the end when the string's padding is missing; the platform does the same.
    mDataPos += padSize(static_cast<const char*>(eos) - str + 1);
    return str;
}

status_t Parcel::writeString16(const String16& str) { return writeString16(str.string(), str.size()); }

status_t Parcel::writeString16(const char16_t* str, size_t len) {
    if (str == nullptr) return writeInt32(-1);
    if (len >= kMaxItem / sizeof(char16_t)) return BAD_VALUE;
    status_t err = writeInt32(static_cast<int32_t>(len));
    if (err != OK) return err;
    const size_t bytes = len * sizeof(char16_t);
    uint8_t* out = writeInPlace(bytes + sizeof(char16_t));
    if (out == nullptr) return NO_MEMORY;
    memcpy(out, str, bytes);
    memset(out + bytes, 0, sizeof(char16_t));
    return OK;
}

const char16_t* Parcel::readString16Inplace(size_t* outLen) const {
    const int32_t size = readInt32();
    if (size >= 0 && static_cast<size_t>(size) < kMaxItem / sizeof(char16_t)) {
        *outLen = static_cast<size_t>(size);
        const uint8_t* raw = readInPlace((static_cast<size_t>(size) + 1) * sizeof(char16_t));
        if (raw != nullptr) {
            char16_t terminator;
            memcpy(&terminator, raw + size * sizeof(char16_t), sizeof(terminator));
            if (terminator == u'\0') return reinterpret_cast<const char16_t*>(raw);
        }
    }
    *outLen = 0;
    return nullptr;
}

String16 Parcel::readString16() const {
    size_t len = 0;
    const char16_t* str = readString16Inplace(&len);
    return str != nullptr ? String16(str, len) : String16();
}

status_t Parcel::readString16(String16* pArg) const {
    size_t len = 0;
    const char16_t* str = readString16Inplace(&len);
    if (str == nullptr) {
        *pArg = String16();
        return UNEXPECTED_NULL;
    }
    *pArg = String16(str, len);
    return OK;
}

status_t Parcel::writeInterfaceToken(const String16& interface) {
    return writeInterfaceToken(interface.string(), interface.size());
}

status_t Parcel::writeInterfaceToken(const char16_t* str, size_t len) {
    writeInt32(kStrictModePolicy);
    writeInt32(kUnsetWorkSource);
    writeInt32(kHeader);
    return writeString16(str, len);
}

bool Parcel::enforceInterface(const String16& interface, IPCThreadState* threadState) const {
    return enforceInterface(interface.string(), interface.size(), threadState);
}

bool Parcel::enforceInterface(const char16_t* interface, size_t len, IPCThreadState*) const {
    // Whatever was read stays consumed on a mismatch, as on the platform.
    readInt32();  // strict-mode policy
    readInt32();  // work source
    if (readInt32() != kHeader) return false;
    size_t parcelLen = 0;
    const char16_t* parcelInterface = readString16Inplace(&parcelLen);
    if (parcelInterface == nullptr) return false;
    return len == parcelLen &&
           (len == 0 || memcmp(parcelInterface, interface, len * sizeof(char16_t)) == 0);
}

bool Parcel::checkInterface(IBinder* binder) const {
    return enforceInterface(binder->getInterfaceDescriptor());
}

status_t Parcel::writeFileDescriptor(int fd, bool takeOwnership) {
    if (fd < 0) return BAD_VALUE;
    writeInt32(kFdMarker);
    status_t err = writeInt32(static_cast<int32_t>(mFds.size()));
    if (err != OK) return err;
    mFds.push_back(FdSlot{fd, takeOwnership});
    return OK;
}

int Parcel::readFileDescriptor() const {
    const size_t start = mDataPos;
    int32_t marker = 0;
    int32_t index = -1;
    if (readInt32(&marker) != OK || marker != kFdMarker || readInt32(&index) != OK || index < 0 ||
        static_cast<size_t>(index) >= mFds.size()) {
        mDataPos = start;
        return BAD_TYPE;
    }
    return mFds[static_cast<size_t>(index)].fd;
}

}  // namespace android

#include "zoencrbuf.h"

#include <algorithm>
#include <climits>

ZoEncryptionBufferInterface::ZoEncryptionBufferInterface() = default;
ZoEncryptionBufferInterface::~ZoEncryptionBufferInterface() = default;

ZoEncryptionBuffer::ZoEncryptionBuffer(void* buffer, unsigned long dataOffset,
                                       unsigned long dataLength, ZoRawBufferBehavior behavior)
    : raw(buffer, dataOffset + dataLength, behavior),
      dataOffset(static_cast<ZoUInt32>(dataOffset)),
      dataLength(static_cast<ZoUInt32>(dataLength)) {}

ZoEncryptionBuffer::~ZoEncryptionBuffer() = default;

void* ZoEncryptionBuffer::GetBuf() const {
    return raw.GetBuf();
}

void* ZoEncryptionBuffer::GetData() const {
    char* const start = static_cast<char*>(raw.GetBuf());
    return start != nullptr ? start + dataOffset : nullptr;
}

unsigned long ZoEncryptionBuffer::GetDataLen() const {
    return dataLength;
}

// Compared without a sum, which a large length would wrap round.
int ZoEncryptionBuffer::SetDataLen(unsigned long length) {
    unsigned long const available = raw.GetBufLen();
    bool const fits = available >= dataOffset && length <= available - dataOffset;
    if (!fits || length > UINT_MAX) return ZoBufferTooSmall;
    dataLength = static_cast<ZoUInt32>(length);
    return ZoSuccess;
}

// A sum beyond the largest length is asked for as that: no buffer grants it.
int ZoEncryptionBuffer::EnsureCapacity(unsigned long length) {
    return raw.EnsureCapacity(dataOffset + std::min(length, ULONG_MAX - dataOffset));
}

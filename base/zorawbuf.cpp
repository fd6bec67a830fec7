#include "zorawbuf.h"

#include <cstdlib>

namespace {

// Result codes of the engine.
constexpr int Success = 0;
constexpr int BufferTooSmall = -2016;
constexpr int OutOfMemory = -2030;

}  // namespace

ZoRawBuffer::ZoRawBuffer(void* buffer, unsigned long length, ZoRawBufferBehavior behavior)
    : buf(buffer), bufLen(buffer != nullptr ? length : 0), behavior(behavior) {
    if (buffer == nullptr && behavior == ZoRawBufferOwnAndGrow) EnsureCapacity(length);
}

ZoRawBuffer::~ZoRawBuffer() {
    if (behavior == ZoRawBufferOwnAndGrow) std::free(buf);
}

void* ZoRawBuffer::GetBuf() const {
    return buf;
}

unsigned long ZoRawBuffer::GetBufLen() const {
    return bufLen;
}

int ZoRawBuffer::EnsureCapacity(unsigned long length) {
    if (length <= bufLen) return Success;
    if (behavior != ZoRawBufferOwnAndGrow) return BufferTooSmall;
    void* const grown = std::realloc(buf, length);
    if (grown == nullptr) return OutOfMemory;
    buf = grown;
    bufLen = length;
    return Success;
}

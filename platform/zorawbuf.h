// The base library's raw buffer: one block of bytes, given or owned.

#ifndef KELVARA_PLATFORM_ZORAWBUF_H_
#define KELVARA_PLATFORM_ZORAWBUF_H_

#include "zobase.h"

// How a raw buffer treats the memory it is constructed with.
enum ZoRawBufferBehavior {
    // Use the given memory, leave it to its owner, never grow.
    ZoRawBufferUseGiven = 0,
    // Own memory from std::malloc and grow on demand. The given block is taken over; with a null
    // block the buffer allocates the given length itself.
    ZoRawBufferOwnAndGrow = 1,
};

class ZO_BASE_API ZoRawBuffer {
public:
    // `buffer` of `length` bytes, treated as `behavior` says.
    ZoRawBuffer(void* buffer, unsigned long length, ZoRawBufferBehavior behavior);
    ZoRawBuffer(ZoRawBuffer const&) = delete;
    ZoRawBuffer& operator=(ZoRawBuffer const&) = delete;
    ~ZoRawBuffer();

    // Start of the memory; null when there is none.
    void* GetBuf() const;
    // Its length in bytes.
    unsigned long GetBufLen() const;
    // Makes the memory at least `length` bytes long; what it held stays, its address may change.
    // Returns 0, -2016 when the buffer may not grow, -2030 when memory ran out (unchanged then).
    int EnsureCapacity(unsigned long length);

private:
    void* buf;
    unsigned long bufLen;
    ZoRawBufferBehavior behavior;
};

#endif  // KELVARA_PLATFORM_ZORAWBUF_H_

// The encryption buffer: bytes with room in front of them that the processor of the data may use
// for a header of its own. The buffer ciphers nothing and holds no keys.
//
//     ZoEncryptionBuffer buffer(nullptr, 16, 100, ZoRawBufferOwnAndGrow);
//
//     |<- 16 bytes of room ->|<- 100 bytes of data ->|<- capacity not in use ->|
//     GetBuf()               GetData()
//
// Room, data and capacity together stay below 4 GiB.
//
// Who may call: one thread at a time.

#ifndef KELVARA_INCLUDE_ZOENCRBUF_H_
#define KELVARA_INCLUDE_ZOENCRBUF_H_

#include "zorawbuf.h"
#include "zotypes.h"

// What a buffer offers.
class ZO_API ZoEncryptionBufferInterface {
public:
    ZoEncryptionBufferInterface();
    ZoEncryptionBufferInterface(ZoEncryptionBufferInterface const&) = delete;
    ZoEncryptionBufferInterface& operator=(ZoEncryptionBufferInterface const&) = delete;
    virtual ~ZoEncryptionBufferInterface();

    // The first data byte; null when the buffer has no memory. Good until the buffer grows.
    virtual void* GetData() const = 0;
    // The bytes of data in use.
    virtual unsigned long GetDataLen() const = 0;
    // 0, or ZoBufferTooSmall with the length unchanged when the memory is too short. Never grows
    // the buffer.
    virtual int SetDataLen(unsigned long length) = 0;
    // Makes room for that many data bytes; what is there and its length stay, addresses may
    // change. The raw buffer's result: 0, or negative and unchanged.
    virtual int EnsureCapacity(unsigned long length) = 0;
};

// One over a raw buffer of the base library.
class ZO_API ZoEncryptionBuffer : public ZoEncryptionBufferInterface {
public:
    // `buffer`, of dataOffset + dataLength bytes, and `behavior` are as ZoRawBuffer takes them.
    ZoEncryptionBuffer(void* buffer, unsigned long dataOffset, unsigned long dataLength,
                       ZoRawBufferBehavior behavior);
    ~ZoEncryptionBuffer() override;

    // The start of the whole memory, the room in front included.
    void* GetBuf() const;

    void* GetData() const override;
    unsigned long GetDataLen() const override;
    int SetDataLen(unsigned long length) override;
    int EnsureCapacity(unsigned long length) override;

private:
    ZoRawBuffer raw;      // room and data
    ZoUInt32 dataOffset;  // bytes of room in front of the data
    ZoUInt32 dataLength;  // dataOffset + dataLength <= raw.GetBufLen()
};

#endif  // KELVARA_INCLUDE_ZOENCRBUF_H_

// A thread's record of a reader/writer mutex, without making one.

#ifndef KELVARA_SRC_RW_RECORD_H_
#define KELVARA_SRC_RW_RECORD_H_

#include "zotls.h"

// The address of the `holdings` that `thread`, the calling thread, has for `mutex`; null when it
// has no record for it.
ZoUInt32* FindReaderWriterRecord(ZoTLS const* thread, ZoRW_Mutex const* mutex);

#endif  // KELVARA_SRC_RW_RECORD_H_

// The calling thread's records of reader/writer mutexes, as the library's own hot paths reach them.

#ifndef KELVARA_SRC_RW_RECORD_H_
#define KELVARA_SRC_RW_RECORD_H_

#include <new>

#include "current_thread.h"
#include "zotls.h"

// The parts of `holdings`.
constexpr ZoUInt32 OneRead = 1;
constexpr ZoUInt32 OneWrite = 0x10000;

// Of either part.
constexpr ZoUInt32 DeepestNesting = 65535;

constexpr ZoUInt32 ReadDepth(ZoUInt32 holdings) {
    return holdings % OneWrite;
}

constexpr ZoUInt32 WriteDepth(ZoUInt32 holdings) {
    return holdings / OneWrite;
}

// Whether the thread whose record says so is in the count of readers that a writer waits for.
constexpr bool IsCountedReader(ZoUInt32 holdings) {
    return ReadDepth(holdings) != 0 && WriteDepth(holdings) == 0;
}

// The functions below take the calling thread's record.

// Null when the thread has no record for `mutex`. The one added last is mostly the one sought.
inline ZoRWRecord* FindRwRecord(ZoTLS const* me, ZoRW_Mutex const* mutex) {
    auto* record = static_cast<ZoRWRecord*>(me->rwRecords.GetFirst());
    while (__builtin_expect(record != nullptr && record->mutex != mutex, 0)) {
        record = static_cast<ZoRWRecord*>(record->GetNext());
    }
    return record;
}

// Makes the spare record, which there is, one for `mutex`, which had none.
inline ZoRWRecord* AddSpareRwRecord(ZoTLS* me, ZoRW_Mutex const* mutex, ZoUInt32 holdings,
                                    ZoReadMark* mark) {
    ZoRWRecord* const record = me->spareRwRecord;
    me->spareRwRecord = nullptr;
    record->mutex = mutex;
    record->holdings = holdings;
    record->mark = mark;
    me->rwRecords.InsertFirst(record);
    return record;
}

// Made with `holdings` 0 if there is none; null when memory ran out.
inline ZoRWRecord* FindOrMakeRwRecord(ZoTLS* me, ZoRW_Mutex const* mutex) {
    if (ZoRWRecord* const found = FindRwRecord(me, mutex)) return found;
    if (me->spareRwRecord == nullptr) me->spareRwRecord = new (std::nothrow) ZoRWRecord;
    if (me->spareRwRecord == nullptr) return nullptr;
    return AddSpareRwRecord(me, mutex, 0, nullptr);
}

// The two below empty a record of `me`. While an admission is under way, within which the host's
// code in a message may begin and end a read, they leave it where it is.

// Takes `record` out and makes it the spare record, of which there is none.
inline void MakeSpareRwRecord(ZoTLS* me, ZoRWRecord* record) {
    record->holdings = 0;
    record->mark = nullptr;
    if (record->admissions != 0) [[unlikely]]
        return;
    record->mutex = nullptr;
    me->spareRwRecord = record;
    me->rwRecords.RemoveItem(record);
}

// Takes `record` out and keeps it as the spare one, or frees it.
inline void DropRwRecord(ZoTLS* me, ZoRWRecord* record) {
    if (me->spareRwRecord == nullptr || record->admissions != 0)
        return MakeSpareRwRecord(me, record);
    me->rwRecords.RemoveItem(record);
    delete record;
}

// An admission, for a scope: keeps the record, and drops it if nothing is held in the end.
class AdmissionUnderWay {
public:
    AdmissionUnderWay(ZoTLS* me, ZoRWRecord* record) : me(me), record(record) {
        ++record->admissions;
    }
    AdmissionUnderWay(AdmissionUnderWay const&) = delete;
    AdmissionUnderWay& operator=(AdmissionUnderWay const&) = delete;
    ~AdmissionUnderWay() {
        if (--record->admissions == 0 && record->holdings == 0) DropRwRecord(me, record);
    }

private:
    ZoTLS* const me;
    ZoRWRecord* const record;
};

#endif  // KELVARA_SRC_RW_RECORD_H_

// The reads of a reader/writer mutex that wait for nothing and allocate nothing: a nested read, a
// first read through the open gate, and their ends. Small enough to stand in the code that calls
// them: the mutex itself, and the thread manager's brackets.

#ifndef KELVARA_SRC_RW_FAST_H_
#define KELVARA_SRC_RW_FAST_H_

#include "checkers.h"
#include "probes.h"
#include "read_marks.h"
#include "rw_gate.h"
#include "rw_mutex.h"
#include "rw_record.h"
#include "zocond.h"

inline ReaderGate ZoGenRW_Mutex::Gate() const {
    return ReaderGate(readers->value);
}

// Each returns false if it has done nothing; StartRW or EndRW must then do it. `mayWait` is for
// checkers of threads: whether the caller would wait in that case. The hints keep a nested read
// free of taken branches, which are most of its cost.

[[gnu::always_inline]] inline bool ZoGenRW_Mutex::TryStartRead(bool mayWait) {
    ZoTLS* const me = currentRecord;
    if (me == nullptr) [[unlikely]]
        return false;
    if (ZoRWRecord* const record = FindRwRecord(me, this)) [[likely]] {
        // Holdings of 0: the admission is under way.
        if (record->holdings == 0 || ReadDepth(record->holdings) == DeepestNesting) [[unlikely]]
            return false;
        record->holdings += OneRead;
        return true;
    }
    if (me->spareRwRecord == nullptr) [[unlikely]]
        return false;
    ZoReadMark* const mark = ReadMarks::TrySet(me->readMarks, this, Gate());
    if (mark == nullptr && !TryEnterCounted(me)) [[unlikely]]
        return false;
    checkers::ReadBegins(this, mayWait ? checkers::MayWait : checkers::NeverWaits);
    probes::ReaderAdmitted(*this, me);
    AddSpareRwRecord(me, this, OneRead, mark);
    return true;
}

[[gnu::always_inline]] inline bool ZoGenRW_Mutex::TryEndRead() {
    ZoTLS* const me = currentRecord;
    if (me == nullptr) [[unlikely]]
        return false;
    ZoRWRecord* const record = FindRwRecord(me, this);
    if (record == nullptr || ReadDepth(record->holdings) == 0) [[unlikely]]
        return false;
    ZoUInt32 const left = record->holdings - OneRead;
    if (left != 0) [[likely]] {
        record->holdings = left;
        return true;
    }
    if (me->spareRwRecord != nullptr) [[unlikely]]
        return false;
    checkers::ReadEnds(this);
    if (record->mark != nullptr) [[likely]] {
        ReadMarks::TakeBack(*record->mark, this);
    } else if (!TryLeaveCounted()) [[unlikely]] {
        checkers::ReadBegins(this, checkers::NeverWaits);
        return false;
    }
    // The mutex may be gone by now.
    MakeSpareRwRecord(me, record);
    return true;
}

#endif  // KELVARA_SRC_RW_FAST_H_

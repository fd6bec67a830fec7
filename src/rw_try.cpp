// Levels of a reader/writer mutex that begin only if that needs no wait.
//
// A thread that tries does what one that may wait does up to the point where that would wait, and
// there takes it back. Who waits is not in its way: it holds the exclusive section for a moment, as
// a queued reader does, and a gate that it has closed is opened again as a cancelled writer does
// it.

#include <typeinfo>

#include "checkers.h"
#include "mark_policy.h"
#include "probes.h"
#include "read_marks.h"
#include "rw_fast.h"
#include "schedule_point.h"
#include "section_try.h"
#include "zocrits.h"

int ZoTryStartRW(ZoRW_Mutex* mutex, int mode) {
    std::type_info const& type = typeid(*mutex);
    if (type != typeid(ZoGenRW_Mutex)) return type == typeid(ZoRW_Mutex) ? 1 : 0;
    return static_cast<ZoGenRW_Mutex*>(mutex)->TryStart(mode) ? 1 : 0;
}

bool ZoGenRW_Mutex::TryStart(int mode) {
    if (mode == 0 && TryStartRead(false)) [[likely]]
        return true;
    ZoTLS* const me = CurrentThread();
    ZoRWRecord* const record = me != nullptr ? FindOrMakeRwRecord(me, this) : nullptr;
    if (record == nullptr) return false;
    if (record->holdings != 0) {
        bool const wouldWait = mode != 0 && WriteDepth(record->holdings) == 0;
        return !wouldWait && StartRW(mode, ZoNoLimit) == ZoSuccess;
    }
    AdmissionUnderWay const admission(me, record);
    if (mode == 0) {
        if (!TryAdmitReader(me, *record)) return false;
        checkers::ReadBegins(this, checkers::NeverWaits);
        probes::ReaderAdmitted(*this, me);
        record->holdings = OneRead;
    } else {
        if (!TryAdmitWriter()) return false;
        checkers::WriteBegins(this, checkers::NeverWaits);
        BeginWrite(*record, 0, me->threadIdentity);
    }
    return true;
}

// Readers that are there already are seen before the gate is closed, so that a try that fails for
// them neither keeps others out nor costs a barrier.
bool ZoGenRW_Mutex::TryAdmitWriter() {
    if (!TryBegin(*exclusive)) return false;
    if (CountReaders() == 0) {
        SchedulePoint();
        if (Gate().Close() || NoReaderIsLeft()) return true;
    }
    exclusive->Exit();
    return false;
}

// With the exclusive section held and the gate just closed on what may be readers. False: there are
// some, and the gate is open again. Marks do not come back behind a closed gate, so the two looks
// may come one after the other.
bool ZoGenRW_Mutex::NoReaderIsLeft() {
    bool const marked = MarksWithdrawal(this, Gate().MarksMayBeOut(), markHistory).MarksAreOut();
    readers->Lock();
    bool const none = !marked && Gate().Count() == 0;
    if (!none) Gate().GiveUp(false);
    readers->Unlock();
    return none;
}

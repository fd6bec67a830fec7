// Levels of a reader/writer mutex that begin only if that needs no wait.
//
// A thread that tries takes the same steps as one that may wait, up to the point of the wait, and
// undoes them there. Other threads see no new state: it holds the exclusive section for a moment,
// as a queued reader does, and opens a gate that it has closed, as a cancelled writer does.

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

// The readers are counted before the gate is closed, so that a try that fails because of them
// neither keeps others out nor costs a barrier.
bool ZoGenRW_Mutex::TryAdmitWriter() {
    if (!TryBegin(*exclusive)) return false;
    if (CountReaders() == 0) {
        SchedulePoint();
        if (Gate().Close() || NoReaderIsLeft()) return true;
    }
    exclusive->Exit();
    return false;
}

// Called with the exclusive section held and the gate just closed. False: there are readers, and
// the gate is open again. No mark is set behind a closed gate, so the two looks may come one after
// the other.
bool ZoGenRW_Mutex::NoReaderIsLeft() {
    bool const marked = MarksWithdrawal(this, Gate().MarksMayBeOut(), markHistory).MarksAreOut();
    readers->Lock();
    bool const none = !marked && Gate().Count() == 0;
    if (!none) Gate().GiveUp(false);
    readers->Unlock();
    return none;
}

// Tracing, as the library's own code does it.
//
//     Trace(0x800000, "ZoThread::Work ", this);    // one line, ended for the caller
//
// The flags are tested afresh for each line. A missing debugger or dispatcher is tracing switched
// off. Listeners run on the calling thread before Trace returns, so a caller holds no lock that a
// listener may want.

#ifndef KELVARA_SRC_TRACE_H_
#define KELVARA_SRC_TRACE_H_

#include "zoevmdis.h"

inline bool TraceIsOn(ZoUInt32 category) {
    smp_debug const* const debugger = GetDebugger();
    return debugger != nullptr &&
           (debugger->current.load(std::memory_order_relaxed) & category) != 0;
}

// Streams `pieces` and endl into a debug event of `category` and dispatches it, if that trace is
// on. A pointer that is not text is written as an address.
template <class... Piece>
void Trace(ZoUInt32 category, Piece... pieces) {
    if (!TraceIsOn(category)) return;
    ZoEventMessageDispatcher* const dispatcher = ZoEventMessageDispatcher::GetDispatcher();
    if (dispatcher == nullptr) return;
    ZoDebugEvent event(category);
    (event << ... << pieces) << endl;
    dispatcher->Dispatch(&event);
}

#endif  // KELVARA_SRC_TRACE_H_

// Tracing, as the library's own code does it.
//
//     Trace(TraceArea::ThreadMethods, "ZoThread::Work ", this);    // one line, ended for the
//     caller
//
// The flags are tested for each line. Without a debugger or a dispatcher tracing is off. Listeners
// run on the calling thread before Trace returns, so a caller holds no lock that a listener may
// want.

#ifndef KELVARA_SRC_TRACE_H_
#define KELVARA_SRC_TRACE_H_

#include "zoevmdis.h"

// The traced areas, each a bit of the configuration key "mode". docs/hosting.md lists them for
// users.
enum class TraceArea : ZoUInt32 {
    ThreadSteps = 0x100,         // the steps of a started thread's life
    ImplicitLowering = 0x10000,  // a writer that ends its last write level while it still reads
    FailedAborts = 0x100000,     // a thread that could not be cancelled, because it had ended
    ThreadMethods = 0x800000,    // the methods of thread objects
};

inline bool TraceIsOn(TraceArea area) {
    smp_debug const* const debugger = GetDebugger();
    return debugger != nullptr &&
           (debugger->current.load(std::memory_order_relaxed) & static_cast<ZoUInt32>(area)) != 0;
}

// Streams `pieces` and endl into a debug event of the area and dispatches it, if that trace is on.
// A pointer that is not text is written as an address.
template <class... Piece>
void Trace(TraceArea area, Piece... pieces) {
    if (!TraceIsOn(area)) return;
    ZoEventMessageDispatcher* const dispatcher = ZoEventMessageDispatcher::GetDispatcher();
    if (dispatcher == nullptr) return;
    ZoDebugEvent event(static_cast<ZoUInt32>(area));
    (event << ... << pieces) << endl;
    dispatcher->Dispatch(&event);
}

#endif  // KELVARA_SRC_TRACE_H_

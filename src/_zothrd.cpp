#include "_zothrd.h"

#include <new>

#include "chain.h"
#include "ending_threads.h"
#include "smp_io.h"
#include "zocrits.h"
#include "zoevmdis.h"
#include "zointrlk.h"
#include "zosyncob.h"
#include "zothread.h"
#include "zotls.h"

namespace {

void SetUp() {
    FirstSynchro = nullptr;
    fscs = ZoCritSect::Make("CS chain");
    csDLD = ZoMakeCritSectCritSect();
    __defTLS = new (std::nothrow) ZoTLS;
    smp_console = new (std::nothrow) smp_io;
    smp_debugger = new (std::nothrow) smp_debug(-1);
    suppress_chaining = 0;
    interlockedObject = ZoInterlocked::Make();
    eventDispatcher = new (std::nothrow) ZoEventMessageDispatcher;
    qaSemaphore = nullptr;
}

template <class Object>
void Destroy(Object*& object) {
    delete object;
    object = nullptr;
}

void TearDown() {
    EndingThreads::WaitForNone();
    Destroy(eventDispatcher);
    Destroy(interlockedObject);
    Destroy(smp_debugger);
    Destroy(smp_console);
    Destroy(__defTLS);
    ForgetChain();
    suppress_chaining = 1;
    Destroy(csDLD);
    Destroy(fscs);
}

}  // namespace

void ___ZoExtendedContext(int setUp) {
    bool const isSetUp = __defTLS != nullptr;
    if (setUp != 0 && !isSetUp) SetUp();
    if (setUp == 0 && isSetUp) TearDown();
}

// --- the abstract system thread ----------------------------------------------------------------

_Thread::_Thread(ZoThread* owner) : owner(owner) {}

_Thread::~_Thread() {
    owner = nullptr;
}

int _Thread::Abort() {
    owner->status = ZoThread::Aborted;
    return 0;
}

int _Thread::Start(long) {
    return 0;
}

int _Thread::Suspend() {
    owner->status = ZoThread::Suspended;
    return 0;
}

int _Thread::Continue() {
    owner->status = ZoThread::Running;
    return 0;
}

int _Thread::Giveup() {
    return 0;
}

int _Thread::GetOSThreadInfo(void*, void*, void*) {
    return ZoNotSupported;
}

CmdObj::CmdObj() = default;

CmdObj::~CmdObj() = default;

int CmdObj::ProcessCmd(_Thread*) {
    return ZoNotHandled;
}

#include "_zothrd.h"

#include <new>

#include "at_fork.h"
#include "chain.h"
#include "ending_threads.h"
#include "smp_io.h"
#include "zobase.h"
#include "zocrits.h"
#include "zoevmdis.h"
#include "zointrlk.h"
#include "zosyncob.h"
#include "zothread.h"
#include "zotls.h"

namespace {

template <class Object>
void Destroy(Object*& object) {
    delete object;
    object = nullptr;
}

// Makes the parts that every context needs: its locks, and the mark that it is set up.
bool MakeCore() {
    fscs = ZoCritSect::Make("CS chain");
    csDLD = ZoMakeCritSectCritSect();
    __defTLS = new (std::nothrow) ZoTLS;
    return fscs != nullptr && csDLD != nullptr && __defTLS != nullptr;
}

void DestroyCore() {
    Destroy(__defTLS);
    suppress_chaining = 1;
    Destroy(csDLD);
    Destroy(fscs);
}

// Set-up and tear-down take no lock: no other thread uses the library meanwhile.
void SetUp() ZO_NOT_ANALYSED {
    if (int const error = ForkHandlersError()) {
        ZoSystemLog()->Printf(ZoLogError, "pthread_atfork failed : %d", error);
    }
    FirstSynchro = nullptr;
    if (!MakeCore()) return DestroyCore();
    smp_console = new (std::nothrow) smp_io;
    smp_debugger = new (std::nothrow) smp_debug(-1);
    suppress_chaining = 0;
    interlockedObject = ZoInterlocked::Make();
    eventDispatcher = new (std::nothrow) ZoEventMessageDispatcher;
    qaSemaphore = nullptr;
}

void TearDown() ZO_NOT_ANALYSED {
    EndingThreads::WaitForNone();
    Destroy(eventDispatcher);
    Destroy(interlockedObject);
    Destroy(smp_debugger);
    Destroy(smp_console);
    Destroy(__defTLS);
    ForgetChain();
    DestroyCore();
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

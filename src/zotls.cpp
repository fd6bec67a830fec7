#include "zotls.h"

#include <pthread.h>

#include <atomic>
#include <new>
#include <type_traits>
#include <utility>

#include "call_stack.h"
#include "cancellation.h"
#include "checkers.h"
#include "current_thread.h"
#include "ending_threads.h"
#include "misuse.h"
#include "owned_sections.h"
#include "read_marks.h"
#include "rw_record.h"
#include "wait_graph.h"
#include "zobase.h"
#include "zocond.h"

static_assert(std::is_trivially_destructible_v<ZoRWRecord>, "the list frees records as memory");
static_assert(std::is_trivially_destructible_v<ZoTLSItem>);

ZoTLS* __defTLS = nullptr;

constinit thread_local ZoTLS* currentRecord = nullptr;

namespace {

constexpr pthread_key_t NoKey = static_cast<pthread_key_t>(-1);

// Guards the creation of the key.
pthread_mutex_t keyCreation = PTHREAD_MUTEX_INITIALIZER;

// NoKey until the first attach in the process has made the key; then that key for ever. Read
// without the lock: a thread that reads the key with acquire order has the finished key, and one
// that still reads NoKey looks again under the lock.
std::atomic<pthread_key_t> ZoTLSkey{NoKey};
[[maybe_unused]] int const isMarked = checkers::AreAtomic(ZoTLSkey);

pthread_key_t Key() {
    return ZoTLSkey.load(std::memory_order_acquire);
}

void CreateKeyOnce() {
    int err = 0;
    pthread_mutex_lock(&keyCreation);
    if (ZoTLSkey.load(std::memory_order_relaxed) == NoKey) {
        pthread_key_t key = NoKey;
        err = pthread_key_create(&key, ZoThreadDetach);
        if (err == 0) ZoTLSkey.store(key, std::memory_order_release);
    }
    pthread_mutex_unlock(&keyCreation);
    // Reported without the lock: the host's assertion service may want a record itself.
    if (err != 0) ZOVA_assert("err == 0", "src/zotls", 845);
}

// The record in the key's slot; currentRecord follows it.
ZoTLS* RecordInSlot() {
    pthread_key_t const key = Key();
    return key == NoKey ? nullptr : static_cast<ZoTLS*>(pthread_getspecific(key));
}

int StoreRecord(ZoTLS* record) {
    int const err = pthread_setspecific(Key(), record);
    currentRecord = err == 0 ? record : nullptr;
    return err;
}

// Called before a record is freed. False: it stays in the slot, where the thread's end finds it,
// and must not be freed.
bool TakeOutOfSlot(ZoTLS const* record) {
    return pthread_setspecific(Key(), nullptr) == 0 || RecordInSlot() != record;
}

// A record for the calling thread, which has none; null when that fails.
ZoTLS* MakeRecord() {
    ZoTLS* record = new (std::nothrow) ZoTLS;
    if (record == nullptr) {
        ZOVA_assert("ret", "src/zotls", 860);
        return nullptr;
    }
    record->threadIdentity = record;
    if (StoreRecord(record) != 0) {
        ZOVA_assert("err == 0", "src/zotls", 867);
        delete record;  // nobody could ever find it
        return nullptr;
    }
    ReadMarks::Join(record->readMarks);
    return record;
}

}  // namespace

void LockRecordKey() {
    pthread_mutex_lock(&keyCreation);
}

void UnlockRecordKey() {
    pthread_mutex_unlock(&keyCreation);
}

ZoExtendedBase::~ZoExtendedBase() = default;

ZoTLS::ZoTLS()
    : cond(nullptr),
      itemArray(nullptr),
      itemCount(0),
      asyncWatcher(0),
      attachCount(0),
      threadIdentity(nullptr),
      waitingFor(nullptr),
      spareRwRecord(nullptr),
      concurrencyResult(nullptr),
      ownedObject(nullptr),
      ownedSections(0),
      nextKept(nullptr),
      waitingLink(nullptr),
      nextWaiting(nullptr),
      walk(0),
      nextToVisit(nullptr),
      firstStep(nullptr) {}

ZoTLS::ZoTLS(ZoTLS const&) : ZoTLS() {
    ZOVA_assert("0", "src/zotls", 67);
}

ZoTLS::~ZoTLS() {
    FreeParts();
    WaitForGraph::LetWalksPass();
}

// Each pointer is cleared before its object goes: the host's destructors may come back here.
void ZoTLS::FreeParts() {
    delete std::exchange(cond, nullptr);
    delete std::exchange(spareRwRecord, nullptr);
    ZoTLSItem* const items = std::exchange(itemArray, nullptr);
    if (itemCount >= 2) {
        delete[] items;
    } else if (itemCount == 1) {
        delete items;
    }
    delete std::exchange(ownedObject, nullptr);
}

ZoTLS* ZoTLS::GetThreadLocalStorage() {
    if (currentRecord != nullptr) return currentRecord;
    ZoThreadAttach(nullptr);
    if (currentRecord == nullptr) ZOVA_assert("retval", "src/zotls", 832);
    return currentRecord;
}

int ZoThreadAttach(void*) {
    if (Key() == NoKey) CreateKeyOnce();
    ZoTLS* record = currentRecord;
    if (record == nullptr) record = MakeRecord();
    if (record != nullptr) ++record->attachCount;
    return 0;
}

void ZoThreadDetach(void* record) {
    if (record == nullptr) return;
    ZoTLS* const mine = static_cast<ZoTLS*>(record);
    OwnedSections::RememberName(mine);
    bool const threadEnds = RecordInSlot() != mine;  // the system has cleared the slot
    if (--mine->attachCount == 0) {
        mine->FreeParts();  // the host's code, which may still enter and leave locks
        Misuse::TellHeldAtEnd(mine, threadEnds);
        if (!TakeOutOfSlot(mine)) {
            mine->attachCount = 1;
            return;
        }
        // Both, and each keeps what it still needs.
        bool const leavesNoMark = ReadMarks::Leave(mine->readMarks);
        if (OwnedSections::LetGo(mine) && leavesNoMark) delete mine;
        currentRecord = nullptr;
    } else {
        // As the key's destructor this runs with the slot already cleared: a record that is still
        // attached then is out of reach.
        if (threadEnds) Misuse::TellHeldAtEnd(mine, threadEnds);
        currentRecord = RecordInSlot();
    }
    if (!OwnedSections::AreToBeTold()) EndingThreads::Leave();
}

int ZoTLSisAsyncWatcherThread() {
    ZoTLS const* const mine = ZoTLS::GetThreadLocalStorage();
    return mine == nullptr ? 0 : mine->asyncWatcher;
}

void ZoTLSSetAsyncWatcherThread() {
    if (ZoTLS* const mine = ZoTLS::GetThreadLocalStorage()) mine->asyncWatcher = 1;
}

Condition** TLSGetCondition() {
    ZoTLS* const mine = ZoTLS::GetThreadLocalStorage();
    if (mine == nullptr) return nullptr;
    if (mine->cond == nullptr) mine->cond = Condition::MakeCondition("TLS Cond");
    if (mine->cond == nullptr) ZOVA_assert("(myTLS->cond != 0)", "src/zotls", 111);
    return &mine->cond;
}

ZoUInt32* ZoTLSReaderWriterRecord(ZoRW_Mutex const* mutex) {
    ZoTLS* const mine = ZoTLS::GetThreadLocalStorage();
    ZoRWRecord* const record = mine != nullptr ? FindOrMakeRwRecord(mine, mutex) : nullptr;
    return record != nullptr ? &record->holdings : nullptr;
}

int ZoTLSRemoveReaderWriterRecord(ZoRW_Mutex const* mutex) {
    ZoTLS* const mine = ZoTLS::GetThreadLocalStorage();
    ZoRWRecord* const record = mine != nullptr ? FindRwRecord(mine, mutex) : nullptr;
    if (record == nullptr) return 1;
    DropRwRecord(mine, record);
    return 0;
}

void ZoTLSPrepareStackTrace(smp_io*) {}

void ZoTLSStackTrace(ZoTLS* thread, smp_io* console) {
    CallStacks::Tell(thread, *console);
}

void ZoTLSTerminateStackTrace() {}

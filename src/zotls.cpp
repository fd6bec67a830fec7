#include "zotls.h"

#include <pthread.h>

#include <atomic>
#include <new>
#include <type_traits>

#include "cancellation.h"
#include "rw_record.h"
#include "thread_life.h"
#include "zobase.h"
#include "zocond.h"
#include "zothread.h"

static_assert(std::is_trivially_destructible_v<ZoRWRecord>, "the list frees records as memory");
static_assert(std::is_trivially_destructible_v<ZoTLSItem>);

ZoTLS* __defTLS = nullptr;

namespace {

constexpr pthread_key_t NoKey = static_cast<pthread_key_t>(-1);

// Guards the creation of the key.
pthread_mutex_t keyCreation = PTHREAD_MUTEX_INITIALIZER;

// NoKey until the first attach in the process has made the key; then that key for ever. Read
// without the lock: a thread that reads the key with acquire order has the finished key, and one
// that still reads NoKey looks again under the lock.
std::atomic<pthread_key_t> ZoTLSkey{NoKey};

// How many threads have entered EndingThreads, and the lock that guards the number.
pthread_mutex_t endingLock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t nobodyEnding = PTHREAD_COND_INITIALIZER;
int endingThreads = 0;

// Whether the calling thread has entered.
constinit thread_local bool isEnding = false;

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

// What the key holds for the calling thread, at hand: every entry of a detecting section and every
// lock of a reader/writer mutex asks for it. The key stays the truth, because only a key has a
// destructor that runs when the thread ends; each change of it is made here as well.
[[gnu::tls_model("initial-exec")]] constinit thread_local ZoTLS* current = nullptr;

int StoreRecord(ZoTLS* record) {
    int const err = pthread_setspecific(Key(), record);
    if (err == 0) current = record;
    return err;
}

// The end of a thread empties the key without us.
void FollowKey() {
    current = static_cast<ZoTLS*>(pthread_getspecific(Key()));
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
    return record;
}

ZoRWRecord* FindRwRecord(ZoTLS const* thread, ZoRW_Mutex const* mutex) {
    for (ZoSimpleLinkedListItem* item = thread->rwRecords.GetFirst(); item != nullptr;
         item = item->GetNext()) {
        ZoRWRecord* const record = static_cast<ZoRWRecord*>(item);
        if (record->mutex == mutex) return record;
    }
    return nullptr;
}

}  // namespace

// Only a thread whose end the key's destructor sees may enter: it has a record, and ends.
void EndingThreads::Enter() {
    if (ThreadLife::current == nullptr || current == nullptr) return;
    isEnding = true;
    pthread_mutex_lock(&endingLock);
    ++endingThreads;
    pthread_mutex_unlock(&endingLock);
}

void EndingThreads::Leave() {
    if (!isEnding) return;
    isEnding = false;
    pthread_mutex_lock(&endingLock);
    if (--endingThreads == 0) pthread_cond_broadcast(&nobodyEnding);
    pthread_mutex_unlock(&endingLock);
}

void EndingThreads::WaitForNone() {
    CancellationDeferred deferred;  // the lock is not left to a cancelled thread
    pthread_mutex_lock(&endingLock);
    while (endingThreads != 0) pthread_cond_wait(&nobodyEnding, &endingLock);
    pthread_mutex_unlock(&endingLock);
}

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
      ownedObject(nullptr) {}

ZoTLS::ZoTLS(ZoTLS const&) : ZoTLS() {
    ZOVA_assert("0", "src/zotls", 67);
}

ZoTLS::~ZoTLS() {
    delete cond;
    cond = nullptr;
    delete spareRwRecord;
    spareRwRecord = nullptr;
    if (itemCount >= 2) {
        delete[] itemArray;
    } else if (itemCount == 1) {
        delete itemArray;
    }
    delete ownedObject;
}

ZoTLS* ZoTLS::GetThreadLocalStorage() {
    ZoTLS* record = current;
    if (record != nullptr) return record;
    ZoThreadAttach(nullptr);
    record = current;
    if (record == nullptr) ZOVA_assert("retval", "src/zotls", 832);
    return record;
}

int ZoThreadAttach(void*) {
    if (Key() == NoKey) CreateKeyOnce();
    ZoTLS* record = current;
    if (record == nullptr) record = MakeRecord();
    if (record != nullptr) ++record->attachCount;
    return 0;
}

void ZoThreadDetach(void* record) {
    if (record == nullptr) return;
    ZoTLS* const mine = static_cast<ZoTLS*>(record);
    if (--mine->attachCount == 0) {
        // As the key's destructor this runs with the slot already cleared. Destroying the record's
        // condition enters the chain's section, which may look the record up: it must find this one
        // and not make a second that nobody frees.
        StoreRecord(mine);
        delete mine;
        StoreRecord(nullptr);
    } else {
        FollowKey();
    }
    EndingThreads::Leave();
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

ZoUInt32* FindReaderWriterRecord(ZoTLS const* thread, ZoRW_Mutex const* mutex) {
    ZoRWRecord* const found = FindRwRecord(thread, mutex);
    return found != nullptr ? &found->holdings : nullptr;
}

ZoUInt32* ZoTLSReaderWriterRecord(ZoRW_Mutex const* mutex) {
    ZoTLS* const mine = ZoTLS::GetThreadLocalStorage();
    if (mine == nullptr) return nullptr;
    if (ZoRWRecord* const found = FindRwRecord(mine, mutex)) return &found->holdings;

    ZoRWRecord* record = mine->spareRwRecord;
    mine->spareRwRecord = nullptr;
    if (record == nullptr) record = new (std::nothrow) ZoRWRecord;
    if (record == nullptr) return nullptr;
    record->holdings = 0;
    record->mutex = mutex;
    mine->rwRecords.InsertFirst(record);
    return &record->holdings;
}

int ZoTLSRemoveReaderWriterRecord(ZoRW_Mutex const* mutex) {
    ZoTLS* const mine = ZoTLS::GetThreadLocalStorage();
    if (mine == nullptr) return 1;
    ZoRWRecord* const record = FindRwRecord(mine, mutex);
    if (record == nullptr) return 1;
    mine->rwRecords.RemoveItem(record);
    if (mine->spareRwRecord == nullptr) {
        record->mutex = nullptr;
        record->holdings = 0;
        mine->spareRwRecord = record;
    } else {
        delete record;
    }
    return 0;
}

void ZoTLSPrepareStackTrace(smp_io*) {}

void ZoTLSStackTrace(ZoTLS*, smp_io*) {}

void ZoTLSTerminateStackTrace() {}

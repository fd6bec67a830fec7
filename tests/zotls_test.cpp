// Per-thread records and what hangs on them.

#include "zotls.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <thread>

#include "services.h"
#include "zocond.h"
#include "zothread.h"

using namespace zotest;

// The linker puts these in front of the system's functions, so that a test can make them fail.
namespace {
std::atomic<int> keysMade{0};
std::atomic<bool> failKey{false};
thread_local bool failStore = false;
}  // namespace
// Not instrumented: Clang's ThreadSanitizer calls them before it is ready itself.
#ifdef __clang__
#define NOT_INSTRUMENTED __attribute__((disable_sanitizer_instrumentation))
#else
#define NOT_INSTRUMENTED
#endif
extern "C" {
int __real_pthread_key_create(pthread_key_t* key, void (*destructor)(void*));
NOT_INSTRUMENTED int __wrap_pthread_key_create(pthread_key_t* key, void (*destructor)(void*)) {
    if (destructor == ZoThreadDetach) {
        if (failKey) return EAGAIN;
        ++keysMade;
    }
    return __real_pthread_key_create(key, destructor);
}
int __real_pthread_setspecific(pthread_key_t key, void const* value);
NOT_INSTRUMENTED int __wrap_pthread_setspecific(pthread_key_t key, void const* value) {
    return failStore ? ENOMEM : __real_pthread_setspecific(key, value);
}
}

namespace {

// Must be the first use of a record in this program.
TEST(ThreadRecord, KeyIsMadeOnceAndTriedAgainAfterAFailure) {
    Services services;
    failKey = true;
    std::thread([] {
        EXPECT_EQ(ZoTLS::GetThreadLocalStorage(), nullptr);
        EXPECT_EQ(ZoTLSisAsyncWatcherThread(), 0);
        EXPECT_EQ(TLSGetCondition(), nullptr);
        EXPECT_EQ(ZoTLSReaderWriterRecord(nullptr), nullptr);
        EXPECT_EQ(ZoTLSRemoveReaderWriterRecord(nullptr), 1);
    }).join();
    failKey = false;
    Services::Lines const reports = services.Assertions();
    ASSERT_EQ(reports.size(), 15U);  // three for each of five look-ups
    EXPECT_EQ(Services::Lines(reports.begin(), reports.begin() + 3),
              (Services::Lines{"err == 0 src/zotls 845", "err == 0 src/zotls 867",
                               "retval src/zotls 832"}));

    OnThreads(
        8, [](int) { EXPECT_EQ(ZoTLS::GetThreadLocalStorage(), ZoTLS::GetThreadLocalStorage()); });
    EXPECT_EQ(keysMade, 1);

    std::thread([] {
        failStore = true;
        EXPECT_EQ(ZoTLS::GetThreadLocalStorage(), nullptr);
        failStore = false;
    }).join();
}

// Counts the destroyed ones.
class Owned : public ZoExtendedBase {
public:
    ~Owned() override { ++destroyed; }
    inline static std::atomic<int> destroyed{0};
};

TEST(ThreadRecord, LivesAsLongAsItsAttaches) {
    ZoThreadDetach(nullptr);
    std::thread([&] {
        ZoTLS* const record = ZoTLS::GetThreadLocalStorage();
        EXPECT_EQ(record->attachCount, 1);
        EXPECT_EQ(record->threadIdentity, record);
        record->ownedObject = new Owned;
        record->itemArray = new ZoTLSItem[3];
        record->itemCount = 3;
        ZoThreadAttach(nullptr);
        EXPECT_EQ(record->attachCount, 2);
        ZoThreadDetach(record);
        EXPECT_EQ(ZoTLS::GetThreadLocalStorage(), record);
        EXPECT_EQ(Owned::destroyed, 0);
        ZoThreadDetach(record);
        EXPECT_EQ(Owned::destroyed, 1);
        ZoTLS* const next = ZoTLS::GetThreadLocalStorage();
        EXPECT_EQ(next->attachCount, 1);
        next->ownedObject = new Owned;
        next->itemArray = new ZoTLSItem;
        next->itemCount = 1;
    }).join();
    EXPECT_EQ(Owned::destroyed, 2);

    Services services;
    ZoTLS copy{ZoTLS()};  // elided
    ZoTLS refused(copy);
    EXPECT_EQ(refused.threadIdentity, nullptr);
    EXPECT_EQ(services.Assertions(), Services::Lines{"0 src/zotls 67"});
}

// A condition of a record is chained. Destroying it as the thread ends enters the chain's section,
// which with detection on looks the thread's record up: no second record may come of that.
TEST(ThreadRecord, IsFreedOnceThoughItsEndLooksItUp) {
    Context context(true);
    ZoSynchroObj* const first = FirstSynchro;
    for (int i = 0; i < 100; ++i) {
        std::thread([] {
            Condition** const slot = TLSGetCondition();
            EXPECT_STREQ((*slot)->GetName(), "TLS Cond");
            EXPECT_EQ(TLSGetCondition(), slot);
            EXPECT_EQ(ZoTLSisAsyncWatcherThread(), 0);
            ZoTLSSetAsyncWatcherThread();
            EXPECT_EQ(ZoTLSisAsyncWatcherThread(), 1);
        }).join();
    }
    EXPECT_EQ(FirstSynchro, first);
}

TEST(ThreadRecord, KeepsHoldingsForEachMutex) {
    auto mutex = [](std::size_t number) { return reinterpret_cast<ZoRW_Mutex*>(number * 64); };
    std::thread([&] {
        ZoUInt32* const first = ZoTLSReaderWriterRecord(mutex(1));
        EXPECT_EQ(*first, 0U);
        *first = 7;
        EXPECT_EQ(*ZoTLSReaderWriterRecord(mutex(2)), 0U);
        EXPECT_EQ(ZoTLSReaderWriterRecord(mutex(1)), first);
        EXPECT_EQ(*first, 7U);
        ZoTLS const* const record = ZoTLS::GetThreadLocalStorage();
        EXPECT_EQ(static_cast<ZoRWRecord*>(record->rwRecords.GetFirst())->mutex, mutex(2));

        EXPECT_EQ(ZoTLSRemoveReaderWriterRecord(mutex(1)), 0);
        EXPECT_EQ(ZoTLSRemoveReaderWriterRecord(mutex(1)), 1);
        EXPECT_EQ(ZoTLSReaderWriterRecord(mutex(3)), first) << "the spare record is used again";
        EXPECT_EQ(*first, 0U);
        EXPECT_EQ(ZoTLSRemoveReaderWriterRecord(mutex(3)), 0);
        EXPECT_EQ(ZoTLSRemoveReaderWriterRecord(mutex(2)), 0);
        EXPECT_EQ(record->rwRecords.GetFirst(), nullptr);
        ZoTLSReaderWriterRecord(mutex(4));
        ZoTLSReaderWriterRecord(mutex(5));  // left in the list: the record frees them
    }).join();
}

}  // namespace

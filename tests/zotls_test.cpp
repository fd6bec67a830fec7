// Per-thread records and what hangs on them.

#include "zotls.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include "services.h"
#include "zocond.h"
#include "zothread.h"

using namespace zotest;

namespace {

// Must be the first use of a record in this program. The system has no key left for the first
// thread, and a single one for those that follow.
TEST(ThreadRecord, KeyIsMadeOnceAndTriedAgainAfterAFailure) {
    std::vector<pthread_key_t> keys;
    for (pthread_key_t key{}; pthread_key_create(&key, nullptr) == 0;) keys.push_back(key);
    Services services;
    std::thread([] {
        EXPECT_EQ(ZoTLS::GetThreadLocalStorage(), nullptr);
        EXPECT_EQ(ZoTLSisAsyncWatcherThread(), 0);
        EXPECT_EQ(TLSGetCondition(), nullptr);
        EXPECT_EQ(ZoTLSReaderWriterRecord(nullptr), nullptr);
        EXPECT_EQ(ZoTLSRemoveReaderWriterRecord(nullptr), 1);
    }).join();
    Services::Lines reports;
    for (int lookUp = 0; lookUp < 5; ++lookUp) {
        reports.insert(reports.end(), {"err == 0 src/zotls 845", "err == 0 src/zotls 867",
                                       "retval src/zotls 832"});
    }
    EXPECT_EQ(services.Assertions(), reports);

    pthread_key_delete(keys.back());
    keys.pop_back();
    OnThreads(8, [](int) {
        ZoTLS* const record = ZoTLS::GetThreadLocalStorage();
        EXPECT_NE(record, nullptr);
        EXPECT_EQ(ZoTLS::GetThreadLocalStorage(), record);
    });
    EXPECT_EQ(services.Assertions(), reports);
    for (pthread_key_t const key : keys) pthread_key_delete(key);
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
        EXPECT_EQ(&record->spareRwRecord->holdings, first) << "kept to be used again";
        EXPECT_EQ(ZoTLSReaderWriterRecord(mutex(3)), first);
        EXPECT_EQ(*first, 0U);
        EXPECT_EQ(ZoTLSRemoveReaderWriterRecord(mutex(3)), 0);
        EXPECT_EQ(ZoTLSRemoveReaderWriterRecord(mutex(2)), 0);
        EXPECT_EQ(record->rwRecords.GetFirst(), nullptr);
        ZoTLSReaderWriterRecord(mutex(4));
        ZoTLSReaderWriterRecord(mutex(5));  // left in the list: the record frees them
    }).join();
}

}  // namespace

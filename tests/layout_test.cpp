// The binary shape that an engine relies on: where the fields lie and which slot a virtual function
// has. Every mirror is written with plain types in the described order; on the 32-bit build it has
// the described offsets, on a 64-bit build pointers are wider and the order is the same. What the
// library keeps for itself stands last.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <tuple>
#include <vector>

#include "services.h"
#include "thrdimp.h"
#include "zocond.h"
#include "zoencrbuf.h"
#include "zoevmdis.h"
#include "zohash.h"
#include "zointrlk.h"
#include "zomtobj.h"
#include "zothread.h"
#include "zotls.h"
#include "zowrkque.h"

using namespace zotest;

namespace {

template <class Mirror, class Object>
Mirror View(Object const& object) {
    static_assert(sizeof(Mirror) == sizeof(Object));
    Mirror mirror;
    std::memcpy(static_cast<void*>(&mirror), static_cast<void const*>(&object), sizeof mirror);
    return mirror;
}

struct SynchroShape {
    void* table;
    char const* name;
    void *next, *prev;
};
struct SectionShape : SynchroShape {
    ZoInt32 owningCount, waitCount;
};
struct PosixShape : SectionShape {
    pthread_mutexattr_t attributes;
    pthread_mutex_t mutex;
    pthread_t owner;
    int word;
};
struct DetectingShape : SectionShape {
    void *wrapped, *owner;
};
struct PosixConditionShape : SynchroShape {
    void* logic;
    int value;
    pthread_mutex_t mutex;
    pthread_mutexattr_t mutexAttributes;
    pthread_cond_t condition;
    pthread_condattr_t conditionAttributes;
    int sleepers;
};
struct TableShape {
    void *table, *buckets, *initialBuckets[4];
    ZoUInt32 nBuckets, num, threshold, shift, mask;
    void* find;
    unsigned short keySize;
};
struct RecordShape {
    void *cond, *itemArray;
    short itemCount;
    unsigned short asyncWatcher;
    ZoInt32 attachCount;
    void *rwRecords, *threadIdentity, *waitingFor, *spareRwRecord, *concurrencyResult, *ownedObject;
};
struct SimpleEventShape {
    void* table;
    int code;
    ZoUInt32 mask, type;
    char text[256];
    int length;
};
struct SwitchesShape {
    void* table;
    ZoUInt32 current, saved;
};
struct ListenerShape {
    void* table;
    int refCount;
};
struct RegistrationShape {
    ZoUInt32 mask, type;
    void *listener, *next;
};
struct DispatcherShape {
    void* table;
    ZoUInt32 nextFamilyId, requestedMask;
    void *familyList, *listeners, *lock;
};
struct ResultShape {
    void* condition;
    int result;
    unsigned short parallel;
};
struct UnitShape {
    void *table, *result;
};
struct QueueShape {
    void *table, *logicTable, *logicQueue;
    alignas(ZoLinkedList) unsigned char items[sizeof(ZoLinkedList)];
    void* condition;
    int terminated;
    void *workersTable, *workersCondition, *context;
};
struct EncryptionBufferShape {
    void* table;
    alignas(ZoRawBuffer) unsigned char raw[sizeof(ZoRawBuffer)];
    ZoUInt32 dataOffset, dataLength;
};

TEST(Layout, FieldsLieWhereTheEngineLooks) {
    Services services;
    Context context(true);
    ZoTLS* const me = ZoTLS::GetThreadLocalStorage();
    auto* detecting = static_cast<ZoDLDCritSect*>(ZoCritSect::Make("detecting"));
    detecting->Begin();
    detecting->Begin();
    auto const section = View<DetectingShape>(*detecting);
    EXPECT_STREQ(section.name, "detecting");
    EXPECT_EQ(section.owningCount, 2);
    EXPECT_EQ(section.waitCount, 0);
    EXPECT_EQ(section.owner, me);
    EXPECT_EQ(section.prev, nullptr);
    auto const plain = View<PosixShape>(*static_cast<PosixCritSect const*>(section.wrapped));
    EXPECT_EQ(section.next, section.wrapped);
    EXPECT_EQ(plain.prev, detecting);
    EXPECT_EQ(plain.owningCount, 1);
    EXPECT_TRUE(pthread_equal(plain.owner, pthread_self()));
    detecting->ForceRelease();
    delete detecting;

    POSIXCondition condition("condition");
    condition.value = 17;
    auto const shown = View<PosixConditionShape>(condition);
    EXPECT_EQ(shown.logic, condition.logic);
    EXPECT_EQ(shown.value, 17);

    ZoTLSReaderWriterRecord(nullptr);
    me->asyncWatcher = 1;
    auto const record = View<RecordShape>(*me);
    EXPECT_EQ(record.asyncWatcher, 1);
    EXPECT_EQ(record.attachCount, 1);
    EXPECT_EQ(record.rwRecords, me->rwRecords.GetFirst());
    EXPECT_EQ(record.threadIdentity, me);
    ZoTLSRemoveReaderWriterRecord(nullptr);
    EXPECT_EQ(View<RecordShape>(*me).spareRwRecord, record.rwRecords);
    me->asyncWatcher = 0;

    ZoHashTable hashTable(7, ZoSurrFind);
    auto const table = View<TableShape>(hashTable);
    EXPECT_EQ(table.buckets, hashTable.initialBuckets);
    EXPECT_EQ(std::tuple(table.nBuckets, table.num, table.threshold, table.shift, table.mask),
              std::tuple(4, 0, 16, 28, 3));
    EXPECT_EQ(table.keySize, 7);

    static_assert(sizeof(ZoHashEntry) == 2 * sizeof(void*));
    static_assert(sizeof(ZoMTObj) == 2 * sizeof(void*));
    static_assert(sizeof(smp_io) == 2 * sizeof(void*));
#if LONG_MAX == 2147483647L
    static_assert(sizeof(ZoTLS) == 40 && offsetof(ZoTLS, waitingFor) == 24);
    static_assert(sizeof(ZoCritSect) == 24 && sizeof(ZoDLDCritSect) == 32);
    static_assert(sizeof(ZoHashTable) == 52 && sizeof(ZoHashPosition) == 20);
    static_assert(sizeof(ZoHashIterator) == 8);
    static_assert(sizeof(ZoTLSItem) == 20 && sizeof(ZoRWRecord) == 12);
#endif
}

TEST(Layout, DiagnosticsHaveTheirFields) {
    ZoSimpleEvent event(-5, 2, 0x900);
    event << "abc";
    auto const text = View<SimpleEventShape>(event);
    EXPECT_EQ(std::tuple(text.code, text.mask, text.type, text.length),
              std::tuple(-5, 2, 0x900, 3));
    EXPECT_STREQ(text.text, "abc");
    smp_debug switches(6);
    switches.Disable();
    auto const flags = View<SwitchesShape>(switches);
    EXPECT_EQ(flags.current, 0U);
    EXPECT_EQ(flags.saved, 6U);
    ZoEventMessageDispatcher dispatcher;
    auto* const listener = new ZoConsoleListener;
    dispatcher.RegisterListener(5, 0x901, listener);
    auto const shape = View<DispatcherShape>(dispatcher);
    EXPECT_EQ(shape.nextFamilyId, 0x20000U);
    EXPECT_EQ(shape.requestedMask, 5U);
    EXPECT_STREQ(static_cast<ZoCritSect*>(shape.lock)->GetName(), "EventDispatcher");
    EXPECT_STREQ(*static_cast<char**>(shape.familyList), "verboseMode");
    EXPECT_EQ(View<ListenerShape>(*listener).refCount, 1);
    auto const registration = View<RegistrationShape>(ZoListenerRegistration(1, 2, listener));
    EXPECT_EQ(registration.type, 2U);
    EXPECT_EQ(registration.listener, listener);
    ZoEncryptionBuffer buffer(nullptr, 16, 100, ZoRawBufferUseGiven);
    auto const lengths = View<EncryptionBufferShape>(buffer);
    EXPECT_EQ(lengths.dataOffset, 16U);
    EXPECT_EQ(lengths.dataLength, 100U);
    static_assert(sizeof(GenericInterlocked) == 2 * sizeof(void*));
}

TEST(Layout, WorkQueuesHaveTheirFields) {
    class Unit : public ZoWorkUnit {
    public:
        using ZoWorkUnit::ZoWorkUnit;
        void Handle(ZoWorkQueue*) override {}
        void Aborted(ZoWorkQueue*) override {}
    };
    ZoResult result{nullptr, 17, {1}};
    auto const stored = View<ResultShape>(result);
    EXPECT_EQ(stored.result, 17);
    EXPECT_EQ(stored.parallel, 1);
    EXPECT_EQ(View<UnitShape>(Unit(&result)).result, &result);
    static_assert(sizeof(ZoQueueWorker) == sizeof(ZoThread) + sizeof(void*));
    ZoWorkQueue* const queue = ZoWorkQueue::Create(0, &result);
    queue->Terminate();
    QueueShape shape;
    std::memcpy(&shape, static_cast<void*>(queue), sizeof shape);  // its class is not published
    EXPECT_EQ(shape.logicQueue, queue);
    EXPECT_STREQ(static_cast<Condition*>(shape.condition)->GetName(), "WorkQueue");
    EXPECT_EQ(shape.terminated, 1);
    EXPECT_STREQ(static_cast<Condition*>(shape.workersCondition)->GetName(), "ResourceWatcher");
    EXPECT_EQ(shape.context, &result);
    queue->Destroy();
}

struct ThreadShape {
    void *table, *systemThread;
    ZoInt32 status;
    int result;
    void* argument;
    char const *name, *text;
    int pendingPriority;
    unsigned short flags;
    void* blockingObject;
    ZoInt32 stackSizeCode;
    int autoDelete;
    void* watcher;
};
struct PosixThreadShape {
    void *table, *owner;
    pthread_attr_t attributes;
    pthread_t handle;
    int lastError;
    void* life;
};

TEST(Layout, ThreadsHaveTheirFields) {
    ZoResourceWatcher watcher;
    ZoThread thread("name", "text", 3);
    thread.SetPendingPriority(ZoPriorityHigh);
    thread.SetPriorityBoostOff(1);
    thread.SetStackSizeCode(77);
    thread.SetResourceWatcher(&watcher);
    auto const shape = View<ThreadShape>(thread);
    EXPECT_EQ(shape.systemThread, nullptr);
    EXPECT_EQ(std::tuple(shape.status, shape.result, shape.pendingPriority, shape.flags,
                         shape.stackSizeCode, shape.autoDelete),
              std::tuple(7, 0, 1, 1, 77, 3));
    EXPECT_STREQ(shape.name, "name");
    EXPECT_STREQ(shape.text, "text");
    EXPECT_EQ(shape.argument, nullptr);
    EXPECT_EQ(shape.blockingObject, nullptr);
    EXPECT_EQ(shape.watcher, &watcher);
    PosixThread posix(&thread);
    posix.Abort();
    auto const system = View<PosixThreadShape>(posix);
    EXPECT_EQ(system.owner, &thread);
    EXPECT_EQ(system.handle, pthread_t{0});
    EXPECT_EQ(system.lastError, ESRCH);
    static_assert(sizeof(CmdObj) == sizeof(void*) && sizeof(_Thread) == 2 * sizeof(void*));
    static_assert(sizeof(ZoLockableResourceWatcher) == 2 * sizeof(void*));
}

// A pointer to a virtual member function holds 1 + its slot's offset in the table.
template <class Function>
std::size_t SlotOf(Function function) {
    std::size_t word = 0;
    std::memcpy(&word, &function, sizeof word);
    return (word - 1) / sizeof(void*);
}
template <class... Functions>
std::vector<std::size_t> Slots(Functions... functions) {
    return {SlotOf(functions)...};
}
// One of several functions of a name: the one that takes these.
template <class... Arguments, class Result, class Class>
std::size_t Overload(Result (Class::*function)(Arguments...)) {
    return SlotOf(function);
}

// Where a destructor is virtual it takes two slots, 0 and 1 in a base class.
TEST(Layout, VirtualFunctionsHaveTheirSlots) {
    using testing::ElementsAre;
    EXPECT_EQ(SlotOf(&ZoSynchroObj::ForceRelease), 2U);
    EXPECT_THAT(Slots(&ZoCritSect::Begin, &ZoCritSect::Exit, &ZoCritSect::GetInfo),
                ElementsAre(3, 4, 5));
    EXPECT_THAT(Slots(&ConditionLogic::SafeSet, &ConditionLogic::SafeClear,
                      &ConditionLogic::SafeTest, &ConditionLogic::SafeSetApp),
                ElementsAre(0, 1, 2, 3));
    EXPECT_THAT(Slots(&Condition::SetCondition, &Condition::ClearCondition,
                      &Condition::WaitForCondition, &Condition::Unlock, &Condition::GetInfo,
                      &Condition::Lock, &Condition::SetConditionApp),
                ElementsAre(3, 4, 5, 6, 7, 8, 9));
    EXPECT_EQ((Overload<char const*, int>(&_smp_io::writeOutput)), 2U);
    EXPECT_EQ(Overload<ZoString const&>(&_smp_io::writeOutput), 3U);
    EXPECT_EQ(SlotOf(&_smp_io::flush), 4U);
    EXPECT_EQ(Overload<char const*>(&smp_io::operator<<), 2U);
    EXPECT_EQ(Overload<void*>(&smp_io::operator<<), 13U);
    EXPECT_EQ(SlotOf(&smp_io::Print), 14U);
    EXPECT_EQ(SlotOf(static_cast<smp_io& (smp_io::*)()>(&smp_io::flush)), 15U);
    EXPECT_EQ(Overload<smp_io&>(&smp_io::flush), 16U);
    EXPECT_THAT(
        Slots(&ZoTransactionContext::GetID, &ZoTransactionContext::cast2ZoTransactionResource),
        ElementsAre(2, 3));
    EXPECT_THAT(Slots(&ZoHashTable::CreateHashEntry, &ZoHashTable::CreateHashEntryX,
                      &ZoHashTable::DestroyHashEntry, &ZoHashTable::ChangeHashEntry,
                      &ZoHashTable::CloneHashEntry, &ZoHashTable::CreateHashTable),
                ElementsAre(0, 1, 2, 3, 4, 5));
    using ValueOfKey = void* (ZoHashTable::*)(char const*, ZoMTObj const*) const;
    using ValueOfEntry = void* (ZoHashTable::*)(ZoHashEntry const&) const;
    EXPECT_THAT(Slots(&ZoHashTable::Clone, static_cast<ValueOfKey>(&ZoHashTable::GetValue),
                      &ZoHashTable::ChangeValue, &ZoHashTable::DeleteValue,
                      &ZoHashTable::EmptyTable, &ZoHashTable::FirstEntry, &ZoHashTable::NextEntry,
                      &ZoHashTable::GetKey, static_cast<ValueOfEntry>(&ZoHashTable::GetValue),
                      &ZoHashTable::GetKeySize, &ZoHashTable::AverageSearch),
                ElementsAre(8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18));
    EXPECT_THAT(Slots(&ZoMessageService::Reserved, &ZoMessageService::Show), ElementsAre(0, 1));
    EXPECT_THAT(Slots(&ZoLog::Printf, &ZoConfig::ReadValue), ElementsAre(2, 2));
    EXPECT_THAT(Slots(&ZoEvent::GetMessageText, &ZoEvent::Dump), ElementsAre(2, 3));
    EXPECT_EQ(Overload<char const*>(&ZoSimpleEvent::operator<<), 4U);
    EXPECT_EQ(Overload<unsigned long>(&ZoSimpleEvent::operator<<), 10U);
    EXPECT_EQ(Overload<void*>(&ZoSimpleEvent::operator<<), 14U);
    EXPECT_EQ(Overload<ZoSimpleEvent& (*)(ZoSimpleEvent&)>(&ZoSimpleEvent::operator<<), 15U);
    EXPECT_EQ(SlotOf(&ZoLoggableEvent::Reserved), 4U);
    EXPECT_THAT(Slots(&ZoEventListener::Notify, &ZoGenericListener::RegisterForEvent),
                ElementsAre(2, 3));
    EXPECT_EQ(SlotOf(&ZoEventMessageDispatcher::CallDestructor), 2U);
    EXPECT_THAT(Slots(&smp_debug::Enable, &smp_debug::Disable), ElementsAre(2, 3));
    EXPECT_EQ(SlotOf(&ZoQaSemaphore::Reserved3), 4U);
    EXPECT_THAT(Slots(&ZoInterlocked::Increment, &ZoInterlocked::CompareExchange,
                      &ZoInterlocked::ExchangeAdd),
                ElementsAre(2, 5, 6));
    EXPECT_THAT(
        Slots(&ZoEncryptionBufferInterface::GetData, &ZoEncryptionBufferInterface::EnsureCapacity),
        ElementsAre(2, 5));
    EXPECT_THAT(Slots(&ZoWorkUnit::Handle, &ZoWorkUnit::Aborted), ElementsAre(2, 3));
    EXPECT_THAT(
        Slots(&ZoWorkQueue::Destroy, &ZoWorkQueue::Append, &ZoWorkQueue::Length,
              &ZoWorkQueue::Terminate, &ZoWorkQueue::IncreaseThreadCount,
              &ZoWorkQueue::DecreaseThreadCount, &ZoWorkQueue::ThreadCount, &ZoWorkQueue::Context),
        ElementsAre(2, 3, 4, 5, 6, 7, 8, 9));
    EXPECT_THAT(Slots(&ZoThread::Work, &ZoThread::Init, &ZoThread::Cleanup), ElementsAre(2, 3, 4));
    EXPECT_THAT(Slots(&_Thread::Abort, &_Thread::Start, &_Thread::Suspend, &_Thread::Continue,
                      &_Thread::Giveup, &_Thread::GetOSThreadInfo),
                ElementsAre(2, 3, 4, 5, 6, 7));
    EXPECT_EQ(SlotOf(&CmdObj::ProcessCmd), 2U);
    EXPECT_THAT(Slots(&ZoResourceWatcher::IncrementCounter, &ZoResourceWatcher::DecrementCounter,
                      &ZoResourceWatcher::WaitForZero, &ZoResourceWatcher::Reset),
                ElementsAre(2, 3, 4, 5));
}

}  // namespace

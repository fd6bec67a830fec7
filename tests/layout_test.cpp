// The binary shape that an engine relies on: where the fields lie and which slot a virtual function
// has. Offsets are given in pointers and bytes: with pointers of 4 bytes they are the described
// ones, with wider pointers the order is the same. What the library keeps for itself stands last.

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

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

constexpr std::size_t P = sizeof(void*);

// What lies at an offset in an object.
template <class Field, class Object>
Field At(Object const& object, std::size_t offset) {
    struct {
        Field field;
    } copy;
    std::memcpy(&copy, reinterpret_cast<char const*>(&object) + offset, sizeof copy);
    return copy.field;
}

// A section: the table of its class, its name, its neighbours in the chain of all, two counts.
constexpr std::size_t Name = P, Next = 2 * P, Prev = 3 * P, OwningCount = 4 * P,
                      WaitCount = OwningCount + 4, SectionSize = WaitCount + 4;

struct PosixSectionPart {
    pthread_mutexattr_t attributes;
    pthread_mutex_t mutex;
    pthread_t owner;
    unsigned long ownerNumber;
};
struct PosixConditionPart {
    pthread_mutex_t mutex;
    pthread_mutexattr_t mutexAttributes;
    pthread_cond_t condition;
    pthread_condattr_t conditionAttributes;
    bool conditionIsTaken;
    unsigned int generation;
    void *first, *last;
};
struct PosixThreadPart {
    pthread_attr_t attributes;
    pthread_t handle;
    int lastError;
    void* life;
};

static_assert(sizeof(ZoCritSect) == SectionSize &&
              sizeof(ZoDLDCritSect) == SectionSize + 3 * P + 8);
static_assert(sizeof(PosixCritSect) == SectionSize + sizeof(PosixSectionPart));
static_assert(sizeof(POSIXCondition) == 6 * P + sizeof(PosixConditionPart));
static_assert(sizeof(ZoTLS) == 8 * P + 8 + 2 * P + 7 * P + 8 && sizeof(ZoTLSItem) == 5 * P);
static_assert(sizeof(ZoRWRecord) == 5 * P);
static_assert(sizeof(ZoHashTable) == 6 * P + 20 + (P - 4) + 2 * P);  // P - 4 of padding
static_assert(sizeof(ZoHashEntry) == 2 * P);
static_assert(sizeof(ZoHashPosition) == 5 * P && sizeof(ZoHashIterator) == 2 * P);
static_assert(sizeof(ZoMTObj) == 2 * P && sizeof(smp_io) == 2 * P);
static_assert(sizeof(ZoSimpleEvent) == P + 12 + 256 + 4 && sizeof(smp_debug) == P + 8);
static_assert(sizeof(ZoConsoleListener) == 2 * P && sizeof(ZoListenerRegistration) == 2 * P + 8);
static_assert(sizeof(ZoEventMessageDispatcher) == 4 * P + 8);
static_assert(sizeof(ZoEncryptionBuffer) == P + sizeof(ZoRawBuffer) + 8);
static_assert(sizeof(GenericInterlocked) == 2 * P && sizeof(CmdObj) == P);
static_assert(sizeof(ZoResult) == P + 8 && sizeof(ZoWorkUnit) == 2 * P);
static_assert(sizeof(ZoQueueWorker) == sizeof(ZoThread) + P);
static_assert(sizeof(ZoThread) == 8 * P + 8 + 8 + 8 && sizeof(_Thread) == 2 * P);
static_assert(sizeof(PosixThread) == 2 * P + sizeof(PosixThreadPart));
static_assert(sizeof(ZoLockableResourceWatcher) == 2 * P);

TEST(Layout, SectionsConditionsAndRecords) {
    Services services;
    Context context(true);
    ZoTLS* const me = ZoTLS::GetThreadLocalStorage();
    ZoCritSect* const section = ZoCritSect::Make("detecting");
    section->Begin();
    section->Begin();
    EXPECT_STREQ(At<char const*>(*section, Name), "detecting");
    EXPECT_EQ(At<ZoInt32>(*section, OwningCount), 2);
    EXPECT_EQ(At<ZoInt32>(*section, WaitCount), 0);
    EXPECT_EQ(At<ZoSynchroObj*>(*section, Prev), nullptr);
    EXPECT_EQ(At<ZoTLS*>(*section, SectionSize + P), me);
    auto const& wrapped = *At<PosixCritSect*>(*section, SectionSize);
    EXPECT_EQ(At<ZoSynchroObj*>(*section, Next), &wrapped);
    EXPECT_EQ(At<ZoSynchroObj*>(wrapped, Prev), section);
    EXPECT_EQ(At<ZoInt32>(wrapped, OwningCount), 1);
    auto part = At<PosixSectionPart>(wrapped, SectionSize);
    EXPECT_TRUE(pthread_equal(part.owner, pthread_self()));
    EXPECT_EQ(pthread_mutex_trylock(&part.mutex), EBUSY);
    section->ForceRelease();
    delete section;

    POSIXCondition condition("condition");
    condition.value = 17;
    EXPECT_EQ(At<ConditionLogic*>(condition, 4 * P), condition.logic);
    EXPECT_EQ(At<int>(condition, 5 * P), 17);

    ZoTLSReaderWriterRecord(nullptr);
    me->asyncWatcher = 1;
    EXPECT_EQ(At<unsigned short>(*me, 2 * P + 2), 1);
    EXPECT_EQ(At<ZoInt32>(*me, 2 * P + 4), 1) << "attaches";
    auto* const record = At<ZoSimpleLinkedListItem*>(*me, 2 * P + 8);
    EXPECT_EQ(record, me->rwRecords.GetFirst());
    EXPECT_EQ(At<void*>(*me, 3 * P + 8), me);
    EXPECT_EQ(At<ZoDLDCritSect*>(*me, 4 * P + 8), nullptr);
    ZoTLSRemoveReaderWriterRecord(nullptr);
    EXPECT_EQ(At<ZoSimpleLinkedListItem*>(*me, 5 * P + 8), record) << "the spare one";
    me->asyncWatcher = 0;
}

TEST(Layout, TablesAndEvents) {
    ZoHashTable table(7, ZoSurrFind);
    EXPECT_EQ(At<ZoHashEntry**>(table, P), table.initialBuckets);
    ZoUInt32 const shape[] = {4, 0, 16, 28, 3};  // nBuckets, num, threshold, shift, mask
    for (std::size_t i = 0; i < 5; ++i) EXPECT_EQ(At<ZoUInt32>(table, 6 * P + 4 * i), shape[i]);
    EXPECT_EQ(At<ZoHashSearch>(table, sizeof table - 2 * P), ZoSurrFind);
    EXPECT_EQ(At<unsigned short>(table, sizeof table - P), 7);

    ZoSimpleEvent event(-5, 2, 0x900);
    event << "abc";
    EXPECT_EQ(At<int>(event, P), -5);
    EXPECT_EQ(At<ZoUInt32>(event, P + 4), 2U);
    EXPECT_EQ(At<ZoUInt32>(event, P + 8), 0x900U);
    EXPECT_EQ(event.GetMessageText(), reinterpret_cast<char*>(&event) + P + 12);
    EXPECT_EQ(At<int>(event, P + 12 + 256), 3);
    smp_debug switches(6);
    switches.Disable();
    EXPECT_EQ(At<ZoUInt32>(switches, P), 0U);
    EXPECT_EQ(At<ZoUInt32>(switches, P + 4), 6U);

    ZoEventMessageDispatcher dispatcher;
    auto* const listener = new ZoConsoleListener;
    dispatcher.RegisterListener(5, 0x901, listener);
    EXPECT_EQ(At<ZoUInt32>(dispatcher, P), 0x20000U) << "the next family";
    EXPECT_EQ(At<ZoUInt32>(dispatcher, P + 4), 5U);
    EXPECT_STREQ(*At<char**>(dispatcher, P + 8), "verboseMode");
    EXPECT_EQ(At<ZoHashTable*>(dispatcher, 2 * P + 8)->GetNum(), 1U);
    EXPECT_STREQ(At<ZoCritSect*>(dispatcher, 3 * P + 8)->GetName(), "EventDispatcher");
    EXPECT_EQ(At<int>(*listener, P), 1);
    ZoListenerRegistration const registration(1, 2, listener);
    EXPECT_EQ(At<ZoUInt32>(registration, 0), 1U);
    EXPECT_EQ(At<ZoUInt32>(registration, 4), 2U);
    EXPECT_EQ(At<ZoEventListener*>(registration, 8), listener);

    ZoEncryptionBuffer buffer(nullptr, 16, 100, ZoRawBufferUseGiven);
    EXPECT_EQ(At<ZoUInt32>(buffer, P + sizeof(ZoRawBuffer)), 16U);
    EXPECT_EQ(At<ZoUInt32>(buffer, P + sizeof(ZoRawBuffer) + 4), 100U);
}

TEST(Layout, WorkQueues) {
    class Unit : public ZoWorkUnit {
    public:
        using ZoWorkUnit::ZoWorkUnit;
        void Handle(ZoWorkQueue*) override {}
        void Aborted(ZoWorkQueue*) override {}
    };
    ZoResult result{nullptr, 17, {1}};
    EXPECT_EQ(At<int>(result, P), 17);
    EXPECT_EQ(At<unsigned short>(result, P + 4), 1);
    EXPECT_EQ(At<ZoResult*>(Unit(&result), P), &result);
    ZoWorkQueue* const queue = ZoWorkQueue::Create(0, &result);
    queue->Terminate();
    EXPECT_EQ(At<ZoWorkQueue*>(*queue, 2 * P), queue) << "its logic's";
    std::size_t const afterItems = 3 * P + sizeof(ZoLinkedList);
    EXPECT_STREQ(At<Condition*>(*queue, afterItems)->GetName(), "WorkQueue");
    EXPECT_EQ(At<int>(*queue, afterItems + P), 1) << "terminated";
    EXPECT_STREQ(At<Condition*>(*queue, afterItems + 3 * P)->GetName(), "ResourceWatcher");
    EXPECT_EQ(At<void*>(*queue, afterItems + 4 * P), &result);
    queue->Destroy();
}

TEST(Layout, Threads) {
    ZoResourceWatcher watcher;
    ZoThread thread("name", "text", 3);
    thread.SetPendingPriority(ZoPriorityHigh);
    thread.SetPriorityBoostOff(1);
    thread.SetStackSizeCode(77);
    thread.SetResourceWatcher(&watcher);
    EXPECT_EQ(At<_Thread*>(thread, P), nullptr);
    EXPECT_EQ(At<ZoInt32>(thread, 2 * P), 7) << "the status";
    EXPECT_EQ(At<int>(thread, 2 * P + 4), 0) << "the result";
    EXPECT_EQ(At<void*>(thread, 2 * P + 8), nullptr);
    EXPECT_STREQ(At<char const*>(thread, 3 * P + 8), "name");
    EXPECT_STREQ(At<char const*>(thread, 4 * P + 8), "text");
    EXPECT_EQ(At<int>(thread, 5 * P + 8), 1) << "the priority";
    EXPECT_EQ(At<unsigned short>(thread, 5 * P + 12), 1) << "the boost";
    EXPECT_EQ(At<ZoSynchroObj*>(thread, 5 * P + 16), nullptr);
    EXPECT_EQ(At<ZoInt32>(thread, 6 * P + 16), 77);
    EXPECT_EQ(At<int>(thread, 6 * P + 20), 3);
    EXPECT_EQ(At<ZoResourceWatcher*>(thread, 6 * P + 24), &watcher);
    PosixThread posix(&thread);
    posix.Abort();
    EXPECT_EQ(At<ZoThread*>(posix, P), &thread);
    EXPECT_EQ(At<PosixThreadPart>(posix, 2 * P).handle, pthread_t{0});
    EXPECT_EQ(At<PosixThreadPart>(posix, 2 * P).lastError, ESRCH);
}

// A pointer to a virtual member function holds 1 + its slot's offset in the table.
template <class Function>
std::size_t SlotOf(Function function) {
    std::size_t word = 0;
    std::memcpy(&word, &function, sizeof word);
    return (word - 1) / P;
}
// One of several functions of a name: the one that takes these.
template <class... Arguments, class Result, class Class>
std::size_t Overload(Result (Class::*function)(Arguments...)) {
    return SlotOf(function);
}
template <class... Functions>
bool AreSlotsFrom(std::size_t slot, Functions... functions) {
    return ((SlotOf(functions) == slot++) && ...);
}

// Where a destructor is virtual it takes two slots, 0 and 1 in a base class.
TEST(Layout, VirtualFunctionsHaveTheirSlots) {
    EXPECT_TRUE(AreSlotsFrom(2, &ZoSynchroObj::ForceRelease, &ZoCritSect::Begin, &ZoCritSect::Exit,
                             &ZoCritSect::GetInfo));
    EXPECT_TRUE(AreSlotsFrom(0, &ConditionLogic::SafeSet, &ConditionLogic::SafeClear,
                             &ConditionLogic::SafeTest, &ConditionLogic::SafeSetApp));
    EXPECT_TRUE(AreSlotsFrom(3, &Condition::SetCondition, &Condition::ClearCondition,
                             &Condition::WaitForCondition, &Condition::Unlock, &Condition::GetInfo,
                             &Condition::Lock, &Condition::SetConditionApp));
    EXPECT_EQ((Overload<char const*, int>(&_smp_io::writeOutput)), 2U);
    EXPECT_EQ(Overload<ZoString const&>(&_smp_io::writeOutput), 3U);
    EXPECT_EQ(SlotOf(&_smp_io::flush), 4U);
    EXPECT_EQ(Overload<char const*>(&smp_io::operator<<), 2U);
    EXPECT_EQ(Overload<void*>(&smp_io::operator<<), 13U);
    EXPECT_EQ(SlotOf(&smp_io::Print), 14U);
    EXPECT_EQ(SlotOf(static_cast<smp_io& (smp_io::*)()>(&smp_io::flush)), 15U);
    EXPECT_EQ(Overload<smp_io&>(&smp_io::flush), 16U);
    EXPECT_TRUE(AreSlotsFrom(2, &ZoTransactionContext::GetID,
                             &ZoTransactionContext::cast2ZoTransactionResource));
    EXPECT_TRUE(AreSlotsFrom(0, &ZoHashTable::CreateHashEntry, &ZoHashTable::CreateHashEntryX,
                             &ZoHashTable::DestroyHashEntry, &ZoHashTable::ChangeHashEntry,
                             &ZoHashTable::CloneHashEntry, &ZoHashTable::CreateHashTable));
    using ValueOfKey = void* (ZoHashTable::*)(char const*, ZoMTObj const*) const;
    using ValueOfEntry = void* (ZoHashTable::*)(ZoHashEntry const&) const;
    EXPECT_TRUE(
        AreSlotsFrom(8, &ZoHashTable::Clone, static_cast<ValueOfKey>(&ZoHashTable::GetValue),
                     &ZoHashTable::ChangeValue, &ZoHashTable::DeleteValue, &ZoHashTable::EmptyTable,
                     &ZoHashTable::FirstEntry, &ZoHashTable::NextEntry, &ZoHashTable::GetKey,
                     static_cast<ValueOfEntry>(&ZoHashTable::GetValue), &ZoHashTable::GetKeySize,
                     &ZoHashTable::AverageSearch));
    EXPECT_TRUE(AreSlotsFrom(0, &ZoMessageService::Reserved, &ZoMessageService::Show));
    EXPECT_TRUE(AreSlotsFrom(2, &ZoLog::Printf));
    EXPECT_TRUE(AreSlotsFrom(2, &ZoConfig::ReadValue));
    EXPECT_TRUE(AreSlotsFrom(2, &ZoEvent::GetMessageText, &ZoEvent::Dump));
    EXPECT_EQ(Overload<char const*>(&ZoSimpleEvent::operator<<), 4U);
    EXPECT_EQ(Overload<unsigned long>(&ZoSimpleEvent::operator<<), 10U);
    EXPECT_EQ(Overload<void*>(&ZoSimpleEvent::operator<<), 14U);
    EXPECT_EQ(Overload<ZoSimpleEvent& (*)(ZoSimpleEvent&)>(&ZoSimpleEvent::operator<<), 15U);
    EXPECT_TRUE(AreSlotsFrom(4, &ZoLoggableEvent::Reserved));
    EXPECT_TRUE(AreSlotsFrom(2, &ZoEventListener::Notify, &ZoGenericListener::RegisterForEvent));
    EXPECT_TRUE(AreSlotsFrom(2, &ZoEventMessageDispatcher::CallDestructor));
    EXPECT_TRUE(AreSlotsFrom(2, &smp_debug::Enable, &smp_debug::Disable));
    EXPECT_TRUE(AreSlotsFrom(2, &ZoQaSemaphore::Reserved1, &ZoQaSemaphore::Reserved2,
                             &ZoQaSemaphore::Reserved3));
    EXPECT_TRUE(AreSlotsFrom(2, &ZoInterlocked::Increment, &ZoInterlocked::Decrement,
                             &ZoInterlocked::Exchange, &ZoInterlocked::CompareExchange,
                             &ZoInterlocked::ExchangeAdd));
    EXPECT_TRUE(AreSlotsFrom(
        2, &ZoEncryptionBufferInterface::GetData, &ZoEncryptionBufferInterface::GetDataLen,
        &ZoEncryptionBufferInterface::SetDataLen, &ZoEncryptionBufferInterface::EnsureCapacity));
    EXPECT_TRUE(AreSlotsFrom(2, &ZoWorkUnit::Handle, &ZoWorkUnit::Aborted));
    EXPECT_TRUE(AreSlotsFrom(2, &ZoWorkQueue::Destroy, &ZoWorkQueue::Append, &ZoWorkQueue::Length,
                             &ZoWorkQueue::Terminate, &ZoWorkQueue::IncreaseThreadCount,
                             &ZoWorkQueue::DecreaseThreadCount, &ZoWorkQueue::ThreadCount,
                             &ZoWorkQueue::Context));
    EXPECT_TRUE(AreSlotsFrom(2, &ZoThread::Work, &ZoThread::Init, &ZoThread::Cleanup));
    EXPECT_TRUE(AreSlotsFrom(2, &_Thread::Abort, &_Thread::Start, &_Thread::Suspend,
                             &_Thread::Continue, &_Thread::Giveup, &_Thread::GetOSThreadInfo));
    EXPECT_TRUE(AreSlotsFrom(2, &CmdObj::ProcessCmd));
    EXPECT_TRUE(AreSlotsFrom(2, &ZoResourceWatcher::IncrementCounter,
                             &ZoResourceWatcher::DecrementCounter, &ZoResourceWatcher::WaitForZero,
                             &ZoResourceWatcher::Reset));
}

}  // namespace

// The binary shape that an engine relies on: where the fields lie and which slot a virtual function
// has. Every mirror is written with plain types in the described order; on the 32-bit build it has
// the described offsets, on a 64-bit build pointers are wider and the order is the same.

#include <gtest/gtest.h>

#include <cstring>

#include "services.h"
#include "zocond.h"
#include "zomtobj.h"
#include "zotls.h"

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
    void* next;
    void* prev;
};
struct SectionShape : SynchroShape {
    ZoInt32 owningCount;
    ZoInt32 waitCount;
};
struct PosixShape : SectionShape {
    pthread_mutexattr_t attributes;
    pthread_mutex_t mutex;
    pthread_t owner;
};
struct DetectingShape : SectionShape {
    void* wrapped;
    void* owner;
};
struct ConditionShape : SynchroShape {
    void* logic;
    int value;
};
struct PosixConditionShape : ConditionShape {
    pthread_mutex_t mutex;
    pthread_mutexattr_t mutexAttributes;
    pthread_cond_t condition;
    pthread_condattr_t conditionAttributes;
};
struct RecordShape {
    void* cond;
    void* itemArray;
    short itemCount;
    unsigned short asyncWatcher;
    ZoInt32 attachCount;
    void* rwRecords;
    void* threadIdentity;
    void* waitingFor;
    void* spareRwRecord;
    void* concurrencyResult;
    void* ownedObject;
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
    static_assert(sizeof(ZoMTObj) == 2 * sizeof(void*));
    static_assert(sizeof(smp_io) == 2 * sizeof(void*));
#if LONG_MAX == 2147483647L
    static_assert(sizeof(ZoTLS) == 40 && offsetof(ZoTLS, waitingFor) == 24);
    static_assert(sizeof(ZoCritSect) == 24 && sizeof(ZoDLDCritSect) == 32);
    static_assert(sizeof(ZoTLSItem) == 20 && sizeof(ZoRWRecord) == 12);
#endif
}

// A pointer to a virtual member function holds 1 + its slot's offset in the table.
template <class Function>
std::size_t SlotOf(Function function) {
    std::size_t word = 0;
    std::memcpy(&word, &function, sizeof word);
    return (word - 1) / sizeof(void*);
}

TEST(Layout, VirtualFunctionsHaveTheirSlots) {
    EXPECT_EQ(SlotOf(&ZoSynchroObj::ForceRelease), 2U);  // the destructor takes slots 0 and 1
    EXPECT_EQ(SlotOf(&ZoCritSect::Begin), 3U);
    EXPECT_EQ(SlotOf(&ZoCritSect::Exit), 4U);
    EXPECT_EQ(SlotOf(&ZoCritSect::GetInfo), 5U);
    EXPECT_EQ(SlotOf(&ConditionLogic::SafeSet), 0U);
    EXPECT_EQ(SlotOf(&ConditionLogic::SafeClear), 1U);
    EXPECT_EQ(SlotOf(&ConditionLogic::SafeTest), 2U);
    EXPECT_EQ(SlotOf(&ConditionLogic::SafeSetApp), 3U);
    EXPECT_EQ(SlotOf(&Condition::SetCondition), 3U);
    EXPECT_EQ(SlotOf(&Condition::ClearCondition), 4U);
    EXPECT_EQ(SlotOf(&Condition::WaitForCondition), 5U);
    EXPECT_EQ(SlotOf(&Condition::Unlock), 6U);
    EXPECT_EQ(SlotOf(&Condition::GetInfo), 7U);
    EXPECT_EQ(SlotOf(&Condition::Lock), 8U);
    EXPECT_EQ(SlotOf(&Condition::SetConditionApp), 9U);
    using Write = void (_smp_io::*)(char const*, int);
    using WriteString = void (_smp_io::*)(ZoString const&);
    EXPECT_EQ(SlotOf(static_cast<Write>(&_smp_io::writeOutput)), 2U);
    EXPECT_EQ(SlotOf(static_cast<WriteString>(&_smp_io::writeOutput)), 3U);
    EXPECT_EQ(SlotOf(&_smp_io::flush), 4U);
    EXPECT_EQ(SlotOf(static_cast<smp_io& (smp_io::*)(char const*)>(&smp_io::operator<<)), 2U);
    EXPECT_EQ(SlotOf(static_cast<smp_io& (smp_io::*)(void*)>(&smp_io::operator<<)), 13U);
    EXPECT_EQ(SlotOf(&smp_io::Print), 14U);
    EXPECT_EQ(SlotOf(static_cast<smp_io& (smp_io::*)()>(&smp_io::flush)), 15U);
    EXPECT_EQ(SlotOf(static_cast<smp_io& (smp_io::*)(smp_io&)>(&smp_io::flush)), 16U);
    EXPECT_EQ(SlotOf(&ZoTransactionContext::GetID), 2U);
    EXPECT_EQ(SlotOf(&ZoTransactionContext::cast2ZoTransactionResource), 3U);
    EXPECT_EQ(SlotOf(&ZoMessageService::Reserved), 0U);
    EXPECT_EQ(SlotOf(&ZoMessageService::Show), 1U);
    EXPECT_EQ(SlotOf(&ZoLog::Printf), 2U);
    EXPECT_EQ(SlotOf(&ZoConfig::ReadValue), 2U);
}

}  // namespace

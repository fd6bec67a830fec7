// Contention figures: what waiting threads and queues leave behind, for each kind of object.

#include "zowaits.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <chrono>
#include <memory>

#include "services.h"
#include "zocond.h"
#include "zotls.h"

using namespace zotest;

namespace {

std::vector<ZoContention> All() {
    std::vector<ZoContention> figures(static_cast<std::size_t>(ZoCopyContention(nullptr, 0)));
    EXPECT_EQ(ZoCopyContention(figures.data(), static_cast<int>(figures.size())), figures.size());
    return figures;
}

// Of the one object of that name; kind Other without one.
ZoContention Of(std::string const& name) {
    ZoContention found{};
    int alive = 0;
    for (ZoContention const& one : All()) {
        if (one.name != name) continue;
        found = one;
        ++alive;
    }
    EXPECT_EQ(alive, 1) << name;
    return found;
}

TEST(Contention, CountsThoseWhoBlock) {
    using Step = std::function<void()>;
    for (bool const detection : {false, true}) {
        Services services;
        Context context(detection);
        std::unique_ptr<ZoCritSect> const section(ZoCritSect::Make("section")),
            other(ZoCritSect::Make("other"));
        std::unique_ptr<ZoRW_Mutex> const mutex(ZoRW_Mutex::Make(nullptr));
        std::unique_ptr<Condition> const condition(Condition::MakeCondition("condition"));
        Step const read = [&] { mutex->StartRW(0, 0); }, endRead = [&] { mutex->EndRW(0); };
        Step const write = [&] { mutex->StartRW(1, 0); }, endWrite = [&] { mutex->EndRW(1); };
        void* const record = ZoTLS::GetThreadLocalStorage()->threadIdentity;
        void* const handle = reinterpret_cast<void*>(pthread_self());
        struct {
            char const* name;
            ZoSynchroKind kind;
            void* owner;
            Step hold, release, wait, leave;
        } const cases[] = {
            {"section", detection ? ZoSynchroKind::Detecting : ZoSynchroKind::Section,
             detection ? record : handle, [&] { section->Begin(); }, [&] { section->Exit(); },
             [&] { section->Begin(); }, [&] { section->Exit(); }},
            {"RW_Mutex", ZoSynchroKind::Mutex, record, write, endWrite, read, endRead},
            {"RW_Mutex", ZoSynchroKind::Mutex, nullptr, read, endRead, write, endWrite},
            {"condition", ZoSynchroKind::Condition, nullptr, [] {},
             [&] { condition->SetCondition(); },
             [&] { condition->WaitForCondition(0, 4294967295); },
             [&] { condition->ClearCondition(); }},
        };
        for (auto const& [name, kind, owner, hold, release, wait, leave] : cases) {
            SCOPED_TRACE(name);
            ZoResetContention();
            auto const begun = std::chrono::steady_clock::now();
            unsigned rounds = 0;
            for (; Of(name).waits == 0; ++rounds) {
                hold();
                std::thread waiter([&, &wait = wait, &leave = leave] { wait(), leave(); });
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
                EXPECT_EQ(Of(name).owner, owner);
                release();
                waiter.join();
            }
            ZoContention const told = Of(name);
            EXPECT_EQ(told.kind, kind);
            EXPECT_EQ(told.owner, nullptr);
            EXPECT_EQ(told.waits, 1U) << rounds;
            EXPECT_EQ(told.longest, told.nanoseconds);
            EXPECT_LE(std::chrono::nanoseconds(told.longest),
                      std::chrono::steady_clock::now() - begun);
            EXPECT_EQ(Of("other").waits, 0U);
        }
        for (int i = 0; i < 2; ++i) condition->WaitForCondition(0, 3);
        ZoContention const slept = Of("condition");
        EXPECT_EQ(slept.waits, 3U);
        EXPECT_GE(slept.nanoseconds, 6'000'000U);
        EXPECT_LT(slept.longest, slept.nanoseconds);
        ZoResetContention();
        EXPECT_EQ(Of("condition").waits + Of("condition").nanoseconds + Of("condition").longest,
                  0U);
        ZoContention newest{};
        EXPECT_EQ(ZoCopyContention(&newest, 1), All().size());
        EXPECT_NE(newest.object, nullptr);
    }
    EXPECT_EQ(ZoCopyContention(nullptr, 0), 0);
    ZoResetContention();
}

TEST(Contention, TellsWhatBecameOfUnits) {
    Context context(false);
    ScriptedUnit units[200];
    ZoWorkQueue* const queue = ZoWorkQueue::Create(1, nullptr);
    std::atomic<bool> hasBegun{false}, mayEnd{false};
    ScriptedUnit held([&] {  // the worker cannot take a unit meanwhile
        hasBegun = true;
        Await([&] { return mayEnd.load(); });
    });
    queue->Append(&held);
    Await([&] { return hasBegun.load(); });
    for (ScriptedUnit& unit : units) queue->Append(&unit);
    EXPECT_EQ(Of("WorkQueue").greatestLength, 200U);
    queue->Terminate();
    mayEnd = true;
    EXPECT_EQ(queue->Append(units), -1);
    Await([&] { return queue->ThreadCount() == 0; });
    ZoContention const told = Of("WorkQueue");
    EXPECT_EQ(told.kind, ZoSynchroKind::Queue);
    EXPECT_EQ(told.refused, 1U);
    EXPECT_EQ(told.aborted, 200U);
    ZoResetContention();
    EXPECT_EQ(Of("WorkQueue").refused + Of("WorkQueue").aborted + Of("WorkQueue").greatestLength,
              0U);
    queue->Destroy();
}

}  // namespace

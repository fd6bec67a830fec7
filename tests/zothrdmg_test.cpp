// The thread manager: what each bracket takes at each level, the table of sections, the status
// report to the byte.

#include "zothrdmg.h"

#include <gtest/gtest.h>

#include <optional>

#include "cancelled.h"
#include "services.h"
#include "watchdog.h"
#include "zolock.h"
#include "zotls.h"

using namespace zotest;

namespace {

// Slot and name, in the order of the report.
std::pair<int, char const*> const Table[] = {
    {0, "ZoCSRootObject"},  {1, "ZoCSLoadCD"},         {2, "ZoCSCallbackMgr"},
    {3, "ZoCSCrypt"},       {4, "ZoCSBuildQTree"},     {5, "ZoCSLBucketLists"},
    {6, "ZoCSReg"},         {7, "ZoCSLBucketIndex"},   {8, "ZoCSBufferColl"},
    {9, "ZoCSObjMgr"},      {10, "ZoCSOnDemand"},      {11, "ZoCSZoMgr"},
    {12, "ZoCSZoObject"},   {13, "ZoCSAdmin"},         {14, "ZoCSDefaults"},
    {17, "ZoCSBucketMap"},  {18, "ZoCSCompareObject"}, {19, "ZoCSOql"},
    {20, "ZoCSTransIDX"},   {21, "ZoCSAccessPaths"},   {22, "ZoCSBaseInternals"},
    {23, "ZoCSCallbackID"}, {24, "ZoCSZoBaseLists"},   {25, "ZoCSServerWriter"},
};

class ThreadMgr : public testing::Test {
protected:
    std::string Status(ZoThreadMgr& manager) {
        context.console->text.clear();
        manager.PrintStatus();
        return context.console->text;
    }
    static std::string Head(ZoThreadMgr& manager, int readers) {
        return "ZoThread Status Report for Manager (" + Pointer(&manager) +
               ")\n  Reader/Writer Mutex:\n    Owner:(nil); Wx:#0; Rx:cond-val: " +
               std::to_string(readers) +
               "; Cond:RW_Exclusive: owning count: 0; wait count: 0, wait_rd #0, wait_wr #0\n"
               "  Critical Sections:\n";
    }
    // "w" the writer's depth, "r" the counted readers, "s" how often ZoCSServerWriter is entered.
    std::string State(ZoThreadMgr& manager) {
        std::string const status = Status(manager);
        return "w" + std::to_string(NumberAfter(status, "Wx:#")) + " r" +
               std::to_string(NumberAfter(status, "cond-val: ")) + " s" +
               std::to_string(NumberAfter(status, "ZoCSServerWriter: owning count: "));
    }

    Watchdog watchdog;
    Services services;
    Context context{false};
};

// A tour through the brackets, with the state after each: at levels from OneCS + 1 on, and from
// LessExclusiveCommit on. At the others nothing changes.
struct Stop {
    void (*step)(ZoThreadMgr&);
    char const* mutexOnly;
    char const* serialised;
};
Stop const Tour[] = {
    {[](ZoThreadMgr& m) { m.BeginReader("t"); }, "w0 r1 s0", "w0 r1 s0"},
    {[](ZoThreadMgr& m) { m.EndReader("t"); }, "w0 r0 s0", "w0 r0 s0"},
    {[](ZoThreadMgr& m) { m.BeginWriter("t", 0); }, "w1 r0 s0", "w1 r0 s1"},
    {[](ZoThreadMgr& m) { m.EndWriter("t", 0); }, "w0 r0 s0", "w0 r0 s0"},
    {[](ZoThreadMgr& m) { m.BeginWriter("t", 1); }, "w1 r0 s0", "w0 r1 s1"},
    {[](ZoThreadMgr& m) { m.UpgradeWriter("t"); }, "w1 r0 s0", "w1 r0 s1"},
    {[](ZoThreadMgr& m) { m.DowngradeWriter("t"); }, "w1 r0 s0", "w0 r1 s1"},
    {[](ZoThreadMgr& m) { m.EndWriter("t", 1); }, "w0 r0 s0", "w0 r0 s0"},
    {[](ZoThreadMgr& m) { m.BeginAdmin("t"); }, "w1 r0 s0", "w1 r0 s1"},
    {[](ZoThreadMgr& m) { m.EndAdmin("t"); }, "w0 r0 s0", "w0 r0 s0"},
};

TEST_F(ThreadMgr, EachLevelTakesWhatItShould) {
    for (unsigned long const level : {0UL, 2UL, 4UL, 5UL, 9UL, 11UL, 12UL, 13UL, ~0UL}) {
        SCOPED_TRACE(level);
        ZoThreadMgr manager(nullptr, level);
        EXPECT_EQ(manager.GetConcurrencyLevel(), level & 0xFFFFFFFFUL);
        EXPECT_EQ(manager.HasNoneCS(), level == 0);
        EXPECT_EQ(manager.HasOneCS(), level == 4);
        EXPECT_EQ(manager.HasAllCS(), level == 9);
        EXPECT_EQ(manager.HasLessExclusiveCommit(), level == 12);
        for (Stop const& stop : Tour) {
            stop.step(manager);
            EXPECT_EQ(State(manager), level >= 12 ? stop.serialised
                                      : level > 4 ? stop.mutexOnly
                                                  : "w0 r0 s0");
        }
    }
    EXPECT_TRUE(services.Messages().empty());
    EXPECT_TRUE(services.Assertions().empty());
}

TEST_F(ThreadMgr, AnIndexNamesItsSectionInAReportToTheByte) {
    // On a 64-bit build the upper half of the mask's word means nothing.
    ZoThreadMgr all(nullptr, 9, static_cast<unsigned long>(0xFFFFFFFF00002000ULL));
    EXPECT_EQ(all.GetDisableMask(), 0x2000U);
    all.BeginReader("t");
    for (auto const& entered : Table) {
        unsigned long const index = static_cast<unsigned long>(entered.first);
        all.BeginCriticalSection(index, "t");
        all.BeginCriticalSection(index, 3, "t");
        std::string expected = Head(all, 1);
        for (auto const& [slot, name] : Table) {
            bool const counts = slot == entered.first && slot != 13;
            char line[128];
            std::snprintf(line, sizeof line, "    %02d : %-18s : %s: owning count: %d; %s\n", slot,
                          name, name, counts ? 2 : 0, "wait count: 0");
            expected += line;
        }
        EXPECT_EQ(Status(all), expected);
        EXPECT_STREQ(all.GetCriticalSection(index, 99)->GetName(), entered.second);
        all.EndCriticalSection(index, 3, "t");
        all.EndCriticalSection(index, "t");
    }
    all.EndReader("t");
    EXPECT_GT(context.console->flushes, 0);

    ZoThreadMgr one(nullptr, ZoThreadMgr::OneCS, 0xFFFFFFFFUL);
    one.BeginCriticalSection(7, "t");
    one.BeginCriticalSection(4711, "t");
    EXPECT_EQ(Status(one),
              Head(one, 0) +
                  "    00 : ZoCSTheOnlyOne     : ZoCSTheOnlyOne: owning count: 2; wait count: 0\n");
    one.EndCriticalSection(15, "t");
    one.EndCriticalSection(20, "t");
    EXPECT_TRUE(services.Assertions().empty());
}

TEST_F(ThreadMgr, AnIndexWithoutASectionLocksNothing) {
    ZoThreadMgr none(nullptr, ZoThreadMgr::NoneCS);
    EXPECT_EQ(Status(none), "");
    ZoCritSect* const dummy = none.GetCriticalSection(5, 0);
    none.BeginCriticalSection(5, "t");
    EXPECT_EQ(InfoOf(dummy), ": owning count: 0; wait count: 0");
    EXPECT_TRUE(services.Assertions().empty());
    ZoThreadMgr all;
    std::string const before = Status(all);
    std::size_t expected = 0;
    for (unsigned long const index : {15UL, 26UL, ~0UL}) {
        EXPECT_EQ(all.GetCriticalSection(index, 0), dummy);
        all.BeginCriticalSection(index, "t");
        EXPECT_EQ(Status(all), before);
        all.EndCriticalSection(index, "t");
        expected += 3;
        EXPECT_EQ(services.Assertions(),
                  Services::Lines(expected, "(this->sections[index] != 0) src/zothrdmg 188"));
    }
}

TEST_F(ThreadMgr, TheFirstManagerIsTheMainOne) {
    EXPECT_EQ(MainThreadMgr(), nullptr);
    auto first = std::make_unique<ZoThreadMgr>(nullptr, 0UL);
    auto second = std::make_unique<ZoThreadMgr>();
    EXPECT_EQ(second->HasAllCS(), 1);
    EXPECT_EQ(MainThreadMgr(), first.get());
    first.reset();
    EXPECT_EQ(MainThreadMgr(), nullptr);
    ZoThreadMgr third;
    second.reset();
    EXPECT_EQ(MainThreadMgr(), &third);
}

TEST_F(ThreadMgr, AWriterWaitsInTheServerWriterSectionAndLeavesItWhenItIsCancelled) {
    ZoThreadMgr manager(nullptr, ZoThreadMgr::LessExclusiveCommit);
    manager.BeginReader("t");
    auto const waits = [&] { return NumberAfter(Status(manager), "wait_wr #") == 1; };
    CancelWhen([&] { return waits() && State(manager) == "w0 r1 s1"; },
               [&] { manager.BeginWriter("t", 0); });
    EXPECT_EQ(State(manager), "w0 r1 s0");
    CancelWhen([&] { return waits() && State(manager) == "w0 r1 s1"; },
               [&] { ZoWriter(manager, "t", ZoWriter::LessExclusive).Upgrade(); });
    EXPECT_EQ(State(manager), "w0 r1 s0");
    manager.EndReader("t");
    EXPECT_TRUE(services.Assertions().empty());
}

TEST_F(ThreadMgr, ScopesLeaveWhatTheyTook) {
    for (unsigned long const level : {0UL, 9UL, 12UL}) {
        ZoThreadMgr manager(nullptr, level);
        std::string states;
        auto const look = [&] { states += State(manager) + ", "; };
        {
            ZoNamedSection const server(manager, 25);
            ZoReader const reader(manager);
            look();
        }
        {
            ZoWriter writer(manager, "t", ZoWriter::LessExclusive);
            look();
            writer.Downgrade();
            writer.Upgrade();
            look();
            writer.Upgrade();
            writer.Downgrade();
            look();
            writer.Upgrade();
        }
        { ZoWriter(manager).Downgrade(); }
        { ZoAdmin const admin(manager), again(manager); }
        look();
        EXPECT_EQ(states, level == 0   ? "w0 r0 s0, w0 r0 s0, w0 r0 s0, w0 r0 s0, w0 r0 s0, "
                          : level == 9 ? "w0 r1 s1, w1 r0 s0, w1 r0 s0, w1 r0 s0, w0 r0 s0, "
                                       : "w0 r1 s1, w0 r1 s1, w1 r0 s1, w0 r1 s1, w0 r0 s0, ");
    }
    EXPECT_TRUE(services.Messages().empty());
    EXPECT_TRUE(services.Assertions().empty());
}

}  // namespace

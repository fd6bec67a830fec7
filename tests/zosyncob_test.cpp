// The chain of synchronisation objects, the threading mode, and the context that switches it on.

#include "zosyncob.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "services.h"
#include "zocond.h"
#include "zoevmdis.h"
#include "zointrlk.h"
#include "zotls.h"

using namespace zotest;

namespace {

// Records the order in which a walk of the chain meets the objects.
class Link : public ZoSynchroObj {
public:
    Link(char const* name, std::string& met) : ZoSynchroObj(name), met(met) {}
    void ForceRelease() override { met += GetName(); }

private:
    std::string& met;
};

TEST(SynchroChain, HoldsLiveObjectsNewestFirst) {
    std::string met;
    auto walk = [&met] {
        met.clear();
        ReleaseAllSynchronizationObjects();
        return met;
    };
    Link early("early", met);
    EXPECT_EQ(FirstSynchro, nullptr);
    Context context(false);
    ZoSynchroObj* const first = FirstSynchro;
    EXPECT_EQ(walk(), "");
    auto* a = new Link("a", met);
    auto* b = new Link("b", met);
    auto* c = new Link("c", met);
    auto* d = new Link("d", met);
    EXPECT_EQ(walk(), "dcba");
    delete b;
    EXPECT_EQ(walk(), "dca");
    delete d;
    EXPECT_EQ(FirstSynchro, c);
    EXPECT_EQ(walk(), "ca");
    delete a;
    EXPECT_EQ(walk(), "c");
    delete c;
    EXPECT_EQ(FirstSynchro, first);
}

TEST(SynchroChain, ReleasesWhatTheCallingThreadHolds) {
    for (bool detection : {false, true}) {
        Context context(detection);
        ZoCritSect* mine = ZoCritSect::Make("mine");
        ZoCritSect* others = ZoCritSect::Make("others");
        std::atomic<int> step{0};
        std::thread other([&] {
            others->Begin();
            step = 1;
            Await([&] { return step == 2; });
            mine->Begin();  // free although its owner never left it
            mine->Exit();
            others->Exit();
        });
        Await([&] { return step == 1; });
        for (int i = 0; i < 3; ++i) mine->Begin();
        ReleaseAllSynchronizationObjects();
        if (!detection) {
            EXPECT_EQ(InfoOf(mine), "mine: owning count: 0; wait count: 0");
            EXPECT_EQ(InfoOf(others), "others: owning count: 1; wait count: 0");
        } else {
            EXPECT_EQ(InfoOf(mine), "mine: is available");
            EXPECT_NE(InfoOf(others).find("owning count: 1; wait count: 0"), std::string::npos);
        }
        step = 2;
        other.join();
        delete mine;
        delete others;
    }
}

// Objects come and go on some threads while others walk the chain: a walk must meet complete
// objects only.
TEST(SynchroChain, SurvivesWalksWhileObjectsComeAndGo) {
    for (bool detection : {false, true}) {
        Context context(detection);
        ZoSynchroObj* const first = FirstSynchro;
        std::atomic<int> makers{2};
        std::vector<std::thread> threads;
        for (int t = 0; t < 2; ++t) {
            threads.emplace_back([&] {
                for (int i = 0; i < 300; ++i) {
                    ZoCritSect* section = ZoCritSect::Make("s");
                    Condition* condition = Condition::MakeCondition("c");
                    section->Begin();
                    std::this_thread::yield();  // for a walk that meets both
                    delete condition;
                    section->Exit();
                    delete section;
                }
                --makers;
            });
        }
        threads.emplace_back([&] {
            while (makers != 0) ReleaseAllSynchronizationObjects();
        });
        for (std::thread& thread : threads) thread.join();
        EXPECT_EQ(FirstSynchro, first);
    }
}

TEST(Context, SetUpAndTearDownAThousandTimes) {
    for (int i = 0; i < 1000; ++i) {
        ___ZoExtendedContext(0);  // nothing to tear down
        ___ZoExtendedContext(1);
        ZoTLS* const record = __defTLS;
        ___ZoExtendedContext(1);  // nothing to set up
        ASSERT_EQ(__defTLS, record);
        ASSERT_EQ(suppress_chaining, 0);
        ASSERT_EQ(record->attachCount, 0);
        ASSERT_EQ(record->threadIdentity, nullptr);
        ASSERT_EQ(InfoOf(fscs), "CS chain: owning count: 0; wait count: 0");
        ASSERT_EQ(InfoOf(csDLD), "DeadLockDetectionCS: owning count: 0; wait count: 0");
        ASSERT_EQ(*ZoGetCritSectCritSect(), csDLD);
        ASSERT_STREQ(FirstSynchro->GetName(), "EventDispatcher");
        ASSERT_NE(ZoEventMessageDispatcher::GetDispatcher(), nullptr);
        ASSERT_NE(GetZoInterlocked(), nullptr);
        ASSERT_EQ(GetDebugger()->current, 0U);
        ASSERT_EQ(ZoQaSemaphore::GetSemaphore(), nullptr);
        ___ZoExtendedContext(0);
        ASSERT_EQ(suppress_chaining, 1);
        ASSERT_EQ(fscs, nullptr);
        ASSERT_EQ(csDLD, nullptr);
        ASSERT_EQ(__defTLS, nullptr);
        ASSERT_EQ(GetConsole(), nullptr);
        ASSERT_EQ(ZoEventMessageDispatcher::GetDispatcher(), nullptr);
        ASSERT_EQ(GetZoInterlocked(), nullptr);
        ASSERT_EQ(GetDebugger(), nullptr);
    }
}

// Objects that outlive their context leave the next one's chain alone, whatever became of their
// neighbours in the old one.
TEST(Context, IsSurvivedByItsObjects) {
    ___ZoExtendedContext(1);
    ZoCritSect* objects[3];
    for (ZoCritSect*& object : objects) object = ZoCritSect::Make("old");
    ___ZoExtendedContext(0);
    delete objects[1];
    ___ZoExtendedContext(1);
    ZoSynchroObj* const first = FirstSynchro;
    delete objects[0];
    delete objects[2];
    EXPECT_EQ(FirstSynchro, first);
    ___ZoExtendedContext(0);
}

TEST(ThreadingMode, KeepsTheWholeWord) {
    EXPECT_EQ(ZoIsSingleThreaded(), 0);
    EXPECT_EQ(ZoGetThreadingMode(), 1);
    ZoSetThreadingMode(0);
    EXPECT_EQ(ZoIsSingleThreaded(), 1);
    ZoSetThreadingMode(0xFFFE);
    EXPECT_EQ(ZoGetThreadingMode(), 0xFFFE);
    EXPECT_EQ(ZoIsSingleThreaded(), 0);
    ZoSetThreadingMode(1);
}

}  // namespace

// The chain of synchronisation objects, the threading mode, and the context that switches it on.

#include "zosyncob.h"

#include <gmock/gmock.h>
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

// Objects come and go on some threads while others walk the chain: a walk must meet complete
// objects only.
TEST(SynchroChain, SurvivesWalksWhileObjectsComeAndGo) {
    for (bool detection : {false, true}) {
        Context context(detection);
        ZoSynchroObj* const first = FirstSynchro;
        std::atomic<int> makers{2};
        OnThreads(3, [&](int thread) {
            if (thread == 2) {
                while (makers != 0) ReleaseAllSynchronizationObjects();
                return;
            }
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
        ASSERT_EQ(GetDebugger()->current, 0U);
        ASSERT_EQ(ZoQaSemaphore::GetSemaphore(), nullptr);
        auto const globals = [] {
            return std::vector<void*>{fscs,
                                      csDLD,
                                      __defTLS,
                                      GetConsole(),
                                      GetDebugger(),
                                      GetZoInterlocked(),
                                      ZoEventMessageDispatcher::GetDispatcher()};
        };
        ASSERT_THAT(globals(), testing::Each(testing::NotNull()));
        ___ZoExtendedContext(0);
        ASSERT_EQ(suppress_chaining, 1);
        ASSERT_THAT(globals(), testing::Each(testing::IsNull()));
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

// The chain of synchronisation objects, the threading mode, and the context that switches it on.

#include "zosyncob.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "services.h"
#include "zocond.h"
#include "zointrlk.h"
#include "zotls.h"

using namespace zotest;

namespace {

// Records the order in which a walk of the chain meets the objects.
class Link : public ZoSynchroObj {
public:
    using ZoSynchroObj::ZoSynchroObj;
    void ForceRelease() override { met += GetName(); }
    inline static std::string met;
};

TEST(SynchroChain, HoldsLiveObjectsNewestFirst) {
    auto walk = [] {
        ReleaseAllSynchronizationObjects();
        return std::exchange(Link::met, "");
    };
    Link early("early");
    EXPECT_EQ(FirstSynchro, nullptr);
    Context context(false);
    ZoSynchroObj* const first = FirstSynchro;
    char const* const names[] = {"a", "b", "c", "d"};
    Link* links[4];
    for (int i = 0; i < 4; ++i) links[i] = new Link(names[i]);
    EXPECT_EQ(walk(), "dcba");
    for (auto const& [dead, left] : {std::pair{1, "dca"}, {3, "ca"}, {0, "c"}, {2, ""}}) {
        delete links[dead];
        EXPECT_EQ(walk(), left);
    }
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

// Another thread walks the chain when the process forks: the child can use it all the same.
TEST(SynchroChain, AChildFindsTheChainFree) {
    struct Lingering : ZoSynchroObj {
        Lingering() : ZoSynchroObj("lingering") {}
        void ForceRelease() override {
            inside = true;
            Await([this] { return forking.load(); });
            for (int i = 0; i < 1000; ++i) std::this_thread::yield();
        }
        std::atomic<bool> inside{false}, forking{false};
    };
    for (bool detection : {false, true}) {
        Context context(detection);
        ZoCritSect* const section = ZoCritSect::Make("s");
        Lingering lingering;
        std::thread walker(ReleaseAllSynchronizationObjects);
        Await([&] { return lingering.inside.load(); });
        lingering.forking = true;
        EXPECT_TRUE(ChildSucceeds([&] {
            delete section;
            delete Condition::MakeCondition("c");
            _exit(0);
        }));
        walker.join();
        delete section;
    }
}

TEST(Context, SetUpAndTearDownAThousandTimes) {
    auto const globals = [] {
        return std::vector<void*>{fscs,
                                  csDLD,
                                  __defTLS,
                                  GetConsole(),
                                  GetDebugger(),
                                  GetZoInterlocked(),
                                  ZoEventMessageDispatcher::GetDispatcher()};
    };
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
    EXPECT_EQ(ZoGetThreadingMode(), 1);
    unsigned short const modes[] = {0, 0xFFFE, 1};
    for (unsigned short const mode : modes) {
        ZoSetThreadingMode(mode);
        EXPECT_EQ(ZoGetThreadingMode(), mode);
        EXPECT_EQ(ZoIsSingleThreaded(), mode == 0);
    }
}

}  // namespace

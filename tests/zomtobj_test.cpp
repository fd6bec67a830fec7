// Objects with a section of their own.

#include "zomtobj.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <thread>

#include "services.h"

using namespace zotest;

namespace {

TEST(MTObject, FirstBeginsAtTheSameMomentMakeOneSection) {
    for (bool detection : {false, true}) {
        Context context(detection);
        ZoSynchroObj* const first = FirstSynchro;
        for (int round = 0; round < 200; ++round) {
            ZoMTObj object;
            int inside = 0, most = 0;
            auto const enter = [&] {
                most = std::max(most, ++inside);
                --inside;
            };
            OnThreads(3, [&](int thread) {
                if (thread == 0) {
                    object.BeginLongCriticalSection();
                    enter();
                    object.EndCriticalSection();
                } else {
                    ZoAutoSync outer(&object);
                    ZoAutoSync inner(&object);
                    enter();
                }
            });
            ASSERT_EQ(most, 1);
            ASSERT_NE(FirstSynchro, first);
            ASSERT_STREQ(FirstSynchro->GetName(), "?");
        }
        EXPECT_EQ(FirstSynchro, first) << "sections go with their objects";
    }
}

TEST(MTObject, GuardsHoldUntilTheOutermostIsGone) {
    ZoTransactionContext object, second;
    EXPECT_EQ(object.GetID(), &object);
    EXPECT_EQ(second.GetID(), &second);
    EXPECT_EQ(object.cast2ZoTransactionResource(), nullptr);

    auto outer = std::make_unique<ZoAutoSync>(&object);
    auto inner = std::make_unique<ZoAutoSync>(&object);
    std::atomic<bool> trying{false}, inside{false};
    std::thread other([&] {
        trying = true;
        ZoAutoSync hold(&object);
        inside = true;
    });
    Await([&] { return trying.load(); });
    inner.reset();
    for (int i = 0; i < 100; ++i) std::this_thread::yield();
    EXPECT_FALSE(inside);
    outer.reset();
    other.join();
    EXPECT_TRUE(inside);
}

}  // namespace

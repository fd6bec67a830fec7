// Objects with a section of their own.

#include "zomtobj.h"

#include <gtest/gtest.h>

#include <algorithm>

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
                    ZoAutoSync const hold(&object);
                    enter();
                }
            });
            ASSERT_EQ(most, 1);
            ASSERT_NE(FirstSynchro, first);
            ASSERT_STREQ(FirstSynchro->GetName(), "?");
            object.BeginLongCriticalSection();
            { ZoAutoSync const inner(&object); }
            std::string const info = InfoOf(static_cast<ZoCritSect*>(FirstSynchro));
            ASSERT_NE(info.find("owning count: 1;"), std::string::npos) << info;
            object.EndCriticalSection();
        }
        EXPECT_EQ(FirstSynchro, first) << "sections go with their objects";
    }
}

TEST(TransactionContext, NamesItselfAndIsNoResource) {
    ZoTransactionContext context;
    EXPECT_EQ(context.GetID(), &context);
    EXPECT_EQ(context.cast2ZoTransactionResource(), nullptr);
}

}  // namespace

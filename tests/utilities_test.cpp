// The small components: interlocked operations, module identification, encryption buffer.

#include <gtest/gtest.h>
#include <time.h>

#include <climits>
#include <cstdint>
#include <memory>

#include "services.h"
#include "smp_vers.h"
#include "zoencrbuf.h"
#include "zointrlk.h"

using namespace zotest;

namespace {

TEST(Interlocked, AnswersOldOrNewValue) {
    std::unique_ptr<ZoInterlocked> const lock(ZoInterlocked::Make());
    ZoInt32 word = INT_MAX;
    EXPECT_EQ(lock->Increment(&word), INT_MIN);
    EXPECT_EQ(lock->Decrement(&word), INT_MAX);
    EXPECT_EQ(lock->Exchange(&word, -3), INT_MAX);
    EXPECT_EQ(lock->ExchangeAdd(&word, 13), -3);
    EXPECT_EQ(word, 10);
    int a = 0, b = 0;
    void* pointer = &a;
    EXPECT_EQ(lock->CompareExchange(&pointer, nullptr, &b), &a);
    EXPECT_EQ(pointer, &a);
    EXPECT_EQ(lock->CompareExchange(&pointer, &b, &a), &a);
    EXPECT_EQ(pointer, &b);
}

// Each step of each thread changes the word by an operation of another kind.
TEST(Interlocked, LosesNothing) {
    constexpr int Threads = 4, Rounds = 200'000;
    std::unique_ptr<ZoInterlocked> const lock(ZoInterlocked::Make());
    ZoInt32 word = 0, taken = 0;
    void* top = nullptr;
    OnThreads(Threads, [&](int) {
        for (int round = 0; round < Rounds; ++round) {
            lock->Increment(&word);
            lock->ExchangeAdd(&word, 2);
            lock->ExchangeAdd(&taken, lock->Exchange(&word, 0));
            lock->Decrement(&taken);
            for (void *seen = nullptr, *found = nullptr;; seen = found) {
                found = lock->CompareExchange(&top, static_cast<char*>(seen) + 1, seen);
                if (found == seen) break;
            }
        }
    });
    EXPECT_EQ(word + taken, Threads * Rounds * 2);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(top), std::uintptr_t{Threads} * Rounds);
}

std::string checked;  // what the version check was asked

TEST(Module, DescribesItself) {
    std::string const title = "Kelvara Extended Algorithms";
    ZoUInt32 v[5] = {9, 9, 9, 9, 9}, number = 0;
    char const *name = nullptr, *dateTime = nullptr, *unknown = nullptr, *compiler = nullptr,
               *empty = nullptr;
    EXPECT_EQ(ZoDescribeDll(&v[0], &v[1], &v[2], &v[3], &v[4], &name, &dateTime, &unknown, &number,
                            &compiler, &empty),
              title);
    tm parsed{};
    EXPECT_STREQ(strptime(dateTime, "%b %e %Y %H:%M:%S", &parsed), "") << dateTime;
    EXPECT_EQ(std::strlen(dateTime), 20U);
    EXPECT_STREQ(unknown, "unknown");
    EXPECT_STREQ(empty, "");
    ZoSetVersionCheck([](unsigned long a, unsigned long b, unsigned long c, unsigned long d,
                         unsigned long e, int flags) {
        for (unsigned long each : {a, b, c, d, e}) checked += std::to_string(each) + ".";
        return flags;
    });
    EXPECT_EQ(ZoCheckDll(0x14), 0x17);
    ZoSetVersionCheck(nullptr);
    EXPECT_EQ(ZoCheckDll(0x14), 0) << "every version fits";
    std::string numbers;
    for (ZoUInt32 each : v) numbers += std::to_string(each) + ".";
    EXPECT_EQ(checked, numbers);

    numbers.back() = ' ';
    GETZOSMPINFO(nullptr, nullptr, nullptr, nullptr, nullptr);
    OnThreads(4, [&](int) {
        char const *info = nullptr, *date = nullptr, *shortName = nullptr, *shortCompiler = nullptr;
        ZoUInt32 shortNumber = 0;
        GETZOSMPINFO(&shortCompiler, &shortNumber, &info, &date, &shortName);
        EXPECT_EQ(info, title + " " + numbers);
        EXPECT_STREQ(shortName, "zo95Kex");
        EXPECT_STREQ(shortCompiler, compiler);
        EXPECT_EQ(shortNumber, number);
        EXPECT_EQ(date, std::string(dateTime, 11));
    });
    EXPECT_STREQ(name, "zo95Kex");
}

TEST(EncryptionBuffer, KeepsRoomInFrontOfItsData) {
    for (void* block : {static_cast<void*>(nullptr), std::malloc(116)}) {
        ZoEncryptionBuffer data(block, 16, 100, ZoRawBufferOwnAndGrow);
        EXPECT_EQ(data.GetData(), static_cast<char*>(data.GetBuf()) + 16);
        std::memcpy(data.GetData(), "kept", 5);
        for (unsigned long const length : {101UL, ULONG_MAX, ULONG_MAX - 15}) {
            EXPECT_EQ(data.SetDataLen(length), -2016);
        }
        EXPECT_EQ(data.EnsureCapacity(100'000), 0);
        EXPECT_EQ(data.GetDataLen(), 100UL);
        EXPECT_EQ(data.EnsureCapacity(1), 0);
        EXPECT_EQ(data.SetDataLen(100'000), 0);
        EXPECT_EQ(data.SetDataLen(100'001), -2016);
        EXPECT_STREQ(static_cast<char*>(data.GetData()), "kept");
    }
    char memory[116];
    ZoEncryptionBuffer given(memory, 16, 100, ZoRawBufferUseGiven);
    EXPECT_EQ(given.GetData(), memory + 16);
    EXPECT_EQ(given.EnsureCapacity(100), 0);
    EXPECT_EQ(given.EnsureCapacity(101), -2016);
    EXPECT_EQ(given.EnsureCapacity(ULONG_MAX - 3), -2016) << "the sum wraps round";
    ZoEncryptionBuffer none(nullptr, 16, 0, ZoRawBufferUseGiven);
    EXPECT_EQ(none.GetData(), nullptr);
    EXPECT_EQ(none.SetDataLen(0), -2016);
}

}  // namespace

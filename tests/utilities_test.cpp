// The small components: interlocked operations, module identification, encryption buffer.

#include <gtest/gtest.h>
#include <time.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

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
    constexpr int Threads = 4, Rounds = 20'000;
    std::unique_ptr<ZoInterlocked> const lock(ZoInterlocked::Make());
    ZoInt32 word = 0, taken = 0;
    void* top = nullptr;
    std::vector<std::thread> threads;
    for (int i = 0; i < Threads; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < Rounds; ++round) {
                lock->Increment(&word);
                lock->ExchangeAdd(&word, 2);
                lock->ExchangeAdd(&taken, lock->Exchange(&word, 0));
                lock->Decrement(&taken);
                for (void* seen = nullptr;;) {
                    void* const found =
                        lock->CompareExchange(&top, static_cast<char*>(seen) + 1, seen);
                    if (found == seen) break;
                    seen = found;
                }
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(word + taken, Threads * Rounds * 2);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(top), std::uintptr_t{Threads} * Rounds);
}

std::string checked;  // what the version check was asked

TEST(Module, DescribesItself) {
    std::string const title = "Kelvara Extended Algorithms";
    auto const hasForm = [](std::string const& text, char const* form) {
        tm parsed{};
        char const* const end = strptime(text.c_str(), form, &parsed);
        return end != nullptr && *end == '\0';
    };
    ZoUInt32 version[5] = {9, 9, 9, 9, 9}, number = 0, shortNumber = 0;
    char const *name = nullptr, *dateTime = nullptr, *unknown = nullptr, *compiler = nullptr,
               *empty = nullptr;
    EXPECT_EQ(ZoDescribeDll(&version[0], &version[1], &version[2], &version[3], &version[4], &name,
                            &dateTime, &unknown, &number, &compiler, &empty),
              title);
    EXPECT_EQ(version[4], 0U);
    EXPECT_STREQ(name, "zo95Kex");
    EXPECT_TRUE(hasForm(dateTime, "%b %e %Y %H:%M:%S")) << dateTime;
    EXPECT_EQ(std::strlen(dateTime), 20U);
    EXPECT_STREQ(unknown, "unknown");
    EXPECT_STREQ(empty, "");
    std::string numbers;
    for (ZoUInt32 each : version) numbers += (numbers.empty() ? "" : ".") + std::to_string(each);
    ZoVersionCheck const previous =
        ZoSetVersionCheck([](unsigned long a, unsigned long b, unsigned long c, unsigned long d,
                             unsigned long e, int flags) {
            for (unsigned long each : {a, b, c, d, e}) checked += std::to_string(each) + ".";
            return flags;
        });
    EXPECT_EQ(ZoCheckDll(0x14), 0x17);
    ZoSetVersionCheck(previous);
    EXPECT_EQ(checked, numbers + ".");

    GETZOSMPINFO(nullptr, nullptr, nullptr, nullptr, nullptr);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            char const* info = nullptr;
            GETZOSMPINFO(nullptr, nullptr, &info, nullptr, nullptr);
            EXPECT_EQ(info, title + " " + numbers + " ");
        });
    }
    for (std::thread& thread : threads) thread.join();
    char const *date = nullptr, *shortName = nullptr, *shortCompiler = nullptr;
    GETZOSMPINFO(&shortCompiler, &shortNumber, nullptr, &date, &shortName);
    EXPECT_STREQ(shortName, name);
    EXPECT_STREQ(shortCompiler, compiler);
    EXPECT_EQ(shortNumber, number);
    EXPECT_GT(number, 10000U);
    EXPECT_EQ(date, std::string(dateTime, 11));
}

TEST(EncryptionBuffer, KeepsRoomInFrontOfItsData) {
    ZoEncryptionBuffer buffer(nullptr, 16, 100, ZoRawBufferOwnAndGrow);
    ZoEncryptionBufferInterface& data = buffer;
    EXPECT_EQ(data.GetData(), static_cast<char*>(buffer.GetBuf()) + 16);
    EXPECT_EQ(data.GetDataLen(), 100UL);
    std::memcpy(data.GetData(), "kept", 5);
    EXPECT_EQ(data.SetDataLen(101), -2016);
    EXPECT_EQ(data.SetDataLen(ULONG_MAX), -2016);
    EXPECT_EQ(data.SetDataLen(ULONG_MAX - 15), -2016);
    EXPECT_EQ(data.GetDataLen(), 100UL);
    EXPECT_EQ(data.EnsureCapacity(200), 0);
    EXPECT_EQ(data.GetDataLen(), 100UL);
    EXPECT_EQ(data.SetDataLen(200), 0);
    EXPECT_EQ(data.SetDataLen(201), -2016);
    EXPECT_STREQ(static_cast<char*>(data.GetData()), "kept");
    EXPECT_EQ(data.SetDataLen(0), 0);
}

TEST(EncryptionBuffer, UsesGivenMemory) {
    char memory[116];
    ZoEncryptionBuffer buffer(memory, 16, 100, ZoRawBufferUseGiven);
    EXPECT_EQ(buffer.GetData(), memory + 16);
    EXPECT_EQ(buffer.SetDataLen(100), 0);
    EXPECT_EQ(buffer.EnsureCapacity(101), -2016);
    EXPECT_EQ(buffer.EnsureCapacity(ULONG_MAX - 3), -2016) << "the sum wraps round";
    ZoEncryptionBuffer none(nullptr, 16, 0, ZoRawBufferUseGiven);
    EXPECT_EQ(none.GetData(), nullptr);
}

}  // namespace

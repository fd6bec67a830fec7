// Marked reads: when they are used, what they show, and what becomes of them where a thread, a
// process or the kernel does not do its part. That no reader is overlooked and no writer left
// asleep is tested here on a bare loop and by the mutex's own tests, which run with marks as well.
// No schedule was found in which a missing barrier does harm on the processors at hand, so its
// place is tested instead; proofs/marks.pml says what it is for.

#include "read_marks.h"

#include <gtest/gtest.h>
#include <linux/membarrier.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstdarg>
#include <functional>
#include <memory>

#include "cancelled.h"
#include "mark_policy.h"
#include "rw_mutex.h"
#include "services.h"
#include "watchdog.h"

using namespace zotest;

namespace {

constexpr int Read = 0;
constexpr int Write = 1;

std::atomic<int> barriers{0}, registrations{0};
std::atomic<bool> refused{false};
std::function<void()> atBarrier;

}  // namespace

// The system call by which the library reaches membarrier.
extern "C" long __real_syscall(long number, ...);
extern "C" long __wrap_syscall(long number, ...) {
    std::va_list arguments;
    va_start(arguments, number);
    long of[6] = {};
    int const passed = number == SYS_futex ? 6 : 3;
    for (int i = 0; i < passed; ++i) of[i] = va_arg(arguments, long);
    va_end(arguments);
    if (number == SYS_membarrier) {
        bool const isBarrier = static_cast<int>(of[0]) == MEMBARRIER_CMD_PRIVATE_EXPEDITED;
        ++(isBarrier ? barriers : registrations);
        if (isBarrier && atBarrier) atBarrier();
        if (refused) {
            errno = EPERM;
            return -1;
        }
    }
    return __real_syscall(number, of[0], of[1], of[2], of[3], of[4], of[5]);
}

namespace {

class Marks : public testing::Test {
protected:
    explicit Marks(MarkPolicy::Mode mode = MarkPolicy::Always) {
        MarkPolicy::SetMode(mode);
        mutex.reset(ZoRW_Mutex::Make(nullptr));
    }
    ~Marks() override {
        refused = false;
        MarkPolicy::SetMode(MarkPolicy::WhereItPays);
    }

    static long Number(ZoRW_Mutex& of, char const* key) {
        char text[256];
        of.GetInfo(text, sizeof text);
        return NumberAfter(text, key);
    }
    static long Readers(ZoRW_Mutex& of) { return Number(of, "cond-val: "); }
    static long Waiting(ZoRW_Mutex& of) { return Number(of, "wait_wr #"); }
    static void Pause(int steps) {
        while (steps > 0) std::atomic_ref<int>(steps).fetch_sub(1, std::memory_order_relaxed);
    }
    static void Do(ZoRW_Mutex& with, int mode) {
        with.StartRW(mode, 0);
        with.EndRW(mode);
    }
    // How many barriers a write needs.
    int Barriers() {
        int const before = barriers;
        Do(*mutex, Write);
        return barriers - before;
    }

    Watchdog watchdog;
    Services services;
    Context context{false};
    std::unique_ptr<ZoRW_Mutex> mutex;
};

class MarksWhereTheyPay : public Marks {
protected:
    MarksWhereTheyPay() : Marks(MarkPolicy::WhereItPays) {}
};

TEST_F(MarksWhereTheyPay, AreAcceptedAfterManyReadsAndAsLongAsTheyPay) {
    if (MarkPolicy::CurrentMode() == MarkPolicy::Never) GTEST_SKIP() << "no membarrier";
    for (int turn = 0; turn < 10'000; ++turn) {
        Do(*mutex, turn % 20 == 0 ? Write : Read);
    }
    EXPECT_EQ(Barriers(), 0) << "a mix with many writes";
    auto const read = [&](int times) {
        for (int i = 0; i < times; ++i) Do(*mutex, Read);
    };
    read(100'000);
    EXPECT_EQ(Barriers(), 1);
    EXPECT_EQ(Barriers(), 0) << "nobody has read in between";
    read(10);
    EXPECT_EQ(Barriers(), 1) << "marks have paid for more than one withdrawal";
    int wasted = 0;
    for (int i = 0; i < 20; ++i) {
        read(10);
        wasted += Barriers();
    }
    EXPECT_LE(wasted, 8);
    read(10);
    EXPECT_EQ(Barriers(), 0) << "they pay no more";
}

// A thread has four marks. All its reads keep a writer out alike, in whatever order they end.
TEST_F(Marks, AThreadHasAFew) {
    constexpr std::size_t Mutexes = 6;
    std::unique_ptr<ZoRW_Mutex> of[Mutexes];
    for (auto& one : of) one.reset(ZoRW_Mutex::Make(nullptr));
    for (std::size_t first = 0; first < Mutexes; ++first) {
        int marked = 0;
        for (auto& one : of) Do(*one, Read);  // after a write the first one is counted
        for (auto& one : of) one->StartRW(Read, 0);
        for (auto& one : of) {
            EXPECT_EQ(Readers(*one), 1);
            marked += ReadMarks::Count(one.get());
        }
        EXPECT_EQ(marked, 4);
        std::vector<std::thread> writers;
        for (auto& one : of) writers.emplace_back(Do, std::ref(*one), Write);
        for (auto& one : of) Await([&] { return Waiting(*one) == 1; });
        for (std::size_t i = 0; i < Mutexes; ++i) {
            std::size_t const next = (first + i) % Mutexes;
            EXPECT_EQ(Readers(*of[next]), 1);
            of[next]->EndRW(Read);
            writers[next].join();
            EXPECT_EQ(Readers(*of[next]), 0);
        }
    }
}

// As one that ends with a counted read: the mutex is read for as long as it lives.
TEST_F(Marks, AThreadThatEndsWithOneReadsOn) {
    std::thread([&] { mutex->StartRW(Read, 0); }).join();
    EXPECT_EQ(Readers(*mutex), 1);
    CancelWhen([&] { return Waiting(*mutex) == 1; }, [&] { mutex->StartRW(Write, 0); });
    EXPECT_EQ(Readers(*mutex), 1);
    ZoRW_Mutex const* const address = mutex.get();
    mutex.reset();
    EXPECT_EQ(ReadMarks::Count(address), 0);
}

// The threads of the parent are not there, nor what they read; the kernel is asked anew.
TEST_F(Marks, AChildHasItsOwn) {
    std::atomic<bool> reads{false}, over{false};
    std::thread reader([&] {
        mutex->StartRW(Read, 0);
        reads = true;
        Await([&] { return over.load(); });
        mutex->EndRW(Read);
    });
    Await([&] { return reads.load(); });
    for (bool const without : {false, true}) {
        int const before = registrations;
        EXPECT_TRUE(ChildSucceeds([&] {
            bool const right = registrations == before + 1 && Readers(*mutex) == 0;
            Do(*mutex, Write);
            Do(*mutex, Read);
            mutex->StartRW(Read, 0);
            bool const marked = ReadMarks::Count(mutex.get()) == 1;
            mutex->EndRW(Read);
            _exit(right && marked != without ? 0 : 1);
        }));
        refused = true;
    }
    over = true;
    reader.join();
}

TEST_F(Marks, AreGivenUpWhenTheKernelRefuses) {
    Do(*mutex, Read);
    refused = true;
    Do(*mutex, Write);
    EXPECT_EQ(services.Log(),
              Services::Lines{"4 RW_Mutex: membarrier failed : 1; reads are counted "
                              "from now on."});
    mutex->StartRW(Read, 0);
    EXPECT_EQ(ReadMarks::Count(mutex.get()), 0);
    EXPECT_EQ(Readers(*mutex), 1);
    mutex->EndRW(Read);
}

// What the barrier is to make readers see comes before it.
TEST_F(Marks, AWriterClosesTheGateAndAnnouncesItselfBeforeTheBarrier) {
    Do(*mutex, Read);
    std::thread reader;
    std::atomic<bool> hasRead{false};
    atBarrier = [&] {
        reader = std::thread([&] {
            Do(*mutex, Read);
            hasRead = true;
        });
        Await([&] { return hasRead || Number(*mutex, "wait_rd #") == 1; });
        EXPECT_FALSE(hasRead);
        EXPECT_EQ(ReadMarks::announced, AddressOf(mutex.get()));
    };
    Do(*mutex, Write);
    atBarrier = nullptr;
    reader.join();
}

// The reader's mark becomes visible by the barrier only.
TEST_F(Marks, ATryToWriteThatMeetsOneOpensTheGateAgain) {
    ZoReadMark& mark = ZoTLS::GetThreadLocalStorage()->readMarks.marks[0];
    atBarrier = [&] { mark.mutex = AddressOf(mutex.get()) | IsRead; };
    EXPECT_EQ(ZoTryStartRW(mutex.get(), Write), 0);
    atBarrier = nullptr;
    EXPECT_EQ(ReadMarks::announced, 0U);
    mark.mutex = AddressOf(mutex.get());
    mutex->StartRW(Read, 0);
    EXPECT_EQ(ReadMarks::Count(mutex.get()), 1);
    mutex->EndRW(Read);
    EXPECT_EQ(ZoTryStartRW(mutex.get(), Write), 1);
    mutex->EndRW(Write);
}

// The writer destroys the mutex as soon as the reader's mark is gone.
TEST_F(Marks, AReaderThatEndsTouchesTheMutexNoMore) {
    for (int round = 0; round < 300; ++round) {
        std::atomic<bool> reads{false};
        mutex.reset(ZoRW_Mutex::Make(nullptr));
        std::thread reader([&, left = mutex.get()] {
            left->StartRW(Read, 0);
            reads = true;
            left->EndRW(Read);
        });
        Await([&] { return reads.load(); });
        Do(*mutex, Write);
        mutex.reset();
        reader.join();
    }
}

// Readers that do nothing else meet writers that come in bursts. Without the barrier a writer
// overlooks a mark that is still on its way; with a wrong order at the end it sleeps for ever.
TEST_F(Marks, NoReaderIsOverlooked) {
    long left = 0, right = 0;
    std::atomic<bool> over{false};
    std::thread reader([&] {
        for (long i = 0; !over; ++i) {
            mutex->StartRW(Read, 0);
            ASSERT_EQ(left, right);
            mutex->EndRW(Read);
        }
    });
    for (int i = 0; i < 20'000; ++i) {
        mutex->StartRW(Write, 0);
        ++left;
        Pause(i % 64);
        ++right;
        mutex->EndRW(Write);
        Pause(i % 512);
        watchdog.Progress();
    }
    over = true;
    reader.join();
}

}  // namespace

// A named section of the library, as zohost uses it: it owns its name, counts how often it was
// entered, and measures the longest wait.
//
//     Section turn("connection 1");
//     std::lock_guard<Section> hold(turn);

#ifndef KELVARA_HOST_SECTION_H_
#define KELVARA_HOST_SECTION_H_

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "zocrits.h"

class Section {
public:
    // Throws std::bad_alloc. A name of more than 95 bytes is cut.
    explicit Section(std::string_view name);
    Section(Section const&) = delete;
    Section& operator=(Section const&) = delete;
    ~Section();

    // Recursive. Named as std::lock_guard wants them.
    void lock() noexcept;
    void unlock() noexcept;

    char const* Name() const { return name.data(); }

private:
    friend class SectionRegister;

    static void AddOne(std::atomic<std::uint64_t>& count) noexcept {
        count.store(count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
    bool IsHeld() const noexcept {
        return entered.load(std::memory_order_relaxed) != left.load(std::memory_order_relaxed);
    }
    void EnterAndMeasure() noexcept;

    // The library keeps the pointer to the name only, and a deadlock report may tell it as long as
    // the section is alive.
    std::array<char, 96> name{};
    std::unique_ptr<ZoCritSect> section;
    // Written by the owner of the section only; atomic because totals read them any time, and lock
    // to see from their difference whether the section is held.
    std::atomic<std::uint64_t> entered{0};
    std::atomic<std::uint64_t> left{0};
    std::atomic<std::chrono::nanoseconds::rep> longestWait{0};
};

// Of all sections there have been.
struct SectionTotals {
    std::uint64_t entered = 0;
    std::chrono::nanoseconds longestWait{0};
    std::string longestWaitAt;  // that section's name
    std::size_t alive = 0;
};

SectionTotals TotalsOfSections();

// Here for the sake of SQLite's calls, some dozens for each record. Reading the clock twice would
// cost more than entering a free section, so it is read only when the section is held; a wait that
// begins in the very moment in which another thread enters is not measured.
inline void Section::lock() noexcept {
    if (IsHeld()) {
        EnterAndMeasure();
    } else {
        section->Begin();
    }
    AddOne(entered);
}

inline void Section::unlock() noexcept {
    AddOne(left);
    section->Exit();
}

#endif  // KELVARA_HOST_SECTION_H_

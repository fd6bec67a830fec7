#include "section.h"

#include <algorithm>
#include <mutex>
#include <new>
#include <set>

#include "zocrits.h"

// Knows the sections that are alive, and keeps what those that are gone had counted.
class SectionRegister {
public:
    static SectionRegister& Get() {
        // Never destroyed: SQLite's global mutexes are sections and may be destroyed at exit.
        static SectionRegister& theRegister = *new SectionRegister;
        return theRegister;
    }

    void Add(Section const* section) {
        std::lock_guard<std::mutex> hold(mutex);
        alive.insert(section);
    }

    void Remove(Section const* section) {
        std::lock_guard<std::mutex> hold(mutex);
        Count(*section, gone);
        alive.erase(section);
    }

    SectionTotals Totals() {
        std::lock_guard<std::mutex> hold(mutex);
        SectionTotals totals = gone;
        for (Section const* section : alive) Count(*section, totals);
        totals.alive = alive.size();
        return totals;
    }

private:
    static void Count(Section const& section, SectionTotals& totals) {
        totals.entered += section.entered.load(std::memory_order_relaxed);
        std::chrono::nanoseconds const wait(section.longestWait.load(std::memory_order_relaxed));
        if (wait > totals.longestWait) {
            totals.longestWait = wait;
            totals.longestWaitAt = section.Name();
        }
    }

    std::mutex mutex;  // guards both
    std::set<Section const*> alive;
    SectionTotals gone;
};

Section::Section(std::string_view text) {
    text.copy(name.data(), name.size() - 1);
    section.reset(ZoCritSect::Make(name.data()));
    if (section == nullptr) throw std::bad_alloc();
    SectionRegister::Get().Add(this);
}

Section::~Section() {
    SectionRegister::Get().Remove(this);
}

void Section::EnterAndMeasure() noexcept {
    auto const start = std::chrono::steady_clock::now();
    section->Begin();
    std::chrono::nanoseconds const wait = std::chrono::steady_clock::now() - start;
    if (wait.count() > longestWait.load(std::memory_order_relaxed)) {
        longestWait.store(wait.count(), std::memory_order_relaxed);
    }
}

SectionTotals TotalsOfSections() {
    return SectionRegister::Get().Totals();
}

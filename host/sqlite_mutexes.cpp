#include "sqlite_mutexes.h"

#include <sqlite3.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <memory>
#include <new>
#include <utility>

#include "section.h"

// SQLite knows it by name only and leaves its contents to the host.
struct sqlite3_mutex {
    explicit sqlite3_mutex(char const* name) : section(name) {}
    Section section;
};

namespace {

thread_local MutexNaming const* naming = nullptr;

// What SQLite uses each of its global mutexes for, from SQLITE_MUTEX_STATIC_MAIN on.
constexpr std::array StaticNames{
    "SQLite global mutex: main",       "SQLite global mutex: memory",
    "SQLite global mutex: open",       "SQLite global mutex: random numbers",
    "SQLite global mutex: page cache", "SQLite global mutex: page memory",
    "SQLite global mutex: program 1",  "SQLite global mutex: program 2",
    "SQLite global mutex: program 3",  "SQLite global mutex: files 1",
    "SQLite global mutex: files 2",    "SQLite global mutex: files 3",
};
static_assert(StaticNames.size() == SQLITE_MUTEX_STATIC_VFS3 - SQLITE_MUTEX_STATIC_MAIN + 1);

// Made when SQLite starts and destroyed when it ends; SQLite sees to it that one thread does.
std::array<std::unique_ptr<sqlite3_mutex>, StaticNames.size()> globals;

std::unique_ptr<sqlite3_mutex> MakeMutex(char const* name) noexcept {
    try {
        return std::make_unique<sqlite3_mutex>(name);
    } catch (std::bad_alloc const&) {
        return nullptr;  // SQLite knows what to do about it
    }
}

int Start() {
    for (std::size_t i = 0; i < globals.size(); ++i) {
        if (globals[i] == nullptr) globals[i] = MakeMutex(StaticNames[i]);
        if (globals[i] == nullptr) return SQLITE_NOMEM;
    }
    return SQLITE_OK;
}

int End() {
    for (auto& mutex : globals) mutex.reset();
    return SQLITE_OK;
}

sqlite3_mutex* MakeNumbered(char const* kind) {
    static std::atomic<unsigned> lastNumber{0};
    unsigned const number = lastNumber.fetch_add(1, std::memory_order_relaxed) + 1;
    std::array<char, 96> name{};
    if (naming != nullptr) {
        std::snprintf(name.data(), name.size(), "SQLite %s mutex %u of %s", kind, number,
                      naming->Owner().c_str());
    } else {
        std::snprintf(name.data(), name.size(), "SQLite %s mutex %u", kind, number);
    }
    return MakeMutex(name.data()).release();
}

sqlite3_mutex* Allocate(int type) {
    if (type == SQLITE_MUTEX_FAST) return MakeNumbered("fast");
    if (type == SQLITE_MUTEX_RECURSIVE) return MakeNumbered("recursive");
    auto const index = static_cast<std::size_t>(type - SQLITE_MUTEX_STATIC_MAIN);
    return index < globals.size() ? globals[index].get() : nullptr;
}

void Free(sqlite3_mutex* mutex) {
    delete mutex;
}

void Enter(sqlite3_mutex* mutex) {
    mutex->section.lock();
}

// Sections cannot be tried. SQLite uses this only to save time, and takes "busy" for an answer.
int Try(sqlite3_mutex*) {
    return SQLITE_BUSY;
}

void Leave(sqlite3_mutex* mutex) {
    mutex->section.unlock();
}

}  // namespace

sqlite3_mutex_methods const* SectionMutexMethods() {
    // The last two serve assertions inside a debug build of SQLite only.
    static constexpr sqlite3_mutex_methods methods{Start, End,   Allocate, Free,   Enter,
                                                   Try,   Leave, nullptr,  nullptr};
    return &methods;
}

MutexNaming::MutexNaming(std::string text) : owner(std::move(text)) {
    naming = this;
}

MutexNaming::~MutexNaming() {
    naming = nullptr;
}

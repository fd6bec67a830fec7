#include "owned_sections.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "chain.h"
#include "thread_life.h"
#include "zobase.h"
#include "zocrits.h"
#include "zotls.h"

constinit thread_local SectionOwner self;

namespace {

// The number of the thread that was introduced last.
std::atomic<unsigned long> lastNumber{0};

// The records that are kept for ever, the latest first. Never read: it tells a checker of leaks
// that they are not lost.
std::atomic<ZoTLS*> keptRecords{nullptr};

// What the reports called the calling thread; null if it had no record.
constinit thread_local void* identityAtEnd = nullptr;

// The system calls the destructor of a key in rounds, as long as the key has a value, and in this
// many at most. Destructors of other keys may still leave sections, so the sections are told as
// late as possible. That is the last round but one: in the last, a checker of threads has gone.
constexpr std::uintptr_t TellingRound = PTHREAD_DESTRUCTOR_ITERATIONS - 1;

// Made when the library is loaded.
struct EndKey {
    EndKey() : isMade(pthread_key_create(&key, OwnedSections::TellAtEnd) == 0) {}
    // Has the destructor called in the next round of the calling thread's end.
    bool Arm(std::uintptr_t round) const {
        return isMade && pthread_setspecific(key, reinterpret_cast<void*>(round)) == 0;
    }

    pthread_key_t key{};
    bool isMade;
};
EndKey const endKey;

// Names, one after the other, as far as they fit.
class NameList {
public:
    void Add(char const* name) {
        if (length >= sizeof text) return;
        char const* const separator = length == 0 ? "" : ", ";
        length += static_cast<std::size_t>(
            std::snprintf(text + length, sizeof text - length, "%s%s", separator, name));
    }
    char const* Text() const { return text; }

private:
    char text[1024] = "";
    std::size_t length = 0;
};

}  // namespace

void OwnedSections::Introduce() {
    self.handle = pthread_self();
    self.number = lastNumber.fetch_add(1, std::memory_order_relaxed) + 1;
    self.endIsNoticed = endKey.Arm(1);
}

void OwnedSections::RememberName(ZoTLS const* record) {
    identityAtEnd = record->threadIdentity;
}

bool OwnedSections::LetGo(ZoTLS* record) {
    if (record->ownedSections == 0) return true;
    ZoTLS* latest = keptRecords.load(std::memory_order_relaxed);
    do {
        record->nextKept = latest;
    } while (!keptRecords.compare_exchange_weak(latest, record, std::memory_order_relaxed));
    return false;
}

void OwnedSections::TellAtEnd(void* value) {
    auto const round = reinterpret_cast<std::uintptr_t>(value);
    if (round < TellingRound) {
        endKey.Arm(round + 1);
        return;
    }
    if (self.owned != 0) Tell();
    EndingThreads::Leave();
}

// The names are collected first: the log is the host's code and is called without a lock.
void OwnedSections::Tell() {
    void* const identity =
        identityAtEnd != nullptr ? identityAtEnd : reinterpret_cast<void*>(self.handle);
    ZoInt32 unchained = self.owned;
    NameList names;
    if (fscs != nullptr) {
        fscs->Begin();
        for (ZoSynchroObj* object = FirstSynchro; object != nullptr; object = object->next) {
            auto const* const section = dynamic_cast<PosixCritSect*>(object);
            if (section == nullptr || !section->IsMine()) continue;
            names.Add(section->GetName());
            --unchained;
        }
        fscs->Exit();
    }
    if (unchained != 0) names.Add("unchained ones");
    ZoSystemLog()->Printf(4, "ZoThread %p ended and still owns critical sections: %s", identity,
                          names.Text());
}

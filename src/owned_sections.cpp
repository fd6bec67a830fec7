#include "owned_sections.h"

#include <atomic>
#include <cstdint>

#include "chain.h"
#include "current_thread.h"
#include "ending_threads.h"
#include "misuse.h"
#include "zocrits.h"
#include "zotls.h"

constinit thread_local SectionOwner self;

namespace {

// The number of the thread that was introduced last.
std::atomic<unsigned long> lastNumber{0};

// The records that are kept for ever, the latest first. The list only grows, by read-modify-writes
// with release order, and these form one release sequence: a thread that reads the head with
// acquire order sees every link. The list also keeps a leak checker from reporting the records.
std::atomic<ZoTLS*> keptRecords{nullptr};

// The identity of the calling thread in reports; null if it had no record.
constinit thread_local void* identityAtEnd = nullptr;

// The system calls the destructor of a key in rounds, as long as the key has a value, and in this
// many at most. Destructors of other keys may still leave sections, so the sections are logged as
// late as possible. That is the last round but one: ThreadSanitizer ends its thread in the last.
constexpr std::uintptr_t TellingRound = PTHREAD_DESTRUCTOR_ITERATIONS - 1;

// Made when the library is loaded.
struct EndKey {
    EndKey() : isMade(pthread_key_create(&key, OwnedSections::TellAtEnd) == 0) {}
    // Makes the system call the destructor in the next round of the calling thread's end.
    bool Arm(std::uintptr_t round) const {
        return isMade && pthread_setspecific(key, reinterpret_cast<void*>(round)) == 0;
    }

    pthread_key_t key{};
    bool isMade;
};
EndKey const endKey;

}  // namespace

void OwnedSections::Introduce() {
    self.handle = pthread_self();
    self.number = lastNumber.fetch_add(1, std::memory_order_relaxed) + 1;
    self.endIsNoticed = endKey.Arm(1);
}

void OwnedSections::RememberName(ZoTLS const* record) {
    identityAtEnd = record->threadIdentity;
}

void* OwnedSections::Identity() {
    if (currentRecord != nullptr) return currentRecord->threadIdentity;
    return identityAtEnd != nullptr ? identityAtEnd : reinterpret_cast<void*>(pthread_self());
}

bool OwnedSections::LetGo(ZoTLS* record) {
    if (record->ownedSections == 0) return true;
    ZoTLS* latest = keptRecords.load(std::memory_order_relaxed);
    do {
        record->nextKept = latest;
    } while (!keptRecords.compare_exchange_weak(latest, record, std::memory_order_release,
                                                std::memory_order_relaxed));
    return false;
}

bool OwnedSections::IsKept(ZoTLS const* record) {
    if (record == nullptr) return false;
    ZoTLS const* kept = keptRecords.load(std::memory_order_acquire);
    while (kept != nullptr && kept != record) kept = kept->nextKept;
    return kept != nullptr;
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
    // Before the chain's lock is entered, which may make a record anew.
    void* const identity = Identity();
    ZoInt32 unchained = self.owned;
    NameList names;
    {
        SectionHold const hold(fscs);
        ZoSynchroObj* object = hold.IsHeld() ? FirstSynchro : nullptr;
        for (; object != nullptr; object = object->next) {
            auto const* const section = dynamic_cast<PosixCritSect*>(object);
            if (section == nullptr || !section->IsMine()) continue;
            names.Add("%s", section->GetName());
            --unchained;
        }
    }
    if (unchained != 0) names.Add("unchained ones");
    Misuse::TellOwnedAtEnd(identity, names);
}

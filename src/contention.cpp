#include <cstring>

#include "rw_mutex.h"
#include "section_hold.h"
#include "wait_figures.h"
#include "wait_graph.h"
#include "zocond.h"
#include "zocrits.h"
#include "zosyncob.h"

constinit thread_local std::time_t waitingSince = 0;

// The figures of one object. Used with the chain's lock held, which keeps the objects alive.
class Contention {
public:
    template <class Visit>
    static void ForEach(Visit visit) ZO_REQUIRES(fscs) {
        for (ZoSynchroObj* const own :
             {static_cast<ZoSynchroObj*>(csDLD), static_cast<ZoSynchroObj*>(fscs)}) {
            if (own != nullptr) visit(Contention(own));
        }
        for (ZoSynchroObj* object = FirstSynchro; object != nullptr; object = object->next) {
            Contention const found(object);
            if (!found.isPart) visit(found);
        }
    }

    void CopyTo(ZoContention& to) const {
        to = {};
        to.object = object;
        to.kind = kind;
        if (char const* const name = object->GetName()) {
            std::strncpy(to.name, name, sizeof to.name - 1);
        }
        to.owner = owner;
        for (ZoWaitFigures* const part : figures) {
            if (part == nullptr) continue;
            to.waits += part->waits.load(std::memory_order_relaxed);
            to.nanoseconds += part->nanoseconds.load(std::memory_order_relaxed);
            unsigned long long const longest = part->longest.load(std::memory_order_relaxed);
            if (longest > to.longest) to.longest = longest;
        }
        if (queue == nullptr) return;
        to.refused = queue->refused.load(std::memory_order_relaxed);
        to.aborted = queue->aborted.load(std::memory_order_relaxed);
        to.greatestLength = queue->greatestLength.load(std::memory_order_relaxed);
    }

    void Reset() const {
        for (ZoWaitFigures* const part : figures) {
            if (part != nullptr) SetToZero(part->waits, part->nanoseconds, part->longest);
        }
        if (queue != nullptr) SetToZero(queue->refused, queue->aborted, queue->greatestLength);
    }

private:
    explicit Contention(ZoSynchroObj* object) : object(object) {
        if (auto* const section = dynamic_cast<ZoCritSect*>(object)) {
            Take(*section);
        } else if (auto* const mutex = dynamic_cast<ZoGenRW_Mutex*>(object)) {
            kind = ZoSynchroKind::Mutex;
            owner = mutex->owner.load(std::memory_order_relaxed);
            auto* const readers = dynamic_cast<POSIXCondition*>(mutex->readers);
            figures[0] = FiguresOf(*mutex->exclusive);
            figures[1] = readers != nullptr ? &readers->figures : nullptr;
        } else if (auto* const condition = dynamic_cast<POSIXCondition*>(object)) {
            queue = condition->queueFigures.load(std::memory_order_acquire);
            kind = queue != nullptr ? ZoSynchroKind::Queue : ZoSynchroKind::Condition;
            figures[0] = &condition->figures;
        }
    }

    void Take(ZoCritSect& section) {
        figures[0] = FiguresOf(section);
        if (auto* const detecting = dynamic_cast<ZoDLDCritSect*>(&section)) {
            kind = ZoSynchroKind::Detecting;
            owner = WaitForGraph::IdentityOfOwner(detecting);
        } else if (auto* const plain = dynamic_cast<PosixCritSect*>(&section)) {
            kind = ZoSynchroKind::Section;
            owner = reinterpret_cast<void*>(plain->owner.load(std::memory_order_relaxed));
            isPart = plain->partOf != nullptr;
        }
    }

    // A detecting section is waited for in the section that it wraps.
    static ZoWaitFigures* FiguresOf(ZoCritSect& section) {
        auto* const detecting = dynamic_cast<ZoDLDCritSect*>(&section);
        auto* const plain =
            detecting != nullptr ? detecting->plain : dynamic_cast<PosixCritSect*>(&section);
        return plain != nullptr ? &plain->figures : nullptr;
    }

    static void SetToZero(auto&... figure) { (figure.store(0, std::memory_order_relaxed), ...); }

    ZoSynchroObj* const object;
    ZoSynchroKind kind = ZoSynchroKind::Other;
    void* owner = nullptr;
    bool isPart = false;  // of another object, whose figures include this one's
    ZoWaitFigures* figures[2] = {};
    ZoQueueFigures* queue = nullptr;
};

int ZoCopyContention(ZoContention* to, int room) {
    SectionHold const hold(fscs);
    if (!hold.IsHeld()) return 0;
    int alive = 0;
    Contention::ForEach([&](Contention const& found) {
        if (alive < room) found.CopyTo(to[alive]);
        ++alive;
    });
    return alive;
}

void ZoResetContention() {
    SectionHold const hold(fscs);
    if (!hold.IsHeld()) return;
    Contention::ForEach([](Contention const& found) { found.Reset(); });
}

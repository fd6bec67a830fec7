#include "deadlock_ring.h"

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "host_services.h"
#include "locking_plan.h"
#include "transactions.h"
#include "zotls.h"

namespace {

// A client that fails before it met the others takes itself off the meeting, or they would wait.
class Appointment {
public:
    explicit Appointment(std::barrier<>& meeting) : meeting(meeting) {}
    Appointment(Appointment const&) = delete;
    Appointment& operator=(Appointment const&) = delete;
    ~Appointment() {
        if (!kept) meeting.arrive_and_drop();
    }

    void Keep() {
        kept = true;
        meeting.arrive_and_wait();
    }

private:
    std::barrier<>& meeting;
    bool kept = false;
};

}  // namespace

class RingClient final : public DeadlockVictim {
public:
    RingClient(DeadlockRing& ring, unsigned client, OperationCounts& counts)
        : ring(ring),
          client(client),
          counts(counts),
          session(ring.sessions.Of(client)),
          own(*ring.sections[client]),
          neighbours(*ring.sections[(client + 1) % ring.sections.size()]) {}

    void Run() {
        Appointment appointment(ring.meeting);
        if (IsReader()) reading.emplace(session.plan, "read on");
        Share const share = Read();
        if (!IsReader()) held.lock();
        appointment.Keep();
        if (IsWriter()) {
            WriteAgainstReader(share);
        } else if (ring.throughReaders) {
            LeaveAllAndWrite(share);
        } else {
            WriteInSections(share);
        }
        ++ring.finished;
    }

    void GiveWay() noexcept override {
        if (ring.stays) return;
        std::printf("client %u, thread %p, would close the ring: it gives up %s%s%s for now\n",
                    client + 1, ZoTLS::GetThreadLocalStorage()->threadIdentity,
                    IsReader() ? "its read" : "\"", IsReader() ? "" : own.Name(),
                    IsReader() ? "" : "\"");
        std::fflush(stdout);
        LeaveOwn();
        gaveWay = true;
    }

private:
    using Share = std::vector<StoredCharacter>;

    bool IsReader() const { return ring.throughReaders && client == 0; }
    bool IsWriter() const { return ring.throughReaders && client + 1 == ring.sections.size(); }

    void EnterNeighbours() {
        VictimScope scope(*this);
        neighbours.lock();
    }

    void LeaveOwn() {
        if (IsReader()) {
            reading.reset();
        } else {
            held.unlock();
        }
    }

    void WriteInSections(Share const& share) {
        EnterNeighbours();
        std::lock_guard<Section> leaveNeighbours(neighbours, std::adopt_lock);
        if (gaveWay) {
            BeginAgain();
        } else {
            Write(share);
        }
    }

    void LeaveAllAndWrite(Share const& share) {
        EnterNeighbours();
        neighbours.unlock();
        if (!gaveWay) LeaveOwn();
        Write(gaveWay ? Read() : share);
        if (gaveWay) ++ring.repeated;
    }

    // Others may have had the section meanwhile, but not the database.
    void WriteAgainstReader(Share const& share) {
        VictimScope scope(*this);
        Write(share);
        if (gaveWay) ++ring.repeated;
    }

    // Holds the neighbour's section, which came at last, and takes its own after it. One client
    // that goes the other way round is enough to make a ring impossible.
    void BeginAgain() {
        held.lock();
        Write(Read());
        ++ring.repeated;
        std::printf("client %u has begun again and finished its work\n", client + 1);
    }

    Share Read() {
        ReadTransaction transaction(session, "read a share");
        Share share;
        for (std::size_t i = client; i < ring.records.size(); i += ring.sections.size()) {
            CharacterRecord const& record = ring.records[i];
            share.push_back(LookedUp(transaction.Find(record.category, record.code), record));
        }
        transaction.End();
        return share;
    }

    // Makes sure that nothing has changed since it was read.
    void Write(Share const& share) {
        WriteTransaction transaction(session, "write a share");
        for (StoredCharacter character : share) {
            CharacterRecord const& record = character.record;
            if (LookedUp(transaction.Find(record.category, record.code), record) != character) {
                throw EngineError(CodePointName(record.code) +
                                  " changed while its client held its section");
            }
            ++character.revision;
            transaction.Update(character);
            counts.Add(Operation::Update);
        }
        transaction.Commit();
    }

    StoredCharacter LookedUp(std::optional<StoredCharacter> found, CharacterRecord const& record) {
        counts.Add(Operation::LookUp);
        if (!found.has_value()) throw EngineError(CodePointName(record.code) + " is not there");
        return *std::move(found);
    }

    DeadlockRing& ring;
    unsigned const client;
    OperationCounts& counts;
    Session& session;
    Section& own;
    Section& neighbours;
    std::unique_lock<Section> held{own, std::defer_lock};
    std::optional<ReaderBracket> reading;
    bool gaveWay = false;
};

DeadlockRing::DeadlockRing(std::vector<CharacterRecord> const& records, Sessions& sessions,
                           unsigned clients, bool throughReaders, bool stays)
    : records(records),
      sessions(sessions),
      throughReaders(throughReaders),
      stays(stays),
      meeting(static_cast<std::ptrdiff_t>(clients)) {
    for (unsigned client = 1; client <= clients; ++client) {
        sections.push_back(
            std::make_unique<Section>("records of client " + std::to_string(client)));
    }
}

void DeadlockRing::Run(unsigned client, OperationCounts& counts) {
    RingClient(*this, client, counts).Run();
}

#include "deadlock_ring.h"

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <string>

#include "host_services.h"
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
        std::lock_guard<Section> turn(session.turn);
        Appointment appointment(ring.meeting);
        Transaction transaction(session.connection, Transaction::Reading);
        Share const share = Read();
        held.lock();
        appointment.Keep();
        EnterNeighbours();
        std::lock_guard<Section> leaveNeighbours(neighbours, std::adopt_lock);
        if (gaveWay) {
            transaction.RollBack();
            BeginAgain();
        } else {
            transaction.Commit();
            Write(share);
        }
        ++ring.finished;
    }

    void GiveWay() noexcept override {
        std::printf("client %u, thread %p, would close the ring: it gives up \"%s\" for now\n",
                    client + 1, ZoTLS::GetThreadLocalStorage()->threadIdentity, own.Name());
        std::fflush(stdout);
        held.unlock();
        gaveWay = true;
    }

private:
    using Share = std::vector<StoredCharacter>;

    void EnterNeighbours() {
        VictimScope scope(*this);
        neighbours.lock();
    }

    // Holds the neighbour's section, which came at last, and takes its own after it. One client
    // that goes the other way round is enough to make a ring impossible.
    void BeginAgain() {
        held.lock();
        Transaction transaction(session.connection, Transaction::Reading);
        Share const share = Read();
        transaction.Commit();
        Write(share);
        ++ring.repeated;
        std::printf("client %u has begun again and finished its work\n", client + 1);
    }

    Share Read() {
        Share share;
        for (std::size_t i = client; i < ring.records.size(); i += ring.sections.size()) {
            CharacterRecord const& record = ring.records[i];
            share.push_back(Find(record));
        }
        return share;
    }

    // SQLite lets one transaction write at a time, and none that has read an older state. So the
    // writing is a transaction of its own, which makes sure that nothing has changed in between.
    void Write(Share const& share) {
        Transaction transaction(session.connection, Transaction::Writing);
        for (StoredCharacter character : share) {
            if (Find(character.record) != character) {
                throw EngineError(CodePointName(character.record.code) +
                                  " changed while its client held its section");
            }
            ++character.revision;
            session.store.Update(character);
            counts.Add(Operation::Update);
        }
        transaction.Commit();
    }

    StoredCharacter Find(CharacterRecord const& record) {
        std::optional<StoredCharacter> found = session.store.Find(record.category, record.code);
        counts.Add(Operation::LookUp);
        if (!found.has_value()) throw EngineError(CodePointName(record.code) + " is not there");
        return *found;
    }

    DeadlockRing& ring;
    unsigned const client;
    OperationCounts& counts;
    Session& session;
    Section& own;
    Section& neighbours;
    std::unique_lock<Section> held{own, std::defer_lock};
    bool gaveWay = false;
};

DeadlockRing::DeadlockRing(std::vector<CharacterRecord> const& records, Sessions& sessions,
                           unsigned clients)
    : records(records), sessions(sessions), meeting(static_cast<std::ptrdiff_t>(clients)) {
    for (unsigned client = 1; client <= clients; ++client) {
        sections.push_back(
            std::make_unique<Section>("records of client " + std::to_string(client)));
    }
}

void DeadlockRing::Run(unsigned client, OperationCounts& counts) {
    RingClient(*this, client, counts).Run();
}

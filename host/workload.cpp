#include "workload.h"

#include <algorithm>
#include <mutex>

#include "interrupt.h"

namespace {

// Records in a transaction.
constexpr std::size_t BatchSize = 128;
// In each pass one record in this many is deleted and inserted again, another one every time.
constexpr std::size_t ReinsertOneIn = 8;

}  // namespace

// --- passes ------------------------------------------------------------------------------------

Passes::Passes(std::size_t recordCount, std::chrono::steady_clock::time_point deadline)
    : recordCount(recordCount), deadline(deadline), section("handing out batches") {}

std::optional<Batch> Passes::Next() {
    std::lock_guard<Section> hold(section);
    if (next == recordCount && !ended && MayBeginAnother()) {
        next = 0;
        ++pass;
    }
    if (next == recordCount || ended) {
        ended = true;
        return std::nullopt;
    }
    std::size_t const begin = next;
    next = std::min(begin + BatchSize, recordCount);
    return Batch{pass, begin, next};
}

bool Passes::MayBeginAnother() const {
    return std::chrono::steady_clock::now() < deadline && !WasInterrupted();
}

void Passes::Abandon() {
    std::lock_guard<Section> hold(section);
    ended = true;
}

unsigned Passes::Begun() const {
    std::lock_guard<Section> hold(section);
    return pass;
}

// --- the clients' work -------------------------------------------------------------------------

template <class DoBatch>
void Workload::ForEachBatch(Passes& passes, DoBatch doBatch) {
    try {
        while (std::optional<Batch> const batch = passes.Next()) doBatch(*batch);
    } catch (...) {
        passes.Abandon();
        throw;
    }
}

void Workload::Load(unsigned client, Passes& passes) {
    Session& session = sessions.Of(client);
    ForEachBatch(passes, [&](Batch const& batch) { LoadBatch(session, batch); });
}

void Workload::Work(unsigned client, Passes& passes) {
    Session& session = sessions.Of(client);
    ForEachBatch(passes, [&](Batch const& batch) {
        LookUpBatch(session, batch);
        ChangeBatch(session, batch);
    });
}

void Workload::LoadBatch(Session& session, Batch const& batch) {
    std::lock_guard<Section> turn(session.turn);
    Transaction transaction(session.connection, Transaction::Writing);
    for (std::size_t i = batch.begin; i < batch.end; ++i) session.store.Insert({records[i], 0});
    transaction.Commit();
    counts.Add(Operation::Load, batch.end - batch.begin);
}

// Sees one state of the database, while others go on changing it.
void Workload::LookUpBatch(Session& session, Batch const& batch) {
    std::lock_guard<Section> turn(session.turn);
    Transaction transaction(session.connection, Transaction::Reading);
    for (std::size_t i = batch.begin; i < batch.end; ++i) LookUp(session, records[i]);
    transaction.Commit();
}

// Takes each object out, changes it and puts it back, so a change that another client makes in
// between would be lost and missed by the check.
void Workload::ChangeBatch(Session& session, Batch const& batch) {
    std::lock_guard<Section> turn(session.turn);
    Transaction transaction(session.connection, Transaction::Writing);
    for (std::size_t i = batch.begin; i < batch.end; ++i) {
        std::optional<StoredCharacter> character = LookUp(session, records[i]);
        if (!character.has_value()) continue;
        ++character->revision;
        if (i % ReinsertOneIn == batch.pass % ReinsertOneIn) {
            Require(session.store.Delete(*character), records[i], "could not be deleted");
            counts.Add(Operation::Delete);
            session.store.Insert(*character);
            counts.Add(Operation::Reinsert);
        } else {
            Require(session.store.Update(*character), records[i], "could not be updated");
            counts.Add(Operation::Update);
        }
    }
    transaction.Commit();
}

std::optional<StoredCharacter> Workload::LookUp(Session& session, CharacterRecord const& record) {
    std::optional<StoredCharacter> found = session.store.Find(record.category, record.code);
    counts.Add(Operation::LookUp);
    Require(found.has_value(), record, "was not found");
    if (found.has_value()) Require(found->record == record, record, "is not what was stored");
    return found;
}

void Workload::Require(bool good, CharacterRecord const& record, char const* complaint) {
    if (!good) complaints.Add(CodePointName(record.code) + " " + complaint);
}

#include "workload.h"

#include <algorithm>
#include <mutex>
#include <thread>

#include "signals.h"
#include "transactions.h"

namespace {

// Ends early when the run is to end.
void Rest(std::chrono::milliseconds time) {
    constexpr std::chrono::milliseconds AtOnce{50};
    while (time.count() > 0 && !WasInterrupted()) {
        std::chrono::milliseconds const part = std::min(time, AtOnce);
        std::this_thread::sleep_for(part);
        time -= part;
    }
}

// Records in a transaction.
constexpr std::size_t BatchSize = 128;
// In each pass one record in this many is deleted and inserted again, another one every time.
constexpr std::size_t ReinsertOneIn = 8;
// One record in this many is looked up by its name.
constexpr std::size_t ByNameOneIn = 4;

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

void Workload::Load(unsigned client, Passes& passes, Step const& atHalf) {
    Session& session = sessions.Of(client);
    ForEachBatch(passes, [&](Batch const& batch) {
        if (IsHalf(batch)) atHalf();
        Pool([&] { return LoadBatch(session, batch); });
    });
}

void Workload::Work(unsigned client, Passes& passes, Step const& atHalf) {
    Session& session = sessions.Of(client);
    ForEachBatch(passes, [&](Batch const& batch) {
        if (IsHalf(batch)) atHalf();
        Pool([&] { return LookUpBatch(session, batch); });
        ChangeBatch(session, batch);
        Rest(rest);
    });
}

bool Workload::IsHalf(Batch const& batch) const {
    std::size_t const middle = records.size() / 2;
    return batch.pass == 1 && batch.begin <= middle && middle < batch.end;
}

void Workload::Pool(std::function<int()> const& work) {
    answered += static_cast<unsigned>(pool.Run(work));
}

int Workload::LoadBatch(Session& session, Batch const& batch) {
    WriteTransaction transaction(session, "load");
    for (std::size_t i = batch.begin; i < batch.end; ++i) transaction.Insert({records[i], 0});
    transaction.Commit();
    counts.Add(Operation::Load, batch.end - batch.begin);
    return static_cast<int>(batch.end - batch.begin);
}

// Sees one state of the database, while others wait or, if the level lets them, go on changing it.
int Workload::LookUpBatch(Session& session, Batch const& batch) {
    ReadTransaction transaction(session, "look up");
    for (std::size_t i = batch.begin; i < batch.end; ++i) {
        CharacterRecord const& record = records[i];
        if (i % ByNameOneIn == 0) {
            LookedUpByName(transaction.FindByName(record.category, record.name), record);
        } else {
            LookedUp(transaction.Find(record.category, record.code), record);
        }
    }
    if (!transaction.WasUndisturbed()) complaints.Add("a reader met a writer's commit");
    transaction.End();
    return static_cast<int>(batch.end - batch.begin);
}

// Takes each object out, changes it and puts it back, so a change that another client makes in
// between would be lost and missed by the check.
void Workload::ChangeBatch(Session& session, Batch const& batch) {
    WriteTransaction transaction(session, "change");
    for (std::size_t i = batch.begin; i < batch.end; ++i) {
        CharacterRecord const& record = records[i];
        std::optional<StoredCharacter> character = transaction.Find(record.category, record.code);
        LookedUp(character, record);
        if (!character.has_value()) continue;
        ++character->revision;
        if (i % ReinsertOneIn == batch.pass % ReinsertOneIn) {
            Require(transaction.Delete(*character), record, "could not be deleted");
            counts.Add(Operation::Delete);
            transaction.Insert(*character);
            counts.Add(Operation::Reinsert);
        } else {
            Require(transaction.Update(*character), record, "could not be updated");
            counts.Add(Operation::Update);
        }
    }
    if (batch.begin == 0) {
        if (!transaction.CommitAndReadBack()) complaints.Add("a writer read back something else");
    } else {
        transaction.Commit();
    }
}

void Workload::LookedUp(std::optional<StoredCharacter> const& found,
                        CharacterRecord const& record) {
    counts.Add(Operation::LookUp);
    Require(found.has_value(), record, "was not found");
    if (found.has_value()) Require(found->record == record, record, "is not what was stored");
}

void Workload::LookedUpByName(std::optional<StoredCharacter> const& found,
                              CharacterRecord const& record) {
    counts.Add(Operation::LookUpByName);
    Require(found.has_value(), record, "was not found by its name");
    if (!found.has_value()) return;
    bool const another = found->record.code != record.code && found->record.name == record.name;
    Require(another || found->record == record, record, "is not what was stored");
}

void Workload::Require(bool good, CharacterRecord const& record, char const* complaint) {
    if (!good) complaints.Add(CodePointName(record.code) + " " + complaint);
}

// The ordinary work: clients load all records, then go over them again and again.
//
// Records are handed out in batches to whichever client asks next, so who does what and when is
// left to the schedule. The result is not: each pass changes each record exactly once, and a run
// ends at the end of a pass. After n passes every record is there at revision n.

#ifndef KELVARA_HOST_WORKLOAD_H_
#define KELVARA_HOST_WORKLOAD_H_

#include <chrono>
#include <cstddef>
#include <optional>
#include <vector>

#include "operations.h"
#include "section.h"
#include "session.h"
#include "unicode_data.h"

struct Batch {
    unsigned pass;      // from 1 on
    std::size_t begin;  // of the records, the end exclusive
    std::size_t end;
};

// Hands out the batches of pass after pass. Clients may be in two passes at a time.
class Passes {
public:
    // There is always one pass; another begins while `deadline` has not come.
    Passes(std::size_t recordCount, std::chrono::steady_clock::time_point deadline);

    // Nothing when the last pass has been handed out.
    std::optional<Batch> Next();
    // No further batch: a client has failed.
    void Abandon();
    unsigned Begun() const;

private:
    bool MayBeginAnother() const;

    std::size_t const recordCount;
    std::chrono::steady_clock::time_point const deadline;
    mutable Section section;  // guards what follows
    std::size_t next = 0;
    unsigned pass = 1;
    bool ended = false;
};

class Workload {
public:
    Workload(std::vector<CharacterRecord> const& records, Sessions& sessions)
        : records(records), sessions(sessions) {}

    // What a client does in each phase.
    void Load(unsigned client, Passes& passes);
    void Work(unsigned client, Passes& passes);

    OperationCounts counts;
    Complaints complaints;

private:
    template <class DoBatch>
    static void ForEachBatch(Passes& passes, DoBatch doBatch);

    void LoadBatch(Session& session, Batch const& batch);
    void LookUpBatch(Session& session, Batch const& batch);
    void ChangeBatch(Session& session, Batch const& batch);
    // Both count a look-up and check what it has found.
    void LookedUp(std::optional<StoredCharacter> const& found, CharacterRecord const& record);
    void LookedUpByName(std::optional<StoredCharacter> const& found, CharacterRecord const& record);
    void Require(bool good, CharacterRecord const& record, char const* complaint);

    std::vector<CharacterRecord> const& records;
    Sessions& sessions;
};

#endif  // KELVARA_HOST_WORKLOAD_H_

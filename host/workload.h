// The ordinary work: clients load all records, then go over them again and again.
//
// Records are handed out in batches to whichever client asks next, so who does what and when is
// left to the schedule. The result is not: each pass changes each record exactly once, and a run
// ends at the end of a pass. After n passes every record is there at revision n.

#ifndef KELVARA_HOST_WORKLOAD_H_
#define KELVARA_HOST_WORKLOAD_H_

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "operations.h"
#include "section.h"
#include "session.h"
#include "unicode_data.h"
#include "work_pool.h"

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
    // `rest`: how long a client rests after each batch that it has worked on.
    Workload(std::vector<CharacterRecord> const& records, Sessions& sessions, WorkPool& pool,
             std::chrono::milliseconds rest)
        : records(records), sessions(sessions), pool(pool), rest(rest) {}

    // What a client does in each phase. Loading and looking up are pieces of work for the pool;
    // changes are the client's own.
    // `atHalf` is called by the client that comes to the middle of the records first.
    using Step = std::function<void()>;
    void Load(unsigned client, Passes& passes, Step const& atHalf);
    void Work(unsigned client, Passes& passes, Step const& atHalf);

    OperationCounts counts;
    Complaints complaints;
    // Records that were loaded or looked up, by what the pool answered.
    std::atomic<std::uint64_t> answered{0};

private:
    template <class DoBatch>
    static void ForEachBatch(Passes& passes, DoBatch doBatch);

    bool IsHalf(Batch const& batch) const;
    // Has the pool do it and adds the answer up.
    void Pool(std::function<int()> const& work);
    // Both return the number of records.
    int LoadBatch(Session& session, Batch const& batch);
    int LookUpBatch(Session& session, Batch const& batch);
    void ChangeBatch(Session& session, Batch const& batch);
    // Both count a look-up and check what it has found.
    void LookedUp(std::optional<StoredCharacter> const& found, CharacterRecord const& record);
    void LookedUpByName(std::optional<StoredCharacter> const& found, CharacterRecord const& record);
    void Require(bool good, CharacterRecord const& record, char const* complaint);

    std::vector<CharacterRecord> const& records;
    Sessions& sessions;
    WorkPool& pool;
    std::chrono::milliseconds const rest;
};

#endif  // KELVARA_HOST_WORKLOAD_H_

// What zohost tells its user, on standard output.

#ifndef KELVARA_HOST_REPORT_H_
#define KELVARA_HOST_REPORT_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "check.h"
#include "object_cache.h"
#include "operations.h"
#include "options.h"
#include "progress.h"
#include "section.h"

// All there is to tell of a run.
struct Outcome {
    std::size_t records = 0;
    std::size_t kinds = 0;
    unsigned clients = 0;
    unsigned sharers = 0;  // clients that shared one connection
    unsigned passes = 0;   // over all records, after they were loaded
    bool interrupted = false;
    std::uint64_t queued = 0;    // pieces of work that went through the work queue
    std::uint64_t answered = 0;  // records that it has loaded or looked up, by its answers
    unsigned mostWorkers = 0;
    unsigned workersLeft = 0;
    Seconds loadTime{0};
    Seconds workTime{0};
    std::optional<unsigned> ringRepeated;  // in the demonstration: clients that began again
    unsigned ringFinished = 0;             // and transactions committed
    bool ringThroughReaders = false;
    SectionTotals sections;        // before the connections were closed
    std::size_t sectionsLeft = 0;  // after SQLite ended
    CacheCounts byCode;            // look-ups in the object cache
    CacheCounts byName;
    bool separated = false;           // whether the manager kept writers apart
    std::uint64_t databaseWaits = 0;  // for SQLite's own lock on the database
    unsigned lowerings = 0;           // writers that went on as readers
    unsigned deadlocks = 0;           // that the library reported,
    unsigned falseAlarms = 0;         // called off,
    int deadlocksInFile = 0;          // and wrote to deadlock.txt
    std::filesystem::path picture;    // asked for; empty: none
    bool pictureDrawn = false;
    unsigned long assertions = 0;
    std::uint64_t complaintCount = 0;
    std::vector<std::string> complaints;  // the first few
    CheckResult check;
};

void TellBeginning(Options const& options, std::string const& data, std::string const& database,
                   std::size_t records, std::size_t kinds);
void TellTable(Outcome const& outcome, OperationCounts const& counts);
// In plain words; every failure is told here, each on a line that begins with "FAILED". True when
// there was none.
bool TellWhatWasSeen(Outcome const& outcome, bool detection);

#endif  // KELVARA_HOST_REPORT_H_

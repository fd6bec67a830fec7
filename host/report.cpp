#include "report.h"

#include <cinttypes>
#include <cstdio>

#include "engine.h"

namespace {

double Rate(std::uint64_t count, Seconds time) {
    return time.count() > 0 ? static_cast<double>(count) / time.count() : 0;
}

double Milliseconds(std::chrono::nanoseconds time) {
    return std::chrono::duration<double, std::milli>(time).count();
}

// "1 record", "2 records"
std::string Number(std::uint64_t count, char const* what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

char const* Describe(unsigned level) {
    if (level == ZoThreadMgr::NoneCS) return "nothing locked, so one client thread";
    if (level < ZoThreadMgr::OneCS) return "named sections only";
    if (level == ZoThreadMgr::OneCS) return "one section for everything";
    if (level < ZoThreadMgr::LessExclusiveCommit) return "named sections, a writer is alone";
    return "named sections, a writer is alone while it commits";
}

void TellCache(char const* name, CacheCounts const& counts) {
    std::uint64_t const all = counts.hits + counts.misses;
    double const percent =
        all == 0 ? 0 : 100 * static_cast<double>(counts.hits) / static_cast<double>(all);
    std::printf("%-17s %12" PRIu64 " hits, %" PRIu64 " misses, %.1f %%\n", name, counts.hits,
                counts.misses, percent);
}

// Collects whether anything has failed.
class Verdict {
public:
    void Require(bool good, std::string const& failure) {
        if (good) return;
        passed = false;
        std::printf("FAILED: %s\n", failure.c_str());
    }
    bool Passed() const { return passed; }

private:
    bool passed = true;
};

void TellWork(Outcome const& outcome) {
    std::printf("%s loaded %s into %s", Number(outcome.clients, "client thread").c_str(),
                Number(outcome.records, "record").c_str(), Number(outcome.kinds, "table").c_str());
    if (outcome.ringRepeated.has_value()) {
        std::printf(" and then ran into a deadlock on purpose.\n");
        return;
    }
    std::printf(" and then changed each record %s.\n", Number(outcome.passes, "time").c_str());
    if (outcome.sharers > 0) {
        std::printf("%u of them shared one connection, %u had their own.\n", outcome.sharers,
                    outcome.clients - outcome.sharers);
    }
    if (outcome.interrupted) std::printf("A signal ended the run early, at the end of a pass.\n");
}

// Each record was loaded once and, but for the demonstration, looked up once in each pass.
void TellQueue(Outcome const& outcome, Verdict& verdict) {
    unsigned const lookUps = outcome.ringRepeated.has_value() ? 0 : outcome.passes;
    std::uint64_t const expected = std::uint64_t{outcome.records} * (1 + lookUps);
    std::printf("%s went through a work queue: %s, at most %s, %u at the end.\n",
                lookUps == 0 ? "The load" : "Load and look-ups",
                Number(outcome.queued, "unit").c_str(),
                Number(outcome.mostWorkers, "worker").c_str(), outcome.workersLeft);
    verdict.Require(outcome.answered == expected, "the work queue answered for " +
                                                      Number(outcome.answered, "record") +
                                                      " instead of " + std::to_string(expected));
}

void TellLocking(Outcome const& outcome, Verdict& verdict) {
    std::string const waits = Number(outcome.databaseWaits, "time");
    if (outcome.clients == 1 && !outcome.separated) return;
    if (!outcome.separated) {
        std::printf(
            "The manager kept nobody apart at this level; SQLite found its database locked %s and "
            "waited.\n",
            waits.c_str());
        return;
    }
    verdict.Require(outcome.databaseWaits == 0,
                    "SQLite found its database locked " + waits +
                        ", though the manager should have kept its writers apart");
    if (outcome.databaseWaits == 0) {
        std::printf(
            "The manager kept the writers apart: SQLite never found its database locked. A writer "
            "went on as a reader %s.\n",
            Number(outcome.lowerings, "time").c_str());
    }
}

void TellDeadlocks(Outcome const& outcome, bool detection, Verdict& verdict) {
    if (!detection) {
        std::printf(
            "Every lock of SQLite and of the manager was a plain section; deadlocks were not "
            "looked "
            "for.\n");
        return;
    }
    std::printf("Every lock of SQLite and of the manager was a deadlock-detecting section.\n");
    if (!outcome.ringRepeated.has_value()) {
        verdict.Require(
            outcome.deadlocks == 0,
            std::to_string(outcome.deadlocks) + " deadlocks were reported where none should be");
        if (outcome.deadlocks == 0) std::printf("No deadlock was reported.\n");
        return;
    }
    bool const once = outcome.deadlocks == 1 && outcome.deadlocksInFile == 1;
    verdict.Require(once, "the ring was reported " + std::to_string(outcome.deadlocks) +
                              " times, and deadlock.txt has " +
                              std::to_string(outcome.deadlocksInFile) +
                              " new reports; there should be one");
    if (once) {
        std::printf(
            "The ring of %s was reported exactly once, before the last client waited; the "
            "report is in deadlock.txt.\n",
            outcome.ringThroughReaders
                ? (Number(outcome.clients - 1, "section") + " and a reader").c_str()
                : Number(outcome.clients, "section").c_str());
    }
    if (outcome.pictureDrawn) {
        std::printf("Its picture is in %s.\n", outcome.picture.c_str());
    } else {
        verdict.Require(outcome.picture.empty(), outcome.picture.string() + " was not drawn");
    }
    bool const resolved = outcome.falseAlarms == 1 && *outcome.ringRepeated == 1;
    verdict.Require(resolved, std::to_string(*outcome.ringRepeated) + " clients gave way and " +
                                  std::to_string(outcome.falseAlarms) +
                                  " waits ended after all; there should be one of each");
    if (resolved) {
        std::printf(
            "One client gave way, so its wait ended after all (the library calls that a false "
            "alarm); it %s.\n",
            outcome.ringThroughReaders ? "finished its work then"
                                       : "dropped what it had read and did its work again");
    }
    verdict.Require(outcome.ringFinished == outcome.clients,
                    "only " + std::to_string(outcome.ringFinished) + " transactions finished");
    if (outcome.ringFinished == outcome.clients) {
        std::printf("All %u transactions finished.\n", outcome.clients);
    }
}

void TellCheck(CheckResult const& check, Verdict& verdict) {
    for (std::string const& problem : check.problems) verdict.Require(false, problem);
    if (!check.Passed()) {
        std::printf(
            "The database differs from what one thread makes of the same file: digest "
            "%016" PRIx64 " instead of %016" PRIx64 ".\n",
            check.digest, check.expectedDigest);
        return;
    }
    std::printf(
        "The database holds exactly what one thread makes of the same file: %zu rows in %zu "
        "tables, digest %016" PRIx64 ", integrity check \"%s\".\n",
        check.rows, check.tables, check.digest, check.integrity.c_str());
    std::printf(
        "The object cache agrees with the database: %zu objects by code point, %zu by name.\n",
        check.cachedByCode, check.cachedByName);
}

}  // namespace

void TellBeginning(Options const& options, std::string const& data, std::string const& database,
                   std::size_t records, std::size_t kinds) {
    std::printf("SQLite %s on %s sections\n", Engine::Version().c_str(),
                options.detection ? "deadlock-detecting" : "plain");
    std::printf("data:     %s, %zu records of %zu kinds\n", data.c_str(), records, kinds);
    std::printf("database: %s\n", database.c_str());
    std::printf("locking:  level %u, %s\n", options.level, Describe(options.level));
    std::fflush(stdout);
}

void TellTable(Outcome const& outcome, OperationCounts const& counts) {
    std::printf("\n%-17s %12s %12s\n", "operation", "number", "a second");
    for (std::size_t i = 0; i < OperationNames.size(); ++i) {
        auto const operation = static_cast<Operation>(i);
        Seconds const time = operation == Operation::Load ? outcome.loadTime : outcome.workTime;
        std::printf("%-17s %12" PRIu64 " %12.0f\n", OperationNames[i], counts.Of(operation),
                    Rate(counts.Of(operation), time));
    }
    SectionTotals const& sections = outcome.sections;
    TellCache("cache by code", outcome.byCode);
    TellCache("cache by name", outcome.byName);
    std::printf("%-17s %12" PRIu64 " %12.0f\n", "sections entered", sections.entered,
                Rate(sections.entered, outcome.loadTime + outcome.workTime));
    std::printf("%-17s %9.1f ms   at \"%s\"\n", "longest wait", Milliseconds(sections.longestWait),
                sections.longestWaitAt.c_str());
    std::printf("%-17s %12zu\n\n", "sections alive", sections.alive);
    std::fflush(stdout);
}

bool TellWhatWasSeen(Outcome const& outcome, bool detection) {
    Verdict verdict;
    TellWork(outcome);
    TellQueue(outcome, verdict);
    TellLocking(outcome, verdict);
    TellDeadlocks(outcome, detection, verdict);
    verdict.Require(outcome.complaintCount == 0,
                    "clients met " + std::to_string(outcome.complaintCount) +
                        " records that were not as they should be, such as:");
    for (std::string const& complaint : outcome.complaints) verdict.Require(false, complaint);
    TellCheck(outcome.check, verdict);
    verdict.Require(outcome.assertions == 0,
                    "the library raised " + std::to_string(outcome.assertions) + " assertions");
    verdict.Require(outcome.sectionsLeft == 0, std::to_string(outcome.sectionsLeft) +
                                                   " sections were left after SQLite's end");
    std::printf("%s\n", verdict.Passed() ? "All is well." : "The check FAILED.");
    std::fflush(stdout);
    return verdict.Passed();
}

#include "job.h"

#include <fstream>
#include <string>
#include <vector>

#include "check.h"
#include "clients.h"
#include "contention.h"
#include "database_file.h"
#include "deadlock_ring.h"
#include "engine.h"
#include "host_services.h"
#include "library_context.h"
#include "locking_plan.h"
#include "object_cache.h"
#include "picture.h"
#include "progress.h"
#include "report.h"
#include "session.h"
#include "signals.h"
#include "soak.h"
#include "unicode_data.h"
#include "work_pool.h"
#include "workload.h"
#include "zoevmdis.h"

namespace {

// How many reports there are in the library's deadlock log, which it appends to.
int ReportsInDeadlockFile() {
    std::ifstream file("deadlock.txt");
    int reports = 0;
    for (std::string line; std::getline(file, line);) {
        if (line == "******** ZOVA deadlock log ********") ++reports;
    }
    return reports;
}

class Job {
public:
    Job(Options const& options, std::vector<CharacterRecord> const& records, Outcome& outcome)
        : options(options),
          records(records),
          kinds(KindsOf(records)),
          outcome(outcome),
          plan(options.level),
          cache(plan) {
        outcome.records = records.size();
        outcome.kinds = kinds.size();
        outcome.clients = options.ring > 0 ? options.ring : options.threads;
    }

    void Run(std::filesystem::path const& database, std::filesystem::path const& data) {
        {
            Sessions sessions(database, plan, cache, outcome.clients, options.ring == 0);
            outcome.sharers = sessions.Sharers();
            CreateTables(sessions.Of(0));
            WorkPool pool(options.workers);
            Workload workload(records, sessions, pool, options.rest);
            Load(workload, pool);
            if (options.ring > 0) {
                Deadlock(workload, sessions);
            } else {
                Work(workload, pool);
            }
            outcome.queued = pool.Done();
            outcome.mostWorkers = pool.MostWorkers();
            outcome.workersLeft = pool.Workers();
            outcome.answered = workload.answered;
            outcome.interrupted = WasInterrupted();
            outcome.complaintCount = workload.complaints.Count();
            outcome.complaints = workload.complaints.Texts();
            outcome.sections = TotalsOfSections();
            outcome.byCode = cache.CountsByCode();
            outcome.byName = cache.CountsByName();
            outcome.separated = plan.SeparatesWriters();
            outcome.databaseWaits = Engine::Waits() - waitsBefore;
            TellTable(outcome, workload.counts);
            TellContention(stdout);
            plan.PrintStatus();
        }
        ReaderBracket const reader(plan, "check");
        outcome.check = CheckDatabase(database, data, outcome.passes, cache);
    }

private:
    void CreateTables(Session& session) {
        AdminBracket const admin(plan, "create tables");
        Transaction transaction(session.connection, Transaction::Writing);
        session.store.CreateTables(kinds);
        transaction.Commit();
        waitsBefore = Engine::Waits();
    }

    void Tick(Progress& progress, std::string const& state) {
        progress.Tell(state);
        if (!TakeStatusRequest()) return;
        EraseProgressBar();
        plan.PrintStatus();
        TellContention(stderr);
    }

    void Load(Workload& workload, WorkPool& pool) {
        Passes once(records.size(), std::chrono::steady_clock::time_point::min());
        Progress progress("loading", workload.counts, [&] {
            return static_cast<double>(workload.counts.Of(Operation::Load)) /
                   static_cast<double>(records.size());
        });
        auto const grow = [&] { pool.Grow(options.grow); };
        RunClients(
            outcome.clients, [&](unsigned client) { workload.Load(client, once, grow); },
            [&] { Tick(progress, ""); });
        progress.TellEnd("done, ");
        outcome.loadTime = progress.Elapsed();
    }

    void Work(Workload& workload, WorkPool& pool) {
        Passes passes(records.size(), std::chrono::steady_clock::now() + options.work);
        Progress progress("working", workload.counts,
                          [&] { return progress.Elapsed() / Seconds(options.work); });
        auto const state = [&] { return "pass " + std::to_string(passes.Begun()) + ", "; };
        auto const shrink = [&] { pool.Shrink(options.shrink); };
        RunClients(
            outcome.clients, [&](unsigned client) { workload.Work(client, passes, shrink); },
            [&] { Tick(progress, state()); });
        progress.TellEnd(state());
        outcome.workTime = progress.Elapsed();
        outcome.passes = passes.Begun();
    }

    void Deadlock(Workload& workload, Sessions& sessions) {
        int const reportsBefore = ReportsInDeadlockFile();
        DeadlockRing ring(records, sessions, outcome.clients, options.ringThroughReaders,
                          options.ringStays);
        Progress progress("deadlock", workload.counts, nullptr);
        RunClients(
            outcome.clients, [&](unsigned client) { ring.Run(client, workload.counts); },
            [&] { Tick(progress, ""); });
        progress.TellEnd("resolved, ");
        outcome.workTime = progress.Elapsed();
        outcome.passes = 1;
        outcome.ringFinished = ring.Finished();
        outcome.ringRepeated = ring.Repeated();
        outcome.ringThroughReaders = options.ringThroughReaders;
        outcome.deadlocksInFile = ReportsInDeadlockFile() - reportsBefore;
        outcome.picture = options.picture;
        outcome.pictureDrawn = !options.picture.empty() && DrawLastDeadlock(options.picture);
    }

    Options const& options;
    std::vector<CharacterRecord> const& records;
    Kinds const kinds;
    Outcome& outcome;
    LockingPlan plan;
    ObjectCache cache;
    std::uint64_t waitsBefore = 0;  // while the connections were opened
};

}  // namespace

bool RunJob(Options const& options) {
    std::filesystem::path const data = UnicodeDataFile(options.data);
    std::vector<CharacterRecord> const records = ReadUnicodeData(data);
    HandleRequests();
    HostServices const services(options.trace);
    LibraryContext const context(options.detection);
    std::optional<SignalStorm> storm;
    if (options.soak.count() > 0) {
        storm.emplace();
    } else {
        HandleInterrupts();
    }
    DatabaseFile const database(options.database);
    GetDebugger();  // reads the flags and tells them before anything is traced
    Outcome outcome;
    {
        Engine const engine;
        TellBeginning(options, data.string(),
                      database.Path().string() + (database.IsTemporary() ? " (temporary)" : ""),
                      records.size(), KindsOf(records).size());
        Job(options, records, outcome).Run(database.Path(), data);
    }
    outcome.sectionsLeft = TotalsOfSections().alive;
    outcome.deadlocks = services.Deadlocks();
    outcome.falseAlarms = services.FalseAlarms();
    outcome.lowerings = services.Lowerings();
    outcome.assertions = ZoAssertCount();
    return TellWhatWasSeen(outcome, options.detection);
}

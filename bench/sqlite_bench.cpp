// zohost's load, by SQLite on the library's sections and by SQLite on its own mutexes; also on
// detecting sections, and with SQLite's statistics of memory, which take a lock for every block.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <filesystem>
#include <stdexcept>
#include <vector>

#include "character_store.h"
#include "database_file.h"
#include "engine.h"
#include "unicode_data.h"
#include "zocrits.h"

namespace {

constexpr char const* DataFolder = "/usr/share/unicode";

std::vector<CharacterRecord> const& Records() {
    static std::vector<CharacterRecord> const records =
        ReadUnicodeData(UnicodeDataFile(DataFolder));
    return records;
}

// SQLite on its own mutexes for as long as this lives; all else as in Engine.
class OwnEngine {
public:
    explicit OwnEngine(Engine::MemoryStatistics statistics = Engine::Off) {
        static sqlite3_mutex_methods const own = OwnMutexMethods();
        if (sqlite3_config(SQLITE_CONFIG_MEMSTATUS, statistics == Engine::On ? 1 : 0) !=
                SQLITE_OK ||
            sqlite3_config(SQLITE_CONFIG_MUTEX, &own) != SQLITE_OK ||
            sqlite3_initialize() != SQLITE_OK) {
            throw std::runtime_error("SQLite does not start on its own mutexes");
        }
    }
    OwnEngine(OwnEngine const&) = delete;
    OwnEngine& operator=(OwnEngine const&) = delete;
    ~OwnEngine() { sqlite3_shutdown(); }

private:
    // SQLite tells them once it has run with them. What a host configured before is forgotten.
    static sqlite3_mutex_methods OwnMutexMethods() {
        sqlite3_mutex_methods methods{};
        sqlite3_config(SQLITE_CONFIG_MUTEX, &methods);  // none: SQLite takes its own
        sqlite3_initialize();
        sqlite3_shutdown();
        sqlite3_config(SQLITE_CONFIG_GETMUTEX, &methods);
        return methods;
    }
};

// Sections that are made while this lives detect deadlocks.
class Detection {
public:
    Detection() { *ZoGetDeadLockDetectionEnabled() = 1; }
    Detection(Detection const&) = delete;
    Detection& operator=(Detection const&) = delete;
    ~Detection() { *ZoGetDeadLockDetectionEnabled() = 0; }
};

class DetectingEngine {
    Detection const detection;
    Engine const engine{Engine::On};
};

class OwnEngineWithStatistics {
    OwnEngine const engine{Engine::On};
};

void LoadRecords(std::filesystem::path const& database) {
    Connection connection(database, "the load");
    CharacterStore store(connection);
    Transaction load(connection, Transaction::Writing);
    store.CreateTables(KindsOf(Records()));
    for (CharacterRecord const& record : Records()) store.Insert({record, 0});
    load.Commit();
}

template <class AnEngine>
void LoadInMemory(benchmark::State& state) {
    AnEngine const engine;
    for (auto _ : state) LoadRecords(":memory:");
}

template <class AnEngine>
void LoadInFile(benchmark::State& state) {
    AnEngine const engine;
    for (auto _ : state) {
        state.PauseTiming();
        {
            DatabaseFile const file{{}};
            state.ResumeTiming();
            LoadRecords(file.Path());
            state.PauseTiming();
        }
        state.ResumeTiming();
    }
}

BENCHMARK(LoadInMemory<Engine>)->Name("load in memory/zo")->UseRealTime();
BENCHMARK(LoadInMemory<OwnEngine>)->Name("load in memory/SQLite's own")->UseRealTime();
BENCHMARK(LoadInFile<Engine>)->Name("load in a file/zo")->UseRealTime();
BENCHMARK(LoadInFile<OwnEngine>)->Name("load in a file/SQLite's own")->UseRealTime();
BENCHMARK(LoadInMemory<DetectingEngine>)
    ->Name("load in memory, detecting, statistics on/zo")
    ->UseRealTime();
BENCHMARK(LoadInMemory<OwnEngineWithStatistics>)
    ->Name("load in memory, detecting, statistics on/SQLite's own")
    ->UseRealTime();
BENCHMARK(LoadInFile<DetectingEngine>)
    ->Name("load in a file, detecting, statistics on/zo")
    ->UseRealTime();
BENCHMARK(LoadInFile<OwnEngineWithStatistics>)
    ->Name("load in a file, detecting, statistics on/SQLite's own")
    ->UseRealTime();

}  // namespace

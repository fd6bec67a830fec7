#include "engine.h"

#include <sqlite3.h>

#include <atomic>

#include "sqlite_mutexes.h"

namespace {

// SQLite's waiters poll and are not served in order, so a patient limit.
constexpr int PollMilliseconds = 2;
constexpr int MostPolls = 30000;

std::atomic<std::uint64_t> waits{0};

int WaitForDatabase(void*, int polls) {
    if (polls == 0) waits.fetch_add(1, std::memory_order_relaxed);
    sqlite3_sleep(PollMilliseconds);
    return polls < MostPolls ? 1 : 0;
}

}  // namespace

Engine::Engine(MemoryStatistics statistics) {
    MutexNaming const naming("the start of SQLite");
    if (sqlite3_config(SQLITE_CONFIG_MEMSTATUS, statistics == On ? 1 : 0) != SQLITE_OK ||
        sqlite3_config(SQLITE_CONFIG_MUTEX, SectionMutexMethods()) != SQLITE_OK ||
        sqlite3_initialize() != SQLITE_OK) {
        sqlite3_shutdown();
        throw EngineError("SQLite does not start on the library's sections");
    }
}

Engine::~Engine() {
    sqlite3_shutdown();
}

std::string Engine::Version() {
    return sqlite3_libversion();
}

std::uint64_t Engine::Waits() {
    return waits.load(std::memory_order_relaxed);
}

// --- connection --------------------------------------------------------------------------------

Connection::Connection(std::filesystem::path const& database, std::string const& owner) {
    MutexNaming const naming(owner);
    sqlite3* opened = nullptr;
    int const result = sqlite3_open_v2(
        database.c_str(), &opened,
        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX, nullptr);
    handle.reset(opened);  // also after a failure there is something to close
    if (result != SQLITE_OK) Fail("open " + database.string());
    sqlite3_busy_handler(opened, WaitForDatabase, nullptr);
    Execute("PRAGMA journal_mode = WAL");
    Execute("PRAGMA synchronous = NORMAL");
}

void Connection::Close::operator()(sqlite3* open) const {
    sqlite3_close_v2(open);
}

void Connection::Execute(std::string const& sql) {
    if (sqlite3_exec(handle.get(), sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) Fail(sql);
}

int Connection::Changes() const {
    return sqlite3_changes(handle.get());
}

void Connection::Fail(std::string_view what) const {
    throw EngineError("SQLite refused \"" + std::string(what) +
                      "\": " + sqlite3_errmsg(handle.get()));
}

// --- statement ---------------------------------------------------------------------------------

Statement::Statement(Connection& connection, std::string const& sql) : connection(connection) {
    sqlite3_stmt* prepared = nullptr;
    int const result = sqlite3_prepare_v3(connection.handle.get(), sql.c_str(), -1,
                                          SQLITE_PREPARE_PERSISTENT, &prepared, nullptr);
    if (result != SQLITE_OK) connection.Fail(sql);
    handle.reset(prepared);
}

void Statement::Finalize::operator()(sqlite3_stmt* prepared) const {
    sqlite3_finalize(prepared);
}

void Statement::Require(int result) const {
    if (result != SQLITE_OK) connection.Fail(sqlite3_sql(handle.get()));
}

void Statement::Bind(int parameter, std::int64_t value) {
    Require(sqlite3_bind_int64(handle.get(), parameter, value));
}

void Statement::Bind(int parameter, std::string_view value) {
    Require(sqlite3_bind_text(handle.get(), parameter, value.data(), static_cast<int>(value.size()),
                              nullptr));
}

void Statement::BindNull(int parameter) {
    Require(sqlite3_bind_null(handle.get(), parameter));
}

bool Statement::Step() {
    int const result = sqlite3_step(handle.get());
    if (result == SQLITE_ROW) return true;
    if (result != SQLITE_DONE) connection.Fail(sqlite3_sql(handle.get()));
    return false;
}

std::int64_t Statement::Integer(int column) const {
    return sqlite3_column_int64(handle.get(), column);
}

std::string Statement::Text(int column) const {
    auto const* const text = static_cast<char const*>(
        static_cast<void const*>(sqlite3_column_text(handle.get(), column)));
    if (text == nullptr) return {};
    return {text, static_cast<std::size_t>(sqlite3_column_bytes(handle.get(), column))};
}

bool Statement::IsNull(int column) const {
    return sqlite3_column_type(handle.get(), column) == SQLITE_NULL;
}

void Statement::Reset() {
    sqlite3_reset(handle.get());
}

// --- transaction -------------------------------------------------------------------------------

Transaction::Transaction(Connection& connection, Kind kind) : connection(connection) {
    connection.Execute(kind == Writing ? "BEGIN IMMEDIATE" : "BEGIN");
}

Transaction::~Transaction() {
    try {
        RollBack();
    } catch (EngineError const&) {
        // SQLite has rolled it back itself, after an error that is on its way to be told.
    }
}

void Transaction::Commit() {
    connection.Execute("COMMIT");
    open = false;
}

void Transaction::RollBack() {
    if (!open) return;
    open = false;
    connection.Execute("ROLLBACK");
}

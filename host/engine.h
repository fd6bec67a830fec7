// SQLite, as much of it as zohost needs. Each operation that SQLite refuses throws EngineError.

#ifndef KELVARA_HOST_ENGINE_H_
#define KELVARA_HOST_ENGINE_H_

#include <cstdint>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

class EngineError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// SQLite running on our sections, for as long as this lives. One at a time.
class Engine {
public:
    // Statistics of memory make all connections meet at one lock for every block of memory.
    enum MemoryStatistics { Off, On };

    explicit Engine(MemoryStatistics statistics = Off);
    Engine(Engine const&) = delete;
    Engine& operator=(Engine const&) = delete;
    ~Engine();

    static std::string Version();
    // How often a connection has found the database locked by another, and waited.
    static std::uint64_t Waits();
};

// A connection. One thread at a time uses it for a transaction; who shares one agrees on turns.
class Connection {
public:
    // `owner` says in the names of the connection's mutexes whose it is.
    Connection(std::filesystem::path const& database, std::string const& owner);
    Connection(Connection const&) = delete;
    Connection& operator=(Connection const&) = delete;

    void Execute(std::string const& sql);
    // How many rows the last change on this connection touched.
    int Changes() const;

private:
    friend class Statement;

    struct Close {
        void operator()(sqlite3* handle) const;
    };
    [[noreturn]] void Fail(std::string_view what) const;

    std::unique_ptr<sqlite3, Close> handle;
};

// A prepared statement. Parameters count from 1, columns from 0. Texts that are bound stay alive
// until the statement is reset.
class Statement {
public:
    Statement(Connection& connection, std::string const& sql);

    void Bind(int parameter, std::int64_t value);
    void Bind(int parameter, std::string_view value);
    void BindNull(int parameter);
    // True when there is a row to read, false at the end.
    bool Step();
    std::int64_t Integer(int column) const;
    std::string Text(int column) const;
    bool IsNull(int column) const;
    void Reset();

private:
    struct Finalize {
        void operator()(sqlite3_stmt* handle) const;
    };
    void Require(int result) const;

    Connection& connection;
    std::unique_ptr<sqlite3_stmt, Finalize> handle;
};

// A transaction; rolled back unless it was committed.
class Transaction {
public:
    enum Kind { Reading, Writing };

    Transaction(Connection& connection, Kind kind);
    Transaction(Transaction const&) = delete;
    Transaction& operator=(Transaction const&) = delete;
    ~Transaction();

    void Commit();
    void RollBack();

private:
    Connection& connection;
    bool open = true;
};

#endif  // KELVARA_HOST_ENGINE_H_

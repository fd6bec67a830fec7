// Transactions as the clients use them: the turn on the connection, the manager's bracket, SQLite's
// transaction and the object cache in one.
//
//     ReadTransaction look(session, "look up");
//     … look.Find(kind, code) …
//     look.End();
//
//     WriteTransaction write(session, "change");
//     write.Update(character);
//     write.Commit();                   // nothing has happened without it
//
// Below level 5 the manager keeps nobody apart: then a reader sees the cache as the last commit
// left it, and SQLite lets one transaction write at a time.

#ifndef KELVARA_HOST_TRANSACTIONS_H_
#define KELVARA_HOST_TRANSACTIONS_H_

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

#include "character_store.h"
#include "engine.h"
#include "locking_plan.h"
#include "object_cache.h"
#include "section.h"
#include "session.h"
#include "signals.h"

class ReadTransaction {
public:
    ReadTransaction(Session& session, char const* label);

    std::optional<StoredCharacter> Find(std::string const& kind, std::uint32_t code);
    // One of those that have the name.
    std::optional<StoredCharacter> FindByName(std::string const& kind, std::string const& name);
    // False when somebody has committed since this transaction began, although the manager should
    // have kept them out.
    bool WasUndisturbed();
    void End() { transaction.Commit(); }

private:
    OpenTransaction const open;  // before any lock
    Session& session;
    std::lock_guard<Section> turn;
    ReaderBracket bracket;
    std::uint64_t generation;  // before SQLite's transaction sees anything
    Transaction transaction;
};

class WriteTransaction {
public:
    WriteTransaction(Session& session, char const* label);

    // What this transaction has stored itself, too.
    std::optional<StoredCharacter> Find(std::string const& kind, std::uint32_t code);
    void Insert(StoredCharacter const& character);
    // Both are false when there is no such object.
    bool Update(StoredCharacter const& character);
    bool Delete(StoredCharacter const& character);

    void Commit();
    // Commits, goes on as a reader and reads what it has written. False when that is not what is
    // there, or somebody has committed in between. Below level 5, where anybody may, just commits.
    bool CommitAndReadBack();

private:
    OpenTransaction const open;  // before any lock
    Session& session;
    char const* label;
    std::lock_guard<Section> turn;
    WriterBracket bracket;
    Transaction transaction;
    std::uint64_t generation;  // nobody else commits from here on
    Changes changes;
};

#endif  // KELVARA_HOST_TRANSACTIONS_H_

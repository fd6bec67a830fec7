// A connection with its store, the section that says whose turn it is on it, and what all sessions
// of a database have in common.
//
// Clients that share a session take turns by the transaction: SQLite's own lock keeps single calls
// apart, but a transaction belongs to the connection and not to the thread that began it.

#ifndef KELVARA_HOST_SESSION_H_
#define KELVARA_HOST_SESSION_H_

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "character_store.h"
#include "engine.h"
#include "locking_plan.h"
#include "object_cache.h"
#include "section.h"

class Session {
public:
    Session(std::filesystem::path const& database, LockingPlan& plan, ObjectCache& cache,
            std::string const& name)
        : plan(plan),
          cache(cache),
          turn("turn on " + name),
          connection(database, name),
          store(connection) {}

    LockingPlan& plan;
    ObjectCache& cache;
    Section turn;  // held from before a transaction until after it
    Connection connection;
    CharacterStore store;
};

// The sessions of all clients. From three clients on, about half of them share the first session
// if `sharing` allows it; each of the others has its own.
class Sessions {
public:
    Sessions(std::filesystem::path const& database, LockingPlan& plan, ObjectCache& cache,
             unsigned clients, bool sharing);

    Session& Of(unsigned client);
    unsigned Sharers() const { return sharers; }

private:
    unsigned sharers;  // how many clients share; 0 or at least 2
    std::vector<std::unique_ptr<Session>> sessions;
};

#endif  // KELVARA_HOST_SESSION_H_

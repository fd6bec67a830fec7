// SQLite's mutexes, made of the library's sections.
//
// SQLite takes its mutexes from the program that hosts it. With these, each lock of the engine (of
// connections, files, memory, shared pages and so on) is a named section, and a deadlock among them
// is reported like any other.

#ifndef KELVARA_HOST_SQLITE_MUTEXES_H_
#define KELVARA_HOST_SQLITE_MUTEXES_H_

#include <string>

struct sqlite3_mutex_methods;

// For SQLITE_CONFIG_MUTEX, before SQLite starts. The library context is set up as long as SQLite
// runs.
sqlite3_mutex_methods const* SectionMutexMethods();

// While it lives, mutexes that SQLite makes for the calling thread carry `owner` in their names,
// because SQLite itself does not say what a mutex is for. Scopes do not nest.
class MutexNaming {
public:
    explicit MutexNaming(std::string owner);
    MutexNaming(MutexNaming const&) = delete;
    MutexNaming& operator=(MutexNaming const&) = delete;
    ~MutexNaming();

    std::string const& Owner() const { return owner; }

private:
    std::string owner;
};

#endif  // KELVARA_HOST_SQLITE_MUTEXES_H_

// Objects of the database that are kept in memory: a hash table by code point, another by name.
//
// A look-up that misses reads the database and offers what it found. A commit brings the cache up
// to date: changed objects are changed, deleted ones go. An offer that was read before some commit
// and comes after it is refused, so the cache never falls behind the database, whether or not
// readers and writers are kept apart. Of several objects with one name, the first to come is found
// by it.
//
// Any thread, any operation: each holds ZoCSObjMgr. Objects are handed out as copies.

#ifndef KELVARA_HOST_OBJECT_CACHE_H_
#define KELVARA_HOST_OBJECT_CACHE_H_

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "character_store.h"
#include "locking_plan.h"
#include "zohash.h"

// What a transaction has done to an object.
struct Change {
    bool deleted = false;                   // at some time; what was stored later is another object
    std::optional<StoredCharacter> object;  // as it is at the end, if it is there
};

using Changes = std::map<std::uint32_t, Change>;

struct CacheCounts {
    std::uint64_t hits = 0;
    std::uint64_t misses = 0;
};

class ObjectCache {
public:
    explicit ObjectCache(LockingPlan& plan);
    ObjectCache(ObjectCache const&) = delete;
    ObjectCache& operator=(ObjectCache const&) = delete;
    ~ObjectCache();

    std::optional<StoredCharacter> Find(std::uint32_t code);
    std::optional<StoredCharacter> Find(std::string const& name);

    // The number of commits so far. Who misses and reads the database asks before it begins to.
    std::uint64_t Generation();
    void Offer(StoredCharacter const& character, std::uint64_t generation);
    // Calls `commit` and applies the changes that it makes permanent, as one step.
    void Commit(std::function<void()> const& commit, Changes const& changes);

    CacheCounts CountsByCode();
    CacheCounts CountsByName();

    // Every key with its object.
    struct Contents {
        std::vector<std::pair<std::uint32_t, StoredCharacter>> byCode;
        std::vector<std::pair<std::string, StoredCharacter>> byName;
    };
    Contents All();

private:
    static std::optional<StoredCharacter> Copy(void const* found, CacheCounts& counts);
    void Add(StoredCharacter const& character);
    bool Remove(std::uint32_t code);

    LockingPlan& plan;
    // All guarded by ZoCSObjMgr. The values of both tables are the same objects, owned here.
    ZoHashTable byCode;
    ZoHashTable byName;
    CacheCounts countsByCode;
    CacheCounts countsByName;
    std::uint64_t generation = 0;
};

#endif  // KELVARA_HOST_OBJECT_CACHE_H_

#include "object_cache.h"

#include <memory>

namespace {

// The table takes the word itself for the key.
char const* Key(std::uint32_t code) {
    return reinterpret_cast<char const*>(static_cast<std::uintptr_t>(code));
}

StoredCharacter const& ObjectOf(ZoHashEntry const& entry) {
    return *static_cast<StoredCharacter const*>(entry.value);
}

template <class DoEntry>
void ForEach(ZoHashTable const& table, DoEntry doEntry) {
    ZoHashIterator it{};
    for (ZoHashEntry* entry = table.FirstEntry(it); entry != nullptr; entry = table.NextEntry(it)) {
        doEntry(*entry);
    }
}

class CacheHold : SectionHold {
public:
    explicit CacheHold(LockingPlan& plan)
        : SectionHold(plan, ObjectManagerSection, "object cache") {}
};

}  // namespace

ObjectCache::ObjectCache(LockingPlan& plan)
    : plan(plan),
      byCode(ZoHashTable::WordKeys, nullptr),
      byName(ZoHashTable::StringKeys, nullptr) {}

ObjectCache::~ObjectCache() {
    ForEach(byCode, [](ZoHashEntry const& entry) { delete &ObjectOf(entry); });
}

std::optional<StoredCharacter> ObjectCache::Find(std::uint32_t code) {
    CacheHold const hold(plan);
    return Copy(byCode.GetValueFast(Key(code)), countsByCode);
}

std::optional<StoredCharacter> ObjectCache::Find(std::string const& name) {
    CacheHold const hold(plan);
    return Copy(byName.GetValueFast(name.c_str()), countsByName);
}

std::optional<StoredCharacter> ObjectCache::Copy(void const* found, CacheCounts& counts) {
    ++(found != nullptr ? counts.hits : counts.misses);
    if (found == nullptr) return std::nullopt;
    return *static_cast<StoredCharacter const*>(found);
}

std::uint64_t ObjectCache::Generation() {
    CacheHold const hold(plan);
    return generation;
}

void ObjectCache::Offer(StoredCharacter const& character, std::uint64_t readIn) {
    CacheHold const hold(plan);
    if (readIn == generation) Add(character);
}

void ObjectCache::Commit(std::function<void()> const& commit, Changes const& changes) {
    CacheHold const hold(plan);
    commit();
    ++generation;
    for (auto const& [code, change] : changes) {
        if (Remove(code) && !change.deleted) Add(*change.object);
    }
}

// Without memory for an entry, the object is not cached.
void ObjectCache::Add(StoredCharacter const& character) {
    auto object = std::make_unique<StoredCharacter>(character);
    if (byCode.InsertValue(Key(character.record.code), object.get()) == nullptr) return;
    byName.InsertValue(character.record.name.c_str(), object.get());
    object.release();  // NOLINT(bugprone-unused-return-value): the tables have it
}

bool ObjectCache::Remove(std::uint32_t code) {
    std::unique_ptr<StoredCharacter> const object(
        static_cast<StoredCharacter*>(byCode.Remove(Key(code))));
    if (object == nullptr) return false;
    char const* const name = object->record.name.c_str();
    if (byName.GetValueFast(name) == object.get()) byName.Remove(name);
    return true;
}

CacheCounts ObjectCache::CountsByCode() {
    CacheHold const hold(plan);
    return countsByCode;
}

CacheCounts ObjectCache::CountsByName() {
    CacheHold const hold(plan);
    return countsByName;
}

ObjectCache::Contents ObjectCache::All() {
    CacheHold const hold(plan);
    Contents contents;
    ForEach(byCode, [&](ZoHashEntry const& entry) {
        auto const word = reinterpret_cast<std::uintptr_t>(byCode.GetKey(entry));
        contents.byCode.emplace_back(static_cast<std::uint32_t>(word), ObjectOf(entry));
    });
    ForEach(byName, [&](ZoHashEntry const& entry) {
        contents.byName.emplace_back(byName.GetKey(entry), ObjectOf(entry));
    });
    return contents;
}

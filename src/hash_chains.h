// The chains of a hash table's buckets: searching, linking in, unlinking. Here is what depends on
// the memory of a grown table: its lines (bucket_line.h) and its spare entries (grown_buckets.h).
//
//     Found const found = Search(table, key);
//     if (found.entry == nullptr) Insert(table, key, value, found.hash);
//     else RemoveFound(table, found);
//
// Everything here is inline: these are the paths that a look-up consists of.

#ifndef KELVARA_SRC_HASH_CHAINS_H_
#define KELVARA_SRC_HASH_CHAINS_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <typeinfo>

#include "grown_buckets.h"
#include "hash_entry.h"
#include "key_hash.h"
#include "zobase.h"
#include "zohash.h"

namespace hash_chains {

inline ZoHashEntry*& BucketOf(ZoHashTable const& table, unsigned long hash) {
    return table.buckets[hash & table.mask];
}

// --- lines -------------------------------------------------------------------------------------

// Words and texts, the usual keys, have lines beside the heads of their buckets once there are
// enough buckets. A smaller table lies in the nearest cache, where walking a chain is as quick. The
// limit is lower for texts, because each step of a walk compares a text.

struct WordKey {
    WordKey(ZoHashTable const& table, char const* key)
        : word(WordOf(key)), hash(Mix(&table, static_cast<ZoUInt32>(word))) {}
    static char const* Of(ZoHashEntry const* entry) {
        return ReadWord<char const*>(KeyBytes(entry));
    }
    bool IsOf(ZoHashEntry const* entry) const { return StoredWord(entry) == word; }
    EntryTag Tag() const { return TagOfNumber(word); }

    static constexpr ZoUInt32 FewestBucketsWithLines = 256;

    std::uintptr_t const word;
    ZoUInt32 const hash;
};

struct TextKey {
    TextKey(ZoHashTable const&, char const* key) : text(key), hash(HashText(key)) {}
    static char const* Of(ZoHashEntry const* entry) { return KeyBytes(entry); }
    bool IsOf(ZoHashEntry const* entry) const { return std::strcmp(text, KeyBytes(entry)) == 0; }
    EntryTag Tag() const { return TagOfNumber(hash); }

    static constexpr ZoUInt32 FewestBucketsWithLines = 16;

    char const* const text;
    ZoUInt32 const hash;
};

inline bool HasWords(ZoHashTable const& table) {
    return table.keySize == ZoHashTable::WordKeys && table.find == OneDWordFind;
}

inline bool HasTexts(ZoHashTable const& table) {
    return table.keySize == ZoHashTable::StringKeys && table.find == StringFind;
}

inline bool IsGrown(ZoHashTable const& table) {
    return table.buckets != table.initialBuckets;
}

inline GrownBuckets& GrownOf(ZoHashTable const& table) {
    return GrownBuckets::Of(table.buckets);
}

inline bool HasLines(ZoHashTable const& table) {
    return IsGrown(table) && GrownOf(table).WhichLines() != GrownBuckets::None;
}

inline bool TakesLines(ZoHashTable const& table, ZoUInt32 nBuckets) {
    return (nBuckets >= WordKey::FewestBucketsWithLines && HasWords(table)) ||
           (nBuckets >= TextKey::FewestBucketsWithLines && HasTexts(table));
}

inline GrownBuckets::Lines LinesFor(ZoHashTable const& table, ZoUInt32 nBuckets) {
    if (!TakesLines(table, nBuckets)) return GrownBuckets::None;
    return table.num / 2 < nBuckets ? GrownBuckets::Narrow : GrownBuckets::Wide;
}

// A text's tag is made from its hash. A word's is made from the word, whose hash has lost bits.
inline EntryTag TagOf(ZoHashTable const& table, ZoHashEntry const* entry, unsigned long hash) {
    return TagOfNumber(table.keySize == ZoHashTable::WordKeys ? StoredWord(entry)
                                                              : static_cast<ZoUInt32>(hash));
}

// A grown table of words keeps some erased entries for its next insertions: the system's allocator
// takes as long as the table does. A derived class may have its own way to make and destroy
// entries, so its tables keep none.
inline bool KeepsSpares(ZoHashTable const& table) {
    return table.keySize == ZoHashTable::WordKeys && IsGrown(table) &&
           &typeid(table) == &typeid(ZoHashTable);
}

inline bool KeepSpare(ZoHashTable& table, ZoHashEntry* entry) {
    if (!KeepsSpares(table)) return false;
    GrownBuckets& grown = GrownOf(table);
    if (grown.nSpares == table.nBuckets) return false;
    entry->next = grown.spares;
    grown.spares = entry;
    ++grown.nSpares;
    return true;
}

inline ZoHashEntry* TakeSpare(ZoHashTable& table, char const* key, void* value) {
    if (!KeepsSpares(table)) return nullptr;
    GrownBuckets& grown = GrownOf(table);
    ZoHashEntry* const entry = grown.spares;
    if (entry == nullptr) return nullptr;
    grown.spares = entry->next;
    --grown.nSpares;
    entry->value = value;
    std::memcpy(KeyBytes(entry), &key, sizeof key);
    return entry;
}

inline void FreeGrownBuckets(ZoHashTable& table) {
    if (!IsGrown(table)) return;
    GrownBuckets& grown = GrownOf(table);
    while (ZoHashEntry* const spare = grown.spares) {
        grown.spares = spare->next;
        ::operator delete(spare);
    }
    grown.Free();
}

// --- searching and changing chains -------------------------------------------------------------

struct Found {
    ZoHashEntry* entry;
    ZoHashEntry** link;  // what points to the entry: its predecessor's `next`, or the chain's head
    unsigned long hash;
    int place;  // in the bucket's line, if it has one
};

template <class Key>
[[gnu::always_inline]] inline Found SearchFor(ZoHashTable const& table, Key key) {
    ZoHashEntry** link = &BucketOf(table, key.hash);
    auto const isSought = [key](ZoHashEntry const* entry) { return key.IsOf(entry); };
    // Unlikely: the path of a small table is so short that a jump more would count.
    if (table.nBuckets >= Key::FewestBucketsWithLines) [[unlikely]] {
        auto const found = GrownOf(table).WithLine(
            key.hash & table.mask, [&](auto const& line) __attribute__((always_inline)) {
                return line.Search(key.Tag(), *link, isSought);
            });
        return {found.entry, found.link, key.hash, found.place};
    }
    while (*link != nullptr && !isSought(*link)) link = &(*link)->next;
    return {*link, link, key.hash, FoundInBucket::Untagged};
}

// Not inlined into the search for words, which is so short that saving registers would count.
[[gnu::noinline]] inline Found SearchOtherKeys(ZoHashTable const& table, char const* key) {
    if (HasTexts(table) && key != nullptr) return SearchFor(table, TextKey(table, key));
    unsigned long hash = 0;
    ZoHashEntry* prev = nullptr;
    ZoHashEntry* const entry = table.find(&table, key, hash, nullptr, prev);
    ZoHashEntry** const link = prev != nullptr ? &prev->next : &BucketOf(table, hash);
    return {entry, link, hash, FoundInBucket::Untagged};
}

// Like the table's search function in key mode.
[[gnu::always_inline]] inline Found Search(ZoHashTable const& table, char const* key) {
    return HasWords(table) ? SearchFor(table, WordKey(table, key)) : SearchOtherKeys(table, key);
}

[[gnu::noinline]] inline ZoHashEntry* FindOtherKeys(ZoHashTable const& table, char const* key) {
    if (HasTexts(table) && key != nullptr) return SearchFor(table, TextKey(table, key)).entry;
    unsigned long hash;
    ZoHashEntry* prev;
    return table.find(&table, key, hash, nullptr, prev);
}

// Like Search, but returns only the entry.
[[gnu::always_inline]] inline ZoHashEntry* Find(ZoHashTable const& table, char const* key) {
    return HasWords(table) ? SearchFor(table, WordKey(table, key)).entry
                           : FindOtherKeys(table, key);
}

inline void PushFront(ZoHashTable const& table, ZoHashEntry* entry, unsigned long hash) {
    ZoHashEntry*& head = BucketOf(table, hash);
    entry->next = head;
    head = entry;
    if (!HasLines(table)) return;
    EntryTag const tag = TagOf(table, entry, hash);
    GrownOf(table).WithLine(hash & table.mask, [&](auto& line) { line.PushFront(tag, entry); });
}

// For a table half way to its next growth. Without memory the lines stay narrow; the next insertion
// tries again.
[[gnu::noinline]] inline void WidenLines(ZoHashTable& table) {
    GrownBuckets& narrow = GrownOf(table);
    GrownBuckets* const wide = narrow.Widened(table.nBuckets);
    if (wide == nullptr) return;
    table.buckets = wide->Heads();
    narrow.Free();
}

// Links a new entry in. A growth that fails leaves the table as it was, and the insertion stands.
inline void LinkIn(ZoHashTable& table, ZoHashEntry* entry, unsigned long hash) {
    PushFront(table, entry, hash);
    ++table.num;
    if (table.num >= table.threshold) {
        table.RebuildTable();
    } else if (table.num >= table.threshold / 2 && IsGrown(table) &&
               GrownOf(table).WhichLines() == GrownBuckets::Narrow) {
        WidenLines(table);
    }
}

inline ZoHashEntry* Make(ZoHashTable& table, char const* key, void* value, unsigned long hash) {
    ZoHashEntry* const spare = TakeSpare(table, key, value);
    return spare != nullptr ? spare : table.CreateHashEntryX(key, value, hash);
}

// Makes an entry for the absent key and links it in.
inline ZoHashEntry* Insert(ZoHashTable& table, char const* key, void* value, unsigned long hash) {
    __builtin_prefetch(&BucketOf(table, hash), 1);
    ZoHashEntry* const entry = Make(table, key, value, hash);
    if (entry != nullptr) LinkIn(table, entry, hash);
    return entry;
}

// The hash of an entry's key in the table's present shape.
inline unsigned long HashOf(ZoHashTable const& table, ZoHashEntry* entry) {
    unsigned long hash;
    ZoHashEntry* prev;
    table.find(&table, nullptr, hash, entry, prev);
    return hash;
}

// `link` is what points to the entry: its predecessor's `next`, or the head of its bucket. `place`
// is the entry's in the bucket's line.
inline void Unlink(ZoHashTable& table, ZoHashEntry*& link, ZoHashEntry* entry, unsigned long hash,
                   int place) {
    link = entry->next;
    if (!HasLines(table)) return;
    GrownOf(table).WithLine(hash & table.mask, [&](auto& line) { line.Remove(place); });
}

inline void Destroy(ZoHashTable& table, ZoHashEntry* unlinked) {
    --table.num;
    if (KeepSpare(table, unlinked)) return;
    unlinked->next = nullptr;
    table.DestroyHashEntry(unlinked);
}

inline void RemoveFound(ZoHashTable& table, Found const& found) {
    auto const& [entry, link, hash, place] = found;
    if (*link != entry && link != &BucketOf(table, hash)) {
        ZOVA_assert("prev->GetNext() == entry", "src/zohash", 207);
    }
    Unlink(table, *link, entry, hash, place);
    Destroy(table, entry);
}

inline void ShrinkWhenEmpty(ZoHashTable& table) {
    if (table.num != 0 || !IsGrown(table)) return;
    FreeGrownBuckets(table);
    table.InitTable();
}

// A walk through all buckets calls this for each of them: the entries are scattered in memory.
inline void PrefetchFurtherEntries(ZoHashTable const& table, ZoUInt32 index) {
    constexpr ZoUInt32 Distance = 8;
    if (HasLines(table) && index + Distance < table.nBuckets) {
        GrownOf(table).WithLine(index + Distance, [](auto& line) { line.PrefetchEntries(); });
    }
}

// Moves all entries of a table's former buckets into its present ones.
template <class Hash>
inline void MoveEntries(ZoHashTable const& table, ZoHashEntry** from, std::size_t count,
                        Hash hashOf) {
    for (std::size_t i = 0; i < count; ++i) {
        while (ZoHashEntry* const entry = from[i]) {
            from[i] = entry->next;
            PushFront(table, entry, hashOf(entry));
        }
    }
}

}  // namespace hash_chains

#endif  // KELVARA_SRC_HASH_CHAINS_H_

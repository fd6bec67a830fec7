// The standard search functions of the hash table.

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "hash_entry.h"
#include "key_hash.h"
#include "key_kinds.h"
#include "zobase.h"
#include "zohash.h"

namespace {

// The key-mode walk of every search function.
template <class Matches>
ZoHashEntry* WalkChain(ZoHashTable const* table, unsigned long hash, ZoHashEntry*& prev,
                       Matches matches) {
    ZoHashEntry* entry = table->buckets[hash & table->mask];
    ZoHashEntry* before = nullptr;
    while (entry != nullptr && !matches(entry)) {
        before = entry;
        entry = entry->next;
    }
    prev = before;
    return entry;
}

void ReportMissingKey() {
    ZOVA_assert("( \"You need a space to get the key.\" && 0 )", "src/zohash", 412);
}

// The result of a search for a null key.
ZoHashEntry* NoKey(unsigned long& hash, ZoHashEntry*& prev) {
    hash = 0;
    prev = nullptr;
    return nullptr;
}

ZoUInt32 SumBytes(char const* bytes, unsigned short length) {
    ZoUInt32 sum = 0;
    for (unsigned short i = 0; i < length; ++i) sum += static_cast<unsigned char>(bytes[i]);
    return sum;
}

char const* TextOf(ZoHashTable const* table, ZoHashEntry const* entry) {
    return table->keySize == ZoHashTable::StringKeys ? KeyBytes(entry) : table->GetKey(*entry);
}

std::uintptr_t WordKeyOf(ZoHashTable const* table, ZoHashEntry const* entry) {
    return table->keySize == ZoHashTable::WordKeys ? StoredWord(entry)
                                                   : WordOf(table->GetKey(*entry));
}

ZoHashEntry* WalkStoredWords(ZoHashTable const* table, std::uintptr_t word, unsigned long hash,
                             ZoHashEntry*& prev) {
    return WalkChain(table, hash, prev,
                     [&](ZoHashEntry const* candidate) { return StoredWord(candidate) == word; });
}

char const* BytesOf(ZoHashTable const* table, ZoHashEntry const* entry) {
    return KeepsKeys(table->keySize) ? KeyBytes(entry) : table->GetKey(*entry);
}

// Keys without a length are all equal. A null key equals no other.
bool SameBytes(char const* key, char const* entryKey, unsigned short length) {
    if (length == 0) return true;
    return entryKey != nullptr && std::memcmp(key, entryKey, length) == 0;
}

}  // namespace

ZoHashEntry* StringFind(ZoHashTable const* table, char const* key, unsigned long& hash,
                        ZoHashEntry* entry, ZoHashEntry*& prev) {
    if (entry != nullptr) {
        char const* const text = TextOf(table, entry);
        if (text == nullptr) ReportMissingKey();
        hash = text != nullptr ? HashText(text) : 0;
        return entry;
    }
    if (key == nullptr) return NoKey(hash, prev);
    hash = HashText(key);
    return WalkChain(table, hash, prev, [&](ZoHashEntry const* candidate) {
        char const* const text = TextOf(table, candidate);
        return text != nullptr && std::strcmp(key, text) == 0;
    });
}

ZoHashEntry* OneDWordFind(ZoHashTable const* table, char const* key, unsigned long& hash,
                          ZoHashEntry* entry, ZoHashEntry*& prev) {
    std::uintptr_t const word = entry != nullptr ? WordKeyOf(table, entry) : WordOf(key);
    hash = Mix(table, static_cast<ZoUInt32>(word));
    if (entry != nullptr) return entry;
    if (table->keySize == ZoHashTable::WordKeys) return WalkStoredWords(table, word, hash, prev);
    return WalkChain(table, hash, prev, [&](ZoHashEntry const* candidate) {
        return WordOf(table->GetKey(*candidate)) == word;
    });
}

ZoHashEntry* ByteArrayFind(ZoHashTable const* table, char const* key, unsigned long& hash,
                           ZoHashEntry* entry, ZoHashEntry*& prev) {
    unsigned short const length = table->GetKeySize();
    if (entry == nullptr && key == nullptr) return NoKey(hash, prev);
    if (entry != nullptr) {
        char const* const bytes = BytesOf(table, entry);
        if (bytes == nullptr) ReportMissingKey();
        hash = Mix(table, bytes != nullptr ? SumBytes(bytes, length) : 0);
        return entry;
    }
    hash = Mix(table, SumBytes(key, length));
    return WalkChain(table, hash, prev, [&](ZoHashEntry const* candidate) {
        return SameBytes(key, BytesOf(table, candidate), length);
    });
}

ZoHashEntry* PointerFind(ZoHashTable const* table, char const* key, unsigned long& hash,
                         ZoHashEntry* entry, ZoHashEntry*& prev) {
    std::uintptr_t const word = entry != nullptr ? StoredWord(entry) : WordOf(key);
    hash = static_cast<ZoUInt32>(word);
    return entry != nullptr ? entry : WalkStoredWords(table, word, hash, prev);
}

ZoHashEntry* ValuePointerFind(ZoHashTable const* table, char const* key, unsigned long& hash,
                              ZoHashEntry* entry, ZoHashEntry*& prev) {
    void const* const value = entry != nullptr ? entry->value : key;
    hash = static_cast<ZoUInt32>(WordOf(value) >> 3);
    if (entry != nullptr) return entry;
    return WalkChain(table, hash, prev,
                     [&](ZoHashEntry const* candidate) { return candidate->value == value; });
}

ZoHashEntry* ZoSurrFind(ZoHashTable const* table, char const* key, unsigned long& hash,
                        ZoHashEntry* entry, ZoHashEntry*& prev) {
    if (entry != nullptr) {
        hash = Surrogate::OfKeyBytes(KeyBytes(entry)).Hash();
        return entry;
    }
    Surrogate const surrogate = Surrogate::OfRecord(key);
    hash = surrogate.Hash();
    return WalkChain(table, hash, prev, [&](ZoHashEntry const* candidate) {
        return Surrogate::OfKeyBytes(KeyBytes(candidate)) == surrogate;
    });
}

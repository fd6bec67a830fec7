// The kinds of keys of a hash table, as zohash.h lists them: what an entry keeps of a key, and
// which search is the default. A new kind is a row here, a key size in zohash.h, and if it needs
// one, a search function in hash_search.cpp.

#ifndef KELVARA_SRC_KEY_KINDS_H_
#define KELVARA_SRC_KEY_KINDS_H_

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "hash_entry.h"

struct KeyKind {
    // How many bytes an entry keeps. `key` is the key argument of an operation; for texts, whose
    // length depends on it, the copy in an entry does as well.
    std::size_t (*length)(char const* key, unsigned short keySize);
    // Copies what is kept of a key argument into an entry.
    void (*copy)(char* bytes, char const* key, std::size_t length);
    // What GetKey returns for the bytes in an entry; null: nothing is kept.
    char const* (*get)(char const* bytes);
    ZoHashSearch defaultSearch;
};

inline constexpr KeyKind TextKind{
    [](char const* key, unsigned short) { return std::strlen(key) + 1; },
    [](char* bytes, char const* key, std::size_t length) { std::memcpy(bytes, key, length); },
    [](char const* bytes) { return bytes; },
    StringFind,
};

inline constexpr KeyKind WordKind{
    [](char const*, unsigned short) { return sizeof(std::uintptr_t); },
    [](char* bytes, char const* key, std::size_t) { std::memcpy(bytes, &key, sizeof key); },
    [](char const* bytes) { return ReadWord<char const*>(bytes); },
    OneDWordFind,
};

inline constexpr KeyKind SurrogateKind{
    [](char const*, unsigned short) { return sizeof(Surrogate); },
    [](char* bytes, char const* key, std::size_t) {
        Surrogate const surrogate = Surrogate::OfRecord(key);
        std::memcpy(bytes, &surrogate, sizeof surrogate);
    },
    [](char const* bytes) { return bytes; },
    ZoSurrFind,
};

inline constexpr KeyKind ForeignKind{
    [](char const*, unsigned short) { return std::size_t{0}; },
    [](char*, char const*, std::size_t) {},
    nullptr,
    ByteArrayFind,
};

inline constexpr KeyKind ByteKind{
    [](char const*, unsigned short keySize) { return std::size_t{keySize}; },
    [](char* bytes, char const* key, std::size_t length) { std::memcpy(bytes, key, length); },
    [](char const* bytes) { return bytes; },
    ByteArrayFind,
};

inline KeyKind const& KindOf(unsigned short keySize) {
    switch (keySize) {
        case ZoHashTable::StringKeys:
            return TextKind;
        case ZoHashTable::WordKeys:
            return WordKind;
        case ZoHashTable::SurrogateKeys:
            return SurrogateKind;
        case ZoHashTable::ForeignKeys:
        case 0:
            return ForeignKind;
        default:
            return ByteKind;
    }
}

inline bool KeepsKeys(unsigned short keySize) {
    return KindOf(keySize).get != nullptr;
}

#endif  // KELVARA_SRC_KEY_KINDS_H_

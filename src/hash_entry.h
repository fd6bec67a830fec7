// The bytes of a hash entry's key, and the words in them.

#ifndef KELVARA_SRC_HASH_ENTRY_H_
#define KELVARA_SRC_HASH_ENTRY_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>

#include "zohash.h"

// A key that is a number in the place of an address.
inline std::uintptr_t WordOf(void const* pointer) {
    return reinterpret_cast<std::uintptr_t>(pointer);
}

inline char* KeyBytes(ZoHashEntry* entry) {
    return reinterpret_cast<char*>(entry + 1);
}

inline char const* KeyBytes(ZoHashEntry const* entry) {
    return reinterpret_cast<char const*>(entry + 1);
}

// Key bytes have no type and a record no alignment: words are copied out of them.
template <class Word>
inline Word ReadWord(char const* bytes) {
    Word word;
    std::memcpy(&word, bytes, sizeof word);
    return word;
}

inline std::uintptr_t StoredWord(ZoHashEntry const* entry) {
    return ReadWord<std::uintptr_t>(KeyBytes(entry));
}

// A new entry with room for so many key bytes; null when memory ran out.
inline ZoHashEntry* NewEntry(void* value, std::size_t keyLength) {
    void* const block = ::operator new(sizeof(ZoHashEntry) + keyLength, std::nothrow);
    if (block == nullptr) return nullptr;
    return new (block) ZoHashEntry{nullptr, value};
}

// The two words that an entry keeps of a surrogate.
struct Surrogate {
    std::uint32_t first;
    std::uint32_t second;

    static Surrogate OfRecord(char const* record) {
        std::uint32_t const low = ReadWord<std::uint16_t>(record + 8);
        std::uint32_t const high = ReadWord<std::uint16_t>(record + 12);
        return {ReadWord<std::uint32_t>(record + 4), low | high << 16};
    }
    static Surrogate OfKeyBytes(char const* bytes) {
        return {ReadWord<std::uint32_t>(bytes), ReadWord<std::uint32_t>(bytes + 4)};
    }
    std::uint32_t Hash() const { return first ^ second; }
    bool operator==(Surrogate const&) const = default;
};

// A surrogate in the form in which operations take it as a key.
struct SurrogateRecord {
    explicit SurrogateRecord(Surrogate surrogate) {
        std::uint16_t const low = static_cast<std::uint16_t>(surrogate.second);
        std::uint16_t const high = static_cast<std::uint16_t>(surrogate.second >> 16);
        std::memcpy(bytes + 4, &surrogate.first, sizeof surrogate.first);
        std::memcpy(bytes + 8, &low, sizeof low);
        std::memcpy(bytes + 12, &high, sizeof high);
    }

    char bytes[16] = {};
};

#endif  // KELVARA_SRC_HASH_ENTRY_H_

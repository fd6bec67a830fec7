// The hash functions of the standard searches of a hash table.

#ifndef KELVARA_SRC_KEY_HASH_H_
#define KELVARA_SRC_KEY_HASH_H_

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "hash_entry.h"

inline constexpr ZoUInt32 MixingFactor = 1103515245;

// The bits from `shift` upwards choose the bucket; the shift copies the sign in above them.
inline ZoUInt32 Mix(ZoHashTable const* table, ZoUInt32 word) {
    ZoInt32 const product = static_cast<ZoInt32>(word * MixingFactor);
    return static_cast<ZoUInt32>(product >> (table->shift & 31U));
}

// Eight steps of h = 9h + c at once. The first character is in the lowest byte. Neighbours are
// combined to pairs, pairs to fours, fours to one number.
inline ZoUInt32 AppendEight(ZoUInt32 hash, std::uint64_t characters) {
    constexpr std::uint64_t Bytes = 0x00FF00FF00FF00FFU, Pairs = 0x0000FFFF0000FFFFU;
    constexpr ZoUInt32 ToThe2nd = 9 * 9, ToThe4th = ToThe2nd * ToThe2nd;
    constexpr ZoUInt32 ToThe8th = ToThe4th * ToThe4th;
    // Adds 128 to each character, which makes it unsigned. The last line subtracts the sum of that.
    std::uint64_t const each = characters ^ 0x8080808080808080U;
    std::uint64_t const two = (each & Bytes) * 9 + (each >> 8 & Bytes);
    std::uint64_t const four = (two & Pairs) * ToThe2nd + (two >> 16 & Pairs);
    ZoUInt32 const eight =
        static_cast<ZoUInt32>(four) * ToThe4th + static_cast<ZoUInt32>(four >> 32);
    return hash * ToThe8th + eight - 128 / 8 * (ToThe8th - 1);
}

inline std::uint64_t ReadEight(char const* text) {
    std::uint64_t const characters = ReadWord<std::uint64_t>(text);
    return std::endian::native == std::endian::little ? characters : __builtin_bswap64(characters);
}

[[gnu::always_inline]] inline ZoUInt32 HashText(char const* text) {
    std::size_t const length = std::strlen(text);
    ZoUInt32 hash = 0;
    if (length < 8) {
        for (; *text != '\0'; ++text) {
            hash = 9 * hash + static_cast<ZoUInt32>(static_cast<signed char>(*text));
        }
        return hash;
    }
    // Leading NULs do not change a hash. The first step is padded with them to eight characters, so
    // one loop does the rest, and its number of turns is predictable for most texts.
    std::size_t const first = length % 8;
    if (first != 0) hash = AppendEight(0, ReadEight(text) << 8 * (8 - first));
    for (std::size_t i = first; i < length; i += 8) hash = AppendEight(hash, ReadEight(text + i));
    return hash;
}

#endif  // KELVARA_SRC_KEY_HASH_H_

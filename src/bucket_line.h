// The short way into one bucket of a grown hash table.
//
// A chain may be several entries long, and in a large table each step along it waits for memory. A
// line holds the chain's first entries, in the chain's order, and of each a tag: seven bits made
// from its key. A search looks at all tags at once, in one cache line, and at hardly any entry but
// the one it finds; what precedes that one stands in the line too.
//
// What always holds: the line's entries are the first of its bucket's chain, and unless the line
// goes on, there are no others. The owner tells it each change of the chain:
//
//     line.PushFront(tag, entry);        // entry became the chain's head
//     line.Remove(line.PlaceOf(entry));  // entry left the chain
//     auto [entry, link, place] = line.Search(tag, head, isSought);
//
// A line of zero bytes is an empty one.

#ifndef KELVARA_SRC_BUCKET_LINE_H_
#define KELVARA_SRC_BUCKET_LINE_H_

#include <bit>
#include <cstdint>
#include <cstring>

#include "zohash.h"

class alignas(64) BucketLine {
public:
    // Seven bits, and never 0.
    using Tag = std::uint64_t;

    // The golden ratio's part of 2^64: the upper bits of the product depend on all of the number.
    static Tag TagOf(std::uint64_t number) {
        Tag const upper = (number * 0x9E3779B97F4A7C15U) >> 57;
        return upper + (upper == 0 ? 1 : 0);
    }

    static constexpr int capacity = 7;

    struct Found {
        ZoHashEntry* entry;  // null: none
        ZoHashEntry** link;  // what points to the found one: the head, or what precedes it
        int place;           // of the found one; capacity: behind the line
    };

    // The first entry of the chain that `isSought` accepts; all those of one key have one tag.
    template <class IsSought>
    [[gnu::always_inline]] Found Search(Tag tag, ZoHashEntry*& head, IsSought isSought) const {
        for (std::uint64_t places = PlacesOf(tag); places != 0; places &= places - 1) {
            unsigned const place = static_cast<unsigned>(std::countr_zero(places)) / 8;
            if (isSought(entries[place])) {
                return {entries[place], LinkTo(place, head), static_cast<int>(place)};
            }
        }
        return GoesOn() ? SearchRest(head, isSought) : Found{nullptr, nullptr, capacity};
    }

    void PushFront(Tag tag, ZoHashEntry* entry) {
        // What leaves at the end stays in the chain.
        std::uint64_t const goesOn = tags >> 48 != 0 ? goesOnBit : 0;
        tags = goesOn | (tags << 8 & allTags) | tag;
        ZoHashEntry* kept[capacity - 1];
        std::memcpy(kept, entries, sizeof kept);
        std::memcpy(entries + 1, kept, sizeof kept);
        entries[0] = entry;
    }

    int PlaceOf(ZoHashEntry const* entry) const {
        int place = 0;
        while (place < capacity && entries[place] != entry) ++place;
        return place;
    }

    // By masks: nothing could predict a branch that depends on the place, and of a comparison the
    // compiler makes one.
    void Remove(int place) {
        if (place == capacity) return;
        constexpr std::uintptr_t stays = 0, moves = ~stays;
        static constexpr std::uintptr_t masks[] = {stays, stays, stays, stays, stays, stays,
                                                   moves, moves, moves, moves, moves, moves};
        std::uintptr_t const* const mask = masks + (capacity - 1 - place);
        std::uintptr_t words[capacity];
        std::memcpy(words, entries, sizeof words);
        auto const moveUp = [&](int i) { words[i] ^= (words[i] ^ words[i + 1]) & mask[i]; };
        moveUp(0), moveUp(1), moveUp(2), moveUp(3), moveUp(4), moveUp(5);
        words[capacity - 1] = 0;
        std::memcpy(entries, words, sizeof words);
        std::uint64_t const before = (std::uint64_t{1} << 8 * place) - 1;
        tags = (tags & (before | goesOnBit)) | ((tags & allTags) >> 8 & ~before);
    }

    void Clear() { *this = BucketLine(); }

    // Asks for the memory of the entries.
    void PrefetchEntries() const {
        for (int i = 0; i < 4; ++i) __builtin_prefetch(entries[i]);
    }

private:
    static constexpr std::uint64_t allTags = 0x00FFFFFFFFFFFFFFU;
    static constexpr std::uint64_t goesOnBit = 0x0100000000000000U;

    bool GoesOn() const { return (tags & goesOnBit) != 0; }

    // The highest bit of each byte that equals the tag. A difference of tags is at most 127, so it
    // takes the bit away from 128 unless it is 0, and nothing from the byte above. In few steps:
    // all of them wait for the line, and a processor has room for so many that wait.
    std::uint64_t PlacesOf(Tag tag) const {
        constexpr std::uint64_t ones = 0x0101010101010101U, bits = 0x80 * ones & allTags;
        return (bits - (tags ^ tag * ones)) & bits;
    }

    // By an index, for the same reason.
    ZoHashEntry** LinkTo(unsigned place, ZoHashEntry*& head) const {
        ZoHashEntry* const before = entries[place - (place != 0 ? 1 : 0)];
        ZoHashEntry** const links[] = {&head, &before->next};
        return links[place != 0 ? 1 : 0];
    }

    template <class IsSought>
    [[gnu::noinline]] Found SearchRest(ZoHashEntry*& head, IsSought isSought) const {
        int const used = (static_cast<int>(std::bit_width(tags & allTags)) + 7) / 8;
        ZoHashEntry** link = used != 0 ? &entries[used - 1]->next : &head;
        while (*link != nullptr && !isSought(*link)) link = &(*link)->next;
        return {*link, link, capacity};
    }

    std::uint64_t tags;  // byte i: the tag of entry i, 0 none; the highest byte: goesOnBit
    ZoHashEntry* entries[capacity];
};

#endif  // KELVARA_SRC_BUCKET_LINE_H_

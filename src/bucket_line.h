// An index of one bucket of a grown hash table, in one cache line.
//
// A chain may have several entries, and in a large table each step along it is a cache miss. A line
// holds tags of the chain's first seven entries, seven bits made from each key, and the addresses
// of the first ones: up to seven in a wide line, three in a narrow one. A search compares all tags
// at once and reads hardly any entry but the one it finds; the predecessor's address is in the line
// too. The chain is walked only to entries without an address.
//
// Invariant: the tags are those of the chain's first entries, in its order. Unless GoesOn, there
// are no other entries. The addresses are those of the first entries with tags: of all in a wide
// line, of at most three in a narrow one. The owner reports each change of the chain to the line:
//
//     line.PushFront(tag, entry);                 // entry became the chain's head
//     line.Remove(line.PlaceOf(entry, head));     // entry leaves the chain
//     auto [entry, link, place] = line.Search(tag, head, isSought);
//
// A line of zero bytes is an empty one.

#ifndef KELVARA_SRC_BUCKET_LINE_H_
#define KELVARA_SRC_BUCKET_LINE_H_

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "zohash.h"

// Seven bits, and never 0.
using EntryTag = std::uint64_t;

// A multiplicative hash with 2^64 divided by the golden ratio: the upper bits of the product depend
// on all bits of the number.
inline EntryTag TagOfNumber(std::uint64_t number) {
    EntryTag const upper = (number * 0x9E3779B97F4A7C15U) >> 57;
    return upper + (upper == 0 ? 1 : 0);
}

struct FoundInBucket {
    ZoHashEntry* entry;  // null: none
    ZoHashEntry** link;  // what points to the found one: the head, or its predecessor
    int place;           // of its tag; `Untagged`: it is behind all tags

    static constexpr int Untagged = 7;
};

template <std::size_t capacity>
class alignas(8 + 8 * capacity) BucketLine {
public:
    // The first entry of the chain that `isSought` accepts. Entries with one key have one tag.
    template <class IsSought>
    [[gnu::always_inline]] FoundInBucket Search(EntryTag tag, ZoHashEntry*& head,
                                                IsSought isSought) const {
        for (std::uint64_t places = PlacesOf(tag); places != 0; places &= places - 1) {
            unsigned const place = static_cast<unsigned>(std::countr_zero(places)) / 8;
            if (!HasAddress(place)) return SearchRest(head, isSought);
            if (isSought(entries[place])) {
                return {entries[place], LinkTo(place, head), static_cast<int>(place)};
            }
        }
        if (GoesOn()) return SearchRest(head, isSought);
        return {nullptr, nullptr, FoundInBucket::Untagged};
    }

    void PushFront(EntryTag tag, ZoHashEntry* entry) {
        // An entry whose tag is pushed out stays in the chain.
        std::uint64_t const goesOn = tags >> 48 != 0 ? GoesOnBit : 0;
        tags = goesOn | (tags << 8 & AllTags) | tag;
        ZoHashEntry* kept[capacity - 1];
        std::memcpy(kept, entries, sizeof kept);
        std::memcpy(entries + 1, kept, sizeof kept);
        entries[0] = entry;
    }

    // The place of an entry of the chain, whose head is given.
    int PlaceOf(ZoHashEntry const* entry, ZoHashEntry const* head) const {
        for (int place = 0; place < TagCount(); ++place, head = head->next) {
            if (head == entry) return place;
        }
        return FoundInBucket::Untagged;
    }

    // A narrow line does not fetch the address of a further entry: that would be a cache miss.
    void Remove(int place) {
        if (place == FoundInBucket::Untagged) return;
        RemoveAddress(place);
        std::uint64_t const before = (std::uint64_t{1} << 8 * place) - 1;
        tags = (tags & (before | GoesOnBit)) | ((tags & AllTags) >> 8 & ~before);
    }

    void Clear() { *this = BucketLine(); }

    // Fills an empty line for the chain of a narrower line.
    template <std::size_t otherCapacity>
    void Widen(BucketLine<otherCapacity> const& other, ZoHashEntry* head) {
        static_assert(otherCapacity < capacity);
        tags = other.tags;
        std::memcpy(entries, other.entries, sizeof other.entries);
        int const count = TagCount();
        int place = std::min(count, int{otherCapacity});
        while (place != 0 && entries[place - 1] == nullptr) --place;
        for (; place < count; ++place) {
            entries[place] = place != 0 ? entries[place - 1]->next : head;
        }
    }

    // Prefetches the entries.
    void PrefetchEntries() const {
        for (std::size_t i = 0; i < std::min(capacity, std::size_t{4}); ++i)
            __builtin_prefetch(entries[i]);
    }

    // Prefetches the last entry that has an address.
    void PrefetchLink() const { __builtin_prefetch(entries[capacity - 1]); }

private:
    template <std::size_t otherCapacity>
    friend class BucketLine;

    static constexpr std::size_t TagCapacity = FoundInBucket::Untagged;
    static_assert(capacity <= TagCapacity);
    static constexpr std::uint64_t AllTags = 0x00FFFFFFFFFFFFFFU;
    static constexpr std::uint64_t GoesOnBit = 0x0100000000000000U;

    bool HasAddress(std::size_t place) const {
        if constexpr (capacity == TagCapacity) return true;
        return place < capacity && entries[place] != nullptr;
    }
    bool GoesOn() const { return (tags & GoesOnBit) != 0; }
    int TagCount() const { return (static_cast<int>(std::bit_width(tags & AllTags)) + 7) / 8; }

    // Sets the highest bit of each byte that equals the tag. A difference of tags is at most 127:
    // subtracted from 128 it clears that bit unless it is 0, and borrows nothing from the byte
    // above. The steps are few because all of them wait for the line, and a processor keeps only so
    // many waiting instructions.
    std::uint64_t PlacesOf(EntryTag tag) const {
        constexpr std::uint64_t Ones = 0x0101010101010101U, Bits = 0x80 * Ones & AllTags;
        return (Bits - (tags ^ tag * Ones)) & Bits;
    }

    // An index instead of a branch: the place is unpredictable.
    ZoHashEntry** LinkTo(unsigned place, ZoHashEntry*& head) const {
        ZoHashEntry* const before = entries[place - (place != 0 ? 1 : 0)];
        ZoHashEntry** const links[] = {&head, &before->next};
        return links[place != 0 ? 1 : 0];
    }

    // Masks instead of branches: the place is unpredictable, and a compiler turns a comparison into
    // a branch.
    void RemoveAddress(int place) {
        if (place >= int{capacity}) return;
        constexpr std::uintptr_t Stays = 0, Moves = ~Stays;
        static constexpr std::uintptr_t Masks[] = {Stays, Stays, Stays, Stays, Stays, Stays,
                                                   Moves, Moves, Moves, Moves, Moves, Moves};
        std::uintptr_t const* const mask = Masks + (FoundInBucket::Untagged - 1 - place);
        std::uintptr_t words[capacity];
        std::memcpy(words, entries, sizeof words);
        auto const moveUp = [&](int i) { words[i] ^= (words[i] ^ words[i + 1]) & mask[i]; };
        moveUp(0), moveUp(1);
        if constexpr (capacity == TagCapacity) moveUp(2), moveUp(3), moveUp(4), moveUp(5);
        std::memcpy(entries, words, sizeof words);
        entries[capacity - 1] = nullptr;
    }

    // Walks the entries that have no address in the line.
    template <class IsSought>
    [[gnu::noinline]] FoundInBucket SearchRest(ZoHashEntry*& head, IsSought isSought) const {
        int place = std::min(TagCount(), int{capacity});
        while (place != 0 && entries[place - 1] == nullptr) --place;
        ZoHashEntry** link = place != 0 ? &entries[place - 1]->next : &head;
        for (; *link != nullptr && !isSought(*link); ++place) link = &(*link)->next;
        return {*link, link, place < TagCount() ? place : FoundInBucket::Untagged};
    }

    std::uint64_t tags;  // byte i: the tag of entry i, 0 none; the highest byte: GoesOnBit
    ZoHashEntry* entries[capacity];
};

using NarrowLine = BucketLine<3>;
using WideLine = BucketLine<7>;

#endif  // KELVARA_SRC_BUCKET_LINE_H_

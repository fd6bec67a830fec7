// The memory of a grown hash table: the heads of its buckets' chains, and in front of them, in the
// same block, a line for each bucket (bucket_line.h), for the kinds of keys that have lines.
//
// The lines are the larger part of the memory. A table that has just grown has one entry a bucket:
// its lines are narrow. Half way to the next growth a block with wide lines replaces the first.
//
//     entries a bucket    lines     bytes a bucket, with its head, on 64 bits
//     1 to 2              narrow    40
//     2 to 4              wide      72
//
// A table also keeps here its free list: the blocks of some erased entries.
//
//     GrownBuckets* const grown = GrownBuckets::Make(count, GrownBuckets::Narrow);
//     table.buckets = grown->Heads();
//     GrownBuckets::Of(table.buckets).WithLine(index, [&](auto& line) { line.PushFront(…); });

#ifndef KELVARA_SRC_GROWN_BUCKETS_H_
#define KELVARA_SRC_GROWN_BUCKETS_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>

#include "bucket_line.h"
#include "zohash.h"

class GrownBuckets {
public:
    enum Lines : ZoUInt32 { None, Narrow, Wide };

    // A block of `count` empty buckets; null when memory ran out.
    static GrownBuckets* Make(ZoUInt32 count, Lines lines);
    // A block with wide lines for the same chains, and the free list; null when memory ran out. The
    // caller frees this block.
    GrownBuckets* Widened(ZoUInt32 count);
    // Frees the block, but no entry.
    void Free() { ::operator delete(block); }

    static GrownBuckets& Of(ZoHashEntry** heads) {
        return reinterpret_cast<GrownBuckets*>(heads)[-1];
    }
    ZoHashEntry** Heads() { return reinterpret_cast<ZoHashEntry**>(this + 1); }

    // --- lines ---------------------------------------------------------------------------------

    Lines WhichLines() const { return lines; }

    // Calls `work` with the line of a bucket, of either kind. Only if there are lines.
    template <class Work>
    [[gnu::always_inline]] auto WithLine(std::size_t index, Work work) {
        return lines == Wide ? work(LineAt<WideLine>(index)) : work(LineAt<NarrowLine>(index));
    }

    // --- free list -----------------------------------------------------------------------------

    ZoHashEntry* spares;  // erased entries, linked by `next`
    ZoUInt32 nSpares;

private:
    // The last bucket's line comes first.
    template <class Line>
    Line& LineAt(std::size_t index) {
        return reinterpret_cast<Line*>(this)[-1 - static_cast<std::ptrdiff_t>(index)];
    }

    static constexpr std::size_t Alignment = alignof(WideLine);

    Lines lines;
    void* block;
};

inline GrownBuckets* GrownBuckets::Make(ZoUInt32 count, Lines lines) {
    std::size_t const lineSize = lines == Wide     ? sizeof(WideLine)
                                 : lines == Narrow ? sizeof(NarrowLine)
                                                   : 0;
    std::size_t const each = lineSize + sizeof(void*);
    constexpr std::size_t More = Alignment + sizeof(GrownBuckets);
    if (count > (SIZE_MAX - More) / each) return nullptr;
    std::size_t const size = count * each + More;
    void* const block = ::operator new(size, std::nothrow);
    if (block == nullptr) return nullptr;
    std::memset(block, 0, size);
    constexpr std::uintptr_t Last = Alignment - 1;
    std::uintptr_t const start = (reinterpret_cast<std::uintptr_t>(block) + Last) & ~Last;
    GrownBuckets* const made = reinterpret_cast<GrownBuckets*>(start + count * lineSize);
    made->block = block;
    made->lines = lines;
    return made;
}

inline GrownBuckets* GrownBuckets::Widened(ZoUInt32 count) {
    GrownBuckets* const wide = Make(count, Wide);
    if (wide == nullptr) return nullptr;
    constexpr std::size_t Distance = 16;
    for (std::size_t i = count; i-- != 0;) {
        if (i >= Distance) LineAt<NarrowLine>(i - Distance).PrefetchLink();
        wide->LineAt<WideLine>(i).Widen(LineAt<NarrowLine>(i), Heads()[i]);
    }
    std::copy_n(Heads(), count, wide->Heads());
    wide->spares = spares;
    wide->nSpares = nSpares;
    return wide;
}

#endif  // KELVARA_SRC_GROWN_BUCKETS_H_

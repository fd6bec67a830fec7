// A buffer that grows, or may not, against a text: lengths of any size, and what was in it stays.

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "zoencrbuf.h"

extern "C" char const* __asan_default_options() {
    return "allocator_may_return_null=1";
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::uint8_t const* const end = data + size;
    auto const byte = [&] { return data != end ? *data++ : std::uint8_t{0}; };
    // Small, or so large that no memory has room for it.
    auto const length = [&] {
        unsigned long const number = byte() * 256UL + byte();
        return byte() % 4 == 0 ? ULONG_MAX - number % 512 : number;
    };
    unsigned long const room = byte(), first = byte();
    bool const grows = byte() % 2 != 0;
    char given[512];
    ZoEncryptionBuffer buffer(grows ? nullptr : given, room, first,
                              grows ? ZoRawBufferOwnAndGrow : ZoRawBufferUseGiven);
    // A buffer of no bytes has no memory, and so no data.
    unsigned long capacity = room + first, used = first;
    auto const must = [](bool holds) {
        if (!holds) std::abort();
    };
    std::string text;
    while (data != end) {
        unsigned long const wanted = length();
        if (byte() % 2 == 0) {
            bool const fits = capacity >= room && wanted <= capacity - room;
            must(buffer.SetDataLen(wanted) == (fits ? ZoSuccess : ZoBufferTooSmall));
            if (fits) used = wanted;
        } else {
            unsigned long const whole = wanted > ULONG_MAX - room ? ULONG_MAX : room + wanted;
            int const result = buffer.EnsureCapacity(wanted);
            bool const huge = whole > 0x100000;
            must(result == (whole <= capacity ? ZoSuccess
                            : !grows          ? ZoBufferTooSmall
                            : huge            ? ZoOutOfMemory
                                              : ZoSuccess));
            if (result == ZoSuccess && whole > capacity) capacity = whole;
        }
        must(buffer.GetDataLen() == used);
        auto* const at = static_cast<char*>(buffer.GetBuf());
        must(capacity == 0 || at != nullptr);
        must(at == nullptr || buffer.GetData() == at + room);
        if (at == nullptr) continue;
        must(text.empty() || std::memcmp(at, text.data(), text.size()) == 0);
        text.resize(capacity, static_cast<char>(byte()));
        std::memcpy(at, text.data(), capacity);
    }
    return 0;
}

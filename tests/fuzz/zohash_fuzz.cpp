// libFuzzer's way into the hash table: a difference from the model ends it as an uncaught
// exception.

#include "../zohash_model.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    RunTableProgram(data, size);
    return 0;
}

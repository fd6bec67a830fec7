// zohost: the SQLite database engine running on the library's sections.

#include <cstdio>
#include <exception>
#include <optional>

#include "input_error.h"
#include "job.h"
#include "options.h"
#include "soak.h"

namespace {

enum ExitStatus { Passed = 0, Failed = 1, NotBegun = 2 };

}  // namespace

int main(int count, char** words) {
    try {
        std::optional<Options> const options = ParseOptions(count, words);
        if (!options.has_value()) return Passed;
        bool const soaks = options->soak.count() > 0;
        return (soaks ? RunSoak(*options) : RunJob(*options)) ? Passed : Failed;
    } catch (InputError const& error) {
        std::fprintf(stderr, "zohost: %s\n", error.what());
        return NotBegun;
    } catch (std::exception const& error) {
        std::fprintf(stderr, "zohost: %s\n", error.what());
        return Failed;
    }
}

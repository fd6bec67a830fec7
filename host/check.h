// The check of a finished database against a single-threaded pass over the data file.

#ifndef KELVARA_HOST_CHECK_H_
#define KELVARA_HOST_CHECK_H_

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

class ObjectCache;

struct CheckResult {
    std::size_t tables = 0;
    std::size_t rows = 0;
    std::uint64_t digest = 0;  // of all contents, tables and code points in their order
    std::uint64_t expectedDigest = 0;
    std::size_t cachedByCode = 0;
    std::size_t cachedByName = 0;
    std::string integrity;              // what SQLite's own check says; "ok" when all is well
    std::vector<std::string> problems;  // a line each

    bool Passed() const { return problems.empty(); }
};

// Reads the data file anew: each of its records is in the table of its kind with `revision`, and
// nothing else is in the database. What `cache` holds is what the database holds.
CheckResult CheckDatabase(std::filesystem::path const& database, std::filesystem::path const& data,
                          std::int64_t revision, ObjectCache& cache);

#endif  // KELVARA_HOST_CHECK_H_

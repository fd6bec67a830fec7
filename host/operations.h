// What the clients have done and found, added up over all of them.

#ifndef KELVARA_HOST_OPERATIONS_H_
#define KELVARA_HOST_OPERATIONS_H_

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

enum class Operation { Load, LookUp, LookUpByName, Update, Delete, Reinsert };

inline constexpr std::array<char const*, 6> OperationNames{"load",   "look up", "look up by name",
                                                           "update", "delete",  "re-insert"};

// Any thread counts and reads.
class OperationCounts {
public:
    void Add(Operation operation, std::uint64_t number = 1) {
        counts[static_cast<std::size_t>(operation)].fetch_add(number, std::memory_order_relaxed);
    }
    std::uint64_t Of(Operation operation) const {
        return counts[static_cast<std::size_t>(operation)].load(std::memory_order_relaxed);
    }
    std::uint64_t Total() const {
        std::uint64_t total = 0;
        for (auto const& count : counts) total += count.load(std::memory_order_relaxed);
        return total;
    }

private:
    std::array<std::atomic<std::uint64_t>, OperationNames.size()> counts{};
};

// What clients met in the database that should not be there. Keeps the first few different texts.
class Complaints {
public:
    void Add(std::string text) {
        std::lock_guard<std::mutex> hold(mutex);
        ++count;
        bool const isNew = std::find(texts.begin(), texts.end(), text) == texts.end();
        if (isNew && texts.size() < 5) texts.push_back(std::move(text));
    }
    std::uint64_t Count() const {
        std::lock_guard<std::mutex> hold(mutex);
        return count;
    }
    std::vector<std::string> Texts() const {
        std::lock_guard<std::mutex> hold(mutex);
        return texts;
    }

private:
    mutable std::mutex mutex;  // guards both
    std::uint64_t count = 0;
    std::vector<std::string> texts;
};

#endif  // KELVARA_HOST_OPERATIONS_H_

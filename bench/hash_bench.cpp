// The hash table beside the standard library's map and a flat one.
//
// Ours is used as its users do: without a lock, which it does not have, and through its virtual
// operations where it has no others. The peers get their keys ready made, so that no string is
// built for a search. Keys look like numbers drawn by chance, or like names of 8 to 24 letters.
// They are searched and removed in another order than they were inserted in.
#include "zohash.h"

#include <absl/container/flat_hash_map.h>
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <vector>

namespace {

using Word = std::uintptr_t;

// --- keys --------------------------------------------------------------------------------------

// One to one, so that different numbers stay different.
std::uint32_t Scrambled(std::uint32_t number) {
    number = (number ^ (number >> 16)) * 0x85EBCA6BU;
    number = (number ^ (number >> 13)) * 0xC2B2AE35U;
    return number ^ (number >> 16);
}

template <class Key>
Key MakeKey(std::uint32_t number);

template <>
Word MakeKey<Word>(std::uint32_t number) {
    return Scrambled(number);
}

template <>
std::string MakeKey<std::string>(std::uint32_t number) {
    std::uint32_t rest = Scrambled(number);
    std::string name(8 + rest % 17, 'a');
    for (char& letter : name) {
        letter = static_cast<char>('a' + rest % 26);
        rest = rest / 26 + 0x9E3779B1U * (rest % 26);
    }
    return name;
}

// --- tables ------------------------------------------------------------------------------------

unsigned short KeySizeOf(Word) {
    return ZoHashTable::WordKeys;
}
unsigned short KeySizeOf(std::string const&) {
    return ZoHashTable::StringKeys;
}
char const* Passed(Word key) {
    return reinterpret_cast<char const*>(key);
}
char const* Passed(std::string const& key) {
    return key.c_str();
}

template <class Key>
class Ours {
public:
    Ours() : table(new ZoHashTable(KeySizeOf(Key()), nullptr)) {
        benchmark::DoNotOptimize(table);  // the compiler must not see which class it is
    }
    bool Insert(Key const& key, void* value) {
        return table->InsertValue(Passed(key), value) != nullptr;
    }
    void* Find(Key const& key) const { return table->GetValueFast(Passed(key)); }
    bool Erase(Key const& key) { return table->DeleteValue(Passed(key), nullptr) == 0; }
    template <class Visit>
    void Iterate(Visit visit) const {
        ZoHashIterator it;
        for (ZoHashEntry* e = table->FirstEntry(it); e != nullptr; e = table->NextEntry(it)) {
            visit(e->value);
        }
    }

private:
    std::unique_ptr<ZoHashTable> table;
};

template <class Map>
class Peer {
public:
    using Key = typename Map::key_type;
    bool Insert(Key const& key, void* value) { return map.emplace(key, value).second; }
    void* Find(Key const& key) const {
        auto const found = map.find(key);
        return found != map.end() ? found->second : nullptr;
    }
    bool Erase(Key const& key) { return map.erase(key) != 0; }
    template <class Visit>
    void Iterate(Visit visit) const {
        for (auto const& [key, value] : map) visit(value);
    }

private:
    Map map;
};

// --- measuring ---------------------------------------------------------------------------------

template <class Key>
struct Keys {
    explicit Keys(std::uint32_t size) {
        inserted.reserve(size);
        for (std::uint32_t i = 0; i < size; ++i) inserted.push_back(MakeKey<Key>(i));
        // Of a large table a part shows as much.
        std::uint32_t const part = size > 100000 ? size / 10 : size;
        std::minstd_rand random(size);
        std::sample(inserted.begin(), inserted.end(), std::back_inserter(shuffled), part, random);
        std::shuffle(shuffled.begin(), shuffled.end(), random);
        for (std::uint32_t i = 0; i < part; ++i) absent.push_back(MakeKey<Key>(size + i));
    }

    std::vector<Key> inserted;
    std::vector<Key> shuffled;
    std::vector<Key> absent;
};

// The one `Thing` of each size, made at the first question.
template <class Thing>
Thing& OfSize(std::uint32_t size) {
    static std::map<std::uint32_t, Thing> things;
    return things.try_emplace(size, size).first->second;
}

// A number of tables with the same keys: enough small ones to make a time that a clock can tell.
template <class Table, class Key>
class Subject {
public:
    explicit Subject(std::uint32_t size)
        : keys(OfSize<Keys<Key>>(size)), tables(std::max(1U, 10000 / size)) {}

    void Empty() {
        for (Table& table : tables) table = Table();
        isFull = false;
    }
    std::size_t Fill() {
        isFull = true;
        return Insert(keys.inserted);
    }
    void Complete() {
        if (!isFull) Fill();
    }
    std::size_t Insert(std::vector<Key>& added) {
        for (Table& table : tables) {
            for (Key& key : added) benchmark::DoNotOptimize(table.Insert(key, &key));
        }
        return tables.size() * added.size();
    }
    std::size_t Find(std::vector<Key> const& sought) {
        for (Table& table : tables) {
            for (Key const& key : sought) benchmark::DoNotOptimize(table.Find(key));
        }
        return tables.size() * sought.size();
    }
    std::size_t Erase() {
        for (Table& table : tables) {
            for (Key const& key : keys.shuffled) benchmark::DoNotOptimize(table.Erase(key));
        }
        return tables.size() * keys.shuffled.size();
    }
    std::size_t Iterate() {
        for (Table& table : tables) {
            table.Iterate([](void* value) { benchmark::DoNotOptimize(value); });
        }
        return tables.size() * keys.inserted.size();
    }

    Keys<Key>& keys;

private:
    std::vector<Table> tables;
    bool isFull = false;
};

template <class Work>
void Time(benchmark::State& state, std::size_t& operations, Work work) {
    auto const start = std::chrono::steady_clock::now();
    operations += work();
    std::chrono::duration<double> const time = std::chrono::steady_clock::now() - start;
    state.SetIterationTime(time.count());
}

enum class Operation { Insert, Hit, Miss, Iterate, Erase };

template <class Table, class Key>
void Measure(benchmark::State& state, Operation operation, std::uint32_t size) {
    auto& subject = OfSize<Subject<Table, Key>>(size);
    if (operation != Operation::Insert) subject.Complete();
    std::size_t operations = 0;
    for (auto _ : state) {
        switch (operation) {
            case Operation::Insert:
                subject.Empty();
                Time(state, operations, [&] { return subject.Fill(); });
                break;
            case Operation::Hit:
                Time(state, operations, [&] { return subject.Find(subject.keys.shuffled); });
                break;
            case Operation::Miss:
                Time(state, operations, [&] { return subject.Find(subject.keys.absent); });
                break;
            case Operation::Iterate:
                Time(state, operations, [&] { return subject.Iterate(); });
                break;
            case Operation::Erase:
                Time(state, operations, [&] { return subject.Erase(); });
                subject.Insert(subject.keys.shuffled);
                break;
        }
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(operations));
}

template <class Table, class Key>
void Register(std::string const& name, Operation operation, std::uint32_t size,
              std::string const& who) {
    benchmark::RegisterBenchmark(
        (name + "/" + who).c_str(),
        [=](benchmark::State& state) { Measure<Table, Key>(state, operation, size); })
        ->UseManualTime()
        ->Iterations(size > 100000 ? 1 : 10);
}

// --- memory ------------------------------------------------------------------------------------

// What the allocator has given away, with its own words in front of each block.
std::size_t AllocatedBytes() {
    struct mallinfo2 const info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

// The whole table counts: entries, buckets and the object itself.
template <class Table>
void BytesPerEntry(benchmark::State& state, std::uint32_t size) {
    for (auto _ : state) {
        std::size_t const before = AllocatedBytes();
        auto const table = std::make_unique<Table>();
        for (std::uint32_t i = 0; i < size; ++i) table->Insert(MakeKey<Word>(i), nullptr);
        state.counters["bytes per entry [B]"] =
            static_cast<double>(AllocatedBytes() - before) / size;
    }
}

// --- all of it ---------------------------------------------------------------------------------

template <class Key>
void RegisterAll(std::string const& kind) {
    struct {
        Operation operation;
        char const* name;
    } const operations[] = {{Operation::Insert, "insert"},
                            {Operation::Hit, "find"},
                            {Operation::Miss, "find none"},
                            {Operation::Iterate, "iterate"},
                            {Operation::Erase, "erase"}};
    for (std::uint32_t const size : {100U, 10000U, 1000000U}) {
        for (auto const& [operation, verb] : operations) {
            // A million strings take long to make and to insert.
            bool const isFind = operation == Operation::Hit || operation == Operation::Miss;
            if (std::is_same_v<Key, std::string> && size > 100000 && !isFind) continue;
            std::string const name = std::string(verb) + ", " + std::to_string(size) + " " + kind;
            using Standard = Peer<std::unordered_map<Key, void*>>;
            using Flat = Peer<absl::flat_hash_map<Key, void*>>;
            Register<Ours<Key>, Key>(name, operation, size, "zo");
            Register<Standard, Key>(name, operation, size, "std::unordered_map");
            Register<Flat, Key>(name, operation, size, "absl::flat_hash_map");
        }
    }
}

template <class Table>
void RegisterBytes(std::string const& who) {
    for (std::uint32_t const size : {65536U, 1000000U, 1048577U}) {
        benchmark::RegisterBenchmark(
            (std::to_string(size) + " words/" + who).c_str(),
            [=](benchmark::State& state) { BytesPerEntry<Table>(state, size); })
            ->Iterations(1)
            ->Repetitions(1);  // every time the same
    }
}

int const registered = [] {
    RegisterAll<Word>("words");
    RegisterAll<std::string>("strings");
    RegisterBytes<Ours<Word>>("zo");
    RegisterBytes<Peer<std::unordered_map<Word, void*>>>("std::unordered_map");
    RegisterBytes<Peer<absl::flat_hash_map<Word, void*>>>("absl::flat_hash_map");
    return 0;
}();

}  // namespace

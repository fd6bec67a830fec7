#include "zohash.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <list>
#include <random>
#include <thread>

#include "services.h"
#include "zohash_model.h"

namespace {

char const* Word(std::uintptr_t word) {
    return reinterpret_cast<char const*>(word);  // NOLINT(performance-no-int-to-ptr)
}

TEST(HashTable, RandomProgramsAgreeWithUnorderedMap) {
    NEEDS_ALLOC_FAULTS();
    std::mt19937 random(20260);
    std::vector<std::uint8_t> bytes(6000);
    for (unsigned run = 0; run < 10 * std::size(keyKinds); ++run) {
        for (std::uint8_t& byte : bytes) byte = static_cast<std::uint8_t>(random());
        bytes[0] = static_cast<std::uint8_t>(run % std::size(keyKinds));
        SCOPED_TRACE(std::string(keyKinds[bytes[0]].name) + ", run " + std::to_string(run));
        ASSERT_NO_THROW(RunTableProgram(bytes.data(), bytes.size()));
    }
}

unsigned long HashOf(ZoHashTable const& table, char const* key) {
    ZoHashPosition pos;
    table.Position(key, pos);
    return pos.hash;
}

TEST(HashTable, HashesOfKnownKeys) {
    ZoHashTable small(ZoHashTable::WordKeys, nullptr), grown(ZoHashTable::WordKeys, nullptr);
    ASSERT_EQ(grown.RebuildTable(), 0);
    std::uintptr_t key = 0;
    for (unsigned long hash : {0UL, 4UL, 0xFFFFFFF8UL, 0xFFFFFFFCUL, 0UL}) {
        EXPECT_EQ(HashOf(small, Word(key)), hash);
        unsigned long whole;
        ZoHashEntry* prev;
        EXPECT_EQ(OneDWordFind(&small, Word(key++), whole, nullptr, prev), nullptr);
        EXPECT_EQ(whole, hash);  // no bits above the 32
        EXPECT_EQ(prev, nullptr);
    }
    EXPECT_EQ(HashOf(small, Word(0x400)) & 3, 1U);
    EXPECT_EQ(HashOf(small, Word(0x900)) & 3, 3U);
    EXPECT_EQ(HashOf(small, Word(0x10006)) & 3, 1U);
    EXPECT_EQ(HashOf(grown, Word(3)) & 15, 1U);
    EXPECT_EQ(HashOf(grown, Word(0x400)) & 15, 6U);

    ZoHashTable texts(ZoHashTable::StringKeys, nullptr);
    EXPECT_EQ(HashOf(texts, ""), 0U);
    EXPECT_EQ(HashOf(texts, "a"), 0x61U);
    EXPECT_EQ(HashOf(texts, "ab"), 0x3CBU);
    EXPECT_EQ(HashOf(texts, "abc"), 0x2286U);
    EXPECT_EQ(HashOf(texts, "\xE9"), 0xFFFFFFE9U);
    texts.InsertValue("ABC", nullptr);
    EXPECT_EQ(texts.LookUp("abc"), nullptr);

    EXPECT_EQ(HashOf(ZoHashTable(4, nullptr), "\1\2\3\4"), 0xFFFFFFF9U);
    EXPECT_EQ(HashOf(ZoHashTable(ZoHashTable::WordKeys, PointerFind), Word(0xDEADBEEF)),
              0xDEADBEEFU);

    ZoHashTable values(ZoHashTable::WordKeys, ValuePointerFind);
    EXPECT_EQ(HashOf(values, Word(0x80000008U)), 0x10000001U);
    int spot[2];
    values.InsertValue(reinterpret_cast<char*>(spot), spot);
    EXPECT_EQ(values.LookUp(reinterpret_cast<char*>(spot) + 1), nullptr);

    // Records at an odd address: words are read at any alignment.
    char record[17] = {}, other[17] = {};
    record[1 + 4] = 5, record[1 + 8] = 1, other[1 + 4] = 4;
    if constexpr (std::endian::native == std::endian::little) {
        ZoHashTable surrogates(ZoHashTable::SurrogateKeys, nullptr);
        EXPECT_EQ(HashOf(surrogates, record + 1), 4U);
        EXPECT_EQ(HashOf(surrogates, other + 1), 4U);
        surrogates.InsertValue(record + 1, spot);
        EXPECT_EQ(surrogates.LookUp(other + 1), nullptr);
        record[1 + 8] = 0, record[1 + 12] = 1;
        EXPECT_EQ(HashOf(surrogates, record + 1), 0x10005U);
    }
}

// Word keys are compared to their whole width, whatever of it the hash takes.
TEST(HashTable, WordsThatDifferInTheUpperHalf) {
    if constexpr (sizeof(std::uintptr_t) > 4) {
        std::uintptr_t const upper = std::uintptr_t{1} << (sizeof upper * 4);
        for (ZoHashSearch find : {OneDWordFind, PointerFind}) {
            ZoHashTable table(ZoHashTable::WordKeys, find);
            int values[2];
            EXPECT_NE(table.InsertValue(Word(7), &values[0]), nullptr);
            EXPECT_NE(table.InsertValue(Word(7 + upper), &values[1]), nullptr);
            EXPECT_EQ(HashOf(table, Word(7)), HashOf(table, Word(7 + upper)));
            EXPECT_EQ(table.GetValueFast(Word(7 + upper)), &values[1]);
            EXPECT_EQ(table.GetKey(*table.LookUp(Word(7 + upper))), Word(7 + upper));
        }
    }
}

TEST(HashTable, GrowsByFourAndShrinksWhenTheLastEntryGoes) {
    NEEDS_ALLOC_FAULTS();
    ZoHashTable table(ZoHashTable::WordKeys, nullptr);
    auto const shape = [&] {
        return std::vector<unsigned long>{table.nBuckets, table.mask, table.threshold, table.shift};
    };
    std::vector<unsigned long> const initial{4, 3, 16, 28}, grown{16, 15, 64, 26};
    auto const fill = [&] {
        for (unsigned key = 0; key < 16; ++key) {
            EXPECT_EQ(shape(), initial);
            table.InsertValue(Word(key), &table);
        }
        EXPECT_EQ(shape(), grown);
    };
    fill();
    for (unsigned key = 0; key < 16; ++key) EXPECT_EQ(table.DeleteValue(Word(key), nullptr), 0);
    fill();
    for (unsigned key = 0; key < 16; ++key) EXPECT_EQ(table.Remove(Word(key)), &table);
    EXPECT_EQ(shape(), initial);
    EXPECT_EQ(table.buckets, table.initialBuckets);

    fill();
    table.EmptyTable(nullptr);
    EXPECT_EQ(shape(), grown);
    ZoHashPosition pos;
    table.InsertValue(Word(1), &table);
    table.Position(Word(1), pos);
    EXPECT_EQ(table.Delete(pos), 0);
    EXPECT_EQ(table.Delete(pos), ZoBadPosition);
    EXPECT_EQ(shape(), grown);

    // A table of foreign keys shrinks by Remove alone.
    ForeignTable foreign(nullptr);
    Record record{"key"};
    foreign.RebuildTable();
    foreign.InsertValue(record.key, &record);
    EXPECT_EQ(foreign.DeleteValue(record.key, nullptr), 0);
    EXPECT_EQ(foreign.nBuckets, 16U);
    foreign.InsertValue(record.key, &record);
    EXPECT_EQ(foreign.Remove(record.key), &record);
    EXPECT_EQ(foreign.nBuckets, 4U);

    ZoHashTable sized(ZoHashTable::WordKeys, PointerFind);
    EXPECT_EQ(sized.SetExpectedSize(16), 0);
    EXPECT_EQ(sized.nBuckets, 4U);
    {
        AllocFault const second(2);
        EXPECT_EQ(sized.SetExpectedSize(100), 0);  // one rehash: one allocation
    }
    EXPECT_EQ(sized.nBuckets, 64U);
    for (unsigned long n : {(1UL << 30) + 1, 0xFFFFFFFFUL, ~0UL}) {
        EXPECT_EQ(sized.SetExpectedSize(n), ZoOutOfMemory);
    }
    for (unsigned long steps : {13UL, 0x80000000UL, ~0UL}) {
        EXPECT_EQ(sized._RebuildTable(steps), ZoOutOfMemory);
    }
    AllocFault const next(1);
    EXPECT_EQ(sized.SetExpectedSize(1UL << 30), ZoOutOfMemory);
    EXPECT_TRUE(next.Happened());
    EXPECT_EQ(sized.nBuckets, 64U);
    EXPECT_EQ(sized.shift, 24U);
}

// Buckets in index order, each the last insertion first; a growth takes every chain from its head
// and so turns it round.
TEST(HashTable, IteratesInTheOrderOfTheChains) {
    ZoHashTable table(ZoHashTable::WordKeys, PointerFind);
    std::vector<std::list<std::uintptr_t>> chains(4);
    ZoHashIterator it;
    EXPECT_EQ(table.FirstEntry(it), nullptr);
    EXPECT_EQ(it.index, 4U);
    std::mt19937 random(3);
    for (int i = 0; i < 300; ++i) {
        std::uintptr_t const key = random();
        table.InsertValue(Word(key), &table);
        chains[key % chains.size()].push_front(key);
        if (table.GetNum() == 4 * chains.size()) {
            std::vector<std::list<std::uintptr_t>> moved(4 * chains.size());
            for (auto const& chain : chains) {
                for (std::uintptr_t const word : chain) moved[word % moved.size()].push_front(word);
            }
            chains.swap(moved);
        }
        std::vector<std::uintptr_t> expected, seen;
        for (auto const& chain : chains)
            expected.insert(expected.end(), chain.begin(), chain.end());
        for (ZoHashEntry* e = table.FirstEntry(it); e != nullptr; e = table.NextEntry(it)) {
            seen.push_back(reinterpret_cast<std::uintptr_t>(table.GetKey(*e)));
        }
        ASSERT_EQ(seen, expected);
        // An iteration from a found entry on is the rest of the whole one.
        auto const from = static_cast<std::ptrdiff_t>(random() % seen.size());
        ASSERT_NE(table.FindEntry(Word(seen[static_cast<std::size_t>(from)]), it), nullptr);
        std::vector<std::uintptr_t> rest;
        while (ZoHashEntry* e = table.NextEntry(it)) {
            rest.push_back(reinterpret_cast<std::uintptr_t>(table.GetKey(*e)));
        }
        ASSERT_EQ(rest, std::vector<std::uintptr_t>(seen.begin() + from + 1, seen.end()));
    }
}

TEST(HashTable, PositionsFitOneTableOnce) {
    ZoHashTable table(ZoHashTable::WordKeys, PointerFind), other(ZoHashTable::WordKeys, nullptr);
    ZoHashPosition pos;
    EXPECT_EQ(table.Position(Word(4), pos), 0);
    EXPECT_EQ(table.Delete(pos), ZoBadPosition);  // nothing was found
    EXPECT_EQ(other.Create(pos, &pos), ZoBadPosition);
    EXPECT_EQ(table.Create(pos, &pos), 0);
    EXPECT_EQ(table.Create(pos, &pos), ZoBadPosition);

    // An insertion between the search and the deletion stays: as a new head, and, when it parts
    // the entry from its predecessor, by a refusal.
    EXPECT_EQ(table.Position(Word(4), pos), 1);
    table.InsertValue(Word(8), &pos);
    EXPECT_EQ(table.Delete(pos), 0);
    EXPECT_NE(table.LookUp(Word(8)), nullptr);
    table.InsertValue(Word(12), &pos);
    EXPECT_EQ(table.Position(Word(8), pos), 1);
    table.RebuildTable();
    EXPECT_EQ(table.Delete(pos), ZoBadPosition);
    EXPECT_EQ(table.GetNum(), 2U);
    // Or when the entry itself is gone by then.
    ZoHashPosition gone;
    table.InsertValue(Word(24), &pos);
    EXPECT_EQ(table.Position(Word(8), gone), 1);
    ASSERT_NE(gone.prev, nullptr);
    EXPECT_EQ(table.Remove(Word(8)), &pos);
    EXPECT_EQ(table.Delete(gone), ZoBadPosition);
    table.Remove(Word(24));
    table.InsertValue(Word(8), &pos);
    // Entries that are not the table's own outlive their erasure.
    ZoHashEntry* const erased[] = {table.LookUp(Word(8)), table.LookUp(Word(12))};
    table.EraseBuckets();
    EXPECT_EQ(table.LookUp(Word(8)), nullptr);
    EXPECT_EQ(table.Delete(pos), ZoBadPosition);
    for (ZoHashEntry* entry : erased) table.DestroyHashEntry(entry);
}

// What is created or deleted through a position lies in its bucket although the table has another
// shape by then.
TEST(HashTable, PositionsOutliveGrowth) {
    ZoHashTable table(ZoHashTable::WordKeys, nullptr);
    for (unsigned key = 1; key < 200; ++key) {
        ZoHashPosition created, deleted;
        table.InsertValue(Word(1000), &table);
        EXPECT_EQ(table.Position(Word(key), created), 0);
        EXPECT_EQ(table.Position(Word(1000), deleted), 1);
        bool const head = deleted.prev == nullptr;
        table.RebuildTable();
        EXPECT_EQ(table.Create(created, &table), 0);
        EXPECT_EQ(table.LookUp(Word(key)), created.entry);
        EXPECT_EQ(table.Delete(deleted), head ? 0 : ZoBadPosition);
        table.Remove(Word(key));
        table.Remove(Word(1000));
    }
}

// Of a chain that is longer than most the front is found in another way than the rest: whatever
// comes and goes, the order stays, and of two entries with one key the first counts.
TEST(HashTable, LongChainsOfLargeTables) {
    for (unsigned short const kind : {ZoHashTable::WordKeys, ZoHashTable::StringKeys}) {
        ZoHashTable table(kind, nullptr);
        ASSERT_EQ(table.SetExpectedSize(1024), 0);
        std::list<std::string> texts;
        std::vector<char const*> keys;  // all of one bucket
        for (unsigned i = 1; keys.size() < 16; ++i) {
            texts.push_back("text number " + std::to_string(i));
            char const* const key = kind == ZoHashTable::WordKeys ? Word(i) : texts.back().c_str();
            if ((HashOf(table, key) & table.mask) == 5) keys.push_back(key);
        }
        std::list<std::pair<char const*, ZoHashEntry*>> chain;
        auto const first = [&](char const* key) {
            return std::find_if(chain.begin(), chain.end(),
                                [&](auto const& pair) { return pair.first == key; });
        };
        std::mt19937 random(5);
        for (int step = 0; step < 4000; ++step) {
            char const* const key = keys[random() % keys.size()];
            auto const present = first(key);
            ZoHashPosition pos;
            table.Position(key, pos);
            if (random() % 512 == 0) {
                if (step % 2 == 0) {
                    table.EraseBuckets();
                    for (auto const& pair : chain) table.DestroyHashEntry(pair.second);
                } else {
                    table.EmptyTable(nullptr);
                }
                chain.clear();
            } else if (present == chain.end() || random() % 8 == 0) {
                ASSERT_EQ(table.Create(pos, &table), 0);
                chain.emplace_front(key, pos.entry);
            } else {
                ASSERT_EQ(step % 2 == 0 ? table.DeleteValue(key, nullptr) : table.Delete(pos), 0);
                chain.erase(present);
                ASSERT_EQ(table.SetExpectedSize(1024), 0);  // for when that was the last entry
            }
            ZoHashEntry const* entry = table.buckets[5];
            for (auto const& [ignored, expected] : chain) {
                ASSERT_EQ(entry, expected);
                entry = entry->next;
            }
            ASSERT_EQ(entry, nullptr);
            for (char const* const sought : keys) {
                auto const expected = first(sought);
                ASSERT_EQ(table.LookUp(sought),
                          expected != chain.end() ? expected->second : nullptr);
            }
        }
    }
}

TEST(HashTable, AverageSearch) {
    ZoHashTable table(ZoHashTable::WordKeys, PointerFind);
    unsigned long longest = 9;
    EXPECT_EQ(table.AverageSearch(longest), 0.0);
    EXPECT_EQ(longest, 0U);
    table.InsertValue(Word(0), &table);
    EXPECT_EQ(table.AverageSearch(longest), 1.0);
    EXPECT_EQ(longest, 1U);
    for (unsigned key : {4U, 8U, 1U}) table.InsertValue(Word(key), &table);
    EXPECT_EQ(table.AverageSearch(longest), (1 + 2 + 3 + 1) / 4.0);
    EXPECT_EQ(longest, 3U);
}

TEST(HashTable, FailedAllocationsLeaveTheTableAsItWas) {
    NEEDS_ALLOC_FAULTS();
    ZoHashTable table(ZoHashTable::StringKeys, nullptr);
    for (char name[] = "a"; *name != 'p'; ++*name) table.InsertValue(name, &table);
    ASSERT_EQ(table.GetNum(), 15U);
    ZoHashEntry* entry;
    ZoHashTable* copy;
    EXPECT_EQ(FailEachAllocation([&](AllocFault const& fault) {
                  int const result = table.CloneHashEntry(*table.LookUp("a"), entry);
                  EXPECT_EQ(result, entry != nullptr ? 0 : ZoOutOfMemory);
                  EXPECT_EQ(fault.Happened(), entry == nullptr);
              }),
              1);
    EXPECT_STREQ(table.GetKey(*entry), "a");
    EXPECT_EQ(entry->value, &table);
    table.DestroyHashEntry(entry);
    table.DestroyHashEntry(nullptr);
    // The table and its 15 entries.
    EXPECT_EQ(FailEachAllocation([&](AllocFault const& fault) {
                  int const result = table.Clone(copy, nullptr);
                  EXPECT_EQ(result, copy != nullptr ? 0 : ZoOutOfMemory);
                  EXPECT_EQ(fault.Happened(), copy == nullptr);
                  delete copy;
              }),
              16);
    // The 16th entry, then the growth, without which the insertion stands.
    EXPECT_EQ(FailEachAllocation([&](AllocFault const& fault) {
                  bool const inserted = table.InsertValue("new", &table) != nullptr;
                  EXPECT_EQ(table.GetNum(), inserted ? 16U : 15U);
                  EXPECT_EQ(table.nBuckets, fault.Happened() ? 4U : 16U);
                  table.Remove("new");
              }),
              2);
}

// Notes which hooks the table uses.
class HookedTable : public ZoHashTable {
public:
    explicit HookedTable(unsigned short keySize) : ZoHashTable(keySize, nullptr) {}
    ~HookedTable() override { EmptyTable(nullptr); }
    ZoHashEntry* CreateHashEntryX(char const* key, void* value, unsigned long hash) override {
        calls += "c" + std::to_string(hash);
        return ZoHashTable::CreateHashEntryX(key, value, hash);
    }
    void DestroyHashEntry(ZoHashEntry* entry) override {
        calls += "d";
        ZoHashTable::DestroyHashEntry(entry);
    }
    void ChangeHashEntry(ZoHashEntry* entry, void* value) override {
        calls += "x";
        ZoHashTable::ChangeHashEntry(entry, value);
    }
    static inline std::string calls;
};

TEST(HashTable, MakesAndDestroysEntriesThroughTheHooks) {
    {
        HookedTable table(ZoHashTable::StringKeys);
        ZoHashPosition pos;
        table.InsertValue("a", &pos);
        table.ChangeValue("b", &pos, 1, 0, nullptr);
        table.ChangeValue("b", nullptr, 0, 1, nullptr);
        table.Position("c", pos);
        table.Create(pos, &pos);
        table.Remove("c");
        table.DeleteValue("b", nullptr);
    }
    EXPECT_EQ(HookedTable::calls, "c97c98xc99ddd");
    HookedTable::calls.clear();
    {
        HookedTable table(ZoHashTable::WordKeys);
        ZoHashPosition pos;
        table.RebuildTable();
        table.InsertValue(Word(0), &pos);
        table.Position(Word(0), pos);
        table.Delete(pos);
        table.InsertValue(Word(0), &pos);
    }
    EXPECT_EQ(HookedTable::calls, "c0dc0d");
}

TEST(HashTable, KeepsBlocksOfDeletedWords) {
    NEEDS_ALLOC_FAULTS();
    long const before = AllocFault::Live();
    int value;
    ZoHashTable table(ZoHashTable::WordKeys, nullptr);
    for (unsigned key = 0; key < 40; ++key) table.InsertValue(Word(key), &table);
    for (unsigned key = 0; key < 20; ++key) table.DeleteValue(Word(key), nullptr);
    EXPECT_EQ(table.nBuckets, 16U);
    EXPECT_EQ(AllocFault::Live() - before, 1 + 20 + 16);  // one a bucket
    table.RebuildTable();
    {
        AllocFault const next(1);
        for (unsigned key = 0; key < 16; ++key) {
            EXPECT_EQ(table.ChangeValue(Word(100 + key), &value, 1, 0, nullptr), 0);
            EXPECT_EQ(table.GetValueFast(Word(100 + key)), &value);
        }
        EXPECT_FALSE(next.Happened());
        EXPECT_EQ(table.InsertValue(Word(0), &table), nullptr);
    }
    for (unsigned key = 20; key < 40; ++key) table.Remove(Word(key));
    for (unsigned key = 100; key < 116; ++key) table.Remove(Word(key));
    EXPECT_EQ(AllocFault::Live(), before);
}

TEST(HashTable, ReportsWhatItCannotDo) {
    zotest::Services services;
    ZoHashTable table(ZoHashTable::StringKeys, nullptr);
    table.InsertValue("a", &table);
    ZoHashTable copy(table);
    copy = table;
    EXPECT_EQ(copy.LookUp("a"), nullptr);
    for (unsigned short keySize : {ZoHashTable::ForeignKeys, static_cast<unsigned short>(0)}) {
        ZoHashTable keyless(keySize, nullptr);
        ZoHashEntry* const entry = keyless.CreateHashEntry("key", &table);
        keyless.buckets[0] = entry;
        keyless.num = 1;
        EXPECT_EQ(keyless.RebuildTable(), 0);  // needs the entry's key
        ZoHashEntry* clone;
        EXPECT_EQ(keyless.CloneHashEntry(*entry, clone), 0);
        EXPECT_EQ(clone->value, &table);
        keyless.DestroyHashEntry(clone);
    }
    std::vector<std::string> const keyless{
        R"(( "You must have a seperate space for the key." && 0 ) src/zohash 365)",
        R"(( "You need a space to get the key." && 0 ) src/zohash 412)",
        R"(( "You must have a special space for the key." && 0 ) src/zohash 151)"};
    std::vector<std::string> expected{
        R"(( "The hash table does not have a copy ctor" && 0 ) src/zohash 88)",
        R"(( "The hash table does not have an assignement op" && 0 ) src/zohash 94)"};
    expected.insert(expected.end(), keyless.begin(), keyless.end());
    expected.push_back("keySize != 0 src/zohash 381");
    expected.insert(expected.end(), keyless.begin(), keyless.end());
    EXPECT_EQ(services.Assertions(), expected);
}

// A thread changes the table under the lock without pause; the operations that take the lock meet
// it only between its changes (ThreadSanitizer sees one that does not take it), and leave it again.
TEST(HashTable, LockedOperationsExcludeEachOther) {
    ZoHashTable table(ZoHashTable::WordKeys, nullptr);
    ZoMTObj lock;
    std::atomic<int> changes{0};
    std::atomic<bool> done{false};
    std::thread changing([&] {
        while (!done) {
            ZoAutoSync const held(&lock);
            for (unsigned key = 0; key < 40; ++key) table.InsertValue(Word(key), &table);
            for (unsigned key = 0; key < 40; ++key) table.Remove(Word(key));
            ++changes;
        }
    });
    // Each operation is tried until the other thread has had many turns beside it.
    auto const beside = [&](auto operation) {
        for (int const until = changes + 20; changes < until;) operation();
    };
    ZoHashTable* copy;
    beside([&] { EXPECT_EQ(table.GetValue(Word(7), &lock), nullptr); });
    beside([&] { EXPECT_EQ(table.ChangeValue(Word(7), &table, 0, 1, &lock), ZoNotFound); });
    beside([&] { EXPECT_EQ(table.DeleteValue(Word(7), &lock), ZoNotFound); });
    beside([&] { EXPECT_EQ(table.EmptyTable(&lock), 0); });
    beside([&] {
        EXPECT_EQ(table.Clone(copy, &lock), 0);
        EXPECT_EQ(copy->GetNum(), 0U);
        delete copy;
    });
    done = true;
    changing.join();
}

}  // namespace

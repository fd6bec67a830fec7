#include "zohash.h"

#include <gtest/gtest.h>

#include <bit>
#include <random>

#include "services.h"
#include "zohash_model.h"

namespace {

char const* Word(std::uintptr_t word) {
    return reinterpret_cast<char const*>(word);  // NOLINT(performance-no-int-to-ptr)
}

TEST(HashTable, RandomProgramsAgreeWithTheModel) {
    NEEDS_ALLOC_FAULTS();
    std::mt19937 random(20260);
    std::vector<std::uint8_t> bytes(6000);
    for (unsigned run = 0; run < 16 * std::size(keyKinds); ++run) {
        for (std::uint8_t& byte : bytes) byte = static_cast<std::uint8_t>(random());
        bytes[0] = static_cast<std::uint8_t>(run % std::size(keyKinds));
        bytes[1] = static_cast<std::uint8_t>(run / std::size(keyKinds));
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
    EXPECT_EQ(HashOf(small, Word(0xF4E1B281)), 0xFFFFFFFDU);
    EXPECT_EQ(HashOf(grown, Word(3)) & 15, 1U);
    EXPECT_EQ(HashOf(grown, Word(0x400)) & 15, 6U);

    ZoHashTable texts(ZoHashTable::StringKeys, nullptr);
    EXPECT_EQ(HashOf(texts, "ab"), 0x3CBU);
    EXPECT_EQ(HashOf(texts, "abc"), 0x2286U);
    EXPECT_EQ(HashOf(texts, "\xE9"), 0xFFFFFFE9U);
    std::string text;  // of every length: eight characters are taken at once
    ZoUInt32 hash = 0;
    for (signed char c = 100; c < 127; ++c) {
        EXPECT_EQ(HashOf(texts, text.c_str()), hash) << text.size();
        text += static_cast<char>(c % 2 != 0 ? c : -c);
        hash = 9 * hash + static_cast<ZoUInt32>(c % 2 != 0 ? c : -c);
    }
    texts.InsertValue("ABC", nullptr);
    EXPECT_EQ(texts.LookUp("abc"), nullptr);

    ZoHashTable bytes(4, nullptr);
    EXPECT_EQ(HashOf(bytes, "\1\2\3\4"), 0xFFFFFFF9U);
    EXPECT_EQ(HashOf(bytes, "\xFF\1\1\1"), HashOf(small, Word(0x102)));
    bytes.InsertValue("abcd", nullptr);
    EXPECT_EQ(bytes.LookUp("abce"), nullptr);
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

TEST(HashTable, GrowsOnceToTheExpectedSize) {
    NEEDS_ALLOC_FAULTS();
    ZoHashTable table(ZoHashTable::WordKeys, PointerFind);
    EXPECT_EQ(table.SetExpectedSize(16), 0);
    EXPECT_EQ(table.nBuckets, 4U);
    {
        AllocFault const second(2);
        EXPECT_EQ(table.SetExpectedSize(100), 0);  // one rehash: one allocation
    }
    EXPECT_EQ(table.nBuckets, 64U);
    for (unsigned long n : {(1UL << 30) + 1, 0xFFFFFFFFUL, ~0UL}) {
        EXPECT_EQ(table.SetExpectedSize(n), ZoOutOfMemory);
    }
    for (unsigned long steps : {13UL, 0x80000000UL, ~0UL}) {
        EXPECT_EQ(table._RebuildTable(steps), ZoOutOfMemory);
    }
    AllocFault const next(1);
    EXPECT_EQ(table.SetExpectedSize(1UL << 30), ZoOutOfMemory);
    EXPECT_TRUE(next.Happened());
    EXPECT_EQ(table.nBuckets, 64U);
    EXPECT_EQ(table.shift, 24U);
}

// What the random programs do not reach: each allocation of a copy, and how many there are.
TEST(HashTable, FailedAllocationsLeaveTheTableAsItWas) {
    NEEDS_ALLOC_FAULTS();
    ZoHashTable table(ZoHashTable::StringKeys, nullptr);
    for (char name[] = "a"; *name != 'p'; ++*name) table.InsertValue(name, &table);
    long const before = AllocFault::Live();
    // An entry; the table and its 15 entries.
    EXPECT_EQ(FailEachAllocation([&](AllocFault const& fault) {
                  ZoHashEntry* entry;
                  int const result = table.CloneHashEntry(*table.LookUp("a"), entry);
                  EXPECT_EQ(result, fault.Happened() ? ZoOutOfMemory : 0);
                  EXPECT_STREQ(entry != nullptr ? table.GetKey(*entry) : nullptr,
                               fault.Happened() ? nullptr : "a");
                  table.DestroyHashEntry(entry);
              }),
              1);
    EXPECT_EQ(FailEachAllocation([&](AllocFault const& fault) {
                  ZoHashTable* copy;
                  int const result = table.Clone(copy, nullptr);
                  EXPECT_EQ(result, fault.Happened() ? ZoOutOfMemory : 0);
                  EXPECT_EQ(copy == nullptr, fault.Happened());
                  delete copy;
              }),
              16);
    EXPECT_EQ(AllocFault::Live(), before);
    // Half way to its second growth an insertion asks for memory until it gets it, and goes
    // without.
    while (table.GetNum() < 31) table.InsertValue(std::to_string(table.GetNum()).c_str(), &table);
    for (long const allocations : {2, 1}) {
        EXPECT_EQ(FailEachAllocation([&](AllocFault const&) {
                      bool const inserted = table.InsertValue("new", &table) != nullptr;
                      EXPECT_EQ(table.GetNum(), inserted ? 32U : 31U);
                      EXPECT_EQ(table.GetValueFast("new"), inserted ? &table : nullptr);
                      table.Remove("new");
                  }),
                  allocations);
    }
}

// Notes which hooks the table uses.
class HookedTable : public ZoHashTable {
public:
    HookedTable() : ZoHashTable(WordKeys, nullptr) {}
    ~HookedTable() override { EmptyTable(nullptr); }
    ZoHashEntry* CreateHashEntryX(char const* key, void* value, unsigned long hash) override {
        calls += "c" + std::to_string(hash & 15);
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

// A grown table of words that has hooks keeps no blocks of deleted entries past them.
TEST(HashTable, MakesAndDestroysEntriesThroughTheHooks) {
    {
        HookedTable table;
        ZoHashPosition pos;
        table.RebuildTable();
        table.InsertValue(Word(0), &pos);
        table.ChangeValue(Word(3), &pos, 1, 0, nullptr);
        table.ChangeValue(Word(3), nullptr, 0, 1, nullptr);
        table.Position(Word(0x400), pos);
        table.Create(pos, &pos);
        table.Remove(Word(0x400));
        table.Position(Word(0), pos);
        table.Delete(pos);
        table.InsertValue(Word(0), &pos);
        table.DeleteValue(Word(0), nullptr);
    }
    EXPECT_EQ(HookedTable::calls, "c0c1xc6ddc0dd");
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
    std::vector<std::string> expected{
        R"(( "The hash table does not have a copy ctor" && 0 ) src/zohash 88)",
        R"(( "The hash table does not have an assignement op" && 0 ) src/zohash 94)"};
    for (unsigned short keySize : {ZoHashTable::ForeignKeys, static_cast<unsigned short>(0)}) {
        ZoHashTable keyless(keySize, nullptr);
        ZoHashEntry* const entry = keyless.CreateHashEntry("key", &table);
        keyless.buckets[0] = entry;
        keyless.num = 1;
        EXPECT_EQ(keyless.RebuildTable(), 0);  // needs the entry's key
        if (keySize == 0) expected.emplace_back("keySize != 0 src/zohash 381");
        expected.insert(
            expected.end(),
            {R"(( "You must have a seperate space for the key." && 0 ) src/zohash 365)",
             R"(( "You need a space to get the key." && 0 ) src/zohash 412)",
             R"(( "You must have a special space for the key." && 0 ) src/zohash 151)"});
        ZoHashEntry* clone;
        EXPECT_EQ(keyless.CloneHashEntry(*entry, clone), 0);
        EXPECT_EQ(clone->value, &table);
        keyless.DestroyHashEntry(clone);
    }
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

// A program of hash-table operations, read from bytes and run on a table and on a model of its
// chains at once. The random test feeds it random bytes, the fuzzer what it finds interesting.
//
//     RunTableProgram(bytes, size);   // throws std::runtime_error at the first difference

#ifndef KELVARA_TESTS_ZOHASH_MODEL_H_
#define KELVARA_TESTS_ZOHASH_MODEL_H_

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <list>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "alloc_fault.h"
#include "zobaseservices.h"
#include "zohash.h"
#include "zomtobj.h"

#define MUST(condition)                                                                           \
    do {                                                                                          \
        if (!(condition)) throw std::runtime_error(#condition " at " + std::to_string(__LINE__)); \
    } while (false)

// What a value points to. It carries its key, so that a table can keep keys apart.
struct Record {
    char key[16];
};

// Keys live in the records: a class that the table asks for every key.
class ForeignTable : public ZoHashTable {
public:
    explicit ForeignTable(ZoHashSearch find) : ZoHashTable(ForeignKeys, find) {}
    char const* GetKey(ZoHashEntry const& entry) const override {
        return static_cast<Record const*>(entry.value)->key;
    }
    unsigned short GetKeySize() const override { return sizeof(Record::key); }
    int CreateHashTable(ZoHashTable*& out) const override {
        out = new (std::nothrow) ForeignTable(find);
        return out != nullptr ? ZoSuccess : ZoOutOfMemory;
    }
};

struct KeyKind {
    char const* name;
    unsigned short keySize;
    ZoHashSearch find;
};

inline constexpr KeyKind keyKinds[] = {
    {"texts", ZoHashTable::StringKeys, nullptr},
    {"words", ZoHashTable::WordKeys, nullptr},
    {"surrogates", ZoHashTable::SurrogateKeys, nullptr},
    {"bytes", 5, nullptr},
    {"unmixed words", ZoHashTable::WordKeys, PointerFind},
    {"values", ZoHashTable::WordKeys, ValuePointerFind},
    {"foreign bytes", ZoHashTable::ForeignKeys, nullptr},
    {"foreign texts", ZoHashTable::ForeignKeys, StringFind},
};

// What a table should hold, in the order of its chains. Keys are known by their ids.
struct Item {
    unsigned id;
    void* value;
    bool operator==(Item const&) const = default;
};
using Chains = std::vector<std::list<Item>>;

class TableProgram {
public:
    TableProgram(std::uint8_t const* bytes, std::size_t size)
        : at(bytes),
          end(bytes + size),
          kind(keyKinds[Byte() % std::size(keyKinds)]),
          keysInUse(keysOfMode[mode = Byte() % std::size(keysOfMode)]) {
        for (unsigned id = 0; id < keyCount; ++id) SetNumber(id, id);
        // The section is made now: no step's fault shall meet it.
        lock.BeginCriticalSection();
        lock.EndCriticalSection();
        if (kind.keySize == ZoHashTable::ForeignKeys) {
            table = std::make_unique<ForeignTable>(kind.find);
        } else {
            table = std::make_unique<ZoHashTable>(kind.keySize, kind.find);
        }
    }

    void Run() {
        unsigned long const assertions = ZoAssertCount();
        for (unsigned step = 0; at != end; ++step) {
            if (HasLongChain() && table->nBuckets == 4) Enlarge();
            Step();
            std::size_t const buckets = model.size();
            MUST(table->num == count);
            MUST(table->nBuckets == buckets && table->mask == buckets - 1);
            MUST(table->threshold == 4 * buckets && buckets == 1U << (30 - table->shift));
            if (HasLongChain() || step % 16 == 0) CompareContents();
        }
        CompareContents();
        MUST(ZoAssertCount() == assertions);
    }

private:
    static constexpr unsigned keyCount = 768;
    // Many keys, or few for chains that change much and for empty tables, or few of one bucket.
    enum Mode : unsigned { Many, Few, LongChain, LongChainInWideLines };
    static constexpr unsigned keysOfMode[] = {keyCount, 8, 9, 12};

    unsigned Byte() { return at != end ? *at++ : 0; }

    // The key of an id is made from its number.
    void SetNumber(unsigned id, unsigned number) {
        numbers[id] = number;
        for (Record& record : records[id]) {
            std::snprintf(record.key, sizeof record.key, "key-%04u", number);
            record.key[9] = static_cast<char>(number % 7);
            record.key[12] = static_cast<char>(number % 5);
        }
    }
    char const* Key(unsigned id) const {
        if (kind.keySize == ZoHashTable::WordKeys && kind.find != ValuePointerFind) {
            // Two of a pair differ in the upper half alone, which a hash may leave out.
            unsigned const number = numbers[id];
            std::uintptr_t const upper = std::uintptr_t{number % 2} << (sizeof upper * 4);
            std::uintptr_t const word = std::uintptr_t{number / 2} * 0x9E3779B1U + upper;
            return reinterpret_cast<char const*>(word);  // NOLINT(performance-no-int-to-ptr)
        }
        return records[id][0].key + (kind.keySize == 5 ? 4 : 0);
    }
    void* Value(unsigned id) {
        return &records[id][kind.find == ValuePointerFind ? 0 : Byte() % 4];
    }
    std::size_t Bucket(unsigned id) const {
        ZoHashPosition pos;
        table->Position(Key(id), pos);
        return pos.hash & table->mask;
    }

    // Of a long chain the front is found in another way than the rest, and it is a longer one once
    // the table has held half of what makes it grow.
    bool HasLongChain() const { return mode >= LongChain && kind.find != ValuePointerFind; }
    void Enlarge() {
        MUST(table->SetExpectedSize(1024) == ZoSuccess);
        for (unsigned id = 0, number = 0; id < keysInUse && number < 60000; ++number) {
            SetNumber(id, number);
            if (Bucket(id) == Bucket(0)) ++id;
        }
        for (unsigned id = keysInUse; mode == LongChainInWideLines && id < 600; ++id) {
            SetNumber(id, 60000 + id);
            MUST(table->InsertValue(Key(id), records[id]) != nullptr);
        }
        table->EmptyTable(nullptr);
        Clear(table->nBuckets);
    }

    // Then it grows no further, for the sake of its chains.
    bool IsSparse() const { return model.size() > 16 + count; }

    // Calls the table; one of the allocations it makes fails if this step is to have a fault.
    template <class Call>
    auto Faulty(Call call) {
        AllocFault const fault(faultAt);
        auto const result = call();
        faultHappened = fault.Happened();
        return result;
    }

    // --- the model's side; `bucket` is the key's before the table was called ---------------------

    void Clear(std::size_t buckets) {
        model.assign(buckets, {});
        count = 0;
    }
    // A growth takes every chain from its head and so turns it round.
    void Grow(std::size_t buckets) {
        Chains const old = std::exchange(model, Chains(buckets));
        for (auto const& chain : old) {
            for (Item const& item : chain) model[Bucket(item.id)].push_front(item);
        }
    }
    void Insert(unsigned id, void* value, std::size_t bucket) {
        model[bucket].push_front({id, value});
        if (++count / 4 >= model.size() && !faultHappened) Grow(4 * model.size());
    }
    // The first of the key; null without one.
    Item* Find(unsigned id, std::size_t bucket) {
        for (Item& item : model[bucket]) {
            if (item.id == id) return &item;
        }
        return nullptr;
    }
    void Erase(unsigned id, std::size_t bucket, bool shrinksWhenEmpty) {
        auto& chain = model[bucket];
        auto const is = [id](Item const& item) { return item.id == id; };
        chain.erase(std::find_if(chain.begin(), chain.end(), is));
        if (--count == 0 && shrinksWhenEmpty) Clear(4);
    }
    std::vector<Item> InOrder() const {
        std::vector<Item> items;
        for (auto const& chain : model) items.insert(items.end(), chain.begin(), chain.end());
        return items;
    }

    // --- steps -----------------------------------------------------------------------------------

    void Delete(unsigned id, ZoMTObj const* held) {
        std::size_t const bucket = Bucket(id);
        bool const present = Find(id, bucket) != nullptr;
        MUST(table->DeleteValue(Key(id), held) == (present ? ZoSuccess : ZoNotFound));
        if (present) Erase(id, bucket, kind.keySize != ZoHashTable::ForeignKeys);
    }

    // Whether the fault met an insertion's entry: the growth behind it may also meet it, and an
    // entry in the block of a deleted one does not.
    bool EntryFailed() const { return faultHappened && table->num == count; }

    void Step() {
        unsigned const operation = Byte();
        bool const flag = (operation & 16) != 0;
        unsigned const id = (Byte() * 256 + Byte()) % keysInUse;
        std::size_t const bucket = Bucket(id);
        Item* const found = Find(id, bucket);
        bool const present = found != nullptr;
        void* const stored = present ? found->value : nullptr;
        void* const value = Value(id);
        ZoMTObj const* const held = Byte() % 2 != 0 ? &lock : nullptr;
        faultAt = operation >= 192 ? 1 + static_cast<long>(id % 3) : 0;
        faultHappened = false;

        switch (operation % 16) {
            case 0:
            case 1:
            case 2: {
                bool const made =
                    Faulty([&] { return table->InsertValue(Key(id), value); }) != nullptr;
                MUST(made == (!present && !EntryFailed()));
                if (made) Insert(id, value, bucket);
                break;
            }
            case 3:
            case 4: {
                int const result = Faulty(
                    [&] { return table->ChangeValue(Key(id), value, flag, !flag || held, held); });
                bool const allowed = present ? !flag || held : flag;
                MUST(result == (!allowed ? ZoNotFound : EntryFailed() ? ZoOutOfMemory : ZoSuccess));
                if (result != ZoSuccess) break;
                if (present) {
                    found->value = value;
                } else {
                    Insert(id, value, bucket);
                }
                break;
            }
            case 5:
                Delete(id, held);
                break;
            case 6:
                MUST(table->Remove(Key(id)) == stored);
                if (present) Erase(id, bucket, true);
                break;
            case 7:
            case 8:
                UsePosition(id, value, present);
                break;
            case 9:
                if (!HasLongChain()) Clone(held);  // a copy has no two entries of one key
                break;
            case 10:
                DeleteWhileIterating();
                break;
            case 11:
            case 12: {
                if (IsSparse()) break;
                std::size_t buckets = model.size();
                unsigned const size = flag ? id * 4 : static_cast<unsigned>(buckets) * 16;
                int const result = Faulty(
                    [&] { return flag ? table->SetExpectedSize(size) : table->RebuildTable(); });
                MUST(result == (faultHappened ? ZoOutOfMemory : ZoSuccess));
                while (4 * buckets < size && !faultHappened) buckets *= 4;
                if (buckets != model.size()) Grow(buckets);
                break;
            }
            case 13:
                if (id % 64 == 0) Empty(flag, held);
                break;
            case 14: {
                ZoHashIterator it;
                MUST((table->FindEntry(Key(id), it) != nullptr) == present);
                MUST(present || it.next == nullptr);
                break;
            }
            default:
                MUST(table->GetValue(Key(id), held) == stored);
                MUST(table->GetValueFast(Key(id)) == stored);
        }
    }

    void UsePosition(unsigned id, void* value, bool present) {
        ZoHashPosition pos;
        MUST(table->Position(Key(id), pos) == int{present});
        ZoHashEntry* const head = table->buckets[pos.hash & table->mask];
        MUST((pos.prev != nullptr ? pos.prev->next : head) == pos.entry);
        if (!present) MUST(table->Delete(pos) == ZoBadPosition);
        MUST(ZoHashTable(kind.keySize, kind.find).Create(pos, value) == ZoBadPosition);
        ChangeMeanwhile(id, present && pos.prev != nullptr);
        std::size_t const bucket = Bucket(id);
        if (present && (!HasLongChain() || Byte() % 8 != 0)) {
            bool const parted = pos.prev != nullptr && pos.prev->next != pos.entry;
            MUST(table->Delete(pos) == (parted ? ZoBadPosition : ZoSuccess));
            if (parted) return;
            Erase(id, bucket, false);
            MUST(table->Delete(pos) == ZoBadPosition);
        } else {  // perhaps a second one of the key, which counts from now on
            int const result = Faulty([&] { return table->Create(pos, value); });
            MUST(result == (EntryFailed() ? ZoOutOfMemory : ZoSuccess));
            if (result != ZoSuccess) return;
            MUST(pos.entry->value == value);
            Insert(id, value, bucket);
        }
        MUST(table->Create(pos, value) == ZoBadPosition);
    }

    // What may happen to a table between a search and the use of its position.
    void ChangeMeanwhile(unsigned id, bool mayLose) {
        unsigned const change = Byte() % 4, other = (id + 1 + Byte() % 7) % keysInUse;
        std::size_t const bucket = Bucket(change == 1 ? other : id);
        void* const value = Value(other);
        if (change == 1 && table->InsertValue(Key(other), value) != nullptr) {
            Insert(other, value, bucket);
        }
        if (change == 2 && !IsSparse() && table->RebuildTable() == ZoSuccess) {
            Grow(4 * model.size());
        }
        if (change == 3 && mayLose && table->Remove(Key(id)) != nullptr) Erase(id, bucket, true);
    }

    void Clone(ZoMTObj const* held) {
        ZoHashTable* copy;
        int const result = Faulty([&] { return table->Clone(copy, held); });
        MUST(result == (copy != nullptr ? ZoSuccess : ZoOutOfMemory));
        MUST(copy != nullptr || faultHappened);
        std::unique_ptr<ZoHashTable> const owned(copy);
        if (copy == nullptr) return;
        MUST(copy->GetNum() == count);
        for (Item const& item : InOrder()) {
            MUST(copy->GetValueFast(Key(item.id)) == item.value);
        }
    }

    void Empty(bool forget, ZoMTObj const* held) {
        std::vector<ZoHashEntry*> forgotten;
        ZoHashIterator it;
        for (auto* e = table->FirstEntry(it); forget && e != nullptr; e = table->NextEntry(it)) {
            forgotten.push_back(e);
        }
        if (forget) {
            table->EraseBuckets();
        } else {
            MUST(table->EmptyTable(held) == ZoSuccess);
        }
        for (ZoHashEntry* entry : forgotten) table->DestroyHashEntry(entry);
        Clear(model.size());
    }

    void DeleteWhileIterating() {
        ZoHashIterator it;
        for (ZoHashEntry* e = table->FirstEntry(it); e != nullptr; e = table->NextEntry(it)) {
            // Of two with one key the first would go.
            if (Byte() % 16 == 0 && table->LookUp(Key(IdOf(*e))) == e) Delete(IdOf(*e), nullptr);
        }
    }

    unsigned IdOf(ZoHashEntry const& entry) const {
        return static_cast<unsigned>((static_cast<Record*>(entry.value) - records[0]) / 4);
    }

    std::vector<Item> From(ZoHashEntry* entry, ZoHashIterator& it) const {
        std::vector<Item> items;
        for (; entry != nullptr; entry = table->NextEntry(it)) {
            items.push_back({IdOf(*entry), entry->value});
        }
        return items;
    }

    void CompareContents() {
        std::vector<Item> const all = InOrder();
        ZoHashIterator it;
        ZoHashEntry* const first = table->FirstEntry(it);
        MUST(From(first, it) == all);
        for (Item const& item : all) {
            Item const* const counts = Find(item.id, Bucket(item.id));
            MUST(counts != nullptr && table->GetValueFast(Key(item.id)) == counts->value);
        }
        std::size_t longest = 0, steps = 0;
        for (auto const& chain : model) {
            longest = std::max(longest, chain.size());
            steps += chain.size() * (chain.size() + 1) / 2;
        }
        unsigned long itsLongest;
        double const average = table->AverageSearch(itsLongest) * static_cast<double>(count);
        MUST(itsLongest == longest && std::abs(average - static_cast<double>(steps)) < 1e-3);
        if (all.empty()) return;
        // An iteration from a found entry on is the rest of the whole one.
        unsigned const id = all[Byte() % all.size()].id;
        std::vector<Item> const rest = From(table->FindEntry(Key(id), it), it);
        MUST(rest.front().id == id && std::equal(rest.rbegin(), rest.rend(), all.rbegin()));
    }

    std::uint8_t const* at;
    std::uint8_t const* const end;
    KeyKind const kind;
    unsigned mode;
    unsigned const keysInUse;
    unsigned numbers[keyCount];
    Record records[keyCount][4] = {};
    ZoMTObj lock;
    long faultAt = 0;  // which allocation of this step's calls fails; 0 none
    bool faultHappened = false;
    std::unique_ptr<ZoHashTable> table;
    Chains model{4};
    std::size_t count = 0;
};

inline void RunTableProgram(std::uint8_t const* bytes, std::size_t size) {
    std::make_unique<TableProgram>(bytes, size)->Run();
}

#endif  // KELVARA_TESTS_ZOHASH_MODEL_H_

// A program of hash-table operations, read from bytes and run on a table and on a
// std::unordered_map at once. The random test feeds it random bytes, the fuzzer what it finds
// interesting.
//
//     RunTableProgram(bytes, size);   // throws std::runtime_error at the first difference

#ifndef KELVARA_TESTS_ZOHASH_MODEL_H_
#define KELVARA_TESTS_ZOHASH_MODEL_H_

#include <cstdint>
#include <cstdio>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <unordered_map>
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

class TableProgram {
public:
    TableProgram(std::uint8_t const* bytes, std::size_t size)
        : at(bytes),
          end(bytes + size),
          kind(keyKinds[Byte() % std::size(keyKinds)]),
          keysInUse(Byte() % 2 == 0 ? keyCount : 8) {
        for (unsigned id = 0; id < keyCount; ++id) {
            for (Record& record : records[id]) {
                std::snprintf(record.key, sizeof record.key, "key-%04u", id);
                record.key[9] = static_cast<char>(id % 7);
                record.key[12] = static_cast<char>(id % 5);
            }
        }
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
        while (at != end) {
            Step();
            MUST(table->num == model.size());
            MUST(table->nBuckets == buckets && table->mask == buckets - 1);
            MUST(table->threshold == 4 * buckets && buckets == 1U << (30 - table->shift));
        }
        CompareContents(*table);
        MUST(ZoAssertCount() == assertions);
    }

private:
    static constexpr unsigned keyCount = 768;

    unsigned Byte() { return at != end ? *at++ : 0; }

    char const* Key(unsigned id) const {
        if (kind.keySize == ZoHashTable::WordKeys && kind.find != ValuePointerFind) {
            // Two of a pair differ in the upper half alone, which a hash may leave out.
            std::uintptr_t const upper = std::uintptr_t{id % 2} << (sizeof upper * 4);
            std::uintptr_t const word = std::uintptr_t{id / 2} * 0x9E3779B1U + upper;
            return reinterpret_cast<char const*>(word);  // NOLINT(performance-no-int-to-ptr)
        }
        return records[id][0].key + (kind.keySize == 5 ? 4 : 0);
    }
    void* Value(unsigned id) {
        return &records[id][kind.find == ValuePointerFind ? 0 : Byte() % 4];
    }

    // Then it grows no further, for the sake of its chains.
    bool IsSparse() const { return buckets > 16 + model.size(); }

    // Calls the table; one of the allocations it makes fails if this step is to have a fault.
    template <class Call>
    auto Faulty(Call call) {
        AllocFault const fault(faultAt);
        auto const result = call();
        faultHappened = fault.Happened();
        return result;
    }

    void Store(unsigned id, void* value) {
        bool const isNew = model.insert_or_assign(id, value).second;
        if (isNew && model.size() / 4 >= buckets && !faultHappened) buckets *= 4;
    }
    void Erase(unsigned id, bool shrinksWhenEmpty) {
        if (model.erase(id) != 0 && model.empty() && shrinksWhenEmpty) buckets = 4;
    }
    void Delete(unsigned id, ZoMTObj const* held) {
        MUST(table->DeleteValue(Key(id), held) == (model.count(id) ? ZoSuccess : ZoNotFound));
        Erase(id, kind.keySize != ZoHashTable::ForeignKeys);
    }

    // Whether the fault met an insertion's entry: the growth behind it may also meet it, and an
    // entry in the block of a deleted one does not.
    bool EntryFailed() const { return faultHappened && table->num == model.size(); }

    void Step() {
        unsigned const operation = Byte();
        bool const flag = (operation & 16) != 0;
        unsigned const id = (Byte() * 256 + Byte()) % keysInUse;
        auto const found = model.find(id);
        bool const present = found != model.end();
        void* const stored = present ? found->second : nullptr;
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
                if (made) Store(id, value);
                break;
            }
            case 3:
            case 4: {
                int const result = Faulty(
                    [&] { return table->ChangeValue(Key(id), value, flag, !flag || held, held); });
                bool const allowed = present ? !flag || held : flag;
                MUST(result == (!allowed ? ZoNotFound : EntryFailed() ? ZoOutOfMemory : ZoSuccess));
                if (result == ZoSuccess) Store(id, value);
                break;
            }
            case 5:
                Delete(id, held);
                break;
            case 6:
                MUST(table->Remove(Key(id)) == stored);
                Erase(id, true);
                break;
            case 7:
            case 8:
                UsePosition(id, value, present);
                break;
            case 9: {
                ZoHashTable* copy;
                int const result = Faulty([&] { return table->Clone(copy, held); });
                MUST((result == ZoSuccess) == (copy != nullptr));
                MUST(result == (copy != nullptr ? ZoSuccess : ZoOutOfMemory));
                MUST(copy != nullptr || faultHappened);
                std::unique_ptr<ZoHashTable> const owned(copy);
                if (copy != nullptr) CompareContents(*copy);
                break;
            }
            case 10:
                DeleteWhileIterating();
                break;
            case 11:
            case 12: {
                if (IsSparse()) break;
                unsigned const size = flag ? id * 4 : buckets * 16;
                int const result = Faulty(
                    [&] { return flag ? table->SetExpectedSize(size) : table->RebuildTable(); });
                MUST(result == (faultHappened ? ZoOutOfMemory : ZoSuccess));
                while (4 * buckets < size && !faultHappened) buckets *= 4;
                break;
            }
            case 13:
                if (id % 64 != 0) break;
                MUST(table->EmptyTable(held) == ZoSuccess);
                model.clear();
                break;
            case 14: {
                ZoHashIterator it;
                ZoHashEntry* const entry = table->FindEntry(Key(id), it);
                MUST((entry != nullptr) == present);
                MUST(it.next == (present ? entry->next : nullptr));
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
        ChangeMeanwhile(id, present && pos.prev != nullptr);
        if (present) {
            bool const parted = pos.prev != nullptr && pos.prev->next != pos.entry;
            MUST(table->Delete(pos) == (parted ? ZoBadPosition : ZoSuccess));
            if (parted) return;
            Erase(id, false);
            MUST(table->Delete(pos) == ZoBadPosition);
        } else {
            int const result = Faulty([&] { return table->Create(pos, value); });
            MUST(result == (EntryFailed() ? ZoOutOfMemory : ZoSuccess));
            if (result != ZoSuccess) return;
            MUST(pos.entry->value == value);
            Store(id, value);
        }
        MUST(table->Create(pos, value) == ZoBadPosition);
    }

    // What may happen to a table between a search and the use of its position.
    void ChangeMeanwhile(unsigned id, bool mayLose) {
        unsigned const change = Byte() % 4, other = (id + 1 + Byte() % 7) % keysInUse;
        void* const value = Value(other);
        if (change == 1 && table->InsertValue(Key(other), value) != nullptr) Store(other, value);
        if (change == 2 && !IsSparse() && table->RebuildTable() == ZoSuccess) buckets *= 4;
        if (change == 3 && mayLose && table->Remove(Key(id)) != nullptr) Erase(id, true);
    }

    void DeleteWhileIterating() {
        ZoHashIterator it;
        for (ZoHashEntry* e = table->FirstEntry(it); e != nullptr; e = table->NextEntry(it)) {
            if (Byte() % 16 == 0) Delete(IdOf(*e), nullptr);
        }
    }

    unsigned IdOf(ZoHashEntry const& entry) const {
        return static_cast<unsigned>((static_cast<Record*>(entry.value) - records[0]) / 4);
    }

    // Every entry of `some` is in the model, once, and under its key.
    void CompareContents(ZoHashTable const& some) const {
        std::unordered_map<unsigned, void*> seen;
        ZoHashIterator it;
        for (ZoHashEntry* e = some.FirstEntry(it); e != nullptr; e = some.NextEntry(it)) {
            MUST(some.LookUp(Key(IdOf(*e))) == e);
            MUST(seen.emplace(IdOf(*e), e->value).second);
        }
        MUST(seen == model && some.GetNum() == model.size());
    }

    std::uint8_t const* at;
    std::uint8_t const* const end;
    KeyKind const kind;
    unsigned const keysInUse;  // few, for chains that change much and for empty tables
    Record records[keyCount][4] = {};
    ZoMTObj lock;
    long faultAt = 0;  // which allocation of this step's calls fails; 0 none
    bool faultHappened = false;
    std::unique_ptr<ZoHashTable> table;
    std::unordered_map<unsigned, void*> model;
    ZoUInt32 buckets = 4;  // that the table should have
};

inline void RunTableProgram(std::uint8_t const* bytes, std::size_t size) {
    std::make_unique<TableProgram>(bytes, size)->Run();
}

#endif  // KELVARA_TESTS_ZOHASH_MODEL_H_

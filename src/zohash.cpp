#include "zohash.h"

#include <cstdint>
#include <cstring>
#include <new>

#include "hash_chains.h"
#include "key_kinds.h"
#include "zobase.h"
#include "zomtobj.h"

using namespace hash_chains;

namespace {

constexpr ZoUInt32 InitialShift = 28;
// One step further the threshold would not fit its 32 bits.
constexpr ZoUInt32 SmallestShift = 2;

// Holds the section of the caller's lock object, if there is one.
class TableLock {
public:
    // Entering a section does not change what the object stands for, so operations take it const.
    explicit TableLock(ZoMTObj const* lock) : lock(const_cast<ZoMTObj*>(lock)) {
        if (this->lock != nullptr) this->lock->BeginCriticalSection();
    }
    TableLock(TableLock const&) = delete;
    TableLock& operator=(TableLock const&) = delete;
    ~TableLock() {
        if (lock != nullptr) lock->EndCriticalSection();
    }

private:
    ZoMTObj* lock;
};

}  // namespace

ZoHashTable::ZoHashTable(unsigned short keySize, ZoHashSearch find)
    : num(0), find(find != nullptr ? find : KindOf(keySize).defaultSearch), keySize(keySize) {
    InitTable();
}

ZoHashTable::ZoHashTable(ZoHashTable const& other) : ZoHashTable(other.keySize, other.find) {
    ZOVA_assert("( \"The hash table does not have a copy ctor\" && 0 )", "src/zohash", 88);
}

// NOLINTNEXTLINE(bugprone-unhandled-self-assignment): it never assigns.
ZoHashTable& ZoHashTable::operator=(ZoHashTable const&) {
    ZOVA_assert("( \"The hash table does not have an assignement op\" && 0 )", "src/zohash", 94);
    return *this;
}

ZoHashTable::~ZoHashTable() {
    ZoHashTable::EmptyTable(nullptr);
    FreeGrownBuckets(*this);
    nBuckets = 0;
}

void ZoHashTable::InitTable() {
    for (ZoHashEntry*& head : initialBuckets) head = nullptr;
    buckets = initialBuckets;
    nBuckets = 4;
    threshold = 16;
    shift = InitialShift;
    mask = 3;
}

ZoHashEntry* ZoHashTable::CreateHashEntry(char const* key, void* value) {
    KeyKind const& kind = KindOf(keySize);
    std::size_t const length = kind.length(key, keySize);
    ZoHashEntry* const entry = NewEntry(value, length);
    if (entry != nullptr) kind.copy(KeyBytes(entry), key, length);
    return entry;
}

ZoHashEntry* ZoHashTable::CreateHashEntryX(char const* key, void* value, unsigned long) {
    return CreateHashEntry(key, value);
}

void ZoHashTable::DestroyHashEntry(ZoHashEntry* entry) {
    ::operator delete(entry);
}

void ZoHashTable::ChangeHashEntry(ZoHashEntry* entry, void* value) {
    entry->value = value;
}

int ZoHashTable::CloneHashEntry(ZoHashEntry const& source, ZoHashEntry*& clone) const {
    if (!KeepsKeys(keySize)) {
        ZOVA_assert("( \"You must have a special space for the key.\" && 0 )", "src/zohash", 151);
    }
    char const* const bytes = KeyBytes(&source);
    std::size_t const length = KindOf(keySize).length(bytes, keySize);
    clone = NewEntry(GetValue(source), length);
    if (clone == nullptr) return ZoOutOfMemory;
    std::memcpy(KeyBytes(clone), bytes, length);
    return ZoSuccess;
}

int ZoHashTable::CreateHashTable(ZoHashTable*& out) const {
    out = new (std::nothrow) ZoHashTable(keySize, find);
    return out != nullptr ? ZoSuccess : ZoOutOfMemory;
}

int ZoHashTable::Clone(ZoHashTable*& out, ZoMTObj const* lock) const {
    TableLock const held(lock);
    out = nullptr;
    int result = CreateHashTable(out);
    if (result != ZoSuccess) return result;

    ZoHashIterator it;
    for (ZoHashEntry* entry = FirstEntry(it); entry != nullptr; entry = NextEntry(it)) {
        void* const value = GetValue(*entry);
        // A set of values needs no other key.
        bool const isSet = find == ValuePointerFind && !KeepsKeys(keySize);
        char const* const key = isSet ? static_cast<char const*>(value) : GetKey(*entry);
        // What an entry keeps of a surrogate is not the record that an operation takes as the key.
        if (keySize == SurrogateKeys && key == KeyBytes(entry)) {
            SurrogateRecord const record(Surrogate::OfKeyBytes(key));
            result = out->ChangeValue(record.bytes, value, 1, 1, nullptr);
        } else {
            result = out->ChangeValue(key, value, 1, 1, nullptr);
        }
        if (result != ZoSuccess) {
            delete out;
            out = nullptr;
            return result;
        }
    }
    if (GetNum() != out->GetNum()) {
        ZOVA_assert("this->GetNum() == dest->GetNum()", "src/zohash", 187);
    }
    return ZoSuccess;
}

ZoHashEntry* ZoHashTable::LookUp(char const* key) const {
    return Find(*this, key);
}

void* ZoHashTable::GetValueFast(char const* key) const {
    ZoHashEntry* const entry = Find(*this, key);
    return entry != nullptr ? GetValue(*entry) : nullptr;
}

void* ZoHashTable::GetValue(char const* key, ZoMTObj const* lock) const {
    TableLock const held(lock);
    return GetValueFast(key);
}

ZoHashEntry* ZoHashTable::InsertValue(char const* key, void* value) {
    Found const found = Search(*this, key);
    return found.entry == nullptr ? Insert(*this, key, value, found.hash) : nullptr;
}

int ZoHashTable::ChangeValue(char const* key, void* value, int create, int replace,
                             ZoMTObj const* lock) {
    TableLock const held(lock);
    Found const found = Search(*this, key);
    if (found.entry != nullptr) {
        if (replace == 0) return ZoNotFound;
        ChangeHashEntry(found.entry, value);
        return ZoSuccess;
    }
    if (create == 0) return ZoNotFound;
    return Insert(*this, key, value, found.hash) != nullptr ? ZoSuccess : ZoOutOfMemory;
}

int ZoHashTable::DeleteValue(char const* key, ZoMTObj const* lock) {
    TableLock const held(lock);
    Found const found = Search(*this, key);
    if (found.entry == nullptr) return ZoNotFound;
    RemoveFound(*this, found);
    if (keySize != ForeignKeys) ShrinkWhenEmpty(*this);
    return ZoSuccess;
}

void* ZoHashTable::Remove(char const* key) {
    Found const found = Search(*this, key);
    if (found.entry == nullptr) return nullptr;
    void* const value = GetValue(*found.entry);
    RemoveFound(*this, found);
    ShrinkWhenEmpty(*this);
    return value;
}

int ZoHashTable::EmptyTable(ZoMTObj const* lock) {
    TableLock const held(lock);
    for (ZoUInt32 i = 0; i <= mask; ++i) {
        PrefetchFurtherEntries(*this, i);
        while (ZoHashEntry* const entry = buckets[i]) {
            Unlink(*this, buckets[i], entry, i, 0);
            // From the destructor the base's hook is meant.
            DestroyHashEntry(entry);  // NOLINT(clang-analyzer-optin.cplusplus.VirtualCall)
        }
    }
    num = 0;
    return ZoSuccess;
}

void ZoHashTable::EraseBuckets() {
    if (num == 0) return;
    for (ZoUInt32 i = 0; i <= mask; ++i) {
        buckets[i] = nullptr;
        if (HasLines(*this)) GrownOf(*this).WithLine(i, [](auto& line) { line.Clear(); });
    }
    num = 0;
}

int ZoHashTable::SetExpectedSize(unsigned long n) {
    unsigned long steps = 0;
    // 64 bits: the first threshold that reaches the largest 32-bit number has more than 32.
    std::uint64_t reached = threshold;
    while (reached < n && reached <= UINT32_MAX) {
        reached *= 4;
        ++steps;
    }
    return steps != 0 ? _RebuildTable(steps) : ZoSuccess;
}

int ZoHashTable::RebuildTable() {
    return _RebuildTable(1);
}

int ZoHashTable::_RebuildTable(unsigned long steps) {
    if (steps > (shift - SmallestShift) / 2) return ZoOutOfMemory;
    ZoUInt32 const bits = static_cast<ZoUInt32>(2 * steps);
    ZoUInt32 const oldCount = nBuckets;
    ZoHashEntry** const oldBuckets = buckets;
    ZoUInt32 const newCount = oldCount << bits;
    GrownBuckets* const grown = GrownBuckets::Make(newCount, LinesFor(*this, newCount));
    if (grown == nullptr) return ZoOutOfMemory;

    // The search function computes with the new shape from here on.
    buckets = grown->Heads();
    nBuckets = newCount;
    threshold <<= bits;
    shift -= bits;
    mask = nBuckets - 1;

    if (HasWords(*this)) {
        MoveEntries(*this, oldBuckets, oldCount, [this](ZoHashEntry const* entry) {
            return WordKey(*this, WordKey::Of(entry)).hash;
        });
    } else {
        MoveEntries(*this, oldBuckets, oldCount,
                    [this](ZoHashEntry* entry) { return HashOf(*this, entry); });
    }
    if (oldBuckets != initialBuckets) {
        GrownBuckets& old = GrownBuckets::Of(oldBuckets);
        grown->spares = old.spares;
        grown->nSpares = old.nSpares;
        old.Free();
    }
    return ZoSuccess;
}

ZoHashEntry* ZoHashTable::FirstEntry(ZoHashIterator& it) const {
    it.next = nullptr;
    if (num == 0) {
        it.index = nBuckets;
        return nullptr;
    }
    it.index = 0;
    return NextEntry(it);
}

ZoHashEntry* ZoHashTable::NextEntry(ZoHashIterator& it) const {
    while (it.next == nullptr) {
        if (it.index >= nBuckets) return nullptr;
        PrefetchFurtherEntries(*this, it.index);
        it.next = BucketOf(*this, it.index);
        ++it.index;
    }
    ZoHashEntry* const entry = it.next;
    it.next = entry->next;
    return entry;
}

ZoHashEntry* ZoHashTable::FindEntry(char const* key, ZoHashIterator& it) const {
    unsigned long hash;
    ZoHashEntry* prev;
    ZoHashEntry* const entry = find(this, key, hash, nullptr, prev);
    it.index = static_cast<ZoUInt32>(hash & mask) + 1;
    it.next = entry != nullptr ? entry->next : nullptr;
    return entry;
}

int ZoHashTable::Position(char const* key, ZoHashPosition& pos) const {
    unsigned long hash;
    // A position found in a table that its caller may only read is of no use to change it.
    pos.table = const_cast<ZoHashTable*>(this);
    pos.key = key;
    pos.entry = find(this, key, hash, nullptr, pos.prev);
    pos.hash = static_cast<ZoUInt32>(hash);
    return pos.entry != nullptr ? 1 : 0;
}

int ZoHashTable::Create(ZoHashPosition& pos, void* value) {
    if (pos.table != this) return ZoBadPosition;
    ZoHashEntry* const entry = Make(*this, pos.key, value, pos.hash);
    if (entry == nullptr) return ZoOutOfMemory;
    // The table may have grown or shrunk since the position was taken, which changes hashes.
    LinkIn(*this, entry, HashOf(*this, entry));
    pos.entry = entry;
    pos.table = nullptr;
    return ZoSuccess;
}

int ZoHashTable::Delete(ZoHashPosition& pos) {
    if (pos.table != this || pos.entry == nullptr) return ZoBadPosition;
    // An entry that is no longer behind its predecessor may be gone: it is not looked at before.
    if (pos.prev != nullptr && pos.prev->next != pos.entry) return ZoBadPosition;
    unsigned long const hash = HashOf(*this, pos.entry);
    ZoHashEntry** link = pos.prev != nullptr ? &pos.prev->next : &BucketOf(*this, hash);
    // Without a predecessor the entry was its chain's head; insertions since then stand before it.
    while (*link != nullptr && *link != pos.entry) link = &(*link)->next;
    if (*link == nullptr) return ZoBadPosition;
    int place = 0;
    if (HasLines(*this)) {
        place = GrownOf(*this).WithLine(hash & mask, [&](auto const& line) {
            return line.PlaceOf(pos.entry, BucketOf(*this, hash));
        });
    }
    Unlink(*this, *link, pos.entry, hash, place);
    Destroy(*this, pos.entry);
    pos.table = nullptr;
    return ZoSuccess;
}

char const* ZoHashTable::GetKey(ZoHashEntry const& entry) const {
    if (!KeepsKeys(keySize)) {
        ZOVA_assert("( \"You must have a seperate space for the key.\" && 0 )", "src/zohash", 365);
        return nullptr;
    }
    return KindOf(keySize).get(KeyBytes(&entry));
}

void* ZoHashTable::GetValue(ZoHashEntry const& entry) const {
    return entry.value;
}

unsigned short ZoHashTable::GetKeySize() const {
    if (keySize == 0) ZOVA_assert("keySize != 0", "src/zohash", 381);
    return keySize;
}

double ZoHashTable::AverageSearch(unsigned long& longest) const {
    longest = 0;
    if (num == 0) return 0.0;
    double sum = 0.0;
    for (ZoUInt32 i = 0; i < nBuckets; ++i) {
        unsigned long length = 0;
        for (ZoHashEntry const* e = buckets[i]; e != nullptr; e = e->next) ++length;
        if (length > longest) longest = length;
        double const entries = static_cast<double>(length);
        sum += (entries + 1) * (entries / static_cast<double>(num) * 0.5);
    }
    return sum;
}

#include "zohash.h"

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <typeinfo>

#include "grown_buckets.h"
#include "zobase.h"
#include "zomtobj.h"

namespace {

constexpr ZoUInt32 mixingFactor = 1103515245;
constexpr ZoUInt32 initialShift = 28;
// One step further the threshold would not fit its 32 bits.
constexpr ZoUInt32 smallestShift = 2;

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

// A key that is a number in the place of an address.
std::uintptr_t WordOf(void const* pointer) {
    return reinterpret_cast<std::uintptr_t>(pointer);
}

char* KeyBytes(ZoHashEntry* entry) {
    return reinterpret_cast<char*>(entry + 1);
}

char const* KeyBytes(ZoHashEntry const* entry) {
    return reinterpret_cast<char const*>(entry + 1);
}

// Key bytes have no type and a record no alignment: words are copied out of them.
template <class Word>
Word ReadWord(char const* bytes) {
    Word word;
    std::memcpy(&word, bytes, sizeof word);
    return word;
}

struct Surrogate {
    std::uint32_t first;
    std::uint32_t second;

    static Surrogate OfRecord(char const* record) {
        std::uint32_t const low = ReadWord<std::uint16_t>(record + 8);
        std::uint32_t const high = ReadWord<std::uint16_t>(record + 12);
        return {ReadWord<std::uint32_t>(record + 4), low | high << 16};
    }
    static Surrogate OfKeyBytes(char const* bytes) {
        return {ReadWord<std::uint32_t>(bytes), ReadWord<std::uint32_t>(bytes + 4)};
    }
    std::uint32_t Hash() const { return first ^ second; }
    bool operator==(Surrogate const&) const = default;
};

// A surrogate in the form in which operations take it as a key.
struct SurrogateRecord {
    explicit SurrogateRecord(Surrogate surrogate) {
        std::uint16_t const low = static_cast<std::uint16_t>(surrogate.second);
        std::uint16_t const high = static_cast<std::uint16_t>(surrogate.second >> 16);
        std::memcpy(bytes + 4, &surrogate.first, sizeof surrogate.first);
        std::memcpy(bytes + 8, &low, sizeof low);
        std::memcpy(bytes + 12, &high, sizeof high);
    }

    char bytes[16] = {};
};

bool HasKeyBytes(unsigned short keySize) {
    return keySize != 0 && keySize != ZoHashTable::ForeignKeys;
}

ZoHashEntry* NewEntry(void* value, std::size_t keyLength) {
    void* const block = ::operator new(sizeof(ZoHashEntry) + keyLength, std::nothrow);
    if (block == nullptr) return nullptr;
    return new (block) ZoHashEntry{nullptr, value};
}

ZoHashEntry* NewEntry(void* value, void const* keyBytes, std::size_t keyLength) {
    ZoHashEntry* const entry = NewEntry(value, keyLength);
    if (entry != nullptr) std::memcpy(KeyBytes(entry), keyBytes, keyLength);
    return entry;
}

// How many key bytes an entry of the table keeps.
std::size_t KeyLength(ZoHashTable const& table, ZoHashEntry const& entry) {
    switch (table.keySize) {
        case ZoHashTable::StringKeys:
            return std::strlen(KeyBytes(&entry)) + 1;
        case ZoHashTable::WordKeys:
            return sizeof(std::uintptr_t);
        case ZoHashTable::SurrogateKeys:
            return sizeof(Surrogate);
        case ZoHashTable::ForeignKeys:
            return 0;
        default:
            return table.keySize;
    }
}

ZoHashSearch DefaultSearch(unsigned short keySize) {
    switch (keySize) {
        case ZoHashTable::StringKeys:
            return StringFind;
        case ZoHashTable::WordKeys:
            return OneDWordFind;
        case ZoHashTable::SurrogateKeys:
            return ZoSurrFind;
        default:
            return ByteArrayFind;
    }
}

// The bits from `shift` upwards choose the bucket; the shift copies the sign in above them.
ZoUInt32 Mix(ZoHashTable const* table, ZoUInt32 word) {
    ZoInt32 const product = static_cast<ZoInt32>(word * mixingFactor);
    return static_cast<ZoUInt32>(product >> (table->shift & 31U));
}

// What becomes of h = 9h + c in eight steps. The characters, in their order from the lowest byte
// up, are put together two by two, then the pairs, then the fours.
ZoUInt32 AppendEight(ZoUInt32 hash, std::uint64_t characters) {
    constexpr std::uint64_t bytes = 0x00FF00FF00FF00FFU, pairs = 0x0000FFFF0000FFFFU;
    constexpr ZoUInt32 toThe2nd = 9 * 9, toThe4th = toThe2nd * toThe2nd;
    constexpr ZoUInt32 toThe8th = toThe4th * toThe4th;
    // Made unsigned by adding 128 to each, which the sum is rid of at the end.
    std::uint64_t const each = characters ^ 0x8080808080808080U;
    std::uint64_t const two = (each & bytes) * 9 + (each >> 8 & bytes);
    std::uint64_t const four = (two & pairs) * toThe2nd + (two >> 16 & pairs);
    ZoUInt32 const eight =
        static_cast<ZoUInt32>(four) * toThe4th + static_cast<ZoUInt32>(four >> 32);
    return hash * toThe8th + eight - 128 / 8 * (toThe8th - 1);
}

std::uint64_t ReadEight(char const* text) {
    std::uint64_t const characters = ReadWord<std::uint64_t>(text);
    return std::endian::native == std::endian::little ? characters : __builtin_bswap64(characters);
}

[[gnu::always_inline]] inline ZoUInt32 HashText(char const* text) {
    std::size_t const length = std::strlen(text);
    ZoUInt32 hash = 0;
    if (length < 8) {
        for (; *text != '\0'; ++text) {
            hash = 9 * hash + static_cast<ZoUInt32>(static_cast<signed char>(*text));
        }
        return hash;
    }
    // NULs in front of a text do not change its hash: with as many as make the first part a whole
    // eight there is one loop, whose turns can be predicted for most texts.
    std::size_t const first = length % 8;
    if (first != 0) hash = AppendEight(0, ReadEight(text) << 8 * (8 - first));
    for (std::size_t i = first; i < length; i += 8) hash = AppendEight(hash, ReadEight(text + i));
    return hash;
}

std::uintptr_t StoredWord(ZoHashEntry const* entry) {
    return ReadWord<std::uintptr_t>(KeyBytes(entry));
}

ZoHashEntry*& BucketOf(ZoHashTable const& table, unsigned long hash) {
    return table.buckets[hash & table.mask];
}

// --- lines -------------------------------------------------------------------------------------

// Two kinds of keys, the usual ones, have lines beside the heads of their buckets, once there are
// enough buckets: in a smaller table, which lies in the nearest cache, a chain is gone through as
// quickly. Sooner with texts, where each entry passed is a text compared.

struct WordKey {
    WordKey(ZoHashTable const& table, char const* key)
        : word(WordOf(key)), hash(Mix(&table, static_cast<ZoUInt32>(word))) {}
    static char const* Of(ZoHashEntry const* entry) {
        return ReadWord<char const*>(KeyBytes(entry));
    }
    bool IsOf(ZoHashEntry const* entry) const { return StoredWord(entry) == word; }
    EntryTag Tag() const { return TagOfNumber(word); }

    static constexpr ZoUInt32 fewestBucketsWithLines = 256;

    std::uintptr_t const word;
    ZoUInt32 const hash;
};

struct TextKey {
    TextKey(ZoHashTable const&, char const* key) : text(key), hash(HashText(key)) {}
    static char const* Of(ZoHashEntry const* entry) { return KeyBytes(entry); }
    bool IsOf(ZoHashEntry const* entry) const { return std::strcmp(text, KeyBytes(entry)) == 0; }
    EntryTag Tag() const { return TagOfNumber(hash); }

    static constexpr ZoUInt32 fewestBucketsWithLines = 16;

    char const* const text;
    ZoUInt32 const hash;
};

bool HasWords(ZoHashTable const& table) {
    return table.keySize == ZoHashTable::WordKeys && table.find == OneDWordFind;
}

bool HasTexts(ZoHashTable const& table) {
    return table.keySize == ZoHashTable::StringKeys && table.find == StringFind;
}

bool IsGrown(ZoHashTable const& table) {
    return table.buckets != table.initialBuckets;
}

GrownBuckets& GrownOf(ZoHashTable const& table) {
    return GrownBuckets::Of(table.buckets);
}

bool HasLines(ZoHashTable const& table) {
    return IsGrown(table) && GrownOf(table).WhichLines() != GrownBuckets::None;
}

bool TakesLines(ZoHashTable const& table, ZoUInt32 nBuckets) {
    return (nBuckets >= WordKey::fewestBucketsWithLines && HasWords(table)) ||
           (nBuckets >= TextKey::fewestBucketsWithLines && HasTexts(table));
}

GrownBuckets::Lines LinesFor(ZoHashTable const& table, ZoUInt32 nBuckets) {
    if (!TakesLines(table, nBuckets)) return GrownBuckets::None;
    return table.num / 2 < nBuckets ? GrownBuckets::Narrow : GrownBuckets::Wide;
}

// A hash is all there is to know of a text's; a word's has lost bits.
EntryTag TagOf(ZoHashTable const& table, ZoHashEntry const* entry, unsigned long hash) {
    return TagOfNumber(table.keySize == ZoHashTable::WordKeys ? StoredWord(entry)
                                                              : static_cast<ZoUInt32>(hash));
}

// A grown table of words keeps some erased entries for its next ones: the system's allocator takes
// as long as the table does. Not where a derived class may make and destroy entries its own way.
bool KeepsSpares(ZoHashTable const& table) {
    return table.keySize == ZoHashTable::WordKeys && IsGrown(table) &&
           &typeid(table) == &typeid(ZoHashTable);
}

bool KeepSpare(ZoHashTable& table, ZoHashEntry* entry) {
    if (!KeepsSpares(table)) return false;
    GrownBuckets& grown = GrownOf(table);
    if (grown.nSpares == table.nBuckets) return false;
    entry->next = grown.spares;
    grown.spares = entry;
    ++grown.nSpares;
    return true;
}

ZoHashEntry* TakeSpare(ZoHashTable& table, char const* key, void* value) {
    if (!KeepsSpares(table)) return nullptr;
    GrownBuckets& grown = GrownOf(table);
    ZoHashEntry* const entry = grown.spares;
    if (entry == nullptr) return nullptr;
    grown.spares = entry->next;
    --grown.nSpares;
    entry->value = value;
    std::memcpy(KeyBytes(entry), &key, sizeof key);
    return entry;
}

void FreeGrownBuckets(ZoHashTable& table) {
    if (!IsGrown(table)) return;
    GrownBuckets& grown = GrownOf(table);
    while (ZoHashEntry* const spare = grown.spares) {
        grown.spares = spare->next;
        ::operator delete(spare);
    }
    grown.Free();
}

// --- searching and changing chains -------------------------------------------------------------

struct Found {
    ZoHashEntry* entry;
    ZoHashEntry** link;  // what points to a found entry: the head of its chain, or what precedes it
    unsigned long hash;
    int place;  // in the bucket's line, if it has one
};

template <class Key>
[[gnu::always_inline]] inline Found SearchFor(ZoHashTable const& table, Key key) {
    ZoHashEntry** link = &BucketOf(table, key.hash);
    auto const isSought = [key](ZoHashEntry const* entry) { return key.IsOf(entry); };
    if (table.nBuckets >= Key::fewestBucketsWithLines) {
        auto const found = GrownOf(table).WithLine(
            key.hash & table.mask, [&](auto const& line) __attribute__((always_inline)) {
                return line.Search(key.Tag(), *link, isSought);
            });
        return {found.entry, found.link, key.hash, found.place};
    }
    while (*link != nullptr && !isSought(*link)) link = &(*link)->next;
    return {*link, link, key.hash, FoundInBucket::untagged};
}

// Not inlined where words are searched, whose way is so short that saved registers would count.
[[gnu::noinline]] Found SearchNoWord(ZoHashTable const& table, char const* key) {
    if (HasTexts(table) && key != nullptr) return SearchFor(table, TextKey(table, key));
    unsigned long hash = 0;
    ZoHashEntry* prev = nullptr;
    ZoHashEntry* const entry = table.find(&table, key, hash, nullptr, prev);
    ZoHashEntry** const link = prev != nullptr ? &prev->next : &BucketOf(table, hash);
    return {entry, link, hash, FoundInBucket::untagged};
}

// As the search function in key mode.
[[gnu::always_inline]] inline Found Search(ZoHashTable const& table, char const* key) {
    return HasWords(table) ? SearchFor(table, WordKey(table, key)) : SearchNoWord(table, key);
}

[[gnu::noinline]] ZoHashEntry* FindNoWord(ZoHashTable const& table, char const* key) {
    if (HasTexts(table) && key != nullptr) return SearchFor(table, TextKey(table, key)).entry;
    unsigned long hash;
    ZoHashEntry* prev;
    return table.find(&table, key, hash, nullptr, prev);
}

// As Search, for who only looks: nothing else of what is found is put together.
[[gnu::always_inline]] inline ZoHashEntry* Find(ZoHashTable const& table, char const* key) {
    return HasWords(table) ? SearchFor(table, WordKey(table, key)).entry : FindNoWord(table, key);
}

void PushFront(ZoHashTable const& table, ZoHashEntry* entry, unsigned long hash) {
    ZoHashEntry*& head = BucketOf(table, hash);
    entry->next = head;
    head = entry;
    if (!HasLines(table)) return;
    EntryTag const tag = TagOf(table, entry, hash);
    GrownOf(table).WithLine(hash & table.mask, [&](auto& line) { line.PushFront(tag, entry); });
}

// A table half way to its next growth. Without memory its lines stay narrow until another
// insertion.
[[gnu::noinline]] void WidenLines(ZoHashTable& table) {
    GrownBuckets& narrow = GrownOf(table);
    GrownBuckets* const wide = narrow.Widened(table.nBuckets);
    if (wide == nullptr) return;
    table.buckets = wide->Heads();
    narrow.Free();
}

// Links a new entry in. A growth that fails leaves the table as it was, and the insertion stands.
void LinkIn(ZoHashTable& table, ZoHashEntry* entry, unsigned long hash) {
    PushFront(table, entry, hash);
    ++table.num;
    if (table.num >= table.threshold) {
        table.RebuildTable();
    } else if (table.num >= table.threshold / 2 && IsGrown(table) &&
               GrownOf(table).WhichLines() == GrownBuckets::Narrow) {
        WidenLines(table);
    }
}

ZoHashEntry* Make(ZoHashTable& table, char const* key, void* value, unsigned long hash) {
    ZoHashEntry* const spare = TakeSpare(table, key, value);
    return spare != nullptr ? spare : table.CreateHashEntryX(key, value, hash);
}

// Makes an entry for the absent key and links it in.
ZoHashEntry* Insert(ZoHashTable& table, char const* key, void* value, unsigned long hash) {
    __builtin_prefetch(&BucketOf(table, hash), 1);
    ZoHashEntry* const entry = Make(table, key, value, hash);
    if (entry != nullptr) LinkIn(table, entry, hash);
    return entry;
}

// The hash of an entry's key in the table's present shape.
unsigned long HashOf(ZoHashTable const& table, ZoHashEntry* entry) {
    unsigned long hash;
    ZoHashEntry* prev;
    table.find(&table, nullptr, hash, entry, prev);
    return hash;
}

// `link` is what points to the entry: its predecessor's `next`, or the head of its bucket. `place`
// is the entry's in the bucket's line.
void Unlink(ZoHashTable& table, ZoHashEntry*& link, ZoHashEntry* entry, unsigned long hash,
            int place) {
    link = entry->next;
    if (!HasLines(table)) return;
    GrownOf(table).WithLine(hash & table.mask, [&](auto& line) { line.Remove(place); });
}

void Destroy(ZoHashTable& table, ZoHashEntry* unlinked) {
    --table.num;
    if (KeepSpare(table, unlinked)) return;
    unlinked->next = nullptr;
    table.DestroyHashEntry(unlinked);
}

void RemoveFound(ZoHashTable& table, Found const& found) {
    auto const& [entry, link, hash, place] = found;
    if (*link != entry && link != &BucketOf(table, hash)) {
        ZOVA_assert("prev->GetNext() == entry", "src/zohash", 207);
    }
    Unlink(table, *link, entry, hash, place);
    Destroy(table, entry);
}

void ShrinkWhenEmpty(ZoHashTable& table) {
    if (table.num != 0 || !IsGrown(table)) return;
    FreeGrownBuckets(table);
    table.InitTable();
}

// Whoever goes through all buckets calls this for each: entries lie anywhere in memory.
void PrefetchFurtherEntries(ZoHashTable const& table, ZoUInt32 index) {
    constexpr ZoUInt32 distance = 8;
    if (HasLines(table) && index + distance < table.nBuckets) {
        GrownOf(table).WithLine(index + distance, [](auto& line) { line.PrefetchEntries(); });
    }
}

// Moves all entries of a table's former buckets into its present ones.
template <class Hash>
void MoveEntries(ZoHashTable const& table, ZoHashEntry** from, std::size_t count, Hash hashOf) {
    for (std::size_t i = 0; i < count; ++i) {
        while (ZoHashEntry* const entry = from[i]) {
            from[i] = entry->next;
            PushFront(table, entry, hashOf(entry));
        }
    }
}

// --- search functions --------------------------------------------------------------------------

// The key-mode walk of every search function.
template <class Matches>
ZoHashEntry* WalkChain(ZoHashTable const* table, unsigned long hash, ZoHashEntry*& prev,
                       Matches matches) {
    ZoHashEntry* entry = BucketOf(*table, hash);
    ZoHashEntry* before = nullptr;
    while (entry != nullptr && !matches(entry)) {
        before = entry;
        entry = entry->next;
    }
    prev = before;
    return entry;
}

void ReportMissingKey() {
    ZOVA_assert("( \"You need a space to get the key.\" && 0 )", "src/zohash", 412);
}

// What a search for a key that cannot be had finds.
ZoHashEntry* NoKey(unsigned long& hash, ZoHashEntry*& prev) {
    hash = 0;
    prev = nullptr;
    return nullptr;
}

ZoUInt32 SumBytes(char const* bytes, unsigned short length) {
    ZoUInt32 sum = 0;
    for (unsigned short i = 0; i < length; ++i) sum += static_cast<unsigned char>(bytes[i]);
    return sum;
}

char const* TextOf(ZoHashTable const* table, ZoHashEntry const* entry) {
    return table->keySize == ZoHashTable::StringKeys ? KeyBytes(entry) : table->GetKey(*entry);
}

std::uintptr_t WordKeyOf(ZoHashTable const* table, ZoHashEntry const* entry) {
    return table->keySize == ZoHashTable::WordKeys ? StoredWord(entry)
                                                   : WordOf(table->GetKey(*entry));
}

ZoHashEntry* WalkStoredWords(ZoHashTable const* table, std::uintptr_t word, unsigned long hash,
                             ZoHashEntry*& prev) {
    return WalkChain(table, hash, prev,
                     [&](ZoHashEntry const* candidate) { return StoredWord(candidate) == word; });
}

char const* BytesOf(ZoHashTable const* table, ZoHashEntry const* entry) {
    return HasKeyBytes(table->keySize) ? KeyBytes(entry) : table->GetKey(*entry);
}

// Keys without a length are all the same; a key that cannot be had is like none.
bool SameBytes(char const* key, char const* entryKey, unsigned short length) {
    if (length == 0) return true;
    return entryKey != nullptr && std::memcmp(key, entryKey, length) == 0;
}

}  // namespace

ZoHashEntry* StringFind(ZoHashTable const* table, char const* key, unsigned long& hash,
                        ZoHashEntry* entry, ZoHashEntry*& prev) {
    if (entry != nullptr) {
        char const* const text = TextOf(table, entry);
        if (text == nullptr) ReportMissingKey();
        hash = text != nullptr ? HashText(text) : 0;
        return entry;
    }
    if (key == nullptr) return NoKey(hash, prev);
    hash = HashText(key);
    return WalkChain(table, hash, prev, [&](ZoHashEntry const* candidate) {
        char const* const text = TextOf(table, candidate);
        return text != nullptr && std::strcmp(key, text) == 0;
    });
}

ZoHashEntry* OneDWordFind(ZoHashTable const* table, char const* key, unsigned long& hash,
                          ZoHashEntry* entry, ZoHashEntry*& prev) {
    std::uintptr_t const word = entry != nullptr ? WordKeyOf(table, entry) : WordOf(key);
    hash = Mix(table, static_cast<ZoUInt32>(word));
    if (entry != nullptr) return entry;
    if (table->keySize == ZoHashTable::WordKeys) return WalkStoredWords(table, word, hash, prev);
    return WalkChain(table, hash, prev, [&](ZoHashEntry const* candidate) {
        return WordOf(table->GetKey(*candidate)) == word;
    });
}

ZoHashEntry* ByteArrayFind(ZoHashTable const* table, char const* key, unsigned long& hash,
                           ZoHashEntry* entry, ZoHashEntry*& prev) {
    unsigned short const length = table->GetKeySize();
    if (entry == nullptr && key == nullptr) return NoKey(hash, prev);
    if (entry != nullptr) {
        char const* const bytes = BytesOf(table, entry);
        if (bytes == nullptr) ReportMissingKey();
        hash = Mix(table, bytes != nullptr ? SumBytes(bytes, length) : 0);
        return entry;
    }
    hash = Mix(table, SumBytes(key, length));
    return WalkChain(table, hash, prev, [&](ZoHashEntry const* candidate) {
        return SameBytes(key, BytesOf(table, candidate), length);
    });
}

ZoHashEntry* PointerFind(ZoHashTable const* table, char const* key, unsigned long& hash,
                         ZoHashEntry* entry, ZoHashEntry*& prev) {
    std::uintptr_t const word = entry != nullptr ? StoredWord(entry) : WordOf(key);
    hash = static_cast<ZoUInt32>(word);
    return entry != nullptr ? entry : WalkStoredWords(table, word, hash, prev);
}

ZoHashEntry* ValuePointerFind(ZoHashTable const* table, char const* key, unsigned long& hash,
                              ZoHashEntry* entry, ZoHashEntry*& prev) {
    void const* const value = entry != nullptr ? entry->value : key;
    hash = static_cast<ZoUInt32>(WordOf(value) >> 3);
    if (entry != nullptr) return entry;
    return WalkChain(table, hash, prev,
                     [&](ZoHashEntry const* candidate) { return candidate->value == value; });
}

ZoHashEntry* ZoSurrFind(ZoHashTable const* table, char const* key, unsigned long& hash,
                        ZoHashEntry* entry, ZoHashEntry*& prev) {
    if (entry != nullptr) {
        hash = Surrogate::OfKeyBytes(KeyBytes(entry)).Hash();
        return entry;
    }
    Surrogate const surrogate = Surrogate::OfRecord(key);
    hash = surrogate.Hash();
    return WalkChain(table, hash, prev, [&](ZoHashEntry const* candidate) {
        return Surrogate::OfKeyBytes(KeyBytes(candidate)) == surrogate;
    });
}

ZoHashTable::ZoHashTable(unsigned short keySize, ZoHashSearch find)
    : num(0), find(find != nullptr ? find : DefaultSearch(keySize)), keySize(keySize) {
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
    shift = initialShift;
    mask = 3;
}

ZoHashEntry* ZoHashTable::CreateHashEntry(char const* key, void* value) {
    switch (keySize) {
        case StringKeys:
            return NewEntry(value, key, std::strlen(key) + 1);
        case WordKeys:
            return NewEntry(value, &key, sizeof key);
        case SurrogateKeys: {
            Surrogate const surrogate = Surrogate::OfRecord(key);
            return NewEntry(value, &surrogate, sizeof surrogate);
        }
        default:
            return HasKeyBytes(keySize) ? NewEntry(value, key, keySize) : NewEntry(value, 0);
    }
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
    if (!HasKeyBytes(keySize)) {
        ZOVA_assert("( \"You must have a special space for the key.\" && 0 )", "src/zohash", 151);
    }
    clone = NewEntry(GetValue(source), KeyBytes(&source), KeyLength(*this, source));
    return clone != nullptr ? ZoSuccess : ZoOutOfMemory;
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
        bool const isSet = find == ValuePointerFind && !HasKeyBytes(keySize);
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
    if (steps > (shift - smallestShift) / 2) return ZoOutOfMemory;
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
    if (keySize == WordKeys) return ReadWord<char const*>(KeyBytes(&entry));
    if (!HasKeyBytes(keySize)) {
        ZOVA_assert("( \"You must have a seperate space for the key.\" && 0 )", "src/zohash", 365);
        return nullptr;
    }
    return KeyBytes(&entry);
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

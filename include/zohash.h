// The hash table: values (untyped pointers) under keys of one of several kinds.
//
//     ZoHashTable names(ZoHashTable::StringKeys, nullptr);
//     names.InsertValue("Kelvara", engine);                       // null: present, or no memory
//     Engine* found = static_cast<Engine*>(names.GetValueFast("Kelvara"));
//     names.DeleteValue("Kelvara", nullptr);
//
//     ZoHashIterator it;
//     for (ZoHashEntry* e = names.FirstEntry(it); e != nullptr; e = names.NextEntry(it)) …
//
// The key size, fixed at construction, says what a key is:
//
//     key size          the key argument                       kept in the entry     searched by
//     StringKeys        a NUL-terminated text                  its copy              StringFind
//     WordKeys          the value of the pointer itself        that word             OneDWordFind
//     SurrogateKeys     the address of a surrogate record      two 32-bit words      ZoSurrFind
//     ForeignKeys, 0    what a derived class makes of it       nothing               ByteArrayFind
//     any other N       the address of N bytes                 their copy            ByteArrayFind
//
// The last column is the default; another search function can be given. Widths: a word key is one
// pointer wide. A hash has 32 bits on every build: the standard search functions compute on 32-bit
// words modulo 2^32, and of what another one yields the table uses the lower 32 bits. The table's
// counts, its hash in a position and its index in an iterator are 32-bit words (ZoUInt32).
//
// Shape. Four buckets lie in the object; a small table allocates nothing but its entries. When the
// number of entries reaches four a bucket, the buckets become four times as many:
//
//     nBuckets    mask        threshold    shift
//     4           3           16           28       the initial shape, in initialBuckets
//     16          15          64           26       grown, on the heap
//     …           …           …            …
//     2^28        2^28 - 1    2^30         2        the last: a further growth is out of memory
//
// A growth that gets no memory changes nothing; the insertion that asked for it stands. Removing
// the last entry with DeleteValue or Remove brings the initial shape back.
//
// Order. A new entry goes to the head of its bucket's chain, and iteration goes through the buckets
// by index and through each chain from its head. Keys are unique; only Create does not check that.
//
// Ownership. Entries belong to the table; a grown one of this very class and of WordKeys keeps the
// blocks of some that were deleted, one a bucket at most, for its next ones. Values belong to the
// caller; the table never looks at them. A value may be null, but GetValue then cannot tell it from
// an absent key; LookUp can.
//
// Who may call: one thread at a time; the table has no lock. The operations with a ZoMTObj argument
// hold that object's section (BeginCriticalSection, EndCriticalSection) while they work; null holds
// nothing. Each caller that relies on it passes the same object.

#ifndef KELVARA_INCLUDE_ZOHASH_H_
#define KELVARA_INCLUDE_ZOHASH_H_

#include "zotypes.h"

class ZoHashTable;
class ZoMTObj;

// One key with its value. The key bytes follow the two fields in the same block of memory, which
// comes from `operator new`; a key word is read with memcpy.
class ZoHashEntry {
public:
    // The next entry of the same bucket; null at the last.
    ZoHashEntry* GetNext() const { return next; }

    ZoHashEntry* next;  // the next entry of the same bucket
    void* value;        // the caller's
};

// The state of an iteration: nothing to set up, FirstEntry or FindEntry does. The entry returned
// last may be deleted in between; any other change of the table ends the iteration.
class ZoHashIterator {
public:
    ZoUInt32 index;     // the next bucket to visit
    ZoHashEntry* next;  // the next entry of the current chain
};

// The result of a search, kept so that the entry can be created or deleted later without searching
// again. Filled by Position and good for one Create or Delete. The key it points to must live until
// then, and its predecessor, or without one its entry, must still be in the table.
class ZoHashPosition {
public:
    ZoHashTable* table;  // null once used
    ZoHashEntry* entry;  // null when the key was not found
    ZoHashEntry* prev;   // the entry before it; after a miss the chain's last
    char const* key;     // the key argument of the search
    ZoUInt32 hash;       // of the key
};

// A search function, in one of two modes.
//
// `entry` is null: computes the hash of `key` into `hash`, walks the chain of bucket
// (hash & table->mask) from its head and returns the matching entry or null. `prev` becomes the
// last entry before it that did not match, null when there was none.
//
// `entry` is not null: computes the hash of that entry's key into `hash` and returns `entry`; `key`
// and `prev` are not used. This is how the table distributes its entries anew when it grows.
using ZoHashSearch = ZoHashEntry* (*)(ZoHashTable const* table, char const* key,
                                      unsigned long& hash, ZoHashEntry* entry, ZoHashEntry*& prev);

// The standard ones. All compare exactly; none allocates.
//
// h = 9h + c over the signed characters. Takes the text in the entry for StringKeys, else GetKey's.
ZO_API ZoHashEntry* StringFind(ZoHashTable const* table, char const* key, unsigned long& hash,
                               ZoHashEntry* entry, ZoHashEntry*& prev);
// The word times 1103515245, shifted right by table->shift with its sign. Takes the word in the
// entry for WordKeys, else the value of GetKey.
ZO_API ZoHashEntry* OneDWordFind(ZoHashTable const* table, char const* key, unsigned long& hash,
                                 ZoHashEntry* entry, ZoHashEntry*& prev);
// The sum of GetKeySize() unsigned bytes, mixed as OneDWordFind does. Takes the bytes in the entry,
// or GetKey's for ForeignKeys and 0.
ZO_API ZoHashEntry* ByteArrayFind(ZoHashTable const* table, char const* key, unsigned long& hash,
                                  ZoHashEntry* entry, ZoHashEntry*& prev);
// The word itself: for tables of WordKeys that are well spread already.
ZO_API ZoHashEntry* PointerFind(ZoHashTable const* table, char const* key, unsigned long& hash,
                                ZoHashEntry* entry, ZoHashEntry*& prev);
// The word shifted right by 3, compared with the entries' values: a set of value pointers.
ZO_API ZoHashEntry* ValuePointerFind(ZoHashTable const* table, char const* key, unsigned long& hash,
                                     ZoHashEntry* entry, ZoHashEntry*& prev);
// Of a surrogate record three parts are read, at any alignment: the 32-bit word at offset 4, and as
// a second word the 16 bits at offset 8 below the 16 bits at offset 12. Their exclusive or.
ZO_API ZoHashEntry* ZoSurrFind(ZoHashTable const* table, char const* key, unsigned long& hash,
                               ZoHashEntry* entry, ZoHashEntry*& prev);

class ZO_API ZoHashTable {
public:
    // Key sizes that stand for kinds of keys, as the table above says.
    static constexpr unsigned short StringKeys = 0xFFFF;
    static constexpr unsigned short WordKeys = 0xFFFE;
    static constexpr unsigned short SurrogateKeys = 0xFFFD;
    static constexpr unsigned short ForeignKeys = 0xABCD;

    // The hooks a derived class may override. The table makes, destroys and changes entries through
    // these alone. A class that overrides DestroyHashEntry calls EmptyTable in its own destructor:
    // in the base's it is no longer asked.

    // A new entry with a copy of the key and the value; null when memory ran out.
    virtual ZoHashEntry* CreateHashEntry(char const* key, void* value);
    // What the table calls; `hash` is the key's, for a class that can use it. Here:
    // CreateHashEntry.
    virtual ZoHashEntry* CreateHashEntryX(char const* key, void* value, unsigned long hash);
    // Releases the entry's block with `operator delete`. Null is ignored.
    virtual void DestroyHashEntry(ZoHashEntry* entry);
    virtual void ChangeHashEntry(ZoHashEntry* entry, void* value);
    // A new entry with the key bytes of `source` and GetValue(source), from `operator new`; `next`
    // is for the caller to set. Returns 0, or ZoOutOfMemory with `clone` null. Without key bytes
    // (ForeignKeys, 0) it asserts ( "You must have a special space for the key." && 0 ) and goes
    // on.
    virtual int CloneHashEntry(ZoHashEntry const& source, ZoHashEntry*& clone) const;
    // A new empty table with the same key size and search function, owned by the caller. Returns 0,
    // or ZoOutOfMemory with `out` null.
    virtual int CreateHashTable(ZoHashTable*& out) const;

    // Destroys the entries.
    virtual ~ZoHashTable();

    // Makes a table with CreateHashTable and fills it with every key and value of this one; owned
    // by the caller. Returns 0, or what failed with `out` null. Asserts
    // "this->GetNum() == dest->GetNum()" when the copy has another number of entries.
    virtual int Clone(ZoHashTable*& out, ZoMTObj const* lock) const;
    // Null when the key is absent.
    virtual void* GetValue(char const* key, ZoMTObj const* lock) const;
    // `replace` allows to change a present key's value, `create` to insert an absent key. Returns
    // 0, ZoNotFound when it was not allowed, or ZoOutOfMemory; then nothing changed.
    virtual int ChangeValue(char const* key, void* value, int create, int replace,
                            ZoMTObj const* lock);
    // Returns 0, or ZoNotFound. The last entry's removal brings the initial shape back, except with
    // ForeignKeys.
    virtual int DeleteValue(char const* key, ZoMTObj const* lock);
    // Destroys every entry, in iteration order, and keeps the buckets. Returns 0.
    virtual int EmptyTable(ZoMTObj const* lock);
    // The first entry, or the next one; null at the end.
    virtual ZoHashEntry* FirstEntry(ZoHashIterator& it) const;
    virtual ZoHashEntry* NextEntry(ZoHashIterator& it) const;
    // The key word as a pointer for WordKeys, else the address of the entry's key bytes (of a
    // surrogate its two words, not a record). Without key bytes (ForeignKeys, 0) it asserts
    // ( "You must have a seperate space for the key." && 0 ) and returns null.
    virtual char const* GetKey(ZoHashEntry const& entry) const;
    virtual void* GetValue(ZoHashEntry const& entry) const;
    // The key size; asserts "keySize != 0" when it is 0. With ForeignKeys a derived class answers
    // the length of its keys for ByteArrayFind.
    virtual unsigned short GetKeySize() const;
    // The mean number of key comparisons of a successful search, and the length of the longest
    // chain; both 0 for an empty table.
    virtual double AverageSearch(unsigned long& longest) const;

    // A null search function means the key size's default.
    ZoHashTable(unsigned short keySize, ZoHashSearch find);
    // Refused: asserts ( "The hash table does not have a copy ctor" && 0 ). The object is an empty
    // table, good for nothing but its destruction. Use Clone.
    ZoHashTable(ZoHashTable const& other);
    // Refused: asserts ( "The hash table does not have an assignement op" && 0 ), changes nothing.
    ZoHashTable& operator=(ZoHashTable const& other);

    // The entry, or null.
    ZoHashEntry* LookUp(char const* key) const;
    // GetValue without a lock and without a virtual call.
    void* GetValueFast(char const* key) const;
    // The new entry. Null when the key is present, whose value stays, and when memory ran out.
    ZoHashEntry* InsertValue(char const* key, void* value);
    // Deletes the key and returns its value, null when it was absent. Shrinks as DeleteValue, with
    // ForeignKeys too.
    void* Remove(char const* key);
    // Forgets every entry without destroying it: for entries that somebody else owns. Keeps the
    // buckets.
    void EraseBuckets();
    // Back to the initial shape. Frees no grown array and leaves `num`: only for a table that has
    // neither entries nor a grown array.
    void InitTable();
    // Grows once for all until `threshold` is at least `n`. Returns 0, or ZoOutOfMemory with
    // nothing changed.
    int SetExpectedSize(unsigned long n);
    // Grows by one step, or by `steps`: each makes the buckets four times as many. Returns 0, or
    // ZoOutOfMemory with nothing changed.
    int RebuildTable();
    int _RebuildTable(unsigned long steps);

    // Starts an iteration behind the key's entry, which is returned; when it is absent (null),
    // behind the bucket that it would be in.
    ZoHashEntry* FindEntry(char const* key, ZoHashIterator& it) const;

    // Returns 1 when the key was found, else 0.
    int Position(char const* key, ZoHashPosition& pos) const;
    // Inserts the position's key, which the caller knows to be absent. Returns 0 with the entry in
    // the position and the position used up; ZoBadPosition for one of another table or used up;
    // ZoOutOfMemory with nothing changed, the position included.
    int Create(ZoHashPosition& pos, void* value);
    // Deletes the position's entry and never shrinks. Returns 0 with the position used up;
    // ZoBadPosition for one of another table, used up, without an entry, or whose entry is no
    // longer the one behind its predecessor.
    int Delete(ZoHashPosition& pos);

    // The number of entries.
    unsigned long GetNum() const { return num; }

    // Search functions read these and the chains; nobody but the table changes either, not even for
    // a while: of a large table's chains it knows more than stands here.
    ZoHashEntry** buckets;  // initialBuckets, or an array on the heap
    ZoHashEntry* initialBuckets[4];
    ZoUInt32 nBuckets;
    ZoUInt32 num;        // the number of entries
    ZoUInt32 threshold;  // always 4 * nBuckets; reaching it grows the table
    ZoUInt32 shift;      // of the mixing hashes; always 30 - 2 * log4(nBuckets)
    ZoUInt32 mask;       // always nBuckets - 1
    ZoHashSearch find;
    unsigned short keySize;
};

#endif  // KELVARA_INCLUDE_ZOHASH_H_

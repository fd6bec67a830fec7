// The word types, result codes and the export mark that every public header shares.
//
//     ZoUInt32 holdings = 0;                    // 32 bits on every build
//     if (queue->Append(unit) == ZoRefused) …   // result codes are plain ints
//
// Word widths. The library was shaped on a platform whose `long` has 32 bits. A word in memory that
// had 32 bits there (a stored field, a counter, a flag word, a variable reached through a pointer)
// has exactly 32 bits on every build: ZoInt32 or ZoUInt32. Where `long` has 32 bits they are `long`
// and `unsigned long`, so that the symbol names of a 32-bit build stay what its callers link
// against; elsewhere they are `int` and `unsigned int`. A `long` that is passed or returned by
// value stays a `long`.

#ifndef KELVARA_INCLUDE_ZOTYPES_H_
#define KELVARA_INCLUDE_ZOTYPES_H_

#include <climits>

// Marks what the shared object exports; everything else is hidden.
#define ZO_API __attribute__((visibility("default")))
// Marks a member of an exported class that is the library's own affair.
#define ZO_INTERNAL __attribute__((visibility("hidden")))

// Annotations of the locks for Clang's -Wthread-safety; other compilers see nothing.
//
//     long balance ZO_GUARDED_BY(accounts) = 0;    // a ZoSection; of a ZoCritSect*: *accounts
//     void Add(long amount) ZO_REQUIRES(accounts);
//
// It does not follow what depends on a value: the mode of StartRW, the index of a named section,
// the lock that WaitForCondition may keep. Where it does not know ZO_REENTRANT (before Clang 20) it
// also warns of a lock that a function takes twice.
#ifdef __clang__
#define ZO_CLANG_ATTRIBUTE(x) __attribute__((x))
#else
#define ZO_CLANG_ATTRIBUTE(x)
#endif
#if defined(__clang__) && defined(__has_attribute)
#if __has_attribute(reentrant_capability)
#define ZO_REENTRANT ZO_CLANG_ATTRIBUTE(reentrant_capability)
#endif
#endif
#ifndef ZO_REENTRANT
#define ZO_REENTRANT
#endif
#define ZO_CAPABILITY(kind) ZO_CLANG_ATTRIBUTE(capability(kind))
#define ZO_SCOPED_CAPABILITY ZO_CLANG_ATTRIBUTE(scoped_lockable)
#define ZO_GUARDED_BY(...) ZO_CLANG_ATTRIBUTE(guarded_by(__VA_ARGS__))
#define ZO_PT_GUARDED_BY(...) ZO_CLANG_ATTRIBUTE(pt_guarded_by(__VA_ARGS__))
#define ZO_REQUIRES(...) ZO_CLANG_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define ZO_REQUIRES_SHARED(...) ZO_CLANG_ATTRIBUTE(requires_shared_capability(__VA_ARGS__))
#define ZO_EXCLUDES(...) ZO_CLANG_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define ZO_ACQUIRE(...) ZO_CLANG_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define ZO_ACQUIRE_SHARED(...) ZO_CLANG_ATTRIBUTE(acquire_shared_capability(__VA_ARGS__))
#define ZO_TRY_ACQUIRE(...) ZO_CLANG_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define ZO_TRY_ACQUIRE_SHARED(...) ZO_CLANG_ATTRIBUTE(try_acquire_shared_capability(__VA_ARGS__))
#define ZO_RELEASE(...) ZO_CLANG_ATTRIBUTE(release_capability(__VA_ARGS__))
#define ZO_RELEASE_SHARED(...) ZO_CLANG_ATTRIBUTE(release_shared_capability(__VA_ARGS__))
#define ZO_RETURN_CAPABILITY(x) ZO_CLANG_ATTRIBUTE(lock_returned(x))
#define ZO_NOT_ANALYSED ZO_CLANG_ATTRIBUTE(no_thread_safety_analysis)

// A word in memory: exactly 32 bits.
#if LONG_MAX == 2147483647L
using ZoInt32 = long;
using ZoUInt32 = unsigned long;
#else
using ZoInt32 = int;
using ZoUInt32 = unsigned int;
#endif

static_assert(sizeof(ZoInt32) == 4 && sizeof(ZoUInt32) == 4, "a stored word has 32 bits");

// Nothing but a virtual destructor: a base for objects that are destroyed through a base pointer.
class ZO_API ZoExtendedBase {
public:
    ZoExtendedBase() = default;
    ZoExtendedBase(ZoExtendedBase const&) = delete;
    ZoExtendedBase& operator=(ZoExtendedBase const&) = delete;
    virtual ~ZoExtendedBase();
};

// A limit that callers pass as 4294967295, or as -1 converted to `unsigned long`: no limit.
inline constexpr ZoUInt32 ZoNoLimit = 0xFFFFFFFFU;

// Result codes. Operations return them as plain ints; 0 is success.
inline constexpr int ZoSuccess = 0;
inline constexpr int ZoRefused = -1;            // refused or failed
inline constexpr int ZoNotHandled = -2;         // command not handled
inline constexpr int ZoNotFound = -2005;        // no such key, or it may not be replaced
inline constexpr int ZoBufferTooSmall = -2016;  // the data does not fit the buffer
inline constexpr int ZoOutOfMemory = -2030;     // out of memory, or no system thread
inline constexpr int ZoTimedOut = -2057;        // a wait ran out of time
inline constexpr int ZoStartFailed = -2098;     // a system thread failed to start
inline constexpr int ZoBadPosition = -2998;     // a position does not fit the table
inline constexpr int ZoNotSupported = -2999;    // not supported on this platform
inline constexpr int ZoNoResult = -4103;        // no result stored yet

#endif  // KELVARA_INCLUDE_ZOTYPES_H_

// The door to the engine's base library: every service the library calls, in one place.
//
// The engine provides these symbols in libzo95Kbs.so; base/ builds a stand-in of the same name for
// programs that have no engine. Nothing in src/ reaches the base library by any other way. The
// order of the virtual functions is the interface: the library calls them by slot.
//
// Every function here may be called by any thread at any time, before main() included.

#ifndef KELVARA_PLATFORM_ZOBASE_H_
#define KELVARA_PLATFORM_ZOBASE_H_

// Marks what the base library exports.
#define ZO_BASE_API __attribute__((visibility("default")))

// Types of the engine that the library only passes on.
class ZoBase;
class ZoLogDestination;
class ZoString;

// Reports a broken invariant and returns; the caller goes on. `file` is a source path without
// extension and `line` a fixed number: together they identify the report to the support desk.
ZO_BASE_API void ZOVA_assert(char const* text, char const* file, int line);

// The severities that the library gives its entries.
inline constexpr int ZoLogWarning = 3;
inline constexpr int ZoLogError = 4;

// The system log.
class ZO_BASE_API ZoLog {
public:
    virtual ~ZoLog();
    // Writes one entry; `level` is its severity. The result is not used.
    virtual int Printf(int level, char const* format, ...)
        __attribute__((format(printf, 3, 4))) = 0;
};

// Never null.
ZO_BASE_API ZoLog* ZoSystemLog();

// Shows a message to the operator of the engine and returns the answer.
class ZO_BASE_API ZoMessageService {
public:
    virtual int Reserved() { return 0; }  // never called
    // `reserved` is 0. Returns the answer; see ZoAnswerDebug and ZoAnswerAbort.
    virtual unsigned int Show(int reserved, unsigned int style, char const* format, ...)
        __attribute__((format(printf, 4, 5))) = 0;

protected:
    // Slot 0 belongs to Reserved, so the destructor is not virtual: a service is destroyed as what
    // it is, never through this base.
    ~ZoMessageService() = default;
};

inline constexpr unsigned int ZoStyleNotice = 0;             // tell, ask nothing
inline constexpr unsigned int ZoStyleQuestion = 0x10000001;  // needs the user's attention
inline constexpr unsigned int ZoAnswerDebug = 0x40000000;    // these two answers ask for a
inline constexpr unsigned int ZoAnswerAbort = 0x80000000;    // debugger; callers assert on them

// Never null.
ZO_BASE_API ZoMessageService* ZoMessage();

// The engine's configuration.
class ZO_BASE_API ZoConfig {
public:
    virtual ~ZoConfig();
    // Looks `key` up in the section that the null-terminated list `sectionPath` names. Returns 0
    // and stores the number when the key is there; otherwise returns non-zero and leaves *out.
    virtual int ReadValue(char const* key, int* out, char const* const* sectionPath) = 0;
};

// Called with a pointer of all bits set, which asks for the default configuration. May be null.
ZO_BASE_API ZoConfig* DefaultConfig(ZoConfig* which);

// The default configuration; null when there is none.
inline ZoConfig* ZoDefaultConfiguration() {
    return DefaultConfig(reinterpret_cast<ZoConfig*>(~0UL));
}

// Compares a module's version with what the program expects; the result is the program's business.
ZO_BASE_API int CheckZoVersionNumber(unsigned long major, unsigned long minor,
                                     unsigned long release, unsigned long build,
                                     unsigned long fifth, int flags);

#endif  // KELVARA_PLATFORM_ZOBASE_H_

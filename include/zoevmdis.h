// Diagnostics by event: debug switches, events, listeners and the dispatcher that brings them
// together.
//
// A producer builds an event on its stack and hands it to the dispatcher, which calls every
// listener registered for the event's mask and type:
//
//     class Counter : public ZoEventListener {
//         int Notify(ZoEvent const* event) override;
//     };
//     ZoEventMessageDispatcher* const dispatcher = ZoEventMessageDispatcher::GetDispatcher();
//     dispatcher->RegisterListener(1, 0xB00, new Counter);    // the dispatcher owns it from here
//     {
//         ZoFtransLogEvent transfer;
//         transfer << "sent " << name << endl;
//     }                                                       // delivered here
//
// A trace is an event that is built only while its bit in the debug switches is set:
//
//     smp_debug* const debugger = GetDebugger();
//     if (debugger != nullptr && (debugger->current & 0x800000) != 0) {
//         ZoDebugEvent event(0x800000);
//         event << "started " << name << endl;
//         ZoEventMessageDispatcher::GetDispatcher()->Dispatch(&event);
//     }
//
// Who may call: any thread, anything, except that one event belongs to one thread and that
// AddFamilyRegistration has rules of its own. Locks: a dispatcher delivers one event at a time,
// with its section "EventDispatcher" held while listeners run; nothing else here holds a lock while
// it calls out. Dispatchers, switches and listeners are destroyed when no thread uses them.

#ifndef KELVARA_INCLUDE_ZOEVMDIS_H_
#define KELVARA_INCLUDE_ZOEVMDIS_H_

#include <atomic>
#include <cstdio>

#include "zotypes.h"

class ZoCritSect;
class ZoHashTable;
class ZoLogDestination;

// --- events ------------------------------------------------------------------------------------

// A text for listeners. Short-lived, usually on the stack of its producer.
class ZO_API ZoEvent {
public:
    // Of one class and family; masks and types are 32-bit values.
    ZoEvent(int code, unsigned long mask, unsigned long type);
    ZoEvent(ZoEvent const&) = delete;
    ZoEvent& operator=(ZoEvent const&) = delete;
    virtual ~ZoEvent();

    // The message; lives as long as the event, never null.
    virtual char const* GetMessageText() const = 0;
    virtual int Dump(ZoLogDestination* destination) const = 0;

    int code;       // an error when negative, a warning when positive, else 0
    ZoUInt32 mask;  // event-class bits; a registration must share one
    ZoUInt32 type;  // a family; below 0x10000 the low byte is a level
};

// An event that carries up to 255 characters of text. A piece that does not fit is dropped whole;
// a shorter piece after it may still fit. Building one allocates nothing.
class ZO_API ZoSimpleEvent : public ZoEvent {
public:
    // With no text.
    ZoSimpleEvent(int code, unsigned long mask, unsigned long type);
    ~ZoSimpleEvent() override;

    char const* GetMessageText() const override;
    // Does nothing and returns 0.
    int Dump(ZoLogDestination* destination) const override;

    // Every insertion returns the event, so insertions chain.
    virtual ZoSimpleEvent& operator<<(char const* piece);
    virtual ZoSimpleEvent& operator<<(int number);
    virtual ZoSimpleEvent& operator<<(unsigned int number);
    virtual ZoSimpleEvent& operator<<(short number);
    virtual ZoSimpleEvent& operator<<(unsigned short number);
    virtual ZoSimpleEvent& operator<<(long number);
    virtual ZoSimpleEvent& operator<<(unsigned long number);
    virtual ZoSimpleEvent& operator<<(float number);
    virtual ZoSimpleEvent& operator<<(double number);
    virtual ZoSimpleEvent& operator<<(char character);  // exactly this one
    virtual ZoSimpleEvent& operator<<(void* pointer);   // as "%p" prints it
    virtual ZoSimpleEvent& operator<<(ZoSimpleEvent& (*manipulator)(ZoSimpleEvent&));

    // Appends the first `count` characters of `piece`, which has at least that many. 0, or -1 when
    // they did not fit or `count` is negative.
    int Print(char const* piece, int count);

protected:
    char text[256];  // NUL-terminated
    int length;      // of text, without the NUL
};

// The widest integers, as their decimal digits.
inline ZoSimpleEvent& operator<<(ZoSimpleEvent& event, long long number) {
    char text[24];
    std::snprintf(text, sizeof text, "%lld", number);
    return event << text;
}
inline ZoSimpleEvent& operator<<(ZoSimpleEvent& event, unsigned long long number) {
    char text[24];
    std::snprintf(text, sizeof text, "%llu", number);
    return event << text;
}

ZO_API ZoSimpleEvent& endl(ZoSimpleEvent& event);           // "\n"
ZO_API ZoSimpleEvent& ARROW(ZoSimpleEvent& event);          // " --> "
ZO_API ZoSimpleEvent& UNKNOWN_ERROR(ZoSimpleEvent& event);  // "unknown error"

// Base for the host's events whose text lives on the heap; the library makes none.
class ZO_API ZoLoggableEvent : public ZoEvent {
public:
    // With no text.
    ZoLoggableEvent(int code, unsigned long mask, unsigned long type);
    ~ZoLoggableEvent() override;

    virtual int Reserved() = 0;  // the host's; never called here

protected:
    char* heapText;  // null at first; owned, from new char[]
};

// A trace. `category` is one bit of the debug switches: its place in the 4-bit group gives the mask
// (1, 2, 4 or 8), the group gives the type:
//
//     bits         type     family                 bits         type     family
//     0x0000000F   0x400    debugSocket            0x000F0000   0x800    debugServer
//     0x000000F0   0x500    debugConnection        0x00F00000   0x900    debugThread
//     0x00000F00   0x600    debugRcvSnd            0x0F000000   0xA00    debugMisc
//     0x0000F000   0x700    debugMxPipe            0xF0000000   0xFFFFFFFF, no type
//
// Of several bits the lowest mask and the lowest group win; without any, mask 0 and no type.
class ZO_API ZoDebugEvent : public ZoSimpleEvent {
public:
    // With no text.
    explicit ZoDebugEvent(unsigned long category);
    ~ZoDebugEvent() override;
};

// A line of the file-transfer log: mask 1, type 0xB00. It dispatches itself when it is destroyed,
// through eventDispatcher; without a dispatcher the line is lost. A thread that is cancelled during
// that delivery is cancelled only after it.
class ZO_API ZoFtransLogEvent : public ZoSimpleEvent {
public:
    ZoFtransLogEvent();
    ~ZoFtransLogEvent() override;
};

// --- listeners ---------------------------------------------------------------------------------

// Made with `new`. Owned by its registrations from the first one on: the last to go deletes it.
class ZO_API ZoEventListener {
public:
    ZoEventListener();
    ZoEventListener(ZoEventListener const&) = delete;
    ZoEventListener& operator=(ZoEventListener const&) = delete;
    virtual ~ZoEventListener();

    // Called with the dispatcher's section held. May dispatch and register, with the same
    // dispatcher too; must not wait for a thread that may be dispatching. The result is ignored.
    virtual int Notify(ZoEvent const* event) = 0;

    // How many registrations hold the listener. Changed under the section of the dispatcher that
    // registers or releases; atomic because a listener may be registered with several dispatchers.
    std::atomic<int> refCount{0};
};

// Base of listeners that register themselves.
class ZO_API ZoGenericListener : public ZoEventListener {
public:
    ZoGenericListener();
    ~ZoGenericListener() override;

    // For the host to override; does nothing and returns 0.
    virtual int RegisterForEvent(unsigned long mask, unsigned long type);
};

// Prints every event on the console (smp_io.h), a line each. An error number goes before the text
// as "Error: -2005 ", a warning as "Warning: 12 ". Without a console, nothing.
class ZO_API ZoConsoleListener : public ZoGenericListener {
public:
    ZoConsoleListener();
    ~ZoConsoleListener() override;

    int Notify(ZoEvent const* event) override;
};

// A dispatcher's record of one registration, guarded by the dispatcher's section.
class ZO_API ZoListenerRegistration {
public:
    // Takes one count of `listener`.
    ZoListenerRegistration(unsigned long mask, unsigned long type, ZoEventListener* listener);
    ZoListenerRegistration(ZoListenerRegistration const&) = delete;
    ZoListenerRegistration& operator=(ZoListenerRegistration const&) = delete;
    // Destroys the rest of the chain, last to first, then gives the count back; the listener is
    // deleted with its last count.
    ~ZoListenerRegistration();

    ZoUInt32 mask;                 // as registered
    ZoUInt32 type;                 // as registered, level included
    ZoEventListener* listener;     // counted once
    ZoListenerRegistration* next;  // the next under the same type key; owned
};

// --- the dispatcher ----------------------------------------------------------------------------

struct ZoEventFamily;

// Which registrations an event reaches. Both of these must hold:
//
//     masks    event and registration share a bit
//     types    below 0x10000: same family (type without its low byte), and the registered level
//                  (the low byte) is not above the event's
//              from 0x10000 on: the same type
//              registered with family 0: every type; below 0x10000 the level test applies
//
// Registrations of family 0 are called first, then those of the event's own family, each group in
// the order of registration, each registration at most once for an event. A registration that a
// listener makes during a delivery joins the end of its group, and gets the event if that group has
// not been gone through.
//
// When the dispatcher could not make its section or table, it refuses every registration and
// delivers nothing.
class ZO_API ZoEventMessageDispatcher {
public:
    ZoEventMessageDispatcher();
    ZoEventMessageDispatcher(ZoEventMessageDispatcher const&) = delete;
    ZoEventMessageDispatcher& operator=(ZoEventMessageDispatcher const&) = delete;
    // Releases every registration. The destructors of listeners may dispatch but not register.
    virtual ~ZoEventMessageDispatcher();

    // Destroys the dispatcher at `address` without freeing its memory; with null, deletes this one.
    virtual void CallDestructor(void* address);

    // Enters and leaves the section "EventDispatcher".
    void BeginCritSect();
    void ExitCritSect();

    // Adds a registration; the same listener may be registered any number of times. 0, or
    // ZoOutOfMemory: then nothing is registered, and a listener that nothing else holds is
    // deleted.
    int RegisterListener(unsigned long mask, unsigned long type, ZoEventListener* listener);
    // Returns 0 when every listener has been called.
    int Dispatch(ZoEvent const* event);
    // 1 when some registration's mask and family fit, whatever its level; else 0.
    int TypeRequested(unsigned long mask, unsigned long type);

    // Families: names for event types. The list starts with the library's own ("debugThread" is
    // 0x900) and only grows; of several records with one name or one id the oldest counts.

    // Adds a record, with a copy of `name`. 0, or ZoOutOfMemory. Takes no lock: call it
    // while no other thread uses the families.
    int AddFamilyRegistration(char const* name, unsigned long id);
    // The id of `name`; a new name gets the next id from 0x20000 on. 0xFFFFFFFF, no type, when
    // memory ran out.
    unsigned long GetEventFamilyId(char const* name);
    // The name of `id`, null when there is none. The text lives as long as the dispatcher.
    char const* GetEventFamilyName(unsigned long id);

    // The process-wide dispatcher; null while the library context is not set up.
    static ZoEventMessageDispatcher* GetDispatcher();
    // Installs `dispatcher`, null included, and returns the previous one, which the caller owns
    // from then on.
    static ZoEventMessageDispatcher* SetDispatcher(ZoEventMessageDispatcher* dispatcher);

private:
    ZO_INTERNAL ZoListenerRegistration* Chain(ZoUInt32 typeKey) const;
    ZO_INTERNAL int Link(ZoListenerRegistration* registration);
    ZO_INTERNAL void Deliver(ZoListenerRegistration const* chain, ZoEvent const* event);

    ZoUInt32 nextFamilyId;      // guarded by lock
    ZoUInt32 requestedMask;     // the masks of all registrations; guarded by lock
    ZoEventFamily* familyList;  // oldest first; owned; guarded by lock
    ZoHashTable* listeners;     // type key to the first registration of its chain; guarded by lock
    ZoCritSect* lock;           // "EventDispatcher"
};

// What GetDispatcher returns.
extern ZO_API ZoEventMessageDispatcher* eventDispatcher;

// --- debug switches ----------------------------------------------------------------------------

// The flags that switch traces on, one bit a category (see ZoDebugEvent). They come from the
// configuration key "mode" in section "debug".
class ZO_API smp_debug {
public:
    // Starts with these flags, or with none when `initial` is -1, and has the next GetDebugger read
    // the configuration again.
    explicit smp_debug(long initial);
    smp_debug(smp_debug const&) = delete;
    smp_debug& operator=(smp_debug const&) = delete;
    virtual ~smp_debug();

    virtual void Enable();   // brings the kept flags back
    virtual void Disable();  // keeps the flags and clears them; a second time keeps none

    // Atomic because traces of any thread test them. Each flag stands for itself and orders
    // nothing, so relaxed loads do.
    std::atomic<ZoUInt32> current;  // in force
    std::atomic<ZoUInt32> saved;    // kept by Disable
};

// The process-wide switches; null while the library context is not set up.
//
// The first call after an smp_debug was made reads the configuration: it sets the flags from "mode"
// (none when the key is missing), writes them to the console ("DEBUG LEVEL --> 0x800000") unless
// none is set, and registers one console listener with eventDispatcher for damage, replication,
// backup and all seven debug families. Without a configuration nothing happens and the next call
// tries again; without a dispatcher the listener waits for the first call that finds one; without a
// console the flags are not written. Exactly one thread configures. A call that meets it at work,
// from another thread or from within (a configuration or a console that traces), does not wait: it
// returns the switches as they are at that moment.
ZO_API smp_debug* GetDebugger();
// Installs `debugger` and returns the previous one, which the caller owns from then on. With null,
// as GetDebugger.
ZO_API smp_debug* Debugger(smp_debug* debugger);

// What GetDebugger returns.
extern ZO_API smp_debug* smp_debugger;

// --- hooks of the host -------------------------------------------------------------------------

// Implemented and installed by the host; the library only keeps the pointer.
class ZO_API ZoQaSemaphore {
public:
    ZoQaSemaphore();
    ZoQaSemaphore(ZoQaSemaphore const&) = delete;
    ZoQaSemaphore& operator=(ZoQaSemaphore const&) = delete;
    virtual ~ZoQaSemaphore();

    // The host's; never called here.
    virtual int Reserved1() = 0;
    virtual int Reserved2() = 0;
    virtual int Reserved3() = 0;

    // The one installed; null when there is none.
    static ZoQaSemaphore* GetSemaphore();
    // Returns the previous one; frees nothing.
    static ZoQaSemaphore* SetSemaphore(ZoQaSemaphore* semaphore);
};

extern ZO_API ZoQaSemaphore* qaSemaphore;  // set-up clears it
extern ZO_API void* loggingObject;         // the host's; never touched here

#endif  // KELVARA_INCLUDE_ZOEVMDIS_H_

#include "zoevmdis.h"

#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>

#include "cancellation.h"
#include "checkers.h"
#include "debug_path.h"
#include "smp_io.h"
#include "zobase.h"
#include "zocrits.h"
#include "zohash.h"

ZoEventMessageDispatcher* eventDispatcher = nullptr;
smp_debug* smp_debugger = nullptr;
ZoQaSemaphore* qaSemaphore = nullptr;
void* loggingObject = nullptr;

namespace {

constexpr ZoUInt32 NoType = 0xFFFFFFFFU;
constexpr ZoUInt32 FirstUnlevelledType = 0x10000U;  // from here on a type is a family, no level
constexpr ZoUInt32 FtransLogType = 0xB00U;
constexpr ZoUInt32 WildcardKey = 0;

// The exported globals are plain pointers that any thread may read while another installs its
// object. Acquire and release order publish the object with its pointer.
template <class Object>
Object* Load(Object*& global) {
    Object* const object = std::atomic_ref<Object*>(global).load(std::memory_order_acquire);
    checkers::Acquire(&global);
    return object;
}

template <class Object>
Object* Exchange(Object*& global, Object* object) {
    checkers::ReleaseAndAcquire const order(&global);
    return std::atomic_ref<Object*>(global).exchange(object, std::memory_order_acq_rel);
}

}  // namespace

// --- events ------------------------------------------------------------------------------------

ZoEvent::ZoEvent(int code, unsigned long mask, unsigned long type)
    : code(code), mask(static_cast<ZoUInt32>(mask)), type(static_cast<ZoUInt32>(type)) {}

ZoEvent::~ZoEvent() = default;

ZoSimpleEvent::ZoSimpleEvent(int code, unsigned long mask, unsigned long type)
    : ZoEvent(code, mask, type), length(0) {
    text[0] = '\0';
}

ZoSimpleEvent::~ZoSimpleEvent() = default;

char const* ZoSimpleEvent::GetMessageText() const {
    return text;
}

int ZoSimpleEvent::Dump(ZoLogDestination*) const {
    return 0;
}

int ZoSimpleEvent::Print(char const* piece, int count) {
    int const room = static_cast<int>(sizeof text) - 1 - length;
    if (count < 0 || count > room) return ZoRefused;
    std::memcpy(text + length, piece, static_cast<std::size_t>(count));
    length += count;
    text[length] = '\0';
    return ZoSuccess;
}

namespace {

// Large enough for every number that fits an event's text. Of a longer one only the length is used.
constexpr int NumberSize = 256;

__attribute__((format(printf, 2, 3))) ZoSimpleEvent& PrintFormatted(ZoSimpleEvent& event,
                                                                    char const* format, ...) {
    char number[NumberSize];
    std::va_list values;
    va_start(values, format);
    int const count = std::vsnprintf(number, sizeof number, format, values);
    va_end(values);
    event.Print(number, count);
    return event;
}

}  // namespace

ZoSimpleEvent& ZoSimpleEvent::operator<<(char const* piece) {
    std::size_t const count = std::strlen(piece);
    if (count < sizeof text) Print(piece, static_cast<int>(count));
    return *this;
}

ZoSimpleEvent& ZoSimpleEvent::operator<<(int number) {
    return PrintFormatted(*this, "%d", number);
}
ZoSimpleEvent& ZoSimpleEvent::operator<<(unsigned int number) {
    return PrintFormatted(*this, "%u", number);
}
ZoSimpleEvent& ZoSimpleEvent::operator<<(short number) {
    return PrintFormatted(*this, "%d", number);
}
ZoSimpleEvent& ZoSimpleEvent::operator<<(unsigned short number) {
    return PrintFormatted(*this, "%u", number);
}
ZoSimpleEvent& ZoSimpleEvent::operator<<(long number) {
    return PrintFormatted(*this, "%ld", number);
}
ZoSimpleEvent& ZoSimpleEvent::operator<<(unsigned long number) {
    return PrintFormatted(*this, "%lu", number);
}
ZoSimpleEvent& ZoSimpleEvent::operator<<(double number) {
    return PrintFormatted(*this, "%lf", number);
}
ZoSimpleEvent& ZoSimpleEvent::operator<<(void* pointer) {
    return PrintFormatted(*this, "%p", pointer);
}

ZoSimpleEvent& ZoSimpleEvent::operator<<(float number) {
    return PrintFormatted(*this, "%f", static_cast<double>(number));
}

ZoSimpleEvent& ZoSimpleEvent::operator<<(char character) {
    Print(&character, 1);
    return *this;
}

ZoSimpleEvent& ZoSimpleEvent::operator<<(ZoSimpleEvent& (*manipulator)(ZoSimpleEvent&)) {
    return manipulator(*this);
}

ZoSimpleEvent& endl(ZoSimpleEvent& event) {
    event.Print("\n", 1);
    return event;
}

ZoSimpleEvent& ARROW(ZoSimpleEvent& event) {
    return event << " --> ";
}

ZoSimpleEvent& UNKNOWN_ERROR(ZoSimpleEvent& event) {
    return event << "unknown error";
}

ZoLoggableEvent::ZoLoggableEvent(int code, unsigned long mask, unsigned long type)
    : ZoEvent(code, mask, type), heapText(nullptr) {}

ZoLoggableEvent::~ZoLoggableEvent() {
    delete[] heapText;
}

namespace {

// The lowest level bit that is set in any group of `category`.
ZoUInt32 CategoryMask(ZoUInt32 category) {
    for (ZoUInt32 level = 1; level <= 8; level *= 2) {
        if ((category & (level * 0x11111111U)) != 0) return level;
    }
    return 0;
}

// The family of the lowest group that is not empty.
ZoUInt32 CategoryType(ZoUInt32 category) {
    for (ZoUInt32 area = 0; area < 7; ++area) {
        if ((category >> (4 * area) & 0xFU) != 0) return 0x400U + 0x100U * area;
    }
    return NoType;
}

}  // namespace

ZoDebugEvent::ZoDebugEvent(unsigned long category)
    : ZoSimpleEvent(0, CategoryMask(static_cast<ZoUInt32>(category)),
                    CategoryType(static_cast<ZoUInt32>(category))) {}

ZoDebugEvent::~ZoDebugEvent() = default;

ZoFtransLogEvent::ZoFtransLogEvent() : ZoSimpleEvent(0, 1, FtransLogType) {}

ZoFtransLogEvent::~ZoFtransLogEvent() {
    CancellationDeferred deferred;
    if (ZoEventMessageDispatcher* dispatcher = ZoEventMessageDispatcher::GetDispatcher()) {
        dispatcher->Dispatch(this);
    }
}

// --- listeners ---------------------------------------------------------------------------------

ZoEventListener::ZoEventListener() = default;
ZoEventListener::~ZoEventListener() = default;

ZoGenericListener::ZoGenericListener() = default;
ZoGenericListener::~ZoGenericListener() = default;

int ZoGenericListener::RegisterForEvent(unsigned long, unsigned long) {
    return 0;
}

ZoConsoleListener::ZoConsoleListener() = default;
ZoConsoleListener::~ZoConsoleListener() = default;

int ZoConsoleListener::Notify(ZoEvent const* event) {
    smp_io* const console = GetConsole();
    if (console == nullptr) return 0;
    if (event->code != 0) {
        *console << (event->code < 0 ? "Error: " : "Warning: ") << event->code << " ";
    }
    *console << event->GetMessageText() << endl;
    return 0;
}

namespace {

void Take(ZoEventListener* listener) {
    listener->refCount.fetch_add(1, std::memory_order_relaxed);
}

// Acquire and release order: every use of the listener happens before its deletion.
void GiveBack(ZoEventListener* listener) {
    if (listener->refCount.fetch_sub(1, std::memory_order_acq_rel) == 1) delete listener;
}

// Holds a reference to a listener for a scope; the last reference deletes it.
class ListenerHold {
public:
    explicit ListenerHold(ZoEventListener* listener) : listener(listener) { Take(listener); }
    ListenerHold(ListenerHold const&) = delete;
    ListenerHold& operator=(ListenerHold const&) = delete;
    ~ListenerHold() { GiveBack(listener); }

private:
    ZoEventListener* listener;
};

// Reverses a chain.
ZoListenerRegistration* Reversed(ZoListenerRegistration* chain) {
    ZoListenerRegistration* reversed = nullptr;
    while (chain != nullptr) {
        ZoListenerRegistration* const rest = chain->next;
        chain->next = reversed;
        reversed = chain;
        chain = rest;
    }
    return reversed;
}

}  // namespace

ZoListenerRegistration::ZoListenerRegistration(unsigned long mask, unsigned long type,
                                               ZoEventListener* listener)
    : mask(static_cast<ZoUInt32>(mask)),
      type(static_cast<ZoUInt32>(type)),
      listener(listener),
      next(nullptr) {
    Take(listener);
}

// Deletes the chain without recursion, each registration cut off before it is deleted: a chain may
// be longer than the stack is deep.
ZoListenerRegistration::~ZoListenerRegistration() {
    ZoListenerRegistration* rest = Reversed(next);
    while (rest != nullptr) {
        ZoListenerRegistration* const last = rest;
        rest = last->next;
        last->next = nullptr;
        delete last;
    }
    GiveBack(listener);
}

// --- the dispatcher ----------------------------------------------------------------------------

// A name and the event type it stands for.
struct ZoEventFamily {
    char* name;  // owned
    ZoUInt32 id;
    ZoEventFamily* next;
};

namespace {

struct PredefinedFamily {
    char const* name;
    ZoUInt32 id;
};

PredefinedFamily const PredefinedFamilyTable[] = {
    {"verboseMode", 0x100},
    {"queryTrace", 0x200},
    {"oqlTrace", 0x300},
    {"debugSocket", 0x400},
    {"debugConnection", 0x500},
    {"debugRcvSnd", 0x600},
    {"debugMxPipe", 0x700},
    {"debugServer", 0x800},
    {"debugThread", 0x900},
    {"debugMisc", 0xA00},
    {"fTransLog", FtransLogType},
    {"corruptedBuffer", 0x10000},
    {"binaryLogFile", 0x10001},
    {"dataDumper", 0x10002},
    {"repairedRecord", 0x10003},
    {"corruptedObjectRecord", 0x10005},
    {"corruptedInternalRecord", 0x10006},
    {"corruptedIndexRecord", 0x10007},
    {"dictError", 0x10008},
    {"recoveryFile", 0x1000A},
    {"secErrMapped", 0x1000B},
    {"recoveryAction", 0x1000C},
    {"restoreAction", 0x1000D},
    {"replication", 0x1000E},
    {"backupAgent", 0x1000F},
    {"baseScan", 0x10010},
    {nullptr, 0},
};

constexpr ZoUInt32 FirstNewFamilyId = 0x20000U;

// The table takes a word key in place of the pointer to a key.
char const* AsTableKey(ZoUInt32 typeKey) {
    return reinterpret_cast<char const*>(std::uintptr_t{typeKey});
}

ZoUInt32 TypeKey(ZoUInt32 type) {
    return type < FirstUnlevelledType ? type & 0xFFFFFF00U : type;
}

bool LevelFits(ZoUInt32 registered, ZoUInt32 type) {
    return type >= FirstUnlevelledType || (registered & 0xFFU) <= (type & 0xFFU);
}

// Null when memory ran out.
ZoEventFamily* MakeFamily(char const* name, ZoUInt32 id) {
    std::size_t const size = std::strlen(name) + 1;
    char* const copy = new (std::nothrow) char[size];
    ZoEventFamily* const family =
        copy != nullptr ? new (std::nothrow) ZoEventFamily{copy, id, nullptr} : nullptr;
    if (family == nullptr) {
        delete[] copy;
        return nullptr;
    }
    std::memcpy(copy, name, size);
    return family;
}

// Holds a dispatcher's section for a scope, also when a listener in the scope is cancelled.
class DispatcherHold {
public:
    explicit DispatcherHold(ZoEventMessageDispatcher& dispatcher) : dispatcher(dispatcher) {
        dispatcher.BeginCritSect();
    }
    DispatcherHold(DispatcherHold const&) = delete;
    DispatcherHold& operator=(DispatcherHold const&) = delete;
    ~DispatcherHold() { dispatcher.ExitCritSect(); }

private:
    ZoEventMessageDispatcher& dispatcher;
};

}  // namespace

ZoEventMessageDispatcher::ZoEventMessageDispatcher()
    : nextFamilyId(FirstNewFamilyId),
      requestedMask(0),
      familyList(nullptr),
      listeners(nullptr),
      lock(ZoCritSect::Make("EventDispatcher")) {
    if (lock != nullptr) listeners = new (std::nothrow) ZoHashTable(ZoHashTable::WordKeys, nullptr);
    for (PredefinedFamily const* family = PredefinedFamilyTable; family->name != nullptr;
         ++family) {
        if (AddFamilyRegistration(family->name, family->id) == ZoSuccess) continue;
        // With a family missing its name would get another type. Better to refuse everything.
        delete listeners;
        listeners = nullptr;
    }
}

ZoEventMessageDispatcher::~ZoEventMessageDispatcher() {
    // Without the table nothing is registered or delivered any more: the destructor of a listener
    // may dispatch or trace.
    ZoHashTable* const table = listeners;
    listeners = nullptr;
    if (table != nullptr) {
        ZoHashIterator position;
        for (ZoHashEntry* entry = table->FirstEntry(position); entry != nullptr;
             entry = table->NextEntry(position)) {
            delete static_cast<ZoListenerRegistration*>(table->GetValue(*entry));
        }
    }
    delete table;
    while (familyList != nullptr) {
        ZoEventFamily* const family = familyList;
        familyList = family->next;
        delete[] family->name;
        delete family;
    }
    delete lock;
}

void ZoEventMessageDispatcher::CallDestructor(void* address) {
    if (address == nullptr) {
        delete this;
    } else {
        static_cast<ZoEventMessageDispatcher*>(address)->~ZoEventMessageDispatcher();
    }
}

void ZoEventMessageDispatcher::BeginCritSect() ZO_NOT_ANALYSED {
    if (lock != nullptr) lock->Begin();
}

void ZoEventMessageDispatcher::ExitCritSect() ZO_NOT_ANALYSED {
    if (lock != nullptr) lock->Exit();
}

ZoListenerRegistration* ZoEventMessageDispatcher::Chain(ZoUInt32 typeKey) const {
    if (listeners == nullptr) return nullptr;
    return static_cast<ZoListenerRegistration*>(listeners->GetValueFast(AsTableKey(typeKey)));
}

int ZoEventMessageDispatcher::RegisterListener(unsigned long mask, unsigned long type,
                                               ZoEventListener* listener) {
    DispatcherHold hold(*this);
    ListenerHold alive(listener);
    auto* const registration = new (std::nothrow) ZoListenerRegistration(mask, type, listener);
    int const result = registration != nullptr ? Link(registration) : ZoOutOfMemory;
    if (result >= 0) {
        requestedMask |= registration->mask;
    } else {
        delete registration;
    }
    return result;
}

// Puts `registration` at the end of its chain.
int ZoEventMessageDispatcher::Link(ZoListenerRegistration* registration) {
    if (listeners == nullptr) return ZoOutOfMemory;
    ZoUInt32 const typeKey = TypeKey(registration->type);
    ZoListenerRegistration* last = Chain(typeKey);
    if (last == nullptr) {
        return listeners->ChangeValue(AsTableKey(typeKey), registration, 1, 1, nullptr);
    }
    while (last->next != nullptr) last = last->next;
    last->next = registration;
    return ZoSuccess;
}

int ZoEventMessageDispatcher::Dispatch(ZoEvent const* event) {
    DispatcherHold hold(*this);
    ZoUInt32 const typeKey = TypeKey(event->type);
    Deliver(Chain(WildcardKey), event);
    if (typeKey != WildcardKey) Deliver(Chain(typeKey), event);
    return 0;
}

// Registrations never go, so the chain may be walked while listeners add to it.
void ZoEventMessageDispatcher::Deliver(ZoListenerRegistration const* chain, ZoEvent const* event) {
    for (; chain != nullptr; chain = chain->next) {
        if ((chain->mask & event->mask) == 0 || !LevelFits(chain->type, event->type)) continue;
        chain->listener->Notify(event);
    }
}

int ZoEventMessageDispatcher::TypeRequested(unsigned long mask, unsigned long type) {
    DispatcherHold hold(*this);
    if ((requestedMask & mask) == 0) return 0;
    for (ZoUInt32 const typeKey : {WildcardKey, TypeKey(static_cast<ZoUInt32>(type))}) {
        for (ZoListenerRegistration const* registration = Chain(typeKey); registration != nullptr;
             registration = registration->next) {
            if ((registration->mask & mask) != 0) return 1;
        }
    }
    return 0;
}

int ZoEventMessageDispatcher::AddFamilyRegistration(char const* name, unsigned long id) {
    ZoEventFamily* const family = MakeFamily(name, static_cast<ZoUInt32>(id));
    if (family == nullptr) return ZoOutOfMemory;
    ZoEventFamily** end = &familyList;
    while (*end != nullptr) end = &(*end)->next;
    *end = family;
    return ZoSuccess;
}

unsigned long ZoEventMessageDispatcher::GetEventFamilyId(char const* name) {
    DispatcherHold hold(*this);
    for (ZoEventFamily const* family = familyList; family != nullptr; family = family->next) {
        if (family->id != 0 && std::strcmp(family->name, name) == 0) return family->id;
    }
    // Without a table the dispatcher is incomplete or going.
    if (listeners == nullptr || AddFamilyRegistration(name, nextFamilyId) != ZoSuccess)
        return NoType;
    return nextFamilyId++;
}

char const* ZoEventMessageDispatcher::GetEventFamilyName(unsigned long id) {
    DispatcherHold hold(*this);
    for (ZoEventFamily const* family = familyList; family != nullptr; family = family->next) {
        if (family->id == static_cast<ZoUInt32>(id)) return family->name;
    }
    return nullptr;
}

ZoEventMessageDispatcher* ZoEventMessageDispatcher::GetDispatcher() {
    return Load(eventDispatcher);
}

ZoEventMessageDispatcher* ZoEventMessageDispatcher::SetDispatcher(
    ZoEventMessageDispatcher* dispatcher) {
    return Exchange(eventDispatcher, dispatcher);
}

// --- debug switches ----------------------------------------------------------------------------

namespace {

char const* const ModeKey = "mode";

// The state of the configuration: first the flags are read, then, as soon as there is a dispatcher,
// the console listener is registered. The thread that moves the state from a due step to
// BeingConfigured does that step. No thread waits for it: the step calls the configuration, the
// dispatcher and the console, each of which may ask for the debugger itself or be held by a thread
// that does. The release order of the end of a step publishes the flags.
constexpr int FlagsAreDue = 0;
constexpr int ListenerIsDue = 1;
constexpr int BeingConfigured = 2;
constexpr int IsConfigured = 3;
std::atomic<int> configured{FlagsAreDue};

void ReadFlags(smp_debug& debugger, ZoConfig& configuration) {
    int value = 0;
    bool const found = configuration.ReadValue(ModeKey, &value, debug_path) == 0;
    ZoUInt32 const flags = found ? static_cast<ZoUInt32>(value) : 0;
    debugger.current.store(flags, std::memory_order_relaxed);
    debugger.saved.store(flags, std::memory_order_relaxed);
}

void TellFlags(smp_debug const& debugger) {
    std::uintptr_t const flags = debugger.current.load(std::memory_order_relaxed);
    smp_io* const console = GetConsole();
    if (flags == 0 || console == nullptr) return;
    *console << "DEBUG LEVEL" << ARROW << reinterpret_cast<void*>(flags) << endl;
}

void RegisterConsoleListener(ZoEventMessageDispatcher& dispatcher) {
    auto* const listener = new (std::nothrow) ZoConsoleListener;
    if (listener == nullptr) return;
    ListenerHold alive(listener);  // a failed registration releases its own reference
    // Damage of object, internal and index records; replication; backup; a type without a name.
    for (unsigned const type : {0x10005U, 0x10006U, 0x10007U, 0x1000EU, 0x1000FU, 0x10012U}) {
        dispatcher.RegisterListener(1, type, listener);
    }
    for (unsigned long debugArea = 0x400; debugArea <= 0xA00; debugArea += 0x100) {
        dispatcher.RegisterListener(15, debugArea, listener);
    }
}

// Does one step, if it is due. The second exchange fails when new switches were made meanwhile:
// they need steps of their own.
template <class Work>
void DoStep(int due, int next, Work work) {
    if (!configured.compare_exchange_strong(due, BeingConfigured, std::memory_order_acquire))
        return;
    CancellationDeferred deferred;
    work();
    int state = BeingConfigured;
    configured.compare_exchange_strong(state, next, std::memory_order_release);
}

void ConfigureFlags() {
    smp_debug* const debugger = Load(smp_debugger);
    ZoConfig* const configuration = debugger != nullptr ? ZoDefaultConfiguration() : nullptr;
    if (configuration == nullptr) return;
    DoStep(FlagsAreDue, ListenerIsDue, [&] {
        ReadFlags(*debugger, *configuration);
        TellFlags(*debugger);
    });
}

// Not inlined, so that the fast path of GetDebugger stays short.
[[gnu::noinline, gnu::cold]] void ConfigureDebugger() {
    if (configured.load(std::memory_order_relaxed) == FlagsAreDue) ConfigureFlags();
    ZoEventMessageDispatcher* const dispatcher = ZoEventMessageDispatcher::GetDispatcher();
    if (dispatcher == nullptr) return;
    DoStep(ListenerIsDue, IsConfigured, [&] { RegisterConsoleListener(*dispatcher); });
}

}  // namespace

smp_debug::smp_debug(long initial) {
    ZoUInt32 const flags = static_cast<ZoUInt32>(initial);
    ZoUInt32 const start = flags == 0xFFFFFFFFU ? 0 : flags;
    current.store(start, std::memory_order_relaxed);
    saved.store(start, std::memory_order_relaxed);
    checkers::AreAtomic(current, saved);
    configured.store(FlagsAreDue, std::memory_order_release);
}

smp_debug::~smp_debug() = default;

void smp_debug::Enable() {
    current.store(saved.load(std::memory_order_relaxed), std::memory_order_relaxed);
}

void smp_debug::Disable() {
    saved.store(current.load(std::memory_order_relaxed), std::memory_order_relaxed);
    current.store(0, std::memory_order_relaxed);
}

smp_debug* GetDebugger() {
    if (configured.load(std::memory_order_acquire) < BeingConfigured) ConfigureDebugger();
    return Load(smp_debugger);
}

smp_debug* Debugger(smp_debug* debugger) {
    if (debugger == nullptr) return GetDebugger();
    return Exchange(smp_debugger, debugger);
}

// --- hooks of the host -------------------------------------------------------------------------

ZoQaSemaphore::ZoQaSemaphore() = default;
ZoQaSemaphore::~ZoQaSemaphore() = default;

ZoQaSemaphore* ZoQaSemaphore::GetSemaphore() {
    return Load(qaSemaphore);
}

ZoQaSemaphore* ZoQaSemaphore::SetSemaphore(ZoQaSemaphore* semaphore) {
    return Exchange(qaSemaphore, semaphore);
}

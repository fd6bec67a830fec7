#include "smp_io.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "cancellation.h"
#include "checkers.h"
#include "console_sink.h"
#include "debug_path.h"
#include "mutex.h"
#include "zobase.h"

smp_io* smp_console = nullptr;

namespace {

char const* const ConsoleKey = "ZOVAConsole";

// The switch: UnreadSwitch until its first use, then 0 for off and anything else for on. Threads
// that meet it unread at the same moment all read the configuration and store the same number, and
// nothing else depends on it, so relaxed order is enough.
constexpr int UnreadSwitch = 0xF000;
std::atomic<int> zova_console{UnreadSwitch};
[[maybe_unused]] int const isMarked = checkers::AreAtomic(zova_console);

// Whether the calling thread is asking the configuration. The configuration may write to the
// console itself: the console is off for this thread meanwhile, or each write would ask again.
constinit thread_local bool isAsking = false;

class AskingScope {
public:
    AskingScope() { isAsking = true; }
    AskingScope(AskingScope const&) = delete;
    AskingScope& operator=(AskingScope const&) = delete;
    ~AskingScope() { isAsking = false; }
};

bool ConsoleIsOn() {
    if (zova_console.load(std::memory_order_relaxed) == UnreadSwitch) _Configure_smp_io();
    return zova_console.load(std::memory_order_relaxed) != 0 && !isAsking;
}

std::atomic_ref<smp_io*> TheConsole() {
    return std::atomic_ref<smp_io*>(smp_console);
}

}  // namespace

// Stores the switch once, when it is known: until then it stays as it was for other threads.
void _Configure_smp_io() {
    if (isAsking) return;
    AskingScope asking;
    int value = 0;
    if (ZoConfig* configuration = ZoDefaultConfiguration()) {
        configuration->ReadValue(ConsoleKey, &value, debug_path);
    }
    zova_console.store(value, std::memory_order_relaxed);
}

smp_io* GetConsole() {
    smp_io* const console = TheConsole().load(std::memory_order_acquire);
    checkers::Acquire(&smp_console);
    return console;
}

smp_io* Console(smp_io* console) {
    if (console == nullptr) return GetConsole();
    checkers::ReleaseAndAcquire const order(&smp_console);
    return TheConsole().exchange(console, std::memory_order_acq_rel);
}

// --- the sink ----------------------------------------------------------------------------------

_smp_io::_smp_io() = default;
_smp_io::~_smp_io() = default;

void _smp_io::writeOutput(char const* text, int length) {
    if (!ConsoleIsOn()) return;
    std::size_t const count = length == -1 ? std::strlen(text) : static_cast<std::size_t>(length);
    std::fwrite(text, 1, count, stderr);
}

void _smp_io::writeOutput(ZoString const&) {
    writeOutput("ERROR: writeOutput(ZoString) not implemented", -1);
}

void _smp_io::flush() {
    if (ConsoleIsOn()) std::fflush(stderr);
}

// --- the users of a sink -----------------------------------------------------------------------

namespace {

// Guards the sink of every console against a SinkScope, and the users of a scope's sink. Held for a
// few instructions and never while a sink is called.
constinit Mutex consoleLock;
// The sink of the innermost scope.
ScopedSink* scopedSink ZO_GUARDED_BY(consoleLock) = nullptr;

}  // namespace

void LockConsole() ZO_NOT_ANALYSED {
    consoleLock.lock();
}

void UnlockConsole() ZO_NOT_ANALYSED {
    consoleLock.unlock();
}

// Functions beside the constructors and destructors, into which Clang's analysis does not look.
_smp_io* SinkUse::Fetch(smp_io const& stream) {
    MutexHold const hold(consoleLock);
    scoped = stream.sink != nullptr && stream.sink == scopedSink ? scopedSink : nullptr;
    if (scoped != nullptr) ++scoped->users;
    return stream.sink;
}

bool SinkUse::IsLast() {
    MutexHold const hold(consoleLock);
    return scoped != nullptr && --scoped->users == 0;
}

SinkUse::SinkUse(smp_io const& stream) : sink(Fetch(stream)) {}

SinkUse::~SinkUse() {
    if (scoped == nullptr || !IsLast()) return;
    CancellationDeferred deferred;  // closing a file is a cancellation point
    delete scoped;
}

void SinkScope::Install() {
    MutexHold const hold(consoleLock);
    saved = std::exchange(console.sink, own);
    outer = std::exchange(scopedSink, own);
}

bool SinkScope::Remove() {
    MutexHold const hold(consoleLock);
    console.sink = saved;
    scopedSink = outer;
    return --own->users == 0;
}

SinkScope::SinkScope(smp_io& console, ScopedSink* own) : console(console), own(own) {
    if (own != nullptr) Install();
}

SinkScope::~SinkScope() {
    if (own != nullptr && Remove()) delete own;
}

// --- the front ---------------------------------------------------------------------------------

namespace {

void Write(smp_io& stream, char const* text, int length) {
    if (SinkUse sink(stream); sink) sink->writeOutput(text, length);
}

void FlushSink(smp_io& stream) {
    if (SinkUse sink(stream); sink) sink->flush();
}

// Holds the longest text of any format: the largest double has 309 digits before its point.
constexpr int NumberSize = 352;

__attribute__((format(printf, 2, 3))) smp_io& WriteFormatted(smp_io& stream, char const* format,
                                                             ...) {
    char text[NumberSize];
    std::va_list values;
    va_start(values, format);
    int const length = std::vsnprintf(text, sizeof text, format, values);
    va_end(values);
    Write(stream, text, length);
    return stream;
}

}  // namespace

smp_io::smp_io() : sink(new (std::nothrow) _smp_io) {}

smp_io::~smp_io() {
    delete sink;
    sink = nullptr;
}

smp_io& smp_io::operator<<(char const* text) {
    Write(*this, text, -1);
    return *this;
}

smp_io& smp_io::operator<<(ZoString const& text) {
    if (SinkUse use(*this); use) use->writeOutput(text);
    return *this;
}

smp_io& smp_io::operator<<(int number) {
    return WriteFormatted(*this, "%d", number);
}
smp_io& smp_io::operator<<(unsigned int number) {
    return WriteFormatted(*this, "%u", number);
}
smp_io& smp_io::operator<<(short number) {
    return WriteFormatted(*this, "%d", number);
}
smp_io& smp_io::operator<<(unsigned short number) {
    return WriteFormatted(*this, "%u", number);
}
smp_io& smp_io::operator<<(long number) {
    return WriteFormatted(*this, "%ld", number);
}
smp_io& smp_io::operator<<(unsigned long number) {
    return WriteFormatted(*this, "%lu", number);
}
smp_io& smp_io::operator<<(double number) {
    return WriteFormatted(*this, "%lf", number);
}
smp_io& smp_io::operator<<(void* pointer) {
    return WriteFormatted(*this, "%p", pointer);
}

smp_io& smp_io::operator<<(float number) {
    return WriteFormatted(*this, "%f", static_cast<double>(number));
}

smp_io& smp_io::operator<<(char character) {
    Write(*this, &character, 1);
    return *this;
}

int smp_io::Print(char const* text, int length) {
    Write(*this, text, length);
    return length;
}

smp_io& smp_io::flush() {
    FlushSink(*this);
    return *this;
}

// NOLINTNEXTLINE(readability-convert-member-functions-to-static): a virtual slot
smp_io& smp_io::flush(smp_io& stream) {
    stream.flush();
    return stream;
}

smp_io& smp_io::operator<<(smp_io& (*manipulator)(smp_io&)) {
    return manipulator(*this);
}

smp_io& endl(smp_io& stream) {
    Write(stream, "\n", 1);
    FlushSink(stream);
    return stream;
}

smp_io& ARROW(smp_io& stream) {
    Write(stream, " --> ", 5);
    return stream;
}

smp_io& UNKNOWN_ERROR(smp_io& stream) {
    Write(stream, "unknown error", 13);
    return stream;
}

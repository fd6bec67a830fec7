// What the tests put in place of the engine: recorders for everything the library tells it, and the
// library context for the length of a test. Includes what nearly every test needs of the standard
// library, from <atomic> to <vector>.

#ifndef KELVARA_TESTS_SERVICES_H_
#define KELVARA_TESTS_SERVICES_H_

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "_zothrd.h"
#include "rw_mutex.h"
#include "smp_io.h"
#include "zobaseservices.h"
#include "zocrits.h"
#include "zoevmdis.h"
#include "zowrkque.h"

namespace zotest {

__attribute__((format(printf, 1, 0))) inline std::string Format(char const* format,
                                                                std::va_list values) {
    char text[2048];
    std::vsnprintf(text, sizeof text, format, values);
    return text;
}

// Records log entries as "level text", messages as "style text" and assertions as "text file line";
// answers messages through `onMessage`; serves the configuration keys of section "debug".
class Services : private ZoLog, private ZoMessageService, private ZoConfig {
public:
    Services() {
        current = this;
        previousLog = ZoSetSystemLog(this);
        previousMessages = ZoSetMessageService(this);
        previousConfig = ZoSetDefaultConfig(this);
        previousAssert = ZoSetAssertHandler([](char const* text, char const* file, int line) {
            current->Add(current->assertions,
                         std::string(text) + " " + file + " " + std::to_string(line));
        });
    }
    ~Services() override {
        ZoSetSystemLog(previousLog);
        ZoSetMessageService(previousMessages);
        ZoSetDefaultConfig(previousConfig);
        ZoSetAssertHandler(previousAssert);
        current = nullptr;
    }

    using Lines = std::vector<std::string>;
    Lines Log() { return Copy(log); }
    Lines Messages() { return Copy(messages); }
    Lines Assertions() { return Copy(assertions); }
    void Forget() {
        std::lock_guard<std::mutex> hold(mutex);
        for (Lines* lines : {&log, &messages, &assertions}) lines->clear();
    }
    // How often the configuration was asked for `key`.
    int Reads(std::string const& key) {
        std::lock_guard<std::mutex> hold(mutex);
        return reads[key];
    }
    void Configure(std::string const& key, int value) {
        std::lock_guard<std::mutex> hold(mutex);
        keys[key] = value;
    }
    // Runs on the thread that shows a message; its result is the answer.
    std::function<unsigned int(std::string const& text)> onMessage;

private:
    __attribute__((format(printf, 3, 4))) int Printf(int level, char const* format, ...) override {
        std::va_list values;
        va_start(values, format);
        Add(log, std::to_string(level) + " " + Format(format, values));
        va_end(values);
        return 0;
    }
    __attribute__((format(printf, 4, 5))) unsigned int Show(int, unsigned int style,
                                                            char const* format, ...) override {
        std::va_list values;
        va_start(values, format);
        std::string const text = Format(format, values);
        va_end(values);
        char shown[2100];
        std::snprintf(shown, sizeof shown, "0x%x %s", style, text.c_str());
        Add(messages, shown);
        return onMessage ? onMessage(text) : 0;
    }
    int ReadValue(char const* key, int* out, char const* const* path) override {
        std::lock_guard<std::mutex> hold(mutex);
        ++reads[key];
        auto const found = keys.find(key);
        if (std::strcmp(path[0], "debug") != 0 || path[1] != nullptr || found == keys.end()) {
            return -1;
        }
        *out = found->second;
        return 0;
    }
    void Add(Lines& lines, std::string line) {
        std::lock_guard<std::mutex> hold(mutex);
        lines.push_back(std::move(line));
    }
    Lines Copy(Lines const& lines) {
        std::lock_guard<std::mutex> hold(mutex);
        return lines;
    }

    inline static Services* current = nullptr;
    std::mutex mutex;  // guards all that follows
    Lines log, messages, assertions;
    std::map<std::string, int> keys, reads;
    ZoLog* previousLog;
    ZoMessageService* previousMessages;
    ZoConfig* previousConfig;
    ZoAssertHandler previousAssert;
};

// A sink that keeps the text. Threads may write to it at once; it is read when none does.
class TextSink : public _smp_io {
public:
    using _smp_io::writeOutput;
    void writeOutput(char const* piece, int length) override {
        std::lock_guard<std::mutex> hold(mutex);
        text.append(piece, length == -1 ? std::strlen(piece) : static_cast<std::size_t>(length));
    }
    void flush() override {
        std::lock_guard<std::mutex> hold(mutex);
        ++flushes;
    }
    std::string text;
    int flushes = 0;

private:
    std::mutex mutex;
};

// The library context; its console writes to `console`.
class Context {
public:
    explicit Context(bool detection) {
        *ZoGetDeadLockDetectionEnabled() = detection ? 1 : 0;
        ___ZoExtendedContext(1);
        delete GetConsole()->sink;
        GetConsole()->sink = console = new TextSink;
    }
    ~Context() {
        ___ZoExtendedContext(0);
        *ZoGetDeadLockDetectionEnabled() = 0;
    }
    TextSink* console;
};

// Calls a function for every event, and one when it ends.
class Listener : public ZoEventListener {
public:
    explicit Listener(
        std::function<void(ZoEvent const*)> action, std::function<void()> end = [] {})
        : action(std::move(action)), end(std::move(end)) {}
    ~Listener() override { end(); }
    int Notify(ZoEvent const* event) override {
        action(event);
        return 0;
    }

private:
    std::function<void(ZoEvent const*)> action;
    std::function<void()> end;
};

// Does one of two things with a queue; belongs to the calculation that is open, if there is one.
class ScriptedUnit : public ZoWorkUnit {
public:
    using Step = std::function<void()>;
    explicit ScriptedUnit(
        Step handle = [] {}, Step abort = [] {})
        : ZoWorkUnit(ZoConcurrencyHelper::GetResultObject()),
          handle(std::move(handle)),
          abort(std::move(abort)) {}
    void Handle(ZoWorkQueue*) override { handle(); }
    void Aborted(ZoWorkQueue*) override { abort(); }

private:
    Step handle, abort;
};

// Of a section or a reader/writer mutex.
template <class Lock>
std::string InfoOf(Lock* lock, int size = 256) {
    char text[256] = "";
    lock->GetInfo(text, size);
    return text;
}

// A new folder, which goes with this.
class Folder {
public:
    Folder() {
        char name[] = "/tmp/zo_test_XXXXXX";
        path = mkdtemp(name);
    }
    Folder(Folder const&) = delete;
    Folder& operator=(Folder const&) = delete;
    ~Folder() { std::filesystem::remove_all(path); }
    std::filesystem::path path;
};

// Of a file; nothing without one.
inline std::string Contents(std::filesystem::path const& file) {
    std::ostringstream text;
    text << std::ifstream(file, std::ios::binary).rdbuf();
    return text.str();
}

inline std::string Pointer(void const* address) {
    char text[32];
    std::snprintf(text, sizeof text, "%p", address);
    return text;
}

// Writes one value of each kind to a stream of the library's. Returns what it should read, with
// `mark` behind each.
template <class Stream>
std::string WriteEveryKind(Stream& stream, std::string const& mark) {
    void* const pointer = &stream;
    stream << 7 << ARROW << -1 << static_cast<short>(-2) << static_cast<unsigned short>(65535)
           << 4000000000U << -5L << 6UL << LLONG_MIN << ULLONG_MAX << true << 1.5F << 0.1 << 'c'
           << "100%d " << UNKNOWN_ERROR << pointer;
    std::string text;
    for (char const* piece :
         {"7", " --> ", "-1", "-2", "65535", "4000000000", "-5", "6", "-9223372036854775808",
          "18446744073709551615", "1", "1.500000", "0.100000", "c", "100%d ", "unknown error"}) {
        text += piece + mark;
    }
    return text + Pointer(pointer) + mark;
}

// The number that follows `key` in a text; 0 without it.
inline long NumberAfter(std::string const& text, char const* key) {
    std::size_t const at = text.find(key);
    return at == std::string::npos ? 0 : std::atol(&text[at + std::strlen(key)]);
}

// The nth word of an object, a pointer.
template <class Pointed>
Pointed* WordOf(void const* object, std::size_t nth) {
    Pointed* word = nullptr;
    std::memcpy(&word, static_cast<char const*>(object) + nth * sizeof(void*), sizeof(void*));
    return word;
}

// Yields until `condition` holds.
template <class Predicate>
void Await(Predicate condition) {
    while (!condition()) std::this_thread::yield();
}

// Calls `body` with 0, 1, … on a thread each, on all of them at once, and waits for their ends.
template <class Body>
void OnThreads(int count, Body body) {
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([&, i] {
            ++ready;
            Await([&] { return ready == count; });
            body(i);
        });
    }
    for (std::thread& thread : threads) thread.join();
}

// The child of a process with several threads gets no signals from ThreadSanitizer and must start
// no threads, and no child may call exit() in a signal handler.
#if defined(__SANITIZE_THREAD__)
constexpr bool threadSanitizer = true;
#elif defined(__has_feature)
constexpr bool threadSanitizer = __has_feature(thread_sanitizer);
#else
constexpr bool threadSanitizer = false;
#endif

// How a child process ends that calls `body`, which ends it: as waitpid says.
template <class Body>
int EndOfChild(Body body) {
    pid_t const child = fork();
    if (child == 0) {
        alarm(60);
        body();
        _exit(1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}
template <class Body>
bool ChildSucceeds(Body body) {
    return EndOfChild(body) == 0;
}

}  // namespace zotest

#endif  // KELVARA_TESTS_SERVICES_H_

// Compiled without instrumentation: the sanitizers' own start calls these functions too.

#include "points.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>

namespace points {

constinit Places placesOfProcess{};
constinit Places* places = &placesOfProcess;

namespace {

struct State {
    std::atomic<Mode> mode{Off};
    std::atomic<std::uint64_t> key{0};
    std::atomic<int> pass{0};
    std::atomic<char const*> where{nullptr};
    std::atomic<void (*)()> action{nullptr};
    std::atomic<long> live{0}, waits{0};
};
constinit State state;
constinit thread_local bool isVictim = false, outlives = false;
constinit thread_local std::uint32_t chance = 0;

// --- whose call it is ----------------------------------------------------------------------------

struct Range {
    std::atomic<std::uintptr_t> base{0}, begin{0}, end{0};
};
constinit Range modules[3];  // the two libraries, and the program
constexpr std::uint32_t Program = 3;

int FindModule(dl_phdr_info* info, std::size_t, void*) {
    char const* const names[] = {"libzo95Kex", "libzo95Kbs"};
    int i = 2;
    if (info->dlpi_name[0] != '\0') {
        for (i = 0; i < 2 && std::strstr(info->dlpi_name, names[i]) == nullptr;) ++i;
    }
    if (i == 2 && modules[2].begin != 0) return 0;  // the program comes first
    for (int part = 0; part < info->dlpi_phnum; ++part) {
        auto const& segment = info->dlpi_phdr[part];
        if (segment.p_type != PT_LOAD || (segment.p_flags & PF_X) == 0) continue;
        modules[i].base = info->dlpi_addr;
        modules[i].end = info->dlpi_addr + segment.p_vaddr + segment.p_memsz;
        modules[i].begin = info->dlpi_addr + segment.p_vaddr;
    }
    return 0;
}

// 0: in none of the modules.
std::uint32_t Locate(void const* code) {
    if (modules[0].begin == 0 || modules[1].begin == 0) dl_iterate_phdr(FindModule, nullptr);
    auto const at = reinterpret_cast<std::uintptr_t>(code);
    for (std::uint32_t i = 0; i < Program; ++i) {
        if (at < modules[i].begin || at >= modules[i].end) continue;
        return (i + 1) * Module + static_cast<std::uint32_t>(at - modules[i].base);
    }
    return 0;
}

bool IsOfLibrary(std::uint32_t location) {
    return location != 0 && location < Program * Module;
}

struct Function {
    char const* name;
    bool canFail, endsThread;
};

// --- places --------------------------------------------------------------------------------------

int IndexOf(char const* name) {
    int i = 0;
    while (std::strcmp(names[i], name) != 0) ++i;
    return i;
}

// Follows the frames for as long as they are of the modules.
Place& Find(Function const& function, void** frame) {
    std::uint32_t frames[32];
    std::uint64_t key = 14695981039346656037U;
    auto const add = [&](std::uint32_t word) { key = (key ^ word) * 1099511628211U; };
    int depth = 0;
    while (depth < 31 && (frames[depth] = Locate(frame[1])) != 0) {
        add(frames[depth++]);
        if (*frame <= static_cast<void*>(frame)) break;
        frame = static_cast<void**>(*frame);
    }
    frames[depth] = 0;
    for (std::uint64_t slot = key;; ++slot) {
        Place& place = places->place[slot % 4096];
        std::uint64_t none = 0;
        if (place.key.compare_exchange_strong(none, key)) {
            place.function = IndexOf(function.name);
            place.canFail = function.canFail;
            place.endsThread = function.endsThread;
            std::memcpy(place.frames, frames, sizeof frames);
        }
        if (none == 0 || none == key) return place;
    }
}

// --- what happens --------------------------------------------------------------------------------

void Delay() {
    static std::atomic<std::uint32_t> threads{0};
    if (chance == 0) chance = (static_cast<std::uint32_t>(state.key) + 77U * ++threads) | 1U;
    chance ^= chance << 13;
    chance ^= chance >> 17;
    chance ^= chance << 5;
    if (chance % 4 == 0) sched_yield();
    if (chance % 64 != 1) return;
    int previous = 0;  // the sleep is a cancellation point, which the call need not be
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous);
    usleep(chance / 64 % 200);
    pthread_setcancelstate(previous, nullptr);
}

void EndThread() {
    int previous = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &previous);
    pthread_setcancelstate(previous, nullptr);
    if (previous == PTHREAD_CANCEL_ENABLE) pthread_exit(nullptr);
}

// At the first call, while the libraries are being loaded.
void ArmFromEnvironment() {
    static constinit std::atomic<bool> done{false};
    // AddressSanitizer's start comes before the environment.
    if (environ == nullptr || done.load(std::memory_order_relaxed) || done.exchange(true)) return;
    if (char const* const seed = std::getenv("ZO_SHAKE"))
        Arm(Shake, std::strtoul(seed, nullptr, 0));
    int mode = 0, pass = 0;
    unsigned long key = 0;
    char const* const fault = std::getenv("ZO_FAULT");
    if (fault == nullptr || std::sscanf(fault, "%d %lu %d", &mode, &key, &pass) != 3) return;
    int const file = open("places", O_RDWR | O_CLOEXEC);
    places = static_cast<Places*>(
        mmap(nullptr, sizeof(Places), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0));
    Arm(static_cast<Mode>(mode), key, pass);
}

// Whether the call fails.
bool Pass(Function const& function, void** frame) {
    ArmFromEnvironment();
    Mode const mode = state.mode.load(std::memory_order_relaxed);
    if (!IsOfLibrary(Locate(frame[1]))) return false;
    if (std::strncmp(function.name, "pthread_cond_", 13) == 0 && function.endsThread) ++state.waits;
    if (mode == Shake) Delay();
    if (mode == Off || mode == Shake) return false;
    Place& place = Find(function, frame);
    int const pass = ++place.passes;
    int const ofVictims = isVictim ? ++place.ofVictims : -1;
    bool const counts = (mode == Fail && function.canFail) || mode == Meet || isVictim;
    int const nth = mode == Cancel || mode == End ? ofVictims : pass;
    if (!counts || place.key != state.key || nth != state.pass) return false;
    state.where = function.name;
    if (mode == Cancel) pthread_cancel(pthread_self());
    if (mode == Meet) state.action.load()();
    if (mode == End) EndThread();
    return mode == Fail;
}

}  // namespace

void Arm(Mode mode, std::uint64_t key, int pass) {
    state.where = nullptr;
    for (Place& place : places->place) place.passes = place.ofVictims = 0;
    state.key = key;
    state.pass = pass;
    state.mode = mode;
}
void Disarm() {
    state.mode = Off;
}
bool Happened() {
    return state.where.load() != nullptr;
}
bool Failed(char const* function) {
    return state.mode == Fail && Happened() &&
           (function == nullptr || std::strcmp(state.where, function) == 0);
}
void BeVictim() {
    isVictim = true;
}
void MeetWith(void (*action)()) {
    state.action = action;
}
long Live() {
    return state.live;
}
void Outlive() {
    outlives = !isVictim;
}
long Waits() {
    return state.waits;
}

// --- the system library --------------------------------------------------------------------------

namespace {

// Looked up at the first call. No static with a guard: a child may be forked while another thread
// holds that.
template <class Function>
Function* Next(std::atomic<Function*>& known, char const* name) {
    if (Function* const next = known) return next;
    return known = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// In front of each block.
struct alignas(16) Head {
    std::size_t size;
    bool counts;
};

void* Allocate(std::size_t size, void** frame) {
    if (Pass({"new", true, false}, frame)) return nullptr;
    void* const memory = std::malloc(sizeof(Head) + size);
    if (memory == nullptr) return nullptr;
    Head* const head = new (memory) Head{size, !outlives && IsOfLibrary(Locate(frame[1]))};
    state.live += head->counts ? 1 : 0;
    std::memset(head + 1, 0xA5, size);
    return head + 1;
}

// A block of the library's is spoilt and not used again, so that a use of it is noticed.
void Free(void* block) {
    if (block == nullptr) return;
    Head* const head = static_cast<Head*>(block) - 1;
    bool const keeps = head->counts && state.mode != Shake;
    state.live -= head->counts ? 1 : 0;
    if (keeps) std::memset(block, 0xDD, head->size);
    if (!keeps) std::free(head);
}

int Error(int error) {
    errno = error;
    return -1;
}

#define FRAME (static_cast<void**>(__builtin_frame_address(0)))

}  // namespace

// A function of the system library under a name of ours. `failure`: what it returns when it fails;
// those of the last list never do, for a correct caller. Those of the second are cancellation
// points. A declaration of the system's may say that a function does not throw, which would keep a
// cancelled thread from being unwound.
#define FUNCTION(result, name, symbol, parameters, arguments, canFail, failure, endsThread) \
    extern "C" __attribute__((visibility("default")))                                       \
    result Our_##name parameters __asm__(symbol);                                           \
    extern "C" result Our_##name parameters {                                               \
        static constinit std::atomic<std::add_pointer_t<result parameters>> known{nullptr}; \
        auto* const next = Next<result parameters>(known, symbol);                          \
        if (Pass({#name, canFail, endsThread}, FRAME)) return failure;                      \
        return next arguments;                                                              \
    }

// clang-format off
#define CAN_FAIL(F) \
    F(int, pthread_mutexattr_init, (pthread_mutexattr_t* a), (a), ENOMEM) \
    F(int, pthread_mutex_init, (pthread_mutex_t* m, pthread_mutexattr_t const* a), (m, a), EAGAIN) \
    F(int, pthread_mutex_trylock, (pthread_mutex_t* m), (m), EBUSY) \
    F(int, pthread_condattr_init, (pthread_condattr_t* a), (a), ENOMEM) \
    F(int, pthread_cond_init, (pthread_cond_t* c, pthread_condattr_t const* a), (c, a), EAGAIN) \
    F(int, pthread_attr_init, (pthread_attr_t* a), (a), ENOMEM) \
    F(int, pthread_attr_setdetachstate, (pthread_attr_t* a, int s), (a, s), EINVAL) \
    F(int, pthread_attr_getdetachstate, (pthread_attr_t const* a, int* s), (a, s), EINVAL) \
    F(int, pthread_attr_setstacksize, (pthread_attr_t* a, std::size_t s), (a, s), EINVAL) \
    F(int, pthread_attr_destroy, (pthread_attr_t* a), (a), EINVAL) \
    F(int, pthread_create, (pthread_t* t, pthread_attr_t const* a, void* (*f)(void*), void* p), (t, a, f, p), EAGAIN) \
    F(int, pthread_cancel, (pthread_t t), (t), ESRCH) \
    F(int, pthread_detach, (pthread_t t), (t), ESRCH) \
    F(int, pthread_setname_np, (pthread_t t, char const* n), (t, n), ERANGE) \
    F(int, pthread_key_create, (pthread_key_t* k, void (*f)(void*)), (k, f), EAGAIN) \
    F(int, __register_atfork, (void (*b)(), void (*p)(), void (*c)(), void* d), (b, p, c, d), ENOMEM) \
    F(int, pthread_setspecific, (pthread_key_t k, void const* v), (k, v), ENOMEM) \
    F(int, sem_init, (sem_t* s, int p, unsigned v), (s, p, v), Error(ENOSPC)) \
    F(int, sem_post, (sem_t* s), (s), Error(EOVERFLOW)) \
    F(int, clock_gettime, (clockid_t c, timespec* t), (c, t), Error(EINVAL)) \
    F(int, gettimeofday, (timeval* t, void* z), (t, z), Error(EFAULT)) \
    F(time_t, time, (time_t* t), (t), Error(EOVERFLOW)) \
    F(char*, ctime_r, (time_t const* t, char* b), (t, b), nullptr) \
    F(tm*, gmtime_r, (time_t const* t, tm* r), (t, r), nullptr) \
    F(char*, getenv, (char const* n), (n), nullptr) \
    F(char*, getcwd, (char* b, std::size_t n), (b, n), (errno = ENOENT, nullptr)) \
    F(long, syscall, (long n, long a, long b, long c, long d, long e, long f), (n, a, b, c, d, e, f), Error(ENOSYS)) \
    F(int, backtrace, (void** b, int n), (b, n), 0) \
    F(int, dladdr, (void const* a, Dl_info* i), (a, i), 0) \
    F(void*, realloc, (void* b, std::size_t s), (b, s), nullptr)
#define ENDS_WAIT(F) \
    F(int, pthread_cond_wait, (pthread_cond_t* c, pthread_mutex_t* m), (c, m), 0) \
    F(int, pthread_cond_timedwait, (pthread_cond_t* c, pthread_mutex_t* m, timespec const* t), (c, m, t), 0) \
    F(int, sem_wait, (sem_t* s), (s), Error(EINTR)) \
    F(FILE*, fopen, (char const* p, char const* m), (p, m), (errno = EMFILE, nullptr)) \
    F(int, fputs, (char const* t, FILE* f), (t, f), EOF) \
    F(std::size_t, fwrite, (void const* t, std::size_t s, std::size_t n, FILE* f), (t, s, n, f), 0) \
    F(int, fflush, (FILE* f), (f), EOF) \
    F(int, fclose, (FILE* f), (f), (next(f), EOF)) \
    F(int, open, (char const* p, int o, mode_t m), (p, o, m), Error(EMFILE)) \
    F(ssize_t, read, (int d, void* b, std::size_t n), (d, b, n), Error(EIO)) \
    F(ssize_t, write, (int d, void const* b, std::size_t n), (d, b, n), Error(ENOSPC)) \
    F(int, close, (int d), (d), (next(d), Error(EIO))) \
    F(int, nanosleep, (timespec const* t, timespec* r), (t, r), Error(EINTR)) \
    F(unsigned, sleep, (unsigned s), (s), s)
#define NEVER_FAILS(F) \
    F(int, pthread_mutex_lock, (pthread_mutex_t* m), (m)) \
    F(int, pthread_mutex_unlock, (pthread_mutex_t* m), (m)) \
    F(int, pthread_mutex_destroy, (pthread_mutex_t* m), (m)) \
    F(int, pthread_mutexattr_destroy, (pthread_mutexattr_t* a), (a)) \
    F(int, pthread_cond_signal, (pthread_cond_t* c), (c)) \
    F(int, pthread_cond_broadcast, (pthread_cond_t* c), (c)) \
    F(int, pthread_cond_destroy, (pthread_cond_t* c), (c)) \
    F(int, pthread_condattr_destroy, (pthread_condattr_t* a), (a)) \
    F(int, pthread_setcancelstate, (int s, int* p), (s, p)) \
    F(int, pthread_sigmask, (int h, sigset_t const* s, sigset_t* p), (h, s, p)) \
    F(sighandler_t, signal, (int s, sighandler_t h), (s, h)) \
    F(int, sched_yield, (), ())
// clang-format on

#define FAILING(result, name, parameters, arguments, failure) \
    FUNCTION(result, name, #name, parameters, arguments, true, failure, false)
#define ENDING(result, name, parameters, arguments, failure) \
    FUNCTION(result, name, #name, parameters, arguments, true, failure, true)
#define PASSING(result, name, parameters, arguments) \
    FUNCTION(result, name, #name, parameters, arguments, false, 0, false)
#define NAME(result, name, ...) #name,

CAN_FAIL(FAILING)
ENDS_WAIT(ENDING)
NEVER_FAILS(PASSING)

// What the standard library calls for the library.
FUNCTION(void, condition_variable_wait, "_ZNSt18condition_variable4waitERSt11unique_lockISt5mutexE",
         (void* c, void* l), (c, l), true, static_cast<void>(0), true)
FUNCTION(void, condition_variable_notify_one, "_ZNSt18condition_variable10notify_oneEv", (void* c),
         (c), false, static_cast<void>(0), false)

char const* const names[] = {CAN_FAIL(NAME) ENDS_WAIT(NAME) "new",
                             "condition_variable_wait",  // can fail
                             "", NEVER_FAILS(NAME) "condition_variable_notify_one", nullptr};

}  // namespace points

// NOLINTBEGIN(misc-definitions-in-headers)
#define NEW(operation)                                                           \
    void* operator operation(std::size_t size, std::nothrow_t const&) noexcept { \
        return points::Allocate(size, FRAME);                                    \
    }                                                                            \
    void* operator operation(std::size_t size) {                                 \
        void* const block = points::Allocate(size, FRAME);                       \
        if (block == nullptr) throw std::bad_alloc();                            \
        return block;                                                            \
    }
#define DELETE(operation, ...)                                                 \
    void operator operation(void* block __VA_OPT__(, ) __VA_ARGS__) noexcept { \
        points::Free(block);                                                   \
    }
NEW(new)
NEW(new[])
DELETE(delete)
DELETE(delete[])
DELETE(delete, std::size_t)
DELETE(delete[], std::size_t)
DELETE(delete, std::nothrow_t const&)
DELETE(delete[], std::nothrow_t const&)
// NOLINTEND(misc-definitions-in-headers)

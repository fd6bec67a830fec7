// Compiled without instrumentation: the sanitizers' own start calls these functions too.

#include "points.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>

namespace points {

namespace {

struct State {
    std::atomic<int> mode{Off};
    std::atomic<long> left{0}, most{LONG_MAX};
    std::atomic<char const*> where{""};
    std::atomic<void (*)()> action{nullptr};
    std::atomic<long> live{0}, waits{0};
};
constinit State state;
constinit thread_local bool isVictim = false, outlives = false;
constinit thread_local std::uint32_t chance = 0;

// --- whose call it is ----------------------------------------------------------------------------

struct Range {
    std::atomic<std::uintptr_t> begin{0}, end{0};
    bool Has(std::uintptr_t at) const { return at >= begin && at < end; }
};
constinit Range libraries[2];

int FindLibrary(dl_phdr_info* info, std::size_t, void*) {
    char const* const names[] = {"libzo95Kex", "libzo95Kbs"};
    for (int i = 0; i < 2; ++i) {
        if (std::strstr(info->dlpi_name, names[i]) == nullptr) continue;
        for (int part = 0; part < info->dlpi_phnum; ++part) {
            auto const& segment = info->dlpi_phdr[part];
            if (segment.p_type != PT_LOAD || (segment.p_flags & PF_X) == 0) continue;
            libraries[i].end = info->dlpi_addr + segment.p_vaddr + segment.p_memsz;
            libraries[i].begin = info->dlpi_addr + segment.p_vaddr;
        }
    }
    return 0;
}

bool IsOurs(void const* caller) {
    if (libraries[0].begin == 0 || libraries[1].begin == 0) dl_iterate_phdr(FindLibrary, nullptr);
    auto const at = reinterpret_cast<std::uintptr_t>(caller);
    return libraries[0].Has(at) || libraries[1].Has(at);
}

// --- what was reached ----------------------------------------------------------------------------

struct Site {
    std::atomic<void const*> place;
    std::atomic<char const*> function;
};
struct Table {
    std::atomic<long> calls;
    Site sites[1024];
};
constinit Table tableOfProcess{};
constinit Table* table = &tableOfProcess;

// How often each place was passed since Arm.
constinit std::atomic<long> passes[1024];

// Returns how often since Arm.
long Note(char const* function, void const* place) {
    table->calls.fetch_add(1, std::memory_order_relaxed);
    for (auto slot = reinterpret_cast<std::uintptr_t>(place);; ++slot) {
        Site& site = table->sites[slot % 1024];
        void const* none = nullptr;
        if (site.place.compare_exchange_strong(none, place)) site.function = function;
        if (none == nullptr || none == place) return ++passes[slot % 1024];
    }
}

// --- what happens --------------------------------------------------------------------------------

void Delay() {
    static std::atomic<std::uint32_t> threads{0};
    if (chance == 0)
        chance = (static_cast<std::uint32_t>(state.left.load()) + 77U * ++threads) | 1U;
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

// At the first call, while the libraries are being loaded.
void ArmFromEnvironment() {
    static constinit std::atomic<bool> done{false};
    if (done.load(std::memory_order_relaxed) || done.exchange(true)) return;
    if (char const* const nth = std::getenv("ZO_FAULT")) Arm(Fail, std::atol(nth));
    if (char const* const seed = std::getenv("ZO_SHAKE")) Arm(Shake, std::atol(seed));
}

// Whether the call fails.
bool Pass(char const* function, void const* caller, bool canFail, bool endsThread) {
    ArmFromEnvironment();
    int const mode = state.mode.load(std::memory_order_relaxed);
    if (mode == Off || !IsOurs(caller)) return false;
    bool const isRare = Note(function, caller) <= state.most;
    if (std::strncmp(function, "pthread_cond_", 13) == 0 && endsThread) ++state.waits;
    if (mode == Shake) Delay();
    bool const counts = !isRare          ? false
                        : mode == Fail   ? canFail
                        : mode == Cancel ? isVictim
                        : mode == End    ? isVictim && endsThread
                                         : mode == Meet;
    if (!counts || state.left.fetch_sub(1) != 1) return false;
    state.where = function;
    if (mode == Cancel) pthread_cancel(pthread_self());
    if (mode == Meet) state.action.load()();
    if (mode == End) {
        int previous = 0;
        pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &previous);
        pthread_setcancelstate(previous, nullptr);
        if (previous == PTHREAD_CANCEL_ENABLE) pthread_exit(nullptr);
    }
    return mode == Fail;
}

}  // namespace

void Arm(Mode mode, long nth) {
    state.where = "";
    state.waits = 0;
    for (auto& count : passes) count = 0;
    state.left = nth;
    state.mode = mode;
}
void Disarm() {
    state.mode = Off;
}
bool Happened() {
    return *state.where.load() != '\0';
}
bool Failed(char const* function) {
    return state.mode == Fail && Happened() &&
           (function == nullptr || std::strcmp(state.where, function) == 0);
}
char const* Where() {
    return state.where;
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

void CountAtMost(long passesOfAPlace) {
    state.most = passesOfAPlace;
}

void Remember() {
    void* const memory =
        mmap(nullptr, sizeof(Table), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    table = new (memory) Table{};
}

bool IsReached(char const* function) {
    for (Site const& site : table->sites) {
        if (site.place != nullptr && std::strcmp(site.function, function) == 0) return true;
    }
    return false;
}

Sites Reached() {
    Sites sites{0, 0, table->calls};
    for (Site const& site : table->sites) sites.places += site.place != nullptr ? 1 : 0;
    for (int i = 0; names[i] != nullptr; ++i) sites.functions += IsReached(names[i]) ? 1 : 0;
    return sites;
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
    bool counts;
};

void* Allocate(char const* function, void const* caller, std::size_t size) {
    if (Pass(function, caller, true, false)) return nullptr;
    void* const memory = std::malloc(sizeof(Head) + size);
    if (memory == nullptr) return nullptr;
    Head* const head = new (memory) Head{!outlives && IsOurs(caller)};
    state.live += head->counts ? 1 : 0;
    std::memset(head + 1, 0xA5, size);
    return head + 1;
}

void Free(void* block) {
    if (block == nullptr) return;
    Head* const head = static_cast<Head*>(block) - 1;
    state.live -= head->counts ? 1 : 0;
    std::free(head);
}

int Error(int error) {
    errno = error;
    return -1;
}

}  // namespace

// A function of the system library under a name of ours. `FAILS`: what it returns when it fails;
// the others of the lists never do, for a correct caller. Those of the last list are cancellation
// points. A declaration of the system's may say that a function does not throw, which would keep a
// cancelled thread from being unwound.
#define FUNCTION(result, name, parameters, arguments, canFail, failure, endsThread)                \
    extern "C" __attribute__((visibility("default"))) result Our_##name parameters __asm__(#name); \
    extern "C" result Our_##name parameters {                                                      \
        static constinit std::atomic<std::add_pointer_t<result parameters>> known{nullptr};        \
        auto* const next = Next<result parameters>(known, #name);                                  \
        if (Pass(#name, __builtin_return_address(0), canFail, endsThread)) return failure;         \
        return next arguments;                                                                     \
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
    F(int, pthread_attr_setstacksize, (pthread_attr_t* a, std::size_t s), (a, s), EINVAL) \
    F(int, pthread_attr_destroy, (pthread_attr_t* a), (a), EINVAL) \
    F(int, pthread_create, (pthread_t* t, pthread_attr_t const* a, void* (*f)(void*), void* p), (t, a, f, p), EAGAIN) \
    F(int, pthread_cancel, (pthread_t t), (t), ESRCH) \
    F(int, pthread_detach, (pthread_t t), (t), ESRCH) \
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
    FUNCTION(result, name, parameters, arguments, true, failure, false)
#define ENDING(result, name, parameters, arguments, failure) \
    FUNCTION(result, name, parameters, arguments, true, failure, true)
#define PASSING(result, name, parameters, arguments) \
    FUNCTION(result, name, parameters, arguments, false, 0, false)
#define NAME(result, name, ...) #name,

CAN_FAIL(FAILING)
ENDS_WAIT(ENDING)
NEVER_FAILS(PASSING)

char const* const names[] = {CAN_FAIL(NAME) ENDS_WAIT(NAME) NEVER_FAILS(NAME) "new", nullptr};

}  // namespace points

// NOLINTBEGIN(misc-definitions-in-headers)
void* operator new(std::size_t size, std::nothrow_t const&) noexcept {
    return points::Allocate("new", __builtin_return_address(0), size);
}
void* operator new[](std::size_t size, std::nothrow_t const&) noexcept {
    return points::Allocate("new", __builtin_return_address(0), size);
}
void* operator new(std::size_t size) {
    void* const block = points::Allocate("new", __builtin_return_address(0), size);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}
void* operator new[](std::size_t size) {
    void* const block = points::Allocate("new", __builtin_return_address(0), size);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}
void operator delete(void* block) noexcept {
    points::Free(block);
}
void operator delete[](void* block) noexcept {
    points::Free(block);
}
void operator delete(void* block, std::size_t) noexcept {
    points::Free(block);
}
void operator delete[](void* block, std::size_t) noexcept {
    points::Free(block);
}
void operator delete(void* block, std::nothrow_t const&) noexcept {
    points::Free(block);
}
void operator delete[](void* block, std::nothrow_t const&) noexcept {
    points::Free(block);
}
// NOLINTEND(misc-definitions-in-headers)

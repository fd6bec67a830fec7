#include "call_stack.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "checkers.h"
#include "debug_path.h"
#include "smp_io.h"
#include "zobase.h"
#include "zotls.h"

namespace {

// Whether stacks are kept; Unread until the first detecting section is made.
constexpr int Unread = -1;
std::atomic<int> csStacks{Unread};
[[maybe_unused]] int const toldStacks = checkers::AreAtomic(csStacks);

// A text of fixed size; longer texts are cut.
struct Text {
    char text[512] = "";
    std::size_t length = 0;

    void Add(char const* piece, std::size_t size) {
        std::size_t const room = sizeof text - 1 - length;
        if (size > room) size = room;
        std::memcpy(text + length, piece, size);
        length += size;
        text[length] = '\0';
    }
    void Add(char const* piece) { Add(piece, std::strlen(piece)); }
};

// The names in "_ZN6Object4WorkEv" and "_Z4Workv", parted by two colons, without the types of the
// parameters. The runtime's own demangler allocates. False for all other kinds of names.
bool AddPlainNames(char const* symbol, Text& to) {
    if (std::strncmp(symbol, "_Z", 2) != 0) return false;
    symbol += 2;
    bool const isNested = *symbol == 'N';
    if (isNested) ++symbol;
    if (*symbol == 'K') ++symbol;  // a const member function
    Text names;
    do {
        std::size_t size = 0;
        while (*symbol >= '0' && *symbol <= '9') {
            size = size * 10 + static_cast<std::size_t>(*symbol++ - '0');
        }
        if (size == 0 || size > std::strlen(symbol)) return false;
        if (names.length != 0) names.Add("::");
        names.Add(symbol, size);
        symbol += size;
    } while (isNested && *symbol != 'E');
    if (*symbol == 'I') return false;  // a template
    to.Add(names.text);
    return true;
}

void AddOffset(std::uintptr_t offset, Text& to) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%lx", static_cast<unsigned long>(offset));
    to.Add(text);
}

// "Object::Work+0x4c in engine", or "0x11d3 in engine" where no exported function is known there.
void AddFrame(void* frame, Text& to) {
    auto const address = reinterpret_cast<std::uintptr_t>(frame);
    Dl_info found{};
    // The call that the frame returns from may be the last instruction of its function.
    if (dladdr(reinterpret_cast<void*>(address - 1), &found) == 0 || found.dli_fname == nullptr) {
        return AddOffset(address, to);
    }
    if (found.dli_sname != nullptr) {
        if (!AddPlainNames(found.dli_sname, to)) to.Add(found.dli_sname);
        to.Add("+");
        AddOffset(address - reinterpret_cast<std::uintptr_t>(found.dli_saddr), to);
    } else {
        AddOffset(address - reinterpret_cast<std::uintptr_t>(found.dli_fbase), to);
    }
    char const* const slash = std::strrchr(found.dli_fname, '/');
    to.Add(" in ");
    to.Add(slash != nullptr ? slash + 1 : found.dli_fname);
}

// The thread's name in the system, in quotes; nothing when it cannot be read.
void AddName(int kernelThread, Text& to) {
    char path[48];
    std::snprintf(path, sizeof path, "/proc/self/task/%d/comm", kernelThread);
    int const file = open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0) return;
    char name[32];
    ssize_t const size = read(file, name, sizeof name);
    close(file);
    if (size <= 1) return;
    to.Add(" \"");
    to.Add(name, static_cast<std::size_t>(size - 1));  // without its newline
    to.Add("\"");
}

}  // namespace

// While one thread reads the key, others take it as not set. Relaxed order is enough: nothing
// depends on more than the number itself.
void CallStacks::ReadKeyOnce() {
    int expected = Unread;
    if (!csStacks.compare_exchange_strong(expected, 0, std::memory_order_relaxed)) return;
    int wanted = 0;
    if (ZoConfig* const configuration = ZoDefaultConfiguration()) {
        configuration->ReadValue("csStacks", &wanted, debug_path);
    }
    if (wanted == 0) return;
    void* frame = nullptr;
    backtrace(&frame, 1);  // the first call loads the unwinder, which allocates
    csStacks.store(1, std::memory_order_relaxed);
}

[[gnu::noinline]] void CallStacks::Keep(ZoTLS* me) {
    if (csStacks.load(std::memory_order_relaxed) <= 0) return;
    me->callStack.kernelThread = gettid();
    me->callStack.count = backtrace(me->callStack.frames, ZoCallStack::Most);
}

// The first frame is that of Keep.
void CallStacks::Tell(ZoTLS const* thread, smp_io& console) {
    ZoCallStack const& stack = thread->callStack;
    if (stack.count == 0) return;
    char number[16];
    std::snprintf(number, sizeof number, "%d", static_cast<int>(stack.kernelThread));
    Text name;
    AddName(static_cast<int>(stack.kernelThread), name);
    console << "ZoThread " << thread->threadIdentity << " is kernel thread " << number << name.text
            << endl;
    for (int i = 1; i < stack.count; ++i) {
        Text frame;
        AddFrame(stack.frames[i], frame);
        console << "    at " << frame.text << endl;
    }
}

// Events, listeners, the dispatcher and the debug switches.

#include "zoevmdis.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cfloat>
#include <climits>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "alloc_fault.h"
#include "cancelled.h"
#include "services.h"
#include "trace.h"

using namespace zotest;

namespace {

// The library's objects with a dispatcher and debug switches of the test's own.
class Diagnostics {
public:
    Diagnostics() : context(false) {
        delete Debugger(new smp_debug(-1));
        delete ZoEventMessageDispatcher::SetDispatcher(new ZoEventMessageDispatcher);
    }
    ~Diagnostics() {
        delete ZoEventMessageDispatcher::SetDispatcher(nullptr);
        delete smp_debugger;
        smp_debugger = nullptr;
    }
    std::string Printed() { return std::exchange(context.console->text, ""); }

    Services services;
    Context context;
};

ZoEventMessageDispatcher& Dispatcher() {
    return *ZoEventMessageDispatcher::GetDispatcher();
}

// Calls a function for every event, and one when it ends.
class Listener : public ZoEventListener {
public:
    using Action = std::function<void(ZoEvent const*)>;
    using End = std::function<void()>;
    explicit Listener(
        Action action, End end = [] {})
        : action(std::move(action)), end(std::move(end)) {}
    ~Listener() override { end(); }
    int Notify(ZoEvent const* event) override {
        action(event);
        return 0;
    }

private:
    Action action;
    End end;
};

void Ignore(ZoEvent const*) {}

void Send(unsigned long mask, unsigned long type, int code = 0, char const* text = "") {
    ZoSimpleEvent event(code, mask, type);
    event << text;
    EXPECT_EQ(Dispatcher().Dispatch(&event), 0);
}

TEST(Event, BuildsTextFromEveryKindOfValue) {
    int const marker = 0;
    ZoSimpleEvent event(-7, 4, 0x905);
    EXPECT_STREQ(event.GetMessageText(), "");
    event << 7 << ARROW << -1 << " " << static_cast<short>(-2) << " "
          << static_cast<unsigned short>(65535) << " " << 4000000000U << " " << -5L << " " << 6UL
          << " " << 1.5F << " " << 0.1 << " " << 'c' << "%d" << UNKNOWN_ERROR << endl;
    event << const_cast<int*>(&marker);
    EXPECT_EQ(event.GetMessageText(),
              "7 --> -1 -2 65535 4000000000 -5 6 1.500000 0.100000 c%dunknown error\n" +
                  Pointer(&marker));
    EXPECT_EQ(event.Dump(nullptr), 0);
    EXPECT_EQ(event.code, -7);
    EXPECT_EQ(event.mask, 4U);
    EXPECT_EQ(event.type, 0x905U);
}

TEST(Event, DropsThePieceThatDoesNotFit) {
    std::string const half(200, 'x');
    ZoSimpleEvent event(0, 0, 0);
    event << half.c_str() << std::string(100, 'y').c_str() << DBL_MAX << endl;
    EXPECT_EQ(event.GetMessageText(), half + "\n");
    event << std::string(52, 'z').c_str();
    EXPECT_EQ(event.Print("abc", 3), -1);
    EXPECT_EQ(event.Print("abc", -1), -1);
    EXPECT_EQ(event.Print("abc", INT_MAX), -1);
    EXPECT_EQ(event.Print("abc", 2), 0);
    event << 'd' << 5 << std::string(70'000, 'e').c_str();
    EXPECT_EQ(event.GetMessageText(), half + "\n" + std::string(52, 'z') + "ab");
    ZoSimpleEvent full(0, 0, 0);
    full << std::string(255, 'f').c_str() << 'g';
    EXPECT_EQ(full.GetMessageText(), std::string(255, 'f'));
}

TEST(Event, TakesMaskAndTypeFromItsCategory) {
    struct {
        unsigned long category;
        ZoUInt32 mask, type;
    } const table[] = {
        {0x1, 1, 0x400},     {0x20, 2, 0x500},     {0x100, 1, 0x600},           {0x4000, 4, 0x700},
        {0x10000, 1, 0x800}, {0x800000, 8, 0x900}, {0x08000000, 8, 0xA00},      {0xC0, 4, 0x500},
        {0x880, 8, 0x500},   {0, 0, 0xFFFFFFFF},   {0x10000000, 1, 0xFFFFFFFF},
    };
    for (auto const& row : table) {
        ZoDebugEvent event(row.category);
        EXPECT_EQ(event.code, 0);
        EXPECT_EQ(event.mask, row.mask) << row.category;
        EXPECT_EQ(event.type, row.type) << row.category;
    }
}

TEST(Dispatcher, MatchesMasksFamiliesAndLevels) {
    struct {
        unsigned long mask, type;  // of the registration
        unsigned long eventMask, eventType;
        int calls, requested;
    } const table[] = {
        {1, 0x900, 1, 0x905, 1, 1},
        {1, 0x903, 1, 0x905, 1, 1},
        {1, 0x906, 1, 0x905, 0, 1},
        {1, 0x9FF, 1, 0x97F, 0, 1},
        {1, 0x97F, 1, 0x9FF, 1, 1},
        {1, 0x900, 1, 0x800, 0, 0},
        {1, 0x10006, 1, 0x10006, 1, 1},
        {1, 0x10007, 1, 0x10006, 0, 0},
        {1, 0x900, 8, 0x900, 0, 0},
        {15, 0x900, 8, 0x900, 1, 1},
        {1, 0, 1, 0x905, 1, 1},
        {1, 0, 1, 0x20000, 1, 1},
        {1, 6, 1, 0x905, 0, 1},
        {1, 6, 1, 0x10000, 1, 1},
        {2, 0, 1, 0x905, 0, 0},
        {1, 0, 1, 5, 1, 1},
        {1, 6, 1, 5, 0, 1},
        {1, 0xFFFFFFFF, 1, static_cast<unsigned long>(-1), 1, 1},
    };
    for (auto const& row : table) {
        Diagnostics diagnostics;
        int calls = 0;
        EXPECT_EQ(Dispatcher().TypeRequested(row.eventMask, row.eventType), 0);
        EXPECT_EQ(Dispatcher().RegisterListener(row.mask, row.type,
                                                new Listener([&](ZoEvent const*) { ++calls; })),
                  0);
        Send(row.eventMask, row.eventType);
        EXPECT_EQ(calls, row.calls) << std::hex << row.type << " " << row.eventType;
        EXPECT_EQ(Dispatcher().TypeRequested(row.eventMask, row.eventType), row.requested);
    }
}

TEST(Dispatcher, CallsWildcardsFirstAndEachGroupInOrder) {
    Diagnostics diagnostics;
    std::string order;
    auto const listener = [&](char name) {
        return new Listener([&order, name](ZoEvent const*) { order += name; });
    };
    Listener* const twice = listener('b');
    Dispatcher().RegisterListener(1, 0x900, listener('a'));
    Dispatcher().RegisterListener(1, 0x901, twice);
    Dispatcher().RegisterListener(1, 0, listener('w'));
    Dispatcher().RegisterListener(1, 0x900, listener('c'));
    Dispatcher().RegisterListener(1, 0x900, twice);
    Dispatcher().RegisterListener(1, 0, listener('x'));
    Send(1, 0x905);
    EXPECT_EQ(order, "wxabcb");
    EXPECT_EQ(twice->refCount, 2);
}

TEST(Dispatcher, LetsListenersRegisterAndDispatch) {
    Diagnostics diagnostics;
    int inner = 0, outer = 0;
    auto* const counter = new Listener([&](ZoEvent const*) { ++inner; });
    Dispatcher().RegisterListener(
        1, 0x30000, new Listener([&](ZoEvent const*) {
            if (++outer > 1) return;
            for (unsigned long type = 0; type < 100; ++type) {  // the table grows meanwhile
                EXPECT_EQ(Dispatcher().RegisterListener(1, 0x30000 + type, counter), 0);
            }
            Send(1, 0x30001);
            Send(1, 0x30000);
        }));
    Send(1, 0x30000);
    EXPECT_EQ(outer, 2);
    EXPECT_EQ(inner, 3) << "one at type 0x30001, one within, one at the end of the walked chain";
    EXPECT_EQ(counter->refCount, 100);
}

TEST(Dispatcher, ReleasesListenersOnce) {
    Diagnostics diagnostics;
    int deleted = 0;
    auto const end = [&] { ++deleted; };
    alignas(ZoEventMessageDispatcher) unsigned char place[sizeof(ZoEventMessageDispatcher)];
    auto* const inPlace = new (static_cast<void*>(place)) ZoEventMessageDispatcher;
    auto* const several = new Listener(Ignore, end);
    for (unsigned long type = 0; type < 13; ++type) {
        inPlace->RegisterListener(1, 0x10000 + type, several);
    }
    EXPECT_EQ(several->refCount, 13);
    Dispatcher().CallDestructor(inPlace);
    EXPECT_EQ(deleted, 1);
    // A long chain ends on a small stack, and the end of a listener may still be told.
    auto* const many = new Listener(Ignore, [&] {
        ++deleted;
        Send(1, 0x900);
    });
    for (int i = 0; i < 10'000; ++i) Dispatcher().RegisterListener(1, 0x900, many);
    EXPECT_FALSE(IsCancelled([] { Dispatcher().CallDestructor(nullptr); }));
    EXPECT_EQ(deleted, 2);
    ZoEventMessageDispatcher::SetDispatcher(nullptr);
}

TEST(Dispatcher, RefusesARegistrationWithoutMemory) {
    NEEDS_ALLOC_FAULTS();
    Diagnostics diagnostics;
    int deleted = 0, calls = 0;
    auto const make = [&] {
        return new Listener([&](ZoEvent const*) { ++calls; }, [&] { ++deleted; });
    };
    Listener* const held = make();
    ASSERT_EQ(Dispatcher().RegisterListener(1, 0x900, held), 0);
    // No registration, then no table entry; and for a family no record, then no name.
    for (int nth : {1, 2}) {
        auto const failing = [nth](auto operation) {
            AllocFault const fault(nth);
            auto const result = operation(Dispatcher());
            EXPECT_TRUE(fault.Happened());
            return result;
        };
        Listener* const fresh = make();
        for (Listener* listener : {held, fresh}) {
            EXPECT_EQ(failing([&](auto& d) { return d.RegisterListener(2, 0x800, listener); }),
                      -2030);
        }
        EXPECT_EQ(deleted, nth) << "nobody holds it";
        EXPECT_EQ(held->refCount, 1);
        EXPECT_EQ(failing([](auto& d) { return d.GetEventFamilyId("new"); }), 0xFFFFFFFFUL);
        EXPECT_EQ(failing([](auto& d) { return d.AddFamilyRegistration("new", 3); }), -2030);
    }
    EXPECT_EQ(Dispatcher().TypeRequested(3, 0x800), 0);
    EXPECT_EQ(Dispatcher().GetEventFamilyId("new"), 0x20000UL);
    EXPECT_EQ(Dispatcher().RegisterListener(2, 0x800, held), 0);
    Send(2, 0x800);
    EXPECT_EQ(calls, 1);
    // Whatever allocation fails while it is made, a dispatcher can be used and destroyed.
    int faults = 0;
    for (bool happened = true; happened; faults += happened ? 1 : 0) {
        Listener* const listener = make();
        calls = 0;
        AllocFault const fault(faults + 1);
        ZoEventMessageDispatcher poor;
        int const result = poor.RegisterListener(1, 0x900, listener);
        ZoDebugEvent event(0x100000);
        EXPECT_EQ(poor.Dispatch(&event), 0);
        happened = fault.Happened();
        EXPECT_EQ(calls, result == 0 ? 1 : 0);
    }
    EXPECT_GE(faults, 2 * 26);
    EXPECT_EQ(deleted, 2 + faults + 1);
}

TEST(Dispatcher, KeepsFamilies) {
    Diagnostics diagnostics;
    ZoEventMessageDispatcher& d = Dispatcher();
    EXPECT_EQ(d.GetEventFamilyId("verboseMode"), 0x100UL);
    EXPECT_EQ(d.GetEventFamilyId("debugThread"), 0x900UL);
    EXPECT_EQ(d.GetEventFamilyId("baseScan"), 0x10010UL);
    EXPECT_EQ(d.GetEventFamilyName(0x10004), nullptr);
    EXPECT_EQ(d.GetEventFamilyName(0x10009), nullptr);
    EXPECT_STREQ(d.GetEventFamilyName(0x1000A), "recoveryFile");
    char name[] = "myFamily";
    EXPECT_EQ(d.GetEventFamilyId(name), 0x20000UL);
    name[0] = 'M';
    EXPECT_EQ(d.GetEventFamilyId(name), 0x20001UL);
    EXPECT_EQ(d.GetEventFamilyId("myFamily"), 0x20000UL);
    EXPECT_STREQ(d.GetEventFamilyName(0x20001), "MyFamily");
    EXPECT_EQ(d.AddFamilyRegistration("verboseMode", 5), 0);
    EXPECT_EQ(d.GetEventFamilyId("verboseMode"), 0x100UL);
    EXPECT_STREQ(d.GetEventFamilyName(5), "verboseMode");
    EXPECT_EQ(d.AddFamilyRegistration("zero", 0), 0);
    EXPECT_EQ(d.GetEventFamilyId("zero"), 0x20002UL);
    EXPECT_EQ(d.GetEventFamilyId("zero"), 0x20002UL);
}

TEST(ConsoleListener, PrintsCodeAndText) {
    Diagnostics diagnostics;
    Dispatcher().RegisterListener(1, 0x10010, new ZoConsoleListener);
    Send(1, 0x10010, -2005, "gone");
    Send(1, 0x10010, 12, "odd\n");
    Send(1, 0x10010, 0, "plain");
    EXPECT_EQ(diagnostics.Printed(), "Error: -2005 gone\nWarning: 12 odd\n\nplain\n");
    EXPECT_EQ(ZoConsoleListener().RegisterForEvent(1, 2), 0);
}

TEST(TransferLog, IsDispatchedWhenItEnds) {
    Diagnostics diagnostics;
    std::string log;
    Dispatcher().RegisterListener(1, 0xB00, new Listener([&](ZoEvent const* event) {
                                      log += event->GetMessageText();
                                      pthread_testcancel();
                                  }));
    {
        ZoFtransLogEvent line;
        line << "x" << endl;
        EXPECT_EQ(log, "");
    }
    EXPECT_EQ(log, "x\n");
    // A cancelled thread delivers a line that ends and goes then; when it goes in a delivery, it
    // leaves the section behind.
    bool reached = false;
    EXPECT_TRUE(IsCancelled([&] {
        pthread_cancel(pthread_self());
        { ZoFtransLogEvent().Print("y\n", 2); }
        reached = true;
        pthread_testcancel();
    }));
    EXPECT_TRUE(reached);
    EXPECT_TRUE(IsCancelled([&] {
        pthread_cancel(pthread_self());
        Send(1, 0xB00, 0, "z");
    }));
    Send(1, 0xB00, 0, "free");
    EXPECT_EQ(log, "x\ny\nzfree");
    delete ZoEventMessageDispatcher::SetDispatcher(nullptr);
    ZoFtransLogEvent lost;
}

TEST(DebugSwitches, KeepFlagsWhileDisabled) {
    EXPECT_EQ(smp_debug(-1).current, 0U);
    EXPECT_EQ(smp_debug(-1).saved, 0U);
    smp_debug flags(5);
    EXPECT_EQ(flags.saved, 5U);
    flags.Disable();
    EXPECT_EQ(flags.current, 0U);
    flags.Enable();
    EXPECT_EQ(flags.current, 5U);
    flags.Disable();
    flags.Disable();
    flags.Enable();
    EXPECT_EQ(flags.current, 0U);
}

TEST(DebugSwitches, ComeFromTheConfiguration) {
    Diagnostics diagnostics;
    ZoConfig* const configuration = ZoSetDefaultConfig(nullptr);
    EXPECT_EQ(GetDebugger(), smp_debugger);
    EXPECT_EQ(Dispatcher().TypeRequested(15, 0x900), 0) << "there is no configuration";
    ZoSetDefaultConfig(configuration);
    // Without the key nothing is told, but the listener is there.
    EXPECT_EQ(GetDebugger()->current, 0U);
    EXPECT_EQ(diagnostics.Printed(), "");
    unsigned long const damage[] = {0x10005, 0x10006, 0x10007, 0x1000E, 0x1000F, 0x10012};
    unsigned long const areas[] = {0x400, 0x500, 0x600, 0x700, 0x800, 0x900, 0xA00};
    for (unsigned long type = 0x100; type < 0x20000; type += type < 0x10000 ? 0x100 : 1) {
        ZoUInt32 expected = 0;
        for (unsigned long each : damage) expected |= each == type ? 1 : 0;
        for (unsigned long each : areas) expected |= each == type ? 15 : 0;
        for (ZoUInt32 bit = 1; bit <= 16; bit *= 2) {
            ASSERT_EQ(Dispatcher().TypeRequested(bit, type), (expected & bit) != 0 ? 1 : 0);
        }
    }
    // New switches are configured anew, once.
    diagnostics.services.Configure("mode", 0x800000);
    std::unique_ptr<smp_debug> const previous(Debugger(new smp_debug(-1)));
    EXPECT_NE(previous, nullptr);
    EXPECT_EQ(Debugger(nullptr)->current, 0x800000U);
    EXPECT_EQ(GetDebugger()->saved, 0x800000U);
    EXPECT_EQ(diagnostics.Printed(), "DEBUG LEVEL --> 0x800000\n");
    EXPECT_EQ(diagnostics.services.Reads("mode"), 2);
    Send(1, 0x905, 0, "told by both listeners");
    EXPECT_EQ(diagnostics.Printed(), "told by both listeners\ntold by both listeners\n");
}

TEST(DebugSwitches, TraceOnlyWhileTheirBitIsSet) {
    Trace(0x800000, "nowhere");
    Diagnostics diagnostics;
    diagnostics.services.Configure("mode", static_cast<int>(0x80800000));
    GetDebugger();
    diagnostics.Printed();
    Trace(0x100, "off");
    Trace(0x800000, "ZoThread::Work ", static_cast<void*>(&diagnostics));
    EXPECT_EQ(diagnostics.Printed(), "ZoThread::Work " + Pointer(&diagnostics) + "\n\n");
    GetDebugger()->Disable();
    Trace(0x800000, "disabled");
    GetDebugger()->Enable();
    delete ZoEventMessageDispatcher::SetDispatcher(nullptr);
    Trace(0x800000, "no dispatcher");
    EXPECT_EQ(diagnostics.Printed(), "");
}

TEST(DebugSwitches, AreConfiguredByOneThreadAlone) {
    for (int round = 0; round < 100; ++round) {
        Diagnostics diagnostics;
        diagnostics.services.Configure("mode", 0x100);
        std::atomic<int> ready{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&] {
                ++ready;
                Await([&] { return ready == 4; });
                EXPECT_EQ(GetDebugger(), smp_debugger);
                EXPECT_EQ(TraceIsOn(0x200), false);
            });
        }
        for (std::thread& thread : threads) thread.join();
        Trace(0x100, "once");
        ASSERT_EQ(diagnostics.Printed(), "DEBUG LEVEL --> 0x100\nonce\n\n");
        ASSERT_EQ(diagnostics.services.Reads("mode"), 1);
    }
}

// A configuration that traces, in the place of the test's services.
class TracingConfig : public ZoConfig {
public:
    int ReadValue(char const*, int* out, char const* const*) override {
        EXPECT_EQ(GetDebugger(), smp_debugger);
        asked = true;
        *out = 0x100;
        return 0;
    }
    std::atomic<bool> asked{false};
};

// The thread that configures waits for the dispatcher, whose owner asks for the debugger.
TEST(DebugSwitches, NeverMakeTheDispatchersOwnerWait) {
    Diagnostics diagnostics;
    TracingConfig configuration;
    ZoConfig* const services = ZoSetDefaultConfig(&configuration);
    std::thread configuring;
    Dispatcher().RegisterListener(1, 0x20000, new Listener([&](ZoEvent const*) {
                                      configuring = std::thread([] { GetDebugger(); });
                                      Await([&] { return configuration.asked.load(); });
                                      EXPECT_EQ(GetDebugger(), smp_debugger);
                                  }));
    Send(1, 0x20000);
    configuring.join();
    EXPECT_EQ(Dispatcher().TypeRequested(8, 0xA00), 1);
    ZoSetDefaultConfig(services);
}

TEST(Dispatcher, SerialisesThreads) {
    Diagnostics diagnostics;
    long calls = 0;  // guarded by the dispatcher's section, as the sanitizer would tell
    constexpr int Threads = 4, Rounds = 500;
    std::vector<std::thread> threads;
    for (int i = 0; i < Threads; ++i) {
        threads.emplace_back([&, i] {
            unsigned long const type = 0x30000 + static_cast<unsigned long>(i);
            Dispatcher().RegisterListener(1, type, new Listener([&](ZoEvent const*) { ++calls; }));
            for (int round = 0; round < Rounds; ++round) {
                Send(1, type);
                Dispatcher().TypeRequested(1, type + 1);
                Dispatcher().GetEventFamilyId(round % 2 == 0 ? "even" : "odd");
                GetDebugger()->Enable();
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(calls, Threads * Rounds);
    EXPECT_STREQ(Dispatcher().GetEventFamilyName(0x20001),
                 Dispatcher().GetEventFamilyId("odd") == 0x20001 ? "odd" : "even");
    EXPECT_EQ(Dispatcher().GetEventFamilyName(0x20002), nullptr);
}

}  // namespace

// Events, listeners, the dispatcher and the debug switches.

#include "zoevmdis.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <cfloat>
#include <climits>
#include <new>
#include <set>

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

constexpr unsigned long NoFamily = 0xFFFFFFFF;

void Ignore(ZoEvent const*) {}

void Send(unsigned long mask, unsigned long type, int code = 0, char const* text = "") {
    ZoSimpleEvent event(code, mask, type);
    event << text;
    EXPECT_EQ(Dispatcher().Dispatch(&event), 0);
}

TEST(Event, BuildsTextAndDropsThePieceThatDoesNotFit) {
    ZoSimpleEvent event(-7, 4, 0x905);
    EXPECT_STREQ(event.GetMessageText(), "");
    std::string const kinds = WriteEveryKind(event, "");
    event << endl;
    EXPECT_EQ(event.GetMessageText(), kinds + "\n");

    std::string const most(200, 'x'), rest(52, 'z');
    ZoSimpleEvent full(0, 0, 0);
    full << most.c_str() << most.c_str() << DBL_MAX << endl << rest.c_str();
    for (int const count : {3, -1, INT_MAX}) EXPECT_EQ(full.Print("abc", count), -1);
    EXPECT_EQ(full.Print("abc", 2), 0);
    full << 'd' << 5 << std::string(70'000, 'e').c_str();
    EXPECT_EQ(full.GetMessageText(), most + "\n" + rest + "ab");
}

TEST(Event, TakesMaskAndTypeFromItsCategory) {
    struct {
        unsigned long category;
        ZoUInt32 mask, type;
    } const table[] = {
        {0x1, 1, 0x400},  {0xC0, 4, 0x500},         {0x180, 1, 0x500},      {0x20000, 2, 0x800},
        {0, 0, NoFamily}, {1UL << 28, 1, NoFamily}, {0x08000000, 8, 0xA00},
    };
    for (auto const& row : table) {
        ZoDebugEvent event(row.category);
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
        {1, 0x903, 1, 0x905, 1, 1},
        {1, 0x906, 1, 0x905, 0, 1},
        {1, 0x97F, 1, 0x9FF, 1, 1},
        {1, 0x900, 1, 0x800, 0, 0},
        {1, 0x900, 8, 0x900, 0, 0},
        {15, 0x900, 8, 0x900, 1, 1},
        {1, 0x10006, 1, 0x10006, 1, 1},
        {1, 0x10007, 1, 0x10006, 0, 0},
        {1, 6, 1, 0x905, 0, 1},
        {1, 6, 1, 0x10000, 1, 1},
        {1, 0, 1, 5, 1, 1},
        {1, NoFamily, 1, ULONG_MAX, 1, 1},
    };
    for (auto const& row : table) {
        int calls = 0;
        ZoEventMessageDispatcher dispatcher;
        EXPECT_EQ(dispatcher.TypeRequested(row.eventMask, row.eventType), 0);
        dispatcher.RegisterListener(row.mask, row.type,
                                    new Listener([&](ZoEvent const*) { ++calls; }));
        ZoSimpleEvent const event(0, row.eventMask, row.eventType);
        dispatcher.Dispatch(&event);
        EXPECT_EQ(calls, row.calls) << std::hex << row.type << " " << row.eventType;
        EXPECT_EQ(dispatcher.TypeRequested(row.eventMask, row.eventType), row.requested);
    }
}

TEST(Dispatcher, CallsInOrderWhileListenersRegisterAndDispatch) {
    Diagnostics diagnostics;
    std::string order;
    auto const listener = [&](char name) {
        return new Listener([&order, name](ZoEvent const*) { order += name; });
    };
    Listener* const late = listener('l');
    auto const addAndDispatch = [&](ZoEvent const*) {
        order += 'b';
        for (unsigned long type = 0; type < 100; ++type) {  // the table grows meanwhile
            Dispatcher().RegisterListener(1, 0x30000 + type, late);
        }
        Dispatcher().RegisterListener(1, 0x900, late);
        Send(1, 0x30001);
    };
    Dispatcher().RegisterListener(1, 0x900, listener('a'));
    Dispatcher().RegisterListener(1, 0x901, new Listener(addAndDispatch));
    Dispatcher().RegisterListener(1, 0, listener('w'));
    Dispatcher().RegisterListener(1, 0x900, listener('c'));
    Dispatcher().RegisterListener(1, 0, listener('x'));
    Send(1, 0x905);
    EXPECT_EQ(order, "wxabwxlcl") << "wildcards first; the late one at the end of the walked chain";
}

TEST(Dispatcher, ReleasesListenersOnce) {
    Diagnostics diagnostics;
    int deleted = 0;
    alignas(ZoEventMessageDispatcher) unsigned char place[sizeof(ZoEventMessageDispatcher)];
    auto* const inPlace = new (static_cast<void*>(place)) ZoEventMessageDispatcher;
    auto* const several = new Listener(Ignore, [&] { ++deleted; });
    for (unsigned long type = 0; type < 13; ++type) {
        inPlace->RegisterListener(1, 0x10000 + type, several);
    }
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

TEST(Dispatcher, KeepsFamilies) {
    ZoEventMessageDispatcher dispatcher;
    EXPECT_EQ(dispatcher.GetEventFamilyName(0x10009), nullptr);
    EXPECT_STREQ(dispatcher.GetEventFamilyName(0x1000A), "recoveryFile");
    EXPECT_EQ(dispatcher.AddFamilyRegistration("verboseMode", 5), 0);
    EXPECT_EQ(dispatcher.AddFamilyRegistration("zero", 0), 0);
    char name[] = "myFamily";
    std::pair<char const*, unsigned long> const table[] = {
        {"verboseMode", 0x100}, {"debugThread", 0x900}, {"baseScan", 0x10010}, {name, 0x20000},
        {"MyFamily", 0x20001},  {"zero", 0x20002},      {"zero", 0x20002},
    };
    for (auto const& [family, id] : table) {
        EXPECT_EQ(dispatcher.GetEventFamilyId(family), id) << family;
    }
    name[0] = 'x';
    EXPECT_STREQ(dispatcher.GetEventFamilyName(0x20000), "myFamily");
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
    EXPECT_TRUE(IsCancelled([&] {
        pthread_cancel(pthread_self());
        { ZoFtransLogEvent().Print("y\n", 2); }
        log += "still here";
        pthread_testcancel();
    }));
    EXPECT_TRUE(IsCancelled([&] {
        pthread_cancel(pthread_self());
        Send(1, 0xB00, 0, "z");
    }));
    Send(1, 0xB00, 0, "free");
    EXPECT_EQ(log, "x\ny\nstill herezfree");
    delete ZoEventMessageDispatcher::SetDispatcher(nullptr);
    ZoFtransLogEvent lost;
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
    std::set<unsigned long> const damage{0x10005, 0x10006, 0x10007, 0x1000E, 0x1000F, 0x10012};
    for (unsigned long type = 0x100; type < 0x20000; type += type < 0x10000 ? 0x100 : 1) {
        bool const debugArea = type >= 0x400 && type <= 0xA00;
        ASSERT_EQ(Dispatcher().TypeRequested(1, type), debugArea || damage.count(type) != 0);
        ASSERT_EQ(Dispatcher().TypeRequested(8, type), debugArea);
    }
    // New switches are configured anew, once.
    diagnostics.services.Configure("mode", 0x800000);
    delete Debugger(new smp_debug(-1));
    EXPECT_EQ(Debugger(nullptr)->current, 0x800000U);
    EXPECT_EQ(GetDebugger()->saved, 0x800000U);
    EXPECT_EQ(diagnostics.Printed(), "DEBUG LEVEL --> 0x800000\n");
    EXPECT_EQ(diagnostics.services.Reads("mode"), 2);
    Send(1, 0x10005, -2005, "told by both listeners");
    Send(8, 0xA05, 12, "odd");
    EXPECT_EQ(diagnostics.Printed(),
              "Error: -2005 told by both listeners\nError: -2005 told by both listeners\n"
              "Warning: 12 odd\nWarning: 12 odd\n");
}

// The listener alone waits for a dispatcher, and is registered with it once.
TEST(DebugSwitches, ComeWithoutADispatcher) {
    Diagnostics diagnostics;
    diagnostics.services.Configure("mode", 0x100);
    ZoEventMessageDispatcher* const dispatcher = ZoEventMessageDispatcher::SetDispatcher(nullptr);
    for (int twice = 0; twice < 2; ++twice) EXPECT_EQ(GetDebugger()->current, 0x100U);
    EXPECT_EQ(diagnostics.Printed(), "DEBUG LEVEL --> 0x100\n");
    ZoEventMessageDispatcher::SetDispatcher(dispatcher);
    for (int twice = 0; twice < 2; ++twice) Trace(TraceArea::ThreadSteps, "once");
    EXPECT_EQ(diagnostics.Printed(), "once\n\nonce\n\n");
    EXPECT_EQ(diagnostics.services.Reads("mode"), 1);
}

TEST(DebugSwitches, TraceOnlyWhileTheirBitIsSet) {
    Trace(TraceArea::ThreadMethods, "no debugger");
    Diagnostics diagnostics;
    diagnostics.services.Configure("mode", static_cast<int>(0x80800000));
    smp_debug& switches = *GetDebugger();
    diagnostics.Printed();
    ZoEventMessageDispatcher* const dispatcher = ZoEventMessageDispatcher::SetDispatcher(nullptr);
    Trace(TraceArea::ThreadMethods, "no dispatcher");
    ZoEventMessageDispatcher::SetDispatcher(dispatcher);
    Trace(TraceArea::ThreadSteps, "off");
    Trace(TraceArea::ThreadMethods, "ZoThread::Work ", static_cast<void*>(&diagnostics));
    switches.Disable();
    Trace(TraceArea::ThreadMethods, "disabled");
    switches.Enable();
    Trace(TraceArea::ThreadMethods, "on");
    EXPECT_EQ(diagnostics.Printed(), "ZoThread::Work " + Pointer(&diagnostics) + "\n\non\n\n");
    switches.Disable();
    switches.Disable();  // forgets the flags
    switches.Enable();
    EXPECT_EQ(switches.current, 0U);
}

TEST(DebugSwitches, AreConfiguredByOneThreadAlone) {
    for (int round = 0; round < 100; ++round) {
        Diagnostics diagnostics;
        diagnostics.services.Configure("mode", 0x100);
        OnThreads(4, [](int) { EXPECT_EQ(GetDebugger(), smp_debugger); });
        Trace(TraceArea::ThreadSteps, "once");
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
    OnThreads(Threads, [&](int thread) {
        unsigned long const type = 0x30000 + static_cast<unsigned long>(thread);
        Dispatcher().RegisterListener(1, type, new Listener([&](ZoEvent const*) { ++calls; }));
        for (int round = 0; round < Rounds; ++round) {
            Send(1, type);
            Dispatcher().TypeRequested(1, type + 1);
            Dispatcher().GetEventFamilyId(round % 2 == 0 ? "even" : "odd");
            GetDebugger()->Enable();
        }
    });
    EXPECT_EQ(calls, Threads * Rounds);
    EXPECT_EQ(Dispatcher().GetEventFamilyName(0x20002), nullptr);
}

}  // namespace

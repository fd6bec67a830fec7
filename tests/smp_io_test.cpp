// The console stream, its switch, and the sleeping functions.

#include "smp_io.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <cfloat>
#include <chrono>

#include "services.h"
#include "zosleep.h"

using namespace zotest;

namespace {

// Writes of several threads do not mix, since each piece is one.
TEST(Console, ReplacementTakesEveryKindOfValueInOneWrite) {
    class PieceSink : public TextSink {
    public:
        using TextSink::writeOutput;
        void writeOutput(char const* piece, int length) override {
            TextSink::writeOutput(piece, length);
            text += "|";
        }
    };
    Context context(false);
    smp_io console;
    smp_io* const first = GetConsole();
    EXPECT_EQ(Console(&console), first);
    EXPECT_EQ(Console(nullptr), &console);
    EXPECT_EQ(Console(first), &console);
    EXPECT_EQ(GetConsole(), first);
    delete console.sink;
    auto* const sink = new PieceSink;
    console.sink = sink;
    std::string const kinds = WriteEveryKind(console, "|");
    EXPECT_EQ(console.Print("abcdef", 3), 3);
    EXPECT_EQ(sink->text, kinds + "abc|");
    EXPECT_EQ(sink->flushes, 0);
    sink->text.clear();
    console << -DBL_MAX << endl;
    EXPECT_EQ(sink->text.size(), 1U + 309U + 7U + 1U + 2U);
    EXPECT_EQ(sink->flushes, 1);
    EXPECT_EQ(&console.flush(console).flush(), &console);
    EXPECT_EQ(sink->flushes, 3);
}

TEST(Console, WritesToStandardErrorWhileItIsSwitchedOn) {
    Services services;
    ___ZoExtendedContext(1);
    auto written = [] {
        testing::internal::CaptureStderr();
        *GetConsole() << "a%s" << 1 << endl;
        // The base sink has no way to print strings of the engine's type.
        *GetConsole() << reinterpret_cast<ZoString const&>(*"text");
        GetConsole()->flush();
        return testing::internal::GetCapturedStderr();
    };
    std::string const on = "a%s1\nERROR: writeOutput(ZoString) not implemented";
    _Configure_smp_io();
    EXPECT_EQ(written(), "");
    services.Configure("ZOVAConsole", 1);
    EXPECT_EQ(written(), "") << "the switch is read once";
    _Configure_smp_io();
    EXPECT_EQ(written(), on);
    services.Configure("ZOVAConsole", 0xF000);  // this value means that it is to be read again
    _Configure_smp_io();
    int const before = services.Reads("ZOVAConsole");
    EXPECT_EQ(written(), on);
    EXPECT_GT(services.Reads("ZOVAConsole"), before);
    services.Configure("ZOVAConsole", 0);
    _Configure_smp_io();
    EXPECT_EQ(written(), "");
    ___ZoExtendedContext(0);
}

// A configuration that writes to the console while it is asked for the switch, or asks for it,
// finds it off. To other threads it stays as it was.
TEST(Console, MayBeUsedByTheConfigurationItself) {
    class Talking : public ZoConfig {
    public:
        int ReadValue(char const*, int* out, char const* const*) override {
            *GetConsole() << "asked";
            _Configure_smp_io();
            std::thread([] { *GetConsole() << "told"; }).join();
            *out = 1;
            return 0;
        }
    } talking;
    _Configure_smp_io();  // off from here on; each thread that finds it unread asks by itself
    ZoConfig* const previous = ZoSetDefaultConfig(&talking);
    smp_io console;
    smp_io* const first = Console(&console);
    for (char const* const words : {"", "told"}) {
        testing::internal::CaptureStderr();
        _Configure_smp_io();
        EXPECT_EQ(testing::internal::GetCapturedStderr(), words);
    }
    Console(first);
    ZoSetDefaultConfig(previous);
    _Configure_smp_io();
}

TEST(Sleeping, ReturnsWhatTheSystemSays) {
    EXPECT_EQ(ZoThreadSwitch(), 0);
    EXPECT_EQ(ZoYieldProcessor(), 0);
    EXPECT_EQ(SysSleep(0), 0);
    auto const start = std::chrono::steady_clock::now();
    EXPECT_EQ(ZoThreadSwitchWithDelay(1050), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1050));
    EXPECT_EQ(ZoThreadSwitchWithDelay(-1), -1);
    EXPECT_EQ(ZoThreadSwitchWithDelay(-1500), -1);
    EXPECT_EQ(ZoSleep(0), 0);
}

}  // namespace

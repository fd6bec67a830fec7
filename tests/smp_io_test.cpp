// The console stream, its switch, and the sleeping functions.

#include "smp_io.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <cfloat>
#include <chrono>
#include <string>

#include "services.h"
#include "zosleep.h"

using namespace zotest;

namespace {

TEST(Console, FormatsEveryKindOfValue) {
    Context context(false);
    smp_io& console = *GetConsole();
    int const marker = 0;
    console << 7 << ARROW << -1 << " " << static_cast<short>(-2) << " "
            << static_cast<unsigned short>(65535) << " " << 4000000000U << " " << -5L << " " << 6UL
            << " " << 1.5F << " " << 0.1 << " " << 'c' << '%' << " 100%d " << UNKNOWN_ERROR;
    console << const_cast<int*>(&marker);
    EXPECT_EQ(console.Print("abcdef", 3), 3);
    EXPECT_EQ(context.console->text,
              "7 --> -1 -2 65535 4000000000 -5 6 1.500000 0.100000 c% 100%d unknown error" +
                  Pointer(&marker) + "abc");
    EXPECT_EQ(context.console->flushes, 0);
    context.console->text.clear();
    console << -DBL_MAX << endl;
    EXPECT_EQ(context.console->text.size(), 1U + 309U + 7U + 1U);
    EXPECT_EQ(context.console->flushes, 1);
    EXPECT_EQ(&console.flush(console).flush(), &console);
    EXPECT_EQ(context.console->flushes, 3);
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

TEST(Console, CanBeReplaced) {
    Context context(false);
    smp_io* const first = GetConsole();
    smp_io other;
    EXPECT_EQ(Console(nullptr), first);
    EXPECT_EQ(Console(&other), first);
    EXPECT_EQ(GetConsole(), &other);
    EXPECT_EQ(Console(first), &other);
}

TEST(Console, PiecesOfSeveralThreadsDoNotMix) {
    Context context(false);
    OnThreads(3, [](int thread) {
        std::string const piece = std::string(7, static_cast<char>('a' + thread)) + "\n";
        for (int i = 0; i < 300; ++i) *GetConsole() << piece.c_str();
    });
    std::string const& text = context.console->text;
    ASSERT_EQ(text.size(), 3U * 300U * 8U);
    for (std::size_t at = 0; at < text.size(); at += 8) {
        ASSERT_EQ(text.substr(at, 8), std::string(7, text[at]) + "\n");
    }
}

// A configuration that writes to the console while it is asked for the switch finds it off.
TEST(Console, MayBeUsedByTheConfigurationItself) {
    class Talking : public ZoConfig {
    public:
        int ReadValue(char const*, int* out, char const* const*) override {
            *GetConsole() << ++asked;
            *out = 1;
            return 0;
        }
        int asked = 0;
    } talking;
    ZoConfig* const previous = ZoSetDefaultConfig(&talking);
    ___ZoExtendedContext(1);
    testing::internal::CaptureStderr();
    _Configure_smp_io();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(talking.asked, 1);
    ___ZoExtendedContext(0);
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

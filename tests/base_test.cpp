// The stand-in base library. Its configuration is read once a process, so what depends on the
// configuration or prints runs in a child process whose standard error is caught.

#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "services.h"
#include "zobase.h"
#include "zobaseservices.h"
#include "zolist.h"
#include "zorawbuf.h"

namespace {

bool useServicesAfterMain = false;

void UseServices(int, void*) {
    if (!useServicesAfterMain) return;
    ZoSystemLog()->Printf(4, "late entry");
    ZoMessage()->Show(0, ZoStyleNotice, "late message");
    ZOVA_assert("late", "src/late", 1);
}

// What is registered before any library is initialised runs after all of them are finished.
void RunLast() {
    on_exit(UseServices, nullptr);
}
[[gnu::section(".preinit_array"), gnu::used]] void (*const runLast)() = RunLast;

class Base : public testing::Test {
protected:
    Base() {
        char name[] = "/tmp/zobaseXXXXXX";
        directory = mkdtemp(name);
    }
    ~Base() override { std::filesystem::remove_all(directory); }

    void Write(char const* name, std::string const& text) const {
        std::ofstream(directory + name, std::ios::binary) << text;
    }

    // The times of log entries are written as "@".
    std::string Read(char const* name) const {
        std::ostringstream text;
        text << std::ifstream(directory + name, std::ios::binary).rdbuf();
        static std::regex const time(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)");
        return std::regex_replace(text.str(), time, "@");
    }

    // What `body` prints in a child that sits in the directory, with nothing configured but
    // zova.ini, and that ends with exit(0) or by `signal`.
    template <class Body>
    std::string Printed(Body body, int signal = 0) const {
        fflush(nullptr);
        pid_t const child = fork();
        if (child == 0) {
            unsetenv("ZOVA_CONFIG");
            unsetenv("ZOVA_ASSERT");
            if (chdir(directory.c_str()) != 0 || freopen("stderr", "w", stderr) == nullptr) abort();
            body();
            exit(0);  // with static destructors and, where there is one, the leak check
        }
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_EQ(WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status), signal);
        return Read("/stderr");
    }

    std::string directory;
};

using Names = std::vector<char const*>;

// The values of `keys`, "-" where one is missing.
void PrintValues(Names path, Names const& keys) {
    path.push_back(nullptr);
    for (char const* key : keys) {
        int value = 0;
        bool const found = ZoDefaultConfiguration()->ReadValue(key, &value, path.data()) == 0;
        dprintf(2, "%s ", found ? std::to_string(value).c_str() : "-");
    }
}

TEST_F(Base, ConfigurationFile) {
    std::string const notANumber = "the value is not a number of 32 bits";
    std::pair<std::string, std::string> const lines[] = {
        {"\xEF\xBB\xBF"
         "top = 1\r",
         ""},
        {" \t ; comment", ""},
        {"a = -007", ""},
        {"b = 2147483647;most", ""},
        {"c = -2147483648", ""},
        {"d = 0XfF", ""},
        {"e = 0xFFFFFFFF", ""},
        {"f = 2147483648", notANumber},
        {"f = -2147483649", notANumber},
        {"f = 0x100000000", notANumber},
        {"f = 99999999999999999999999999", notANumber},
        {"f = 0x", notANumber},
        {"f = 5 6", notANumber},
        {"f = ", notANumber},
        {"[debug]\r", ""},
        {"csSleepTime=50", ""},
        {"\tmode\t=\t0xF0000000 # flags\r", ""},
        {"two words = 5", "the key is not one word"},
        {"lonely", "neither [section] nor key = value"},
        {"[unended", "the section has no ]"},
        {"[a b]", "the section is not one word"},
        {"[other] = 5", "something follows the section"},
        {"still = 7", ""},
        {"[ deeper.still ] ; comment", ""},
        {"deep = 2", ""},
        {"[debug]", ""},
        {"csSleepTime = 60", ""},
        {"csSleepTime = 6O", notANumber},
        {"[base]", ""},
        {"log = ; nowhere", "the value is not a path"},
        {std::string(100'000, ' ') + "far = 8" + std::string(100'000, ' '), ""},
        {"last = 9", ""},
    };
    std::string file;
    std::string expected;
    int number = 0;
    for (auto const& [line, complaint] : lines) {
        file += (number == 0 ? "" : "\n") + line;
        ++number;
        if (complaint.empty()) continue;
        expected += "zova.ini:" + std::to_string(number) + ": line ignored: " + complaint + "\n";
    }
    expected += "1 -7 2147483647 -2147483648 255 -1 - 60 -268435456 7 - 2 2 - - 8 9 ";
    Write("/zova.ini", file);
    EXPECT_EQ(expected, Printed([] {
                  PrintValues({}, {"top", "a", "b", "c", "d", "e", "f"});
                  PrintValues({"debug"}, {"csSleepTime", "mode", "still", "Mode"});
                  PrintValues({"deeper", "still"}, {"deep"});
                  PrintValues({"deeper.still"}, {"deep"});
                  PrintValues({"deeper"}, {"deep"});
                  PrintValues({"deeper", "still", "more"}, {"deep"});
                  PrintValues({"base"}, {"far", "last"});
              }));
}

TEST_F(Base, ConfigurationFileOfTheEnvironment) {
    Write("/mine.ini", "k = 2");
    std::string const cannot = ": cannot read the configuration: ";
    std::pair<char const*, std::string> const cases[] = {
        {"", ""},  // the one of the directory, which need not be there
        {"mine.ini", "2 "},
        {"none.ini", "none.ini" + cannot + "No such file or directory\n"},
        {"/dev/zero", "/dev/zero" + cannot + "File too large\n"},
    };
    for (auto const& [named, printed] : cases) {
        EXPECT_EQ(printed, Printed([named = named] {
                      setenv("ZOVA_CONFIG", named, 1);
                      if (ZoDefaultConfiguration() != nullptr) PrintValues({}, {"k"});
                  }));
    }
}

// The threads also come to the first use of the log and of the configuration together.
TEST_F(Base, LogEntriesOfThreadsAndProcessesDoNotMix) {
    constexpr int Threads = 4;
    constexpr int Entries = 50;
    std::string const complaint = "zova.ini:1: line ignored: neither [section] nor key = value\n";
    Write("/zova.ini", "wrong\n[base]\nlog = the;log # shared\n");
    std::string const filler(1500, '.');  // more than the log formats without allocating
    EXPECT_EQ(complaint + complaint, Printed([&filler] {
                  pid_t const second = fork();
                  std::vector<std::thread> threads;
                  for (int t = 0; t < Threads; ++t) {
                      threads.emplace_back([=, &filler] {
                          for (int i = 0; i < Entries; ++i) {
                              ZoSystemLog()->Printf(i % 5, "%d/%d/%d\n%s\r\n\n", second == 0, t, i,
                                                    i % 2 == 0 ? "short" : filler.c_str());
                          }
                      });
                  }
                  for (std::thread& thread : threads) thread.join();
                  if (second != 0) waitpid(second, nullptr, 0);
              }));

    std::istringstream log(Read("/the;log"));
    int next[2][Threads] = {};
    int lines = 0;
    for (std::string line; std::getline(log, line); ++lines) {
        int process = 0;
        int thread = 0;
        ASSERT_EQ(sscanf(line.c_str(), "@ %*d %d/%d", &process, &thread), 2) << line;
        int const i = next[process][thread]++;
        std::ostringstream expected;
        expected << "@ " << i % 5 << ' ' << process << '/' << thread << '/' << i << "\\n"
                 << (i % 2 == 0 ? "short" : filler);
        EXPECT_EQ(line, expected.str());
    }
    EXPECT_EQ(lines, 2 * Threads * Entries);
}

TEST_F(Base, MessagesAndAssertions) {
    Write("/zova.ini", "[base]\nanswer = 0x80000000\n");
    auto const speak = [] {
        dprintf(2, "%x\n", ZoMessage()->Show(0, ZoStyleQuestion, "%s\n(CANCEL)", "Deadlock."));
        ZOVA_assert("(0 && \"x\")", "src/zocrits", 365);
        dprintf(2, "%lu\n", ZoAssertCount());
    };
    std::string const untilAssertion =
        "Deadlock.\n(CANCEL)\n80000000\nsrc/zocrits:365: assertion failed: (0 && \"x\")\n";
    EXPECT_EQ(Printed(speak), untilAssertion + "1\n");

    auto const speakAndAbort = [&] {
        setenv("ZOVA_ASSERT", "abort", 1);
        speak();
    };
    // An emulator of a 32-bit machine adds a line of its own.
    EXPECT_EQ(Printed(speakAndAbort, SIGABRT).substr(0, untilAssertion.size()), untilAssertion);
}

TEST_F(Base, ReportingIsNoCancellationPointAndKeepsErrno) {
    Write("/zova.ini", "[base]\nlog = no/such/log\nwrong\n");
    auto const report = [](void*) -> void* {
        pthread_cancel(pthread_self());
        errno = EDOM;
        ZOVA_assert("0", "src/zothread", 228);
        ZoMessage()->Show(0, ZoStyleNotice, "message");
        ZoSystemLog()->Printf(4, "kept %d", errno == EDOM);
        ZoSystemLog()->Printf(4, "kept %d", errno == EDOM);
        pthread_testcancel();
        return nullptr;
    };
    EXPECT_EQ(
        Printed([report] {
            pthread_t thread{};
            pthread_create(&thread, nullptr, report, nullptr);
            void* end = nullptr;
            pthread_join(thread, &end);
            dprintf(2, "%d", end == PTHREAD_CANCELED);
        }),
        "src/zothread:228: assertion failed: 0\nmessage\n"
        "zova.ini:3: line ignored: neither [section] nor key = value\n"
        "no/such/log: cannot open the log: No such file or directory; logging to standard error\n"
        "@ 4 kept 1\n@ 4 kept 1\n1");
}

TEST_F(Base, ServicesWorkAfterStaticObjectsAreGone) {
    Write("/zova.ini", "[base]\nanswer = 1\n");
    EXPECT_EQ(Printed([] { useServicesAfterMain = true; }),
              "@ 4 late entry\nlate message\nsrc/late:1: assertion failed: late\n");
}

TEST(BaseServices, ASetterReturnsWhatWasInForceAndNullRestores) {
    ZoLog* const log = ZoSystemLog();
    ZoMessageService* const messages = ZoMessage();
    ZoAssertHandler const handler = ZoSetAssertHandler(nullptr);
    zotest::Services services;
    EXPECT_NE(ZoSetDefaultConfig(nullptr), nullptr);
    EXPECT_NE(ZoSetSystemLog(nullptr), log);
    EXPECT_EQ(ZoSystemLog(), log);
    EXPECT_NE(ZoSetMessageService(nullptr), messages);
    EXPECT_EQ(ZoMessage(), messages);
    EXPECT_NE(ZoSetAssertHandler(nullptr), handler);
    EXPECT_EQ(ZoSetAssertHandler(nullptr), handler);

    ZoSetVersionCheck([](unsigned long major, unsigned long, unsigned long, unsigned long,
                         unsigned long, int flags) { return static_cast<int>(major) + flags; });
    EXPECT_EQ(CheckZoVersionNumber(1, 2, 3, 4, 0, 3), 4);
    ZoSetVersionCheck(nullptr);
    EXPECT_EQ(CheckZoVersionNumber(1, 2, 3, 4, 0, 3), 0);
}

TEST(BaseLists, DoublyLinked) {
    static std::string deleted;
    struct Item final : ZoLinkedListItem {
        explicit Item(char name) : name(name) {}
        ~Item() override { deleted += name; }
        char name;
    };
    auto const order = [](ZoLinkedList const& list) {
        std::string forth;
        std::string back;
        for (auto* i = list.GetFirst(); i; i = i->GetNext()) forth += static_cast<Item*>(i)->name;
        for (auto* i = list.GetLast(); i; i = i->GetPrev()) back += static_cast<Item*>(i)->name;
        EXPECT_EQ(forth, std::string(back.rbegin(), back.rend()));
        return forth;
    };
    {
        ZoLinkedList list;
        auto* const only = new Item('o');
        list.InsertLast(only);
        EXPECT_EQ(list.RemoveFirst(), only);
        EXPECT_EQ(list.RemoveFirst(), nullptr);
        EXPECT_EQ(order(list), "");
        auto* const middle = new Item('m');
        auto* const last = new Item('z');
        list.InsertFirst(middle);
        list.InsertLast(last);
        list.InsertFirst(only);
        EXPECT_EQ(order(list), "omz");
        list.RemoveItem(middle);
        EXPECT_EQ(order(list), "oz");
        list.InsertLast(middle);
        list.DeleteItem(last);
        EXPECT_EQ(order(list), "om");
        EXPECT_EQ(deleted, "z");
    }
    EXPECT_EQ(deleted, "zom");
}

TEST(BaseLists, SinglyLinked) {
    struct Item : ZoSimpleLinkedListItem {};
    ZoSimpleLinkedList list;  // frees two of these; a leak checker watches
    auto* const a = new Item;
    auto* const b = new Item;
    auto* const c = new Item;
    for (Item* item : {a, b, c}) list.InsertFirst(item);
    for (int i = 0; i < 2; ++i) list.RemoveItem(b);  // the second time it is not there
    EXPECT_EQ(list.GetFirst(), c);
    EXPECT_EQ(c->GetNext(), a);
    list.RemoveItem(c);
    EXPECT_EQ(list.GetFirst(), a);
    list.InsertFirst(b);
    delete c;
}

TEST(BaseRawBuffer, GivenAndOwned) {
    char memory[16];
    ZoRawBuffer given(memory, sizeof memory, ZoRawBufferUseGiven);
    EXPECT_EQ(given.EnsureCapacity(16), 0);
    EXPECT_EQ(given.EnsureCapacity(17), -2016);
    EXPECT_EQ(given.GetBuf(), memory);
    EXPECT_EQ(given.GetBufLen(), 16U);

    ZoRawBuffer owned(nullptr, 16, ZoRawBufferOwnAndGrow);
    ASSERT_EQ(owned.GetBufLen(), 16U);
    static_cast<char*>(owned.GetBuf())[15] = 'x';
    EXPECT_EQ(owned.EnsureCapacity(100'000), 0);
    EXPECT_EQ(owned.EnsureCapacity(1), 0);
    EXPECT_GE(owned.GetBufLen(), 100'000U);
    EXPECT_EQ(static_cast<char*>(owned.GetBuf())[15], 'x');
}

}  // namespace

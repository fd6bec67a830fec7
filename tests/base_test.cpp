// The stand-in base library. Its configuration is read once a process, so what depends on the
// configuration or prints runs in a child process whose standard error is caught.

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <deque>
#include <random>
#include <sstream>

#include "cancelled.h"
#include "services.h"
#include "zobase.h"
#include "zobaseservices.h"
#include "zolist.h"

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

// `text` with the time that begins a log entry written as "@".
std::string Undated(std::string const& text) {
    std::istringstream lines(text);
    std::string result;
    for (std::string line; std::getline(lines, line);) {
        int end = 0;
        sscanf(line.c_str(), "%*4d-%*2d-%*2dT%*2d:%*2d:%*2d.%*3dZ%n", &end);
        if (end == 24) line.replace(0, 24, "@");
        result += line;
        if (!lines.eof()) result += '\n';
    }
    return result;
}

class Base : public testing::Test {
protected:
    void WriteConfig(std::string const& text) const {
        std::ofstream(directory + "/zova.ini", std::ios::binary) << text;
    }

    // What `body` prints in a child that sits in the directory, with nothing configured but
    // zova.ini, and ends well or by the signal.
    template <class Body>
    std::string Printed(Body body, int signal = 0) const {
        std::string const caught = directory + "/stderr";
        fflush(nullptr);
        pid_t const child = fork();
        if (child == 0) {
            int const to = open(caught.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600);
            dup2(to, STDERR_FILENO);
            close(to);
            unsetenv("ZOVA_CONFIG");
            unsetenv("ZOVA_ASSERT");
            if (chdir(directory.c_str()) != 0) abort();
            body();
            exit(0);  // with static destructors and, where there is one, the leak check
        }
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_EQ(status & ~WCOREFLAG, signal);
        return Undated(zotest::Contents(caught));
    }

    zotest::Folder const folder;
    std::string const directory = folder.path;
};

// The value of "section/section/key"; "-" where there is none.
std::string Lookup(std::string const& path) {
    std::istringstream parts(path);
    std::vector<std::string> names;
    for (std::string name; std::getline(parts, name, '/');) names.push_back(name);
    std::vector<char const*> sections;
    for (std::string const& name : names) sections.push_back(name.c_str());
    sections.back() = nullptr;
    int value = 4711;
    int const result =
        ZoDefaultConfiguration()->ReadValue(names.back().c_str(), &value, sections.data());
    if (result != 0) return value == 4711 ? "-" : "?";
    return std::to_string(value);
}

std::string Remark(int line, std::string const& text) {
    return "zova.ini:" + std::to_string(line) + ": " + text + "\n";
}
std::string Complaint(int line, std::string const& wrong) {
    return Remark(line, "line ignored: " + wrong);
}

// Writes the escapes of configuration.txt out.
std::string Written(std::string const& text) {
    std::string bytes;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\') {
            bytes += static_cast<char>(std::stoi(text.substr(i + 2, 2), nullptr, 16));
            i += 3;
        } else {
            bytes += text[i] == '@' ? std::string(100'000, ' ') : std::string(1, text[i]);
        }
    }
    return bytes;
}

// The lines of configuration.txt, and look-ups of what stands in several sections.
TEST_F(Base, ConfigurationLines) {
    std::ifstream cases(ZO_TESTS "/configuration.txt");
    std::string file, told, values;
    std::vector<std::string> paths;
    int number = -2;  // that of the last line; two lines are the head
    for (std::string one; std::getline(cases, one);) {
        if (++number <= 0) continue;
        std::size_t const arrow = one.find(" => ");
        std::string const line = Written(one.substr(0, arrow)), result = one.substr(arrow + 4);
        file += (number == 1 ? "" : "\n") + line;
        bool const isValue = result.find_first_not_of("-0123456789") == result.npos;
        if (!isValue) {
            told +=
                result.starts_with("unknown") ? Remark(number, result) : Complaint(number, result);
        }
        if (line[0] != 'k' || std::isdigit(line[1]) == 0) continue;
        paths.push_back("n/" + line.substr(0, line.find(' ')));
        values += (isValue ? result : "-") + " ";
    }
    for (auto const& [path, value] :
         std::map<std::string, std::string>{{"top", "1"},
                                            {"debug/csSleepTime", "60"},
                                            {"debug/mode", "-268435456"},
                                            {"debug/still", "7"},
                                            {"deeper/still/\xC3\xA4", "2"},
                                            {"deeper.still/\xC3\xA4", "2"},
                                            {"base/far", "8"},
                                            {"base/last", "9"},
                                            {"deeper/\xC3\xA4", "-"},
                                            {"deeper/still/more/\xC3\xA4", "-"},
                                            {"deep/r.still/\xC3\xA4", "-"},
                                            {"Debug/mode", "-"},
                                            {"debug/Mode", "-"}}) {
        paths.push_back(path);
        values += value + " ";
    }
    WriteConfig(file);
    EXPECT_EQ(told + values, Printed([&] {
                  for (std::string const& path : paths) dprintf(2, "%s ", Lookup(path).c_str());
              }));
}

// The first use comes from several threads at once.
TEST_F(Base, ConfigurationFile) {
    auto const printedBy = [this](char const* named) {
        return Printed([named] {
            if (named != nullptr) setenv("ZOVA_CONFIG", named, 1);
            zotest::OnThreads(8, [](int) { ZoDefaultConfiguration(); });
            if (ZoDefaultConfiguration() != nullptr)
                dprintf(2, "%s", Lookup("base/answer").c_str());
        });
    };
    std::string const cannot = ": cannot read the configuration: ";
    EXPECT_EQ(printedBy(nullptr), "");
    std::filesystem::create_directory(directory + "/zova.ini");
    EXPECT_EQ(printedBy(nullptr), "zova.ini" + cannot + "Is a directory\n");
    std::filesystem::remove(directory + "/zova.ini");
    EXPECT_EQ(printedBy("none.ini"), "none.ini" + cannot + "No such file or directory\n");
    EXPECT_EQ(printedBy("."), "." + cannot + "Is a directory\n");
    EXPECT_EQ(printedBy("/dev/zero"), "/dev/zero" + cannot + "File too large\n");
    WriteConfig("[base]\nanswer = 1\nwrong\n");
    std::ofstream(directory + "/mine.ini") << "[base]\nanswer = 2";
    EXPECT_EQ(printedBy(""), Complaint(3, "neither [section] nor key = value") + "1");
    EXPECT_EQ(printedBy("mine.ini"), "2");
}

TEST_F(Base, LogEntriesOfThreadsAndProcessesDoNotMix) {
    constexpr int Threads = 4;
    constexpr int Entries = 50;
    WriteConfig("[base]\nlog = the;log # shared\n");
    std::string const filler(1500, '.');  // more than the log formats without allocating
    auto const logMany = [&filler](int process) {
        zotest::OnThreads(Threads, [=, &filler](int thread) {
            for (int i = 0; i < Entries; ++i) {
                ZoSystemLog()->Printf(i % 5, "%d/%d/%d\n%s\r\n\n", process, thread, i,
                                      i % 2 == 0 ? "short" : filler.c_str());
            }
        });
    };
    EXPECT_EQ(Printed([&] {
                  pid_t const second = fork();
                  logMany(second == 0 ? 2 : 1);
                  if (second != 0) waitpid(second, nullptr, 0);
              }),
              "");

    std::istringstream log(Undated(zotest::Contents(directory + "/the;log")));
    int next[3][Threads] = {};
    int lines = 0;
    for (std::string line; std::getline(log, line); ++lines) {
        int level = 0, process = 0, thread = 0, i = 0;
        ASSERT_EQ(sscanf(line.c_str(), "@ %d %d/%d/%d", &level, &process, &thread, &i), 4) << line;
        EXPECT_EQ(i, next[process][thread]++);
        EXPECT_EQ(level, i % 5);
        EXPECT_EQ(line.substr(line.find('\\')), "\\n" + (i % 2 == 0 ? "short" : filler));
    }
    EXPECT_EQ(lines, 2 * Threads * Entries);
}

// Writes to a datagram socket arrive one by one.
TEST_F(Base, EachReportIsOneWrite) {
    EXPECT_EQ(Printed([] {
                  int sockets[2];
                  int const standardError = dup(STDERR_FILENO);
                  if (socketpair(AF_UNIX, SOCK_DGRAM, 0, sockets) != 0) abort();
                  dup2(sockets[0], STDERR_FILENO);
                  std::string const filler(3000, '.');
                  ZoSystemLog()->Printf(4, "two\n%s", filler.c_str());
                  ZoMessage()->Show(0, ZoStyleNotice, "two\n%s", filler.c_str());
                  ZOVA_assert(filler.c_str(), "file", 1);
                  char packet[4000];
                  while (recv(sockets[1], packet, sizeof packet, MSG_DONTWAIT) > 3000) {
                      dprintf(standardError, "whole ");
                  }
              }),
              "whole whole whole ");
}

TEST_F(Base, MessagesAndAssertions) {
    WriteConfig("[base]\nanswer = 0x80000000\n");
    auto const speak = [] {
        unsigned int const answer =
            ZoMessage()->Show(0, ZoStyleQuestion, "%s\n(CANCEL to debug)", "Deadlock detected.");
        dprintf(2, "%x\n", answer);
        ZOVA_assert("(0 && \"x\")", "src/zocrits", 365);
        dprintf(2, "%lu\n", ZoAssertCount());
    };
    std::string const untilAssertion =
        "Deadlock detected.\n(CANCEL to debug)\n80000000\n"
        "src/zocrits:365: assertion failed: (0 && \"x\")\n";
    EXPECT_EQ(Printed(speak), untilAssertion + "1\n");

    auto const speakAndAbort = [&] {
        setenv("ZOVA_ASSERT", "abort", 1);
        speak();
    };
    EXPECT_EQ(Printed(speakAndAbort, SIGABRT), untilAssertion);

    std::filesystem::remove(directory + "/zova.ini");
    EXPECT_EQ(Printed([] { dprintf(2, "%x", ZoMessage()->Show(0, ZoStyleNotice, "told\n\n")); }),
              "told\n0");
}

TEST_F(Base, ReportingIsNoCancellationPointAndKeepsErrno) {
    WriteConfig("[base]\nlog = no/such/log\nwrong\n");
    EXPECT_EQ(
        Printed([] {
            bool const cancelled = zotest::IsCancelled([] {
                pthread_cancel(pthread_self());
                setenv("TZ", "no/such/zone", 1);  // read for the first entry's time
                errno = EDOM;
                ZOVA_assert("0", "src/zothread", 228);
                ZoMessage()->Show(0, ZoStyleNotice, "message");
                ZoSystemLog()->Printf(4, "kept %d", errno == EDOM);
                ZoSystemLog()->Printf(3, "%s", errno == EDOM ? "" : "lost");
                pthread_testcancel();
            });
            dprintf(2, "%d", cancelled);
        }),
        "src/zothread:228: assertion failed: 0\nmessage\n"
        "zova.ini:3: line ignored: neither [section] nor key = value\n"
        "no/such/log: cannot open the log: No such file or directory; logging to standard error\n"
        "@ 4 kept 1\n@ 3 \n1");
}

TEST_F(Base, ServicesWorkAfterStaticObjectsAreGone) {
    WriteConfig("[base]\nanswer = 1\n");
    EXPECT_EQ(Printed([] { useServicesAfterMain = true; }),
              "@ 4 late entry\nlate message\nsrc/late:1: assertion failed: late\n");
}

TEST(BaseServices, AreReplacedAndNullRestoresTheOwn) {
    ZoLog* const log = ZoSystemLog();
    ZoMessageService* const messages = ZoMessage();
    unsigned long const before = ZoAssertCount();
    ZoAssertHandler const handler = ZoSetAssertHandler(nullptr);
    zotest::Services services;  // takes the place of each
    EXPECT_NE(ZoSystemLog(), log);
    EXPECT_NE(ZoMessage(), messages);
    EXPECT_NE(ZoDefaultConfiguration(), nullptr);
    ZOVA_assert("0", "src/x", 8);
    EXPECT_EQ(services.Assertions(), zotest::Services::Lines{"0 src/x 8"});
    EXPECT_EQ(ZoAssertCount(), before + 1);

    EXPECT_NE(ZoSetSystemLog(nullptr), log);
    EXPECT_EQ(ZoSystemLog(), log);
    EXPECT_NE(ZoSetMessageService(nullptr), messages);
    EXPECT_EQ(ZoMessage(), messages);
    EXPECT_NE(ZoSetAssertHandler(nullptr), handler);
    EXPECT_EQ(ZoSetAssertHandler(nullptr), handler);
    EXPECT_NE(ZoSetDefaultConfig(nullptr), nullptr);
    EXPECT_EQ(ZoSetDefaultConfig(nullptr), nullptr);
    EXPECT_EQ(ZoDefaultConfiguration(), nullptr);
}

// Random changes of a list, after each of which it must hold what the model holds.
TEST(BaseLists, AgreeWithTheirModels) {
    static int alive;
    struct Item final : ZoLinkedListItem {
        Item() { ++alive; }
        ~Item() override { --alive; }
    };
    std::mt19937 random(1);
    for (int round = 0; round < 20; ++round) {
        ZoLinkedList list;
        std::deque<ZoLinkedListItem*> model, forth, back;
        for (int step = 0; step < 100; ++step) {
            auto const operation = random() % 5;
            ZoLinkedListItem* const item = operation < 2   ? new Item
                                           : model.empty() ? nullptr
                                                           : model[random() % model.size()];
            if (operation == 0) list.InsertFirst(item), model.push_front(item);
            if (operation == 1) list.InsertLast(item), model.push_back(item);
            if (operation == 2 && list.RemoveFirst() != nullptr) {
                delete model.front();
                model.pop_front();
            }
            if (operation >= 3 && item != nullptr) {
                if (operation == 3) list.DeleteItem(item);
                if (operation == 4) list.RemoveItem(item), list.InsertFirst(item);
                std::erase(model, item);
                if (operation == 4) model.push_front(item);
            }
            forth.clear(), back.clear();
            for (auto* i = list.GetFirst(); i != nullptr; i = i->GetNext()) forth.push_back(i);
            for (auto* i = list.GetLast(); i != nullptr; i = i->GetPrev()) back.push_front(i);
            ASSERT_TRUE(forth == model && back == model);
            ASSERT_EQ(alive, static_cast<int>(model.size()));
        }
    }
    EXPECT_EQ(alive, 0);

    ZoSimpleLinkedList list;  // frees what is left; a leak checker watches
    std::deque<ZoSimpleLinkedListItem*> model, found, items(5);
    for (auto& item : items) item = new ZoSimpleLinkedListItem;
    for (int step = 0; step < 1000; ++step) {
        auto* const item = items[random() % items.size()];
        if (std::erase(model, item) == 0 && step % 2 == 0) {
            list.InsertFirst(item), model.push_front(item);
        } else {
            list.RemoveItem(item);  // also one that is in no list
            EXPECT_EQ(item->GetNext(), nullptr);
        }
        found.clear();
        for (auto* i = list.GetFirst(); i != nullptr; i = i->GetNext()) found.push_back(i);
        ASSERT_EQ(found, model);
    }
    for (auto* item : items) {
        if (std::count(model.begin(), model.end(), item) == 0) delete item;
    }
}

}  // namespace

// zohost as its users meet it: a process with options, output, files and an exit status.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/prctl.h>

#include <algorithm>
#include <chrono>
#include <csignal>

#include "services.h"

namespace fs = std::filesystem;
using zotest::Contents;

namespace {

std::string const Capital = "0041;LATIN CAPITAL LETTER A;Lu;0;L;;;;;N;;;;0061;\n";
std::string const Small = "0061;LATIN SMALL LETTER A;Ll;0;L;;;;;N;;;0041;;0041\n";
std::string const TinyData = Capital + "0042;LATIN CAPITAL LETTER B;Lu;0;L;;;;;N;;;;0062;\n" +
                             Small +
                             "0031;DIGIT ONE;Nd;0;EN;;1;1;1;N;;;;;\n"
                             "3400;<CJK Ideograph Extension A, First>;Lo;0;L;;;;;N;;;;;\n"
                             "4DBF;<CJK Ideograph Extension A, Last>;Lo;0;L;;;;;N;;;;;\n"
                             "0032;DIGIT TWO;Nd;0;EN;;2;2;2;N;;;;;\n";

std::size_t Count(std::string const& text, std::string const& part) {
    std::size_t count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
    return count;
}

class HostTest : public testing::Test {
protected:
    HostTest() {
        fs::create_directory(folder / "tmp");
        Write("UnicodeData.txt", TinyData);
        setenv("TMPDIR", (folder / "tmp").c_str(), 1);
    }
    ~HostTest() override {
        sqlite3_close(kept);
        EXPECT_TRUE(fs::is_empty(folder / "tmp")) << "temporary files were left behind";
        for (char const* name : {"TMPDIR", "ZOVA_CONFIG"}) unsetenv(name);
    }

    void Write(char const* name, std::string const& text) const {
        std::ofstream(folder / name, std::ios::binary) << text;
    }

    // Starts it with `options`, in the folder.
    pid_t Start(std::string const& options) const {
        for (char const* name : {"out", "err"}) fs::remove(folder / name);
        std::string const command =
            "cd '" + folder.string() + "' && exec '" ZOHOST "' " + options + " >out 2>" + errorFile;
        pid_t const child = fork();
        if (child != 0) return child;
        // A run that hangs ends with a failure, and none outlives the test.
        alarm(60);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        _exit(126);
    }

    // The exit status; what was printed is in `out` and `err` then.
    int Finish(pid_t child) {
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        out = Contents(folder / "out");
        err = Contents(folder / "err");
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

    int Run(std::string const& options) { return Finish(Start(options)); }

    // What it says is one line on standard error and nothing else.
    void ExpectRefusal(std::string const& options, std::string const& text) {
        EXPECT_EQ(Run(options), 2) << text;
        EXPECT_EQ(Count(err, "\n"), 1U) << err;
        EXPECT_NE(err.find(text), std::string::npos) << err;
        EXPECT_EQ(out, "");
    }

    void ExpectSaid(std::string const& where, std::string const& text) const {
        EXPECT_NE(where.find(text), std::string::npos) << '"' << text << "\" is not in:\n" << where;
    }

    // Executes `sql` on the kept database, over one connection; the first number it yields, or -1.
    int Sql(char const* sql) {
        if (kept == nullptr) {
            sqlite3_open_v2((folder / "kept.db").c_str(), &kept, SQLITE_OPEN_READWRITE, nullptr);
            sqlite3_busy_timeout(kept, 60000);
        }
        int number = -1;
        auto const take = [](void* result, int, char** values, char**) {
            *static_cast<int*>(result) = std::atoi(values[0]);
            return 0;
        };
        sqlite3_exec(kept, sql, take, &number, nullptr);
        return number;
    }

    // Waits until `condition` holds or the child has ended.
    template <class Predicate>
    static void AwaitOf(pid_t child, Predicate condition) {
        siginfo_t ended{};
        auto const hasEnded = [&] {
            waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOHANG | WNOWAIT);
            return ended.si_pid != 0;
        };
        while (!hasEnded() && !condition()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    void AwaitText(pid_t child, char const* name, char const* text) const {
        AwaitOf(child, [&] { return Count(Contents(folder / name), text) != 0; });
    }

    // Starts a run that goes on until it is told to stop, and waits until it is at work.
    pid_t StartEndless(std::string const& level = "--level=9") {
        pid_t const child = Start("--data=. --database=kept.db --seconds=600 " + level);
        AwaitOf(child, [&] {
            return fs::exists(folder / "kept.db-shm") &&
                   Sql("SELECT count(*) FROM kind_Lu WHERE revision > 0") >= 1;
        });
        return child;
    }

    zotest::Folder const own;
    fs::path const folder = own.path;
    sqlite3* kept = nullptr;
    std::string errorFile = "err";
    std::string out;
    std::string err;
};

// So few records that clients meet at them all the time.
TEST_F(HostTest, WorksAndChecks) {
    struct {
        std::string options;
        char const* said;
    } const cases[] = {
        {"--seconds=0 --threads=1", "1 client thread loaded"},
        {"--seconds=0 --no-detection", "4 client threads loaded"},
        {"--seconds=1 --level=0", "1 client thread loaded"},
        {"--seconds=1 --level=2 --threads=2", "2 client threads loaded"},
        {"--seconds=1 --level=4 --workers=1", "at most 1 worker, 1 at the end"},
        {"--seconds=1 --level=9 --workers=0", "at most 0 workers, 0 at the end"},
        {"--seconds=1 --level=10 --workers=4", "at most 4 workers, 4 at the end"},
        {"--seconds=1 --level=12 --workers=0 --grow=2", "at most 2 workers, 2 at the end"},
        {"--seconds=1 --level=13 --workers=2 --grow=3 --shrink=4 --threads=7",
         "at most 5 workers, 1 at the end"},
    };
    for (auto const& [options, said] : cases) {
        SCOPED_TRACE(options);
        EXPECT_EQ(Run("--data=. " + options), 0) << out << err;
        for (char const* text : {said, "7 rows in 4 tables", "All is well.",
                                 "The object cache agrees with the database"}) {
            ExpectSaid(out, text);
        }
        bool const none = Count(options, "--level=0") != 0;
        bool const coarse = Count(options, "--level=4") != 0;
        EXPECT_EQ(err.find("ZoThread Status Report for Manager ("), none ? err.npos : 0U) << err;
        EXPECT_EQ(Count(err, "ZoCSTheOnlyOne"), coarse ? 2U : 0U) << err;
        EXPECT_EQ(Count(err, "25 : ZoCSServerWriter"), coarse || none ? 0U : 1U) << err;
    }
    EXPECT_FALSE(fs::exists(folder / "deadlock.txt"));
}

TEST_F(HostTest, TracesWhatTheFlagsSay) {
    char const* const level = "DEBUG LEVEL --> 0x10000\n";
    char const* const lowering = "Kelvara RW_Mutex: IMPLICIT LOWERING WRITER->READER\n";
    Write("quiet.ini", "[debug]\nZOVAConsole = 0\nmode = 0x10000\n");
    for (char const* const config : {"", "quiet.ini"}) {
        setenv("ZOVA_CONFIG", config, 1);
        EXPECT_EQ(Run("--data=. --seconds=0 --trace=65536"), 0) << out;
        ExpectSaid(err, level);
        EXPECT_EQ(Count(err, lowering), 1U) << err;
    }
    EXPECT_EQ(Run("--data=. --seconds=0"), 0) << out;
    EXPECT_EQ(err, "");
    unsetenv("ZOVA_CONFIG");
    EXPECT_EQ(Run("--data=. --seconds=0 --trace=0"), 0) << out;
    EXPECT_EQ(Count(err, "-->") + Count(err, "LOWERING"), 0U) << err;
}

TEST_F(HostTest, RefusesWrongOptions) {
    std::ifstream cases(ZO_TESTS "/refused_options.txt");
    EXPECT_TRUE(cases.is_open());
    for (std::string one; std::getline(cases, one);) {
        std::size_t const arrow = one.find(" => ");
        ExpectRefusal(one.substr(0, arrow), one.substr(arrow + 4));
    }
    EXPECT_EQ(Run("--help"), 0);
    ExpectSaid(out, "--deadlock [N]");
}

TEST_F(HostTest, NamesTheLineOfMalformedData) {
    struct {
        std::string data;
        char const* message;
    } const cases[] = {
        {"", ":1: the data file has no records"},
        {Capital + "0042;LATIN CAPITAL LETTER B;Lu\n", ":2: the line has 3 fields"},
        {Capital + "\n", ":2: the line has 1 fields"},
        {Capital + Small.substr(0, Small.size() - 1) + ";\n", ":2: the line has 16 fields"},
        {Capital + Small + Capital, ":3: the line repeats the code point of line 1"},
        {Capital + "00G1" + Small.substr(4), ":2: the line has the code point \"00G1\""},
        {Capital + "110000" + Small.substr(4), ":2: the line has the code point \"110000\""},
        {Capital + "-041" + Small.substr(4), ":2: the line has the code point \"-041\""},
        {"0041;A;LU;0;L;;;;;N;;;;0061;\n", ":1: the line has the general category \"LU\""},
        {"0041;A;Lu;0;L;;;;;M;;;;0061;\n", ":1: the line has the mirrored mark \"M\""},
        {"0041;A;Lu;999;L;;;;;N;;;;0061;\n", ":1: the line has the combining class \"999\""},
        {Capital.substr(0, 6) + '\0' + Capital.substr(6), ":1: the line has a NUL byte"},
        {Capital.substr(0, Capital.size() - 1) + "\r\n", ":1: the line has a carriage return"},
        {Capital + Small.substr(0, Small.size() - 1), ":2: the line has no end"},
    };
    for (auto const& [data, message] : cases) {
        Write("bad.txt", data);
        ExpectRefusal("--data=bad.txt", std::string("bad.txt") + message);
    }
}

TEST_F(HostTest, KeepsANamedDatabaseAndNeverOverwritesIt) {
    Write("kept.db", "");
    EXPECT_EQ(Run("--data=. --database=kept.db --seconds=0"), 0) << err;
    EXPECT_FALSE(fs::exists(folder / "kept.db-wal"));
    EXPECT_EQ(Sql("SELECT sum(revision) FROM kind_Lo"), 2);
    std::string const before = Contents(folder / "kept.db");
    ExpectRefusal("--data=. --database=kept.db", "kept.db: the file is not empty");
    EXPECT_EQ(Contents(folder / "kept.db"), before);
}

TEST_F(HostTest, ResolvesADeadlock) {
    std::size_t reports = 0;
    for (std::size_t const clients : {2U, 5U, 3U}) {
        std::string const n = std::to_string(clients);
        EXPECT_EQ(Run("--data=. --picture=ring.dot --deadlock " + n), 0) << out << err;
        ExpectSaid(out, "Its picture is in ring.dot.");
        EXPECT_EQ(Count(Contents(folder / "ring.dot"), "held by"), clients);
        ExpectSaid(out, "The ring of " + n + " sections was reported exactly once");
        ExpectSaid(out, "All " + n + " transactions finished");
        ExpectSaid(out, "7 rows in 4 tables");
        EXPECT_EQ(Count(err, " wants critical section records of client "), 1U) << err;
        EXPECT_EQ(Count(err, " owned by thread "), clients) << err;
        ExpectSaid(err, "log, level 4: Deadlock detected.");
        ExpectSaid(err, "log, level 3: Deadlock: false alarm.");
        EXPECT_EQ(Count(Contents(folder / "deadlock.txt"), "* ZOVA deadlock log *"), ++reports);
    }
    for (char const* const ring : {"2", "3 --level=12", "5", "4 --level=13"}) {
        EXPECT_EQ(Run(std::string("--data=. --readers --deadlock ") + ring), 0) << out << err;
        std::string const n(1, ring[0]), sections(1, char(ring[0] - 1));
        ExpectSaid(out, "The ring of " + sections + " section");
        ExpectSaid(out, "and a reader was reported exactly once");
        ExpectSaid(out, "All " + n + " transactions finished");
        ExpectSaid(out, "7 rows in 4 tables");
        EXPECT_EQ(Count(err, " write RW_Mutex "), 1U) << err;
        EXPECT_EQ(Count(err, " read by thread "), 1U) << err;
        EXPECT_EQ(Count(err, " owned by thread "), std::size_t(sections[0] - '0')) << err;
        EXPECT_EQ(Count(Contents(folder / "deadlock.txt"), "* ZOVA deadlock log *"), ++reports);
    }
    Write("stacks.ini", "[debug]\ncsStacks = 1\n");
    setenv("ZOVA_CONFIG", "stacks.ini", 1);
    EXPECT_EQ(Run("--data=. --picture=ring.dot --deadlock"), 0) << out << err;
    EXPECT_EQ(Count(err, " \"client\"\n    at "), 3U) << err;
    EXPECT_EQ(Count(err, "    at DeadlockRing::Run+0x"), 3U) << err;
    EXPECT_GE(Count(err, " in libzo95Kex.so.1\n"), 3U) << err;
    EXPECT_EQ(Count(Contents(folder / "ring.dot"), "DeadlockRing::Run+0x"), 3U);
    // Who switches the console off has the report in the file only.
    Write("quiet.ini", "[debug]\nZOVAConsole = 0\n");
    setenv("ZOVA_CONFIG", "quiet.ini", 1);
    EXPECT_EQ(Run("--data=. --deadlock"), 0) << out << err;
    EXPECT_EQ(Count(err, " wants critical section "), 0U) << err;
    // A report that cannot be written is missed.
    fs::remove(folder / "deadlock.txt");
    fs::create_directory(folder / "deadlock.txt");
    EXPECT_EQ(Run("--data=. --deadlock"), 1);
    ExpectSaid(out, "FAILED: the ring was reported 1 times, and deadlock.txt has 0 new reports");
    ExpectRefusal("--picture=ring.dot", "--picture");
}

// While the test holds the database, transactions wait for it: soon there is a second without an
// operation.
TEST_F(HostTest, ReportsItsLocksAndRefusesAnInterruptWhileATransactionIsOpen) {
    pid_t const child = StartEndless("--level=4");
    Sql("BEGIN IMMEDIATE");
    AwaitText(child, "out", "s, 0 a second");
    kill(child, SIGUSR1);
    AwaitText(child, "err", "where threads slept");
    kill(child, SIGINT);
    AwaitText(child, "err", "not interrupted");
    Sql("COMMIT");
    EXPECT_EQ(Finish(child), 0) << out << err;
    EXPECT_EQ(Count(err, "ZoThread Status Report for Manager ("), 2U) << err;
    ExpectSaid(err, "zohost: not interrupted, because a transaction is open");
    EXPECT_LT(out.find("locks that threads waited for"), out.find("where threads slept"));
    EXPECT_EQ(Count(err, "locks that threads waited for"), 1U);
    ExpectSaid(out, "A signal ended the run early");
    ExpectSaid(out, "All is well.");
}

// A second without an operation: each of the four clients rests after its first batch, which is
// a pass over all records.
TEST_F(HostTest, EndsAtOnceWhenInterruptedBetweenTransactions) {
    for (char const* const database : {"--database=kept.db", "--seconds=600"}) {
        pid_t const child = Start(std::string("--data=. --rest=600000 --workers=1 ") + database);
        AwaitText(child, "out", "s, 0 a second");
        kill(child, SIGINT);
        EXPECT_EQ(Finish(child), 0) << out << err;
        ExpectSaid(err, "zohost: interrupted; no transaction is open\n");
        ExpectSaid(err, "log, level 3: Signal 2 (SIGINT) ends the process");
        EXPECT_EQ(Count(out, "All is well."), 0U);
    }
    EXPECT_EQ(Sql("SELECT count(*) FROM pragma_integrity_check WHERE integrity_check = 'ok'"), 1);
    EXPECT_EQ(Sql("SELECT sum(revision) FROM kind_Lo"), 4 * 2);
}

TEST_F(HostTest, ShowsABarOnATerminal) {
    int const terminal = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(terminal, 0);
    ASSERT_EQ(grantpt(terminal) + unlockpt(terminal), 0);
    errorFile = ptsname(terminal);
    int const keptOpen = open(errorFile.c_str(), O_RDWR | O_NOCTTY);
    EXPECT_EQ(Run("--data=. --seconds=2"), 0);
    std::string shown(65536, '\0');
    shown.resize(
        static_cast<std::size_t>(std::max(0L, read(terminal, shown.data(), shown.size()))));
    ExpectSaid(shown, "\r\033[Kworking [");
    ExpectSaid(shown, " s left");
    ExpectSaid(out, "All is well.");
    EXPECT_EQ(Count(out, "\r"), 0U);
    close(keptOpen);
    close(terminal);
}

// The clients repair what they store again, so the damage is done again with it.
TEST_F(HostTest, NoticesADamagedDatabase) {
    pid_t const child = StartEndless();
    Sql("BEGIN IMMEDIATE;"
        "CREATE TRIGGER a AFTER INSERT ON kind_Lu WHEN new.code = 0x42 BEGIN"
        " UPDATE kind_Lu SET comment = 'damaged' WHERE code = 0x42; END;"
        "CREATE TRIGGER b AFTER INSERT ON kind_Nd BEGIN UPDATE kind_Nd SET revision = 0; END;"
        "CREATE TRIGGER c AFTER UPDATE ON kind_Nd BEGIN UPDATE kind_Nd SET revision = 0; END;"
        "CREATE TRIGGER d AFTER INSERT ON kind_Lo WHEN new.code = 0x4DBF BEGIN"
        " DELETE FROM kind_Lo WHERE code = 0x4DBF; END;"
        "INSERT INTO kind_Ll SELECT 0x62, name, combining, bidi, decomposition, decimal, digit, "
        "numeric, mirrored, oldName, comment, upper, lower, title, revision FROM kind_Ll;"
        "CREATE TABLE stray (number INTEGER);"
        "COMMIT");
    // A client must have come across it, too.
    char const* const revision = "SELECT revision FROM kind_Lu WHERE code = 0x42";
    int const damaged = Sql(revision);
    AwaitOf(child, [&] { return Sql(revision) >= damaged + 24; });
    kill(child, SIGTERM);
    EXPECT_EQ(Finish(child), 1) << out << err;
    ExpectSaid(out, "FAILED: U+0042 is not what was stored");
    ExpectSaid(out, "FAILED: table kind_Lu: U+0042 is \"U+0042;LATIN CAPITAL LETTER B;Lu;");
    ExpectSaid(out, "FAILED: table kind_Nd: U+0031 is \"");
    ExpectSaid(out, "FAILED: table kind_Lo: U+4DBF is missing");
    ExpectSaid(out, "FAILED: table kind_Lo has 1 rows instead of 2");
    ExpectSaid(out, "FAILED: table kind_Ll: U+0062 is too many");
    ExpectSaid(out, "FAILED: the object cache has U+003");
    ExpectSaid(out, "FAILED: there is a table stray too many");
    ExpectSaid(out, "FAILED: the digest of all contents differs");
}

}  // namespace

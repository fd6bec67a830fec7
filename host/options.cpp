#include "options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <iostream>
#include <string>
#include <string_view>

#include "input_error.h"
#include "locking_plan.h"

namespace {

constexpr unsigned MostClients = 64;
constexpr unsigned LongestWork = 86400;
constexpr unsigned LongestSoak = 7 * 24 * 60;
constexpr unsigned DefaultRing = 3;

std::string OnOneLine(std::string text) {
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
}

// Decimal, or hexadecimal after 0x.
ZoUInt32 DebugFlags(std::string_view text) {
    bool const isHexadecimal = text.substr(0, 2) == "0x" || text.substr(0, 2) == "0X";
    std::string_view const digits = text.substr(isHexadecimal ? 2 : 0);
    ZoUInt32 flags = 0;
    char const* const end = digits.data() + digits.size();
    auto const [stop, error] = std::from_chars(digits.data(), end, flags, isHexadecimal ? 16 : 10);
    if (error != std::errc() || stop != end) {
        throw CLI::ValidationError(
            "--trace", "\"" + std::string(text) + "\" is not a number of 32 bits, such as 0x10000");
    }
    return flags;
}

// Level 0 locks nothing.
void LimitToOneThread(Options& options, bool threadsGiven) {
    if (options.ring > 0) {
        throw CLI::ValidationError("--deadlock", "level 0 locks nothing, so there is no deadlock");
    }
    if (threadsGiven && options.threads > 1) {
        throw CLI::ValidationError("--threads", "level 0 locks nothing and is for one thread only");
    }
    options.threads = 1;
}

void RequireReadersToBeWaitedFor(Options const& options) {
    if (!options.ringThroughReaders || options.level > ZoThreadMgr::OneCS) return;
    throw CLI::ValidationError("--readers", "below level 5 no writer waits for readers");
}

// Units that wait when the last worker ends would wait for ever.
void RequireAWorkerToStay(Options const& options) {
    unsigned const most = options.workers + options.grow;
    if (options.shrink == 0 || options.shrink < most) return;
    if (most == 0) throw CLI::ValidationError("--shrink", "there are no workers to take away");
    throw CLI::ValidationError(
        "--shrink", "of " + std::to_string(most) + " workers at the most, at least one must stay");
}

// The options as they are declared to CLI11, and what of them must be converted.
class CommandLine {
public:
    CommandLine() {
        DeclareWork();
        DeclareDiagnostics();
        DeclareDatabase();
        DeclareDeadlock();
    }
    void Parse(int count, char** words) { app.parse(count, words); }
    // Throws CLI::ValidationError when options do not fit each other.
    Options Checked();
    std::string Help() const { return app.help(); }

private:
    void DeclareWork();
    void DeclareDiagnostics();
    void DeclareDatabase();
    void DeclareDeadlock();
    unsigned Ring();

    CLI::App app{
        "Runs the SQLite database engine on this library's sections: client threads load the\n"
        "Unicode character data, work on it, and the result is checked.\n"
        "Ends with 0 when the check passed, 1 when it failed, 2 when it could not begin.",
        "zohost"};
    Options options;
    unsigned seconds = static_cast<unsigned>(options.work.count());
    unsigned rest = 0;
    unsigned soak = 0;
    bool noDetection = false;
    std::string data = options.data.string();
    std::string database, ring, picture, flags;
    CLI::Option *threads = nullptr, *plain = nullptr, *trace = nullptr, *deadlock = nullptr;
};

void CommandLine::DeclareWork() {
    threads = app.add_option("--threads", options.threads, "Client threads; 1 at level 0")
                  ->check(CLI::Range(1U, MostClients))
                  ->capture_default_str();
    app.add_option("--seconds", seconds,
                   "How long the clients work on the loaded records; they finish the pass they are "
                   "in, so 0 means one pass")
        ->check(CLI::Range(0U, LongestWork))
        ->capture_default_str();
    app.add_option("--level", options.level,
                   "The thread manager's concurrency level: 0 locks nothing, 4 has one section for "
                   "everything, 9 has named sections and keeps writers apart from readers, 12 only "
                   "while they commit")
        ->check(CLI::Range(0U, HighestLevel))
        ->capture_default_str();
    app.add_option(
           "--workers", options.workers,
           "Worker threads of the queue that load and look-ups go through; without any, the "
           "client does its own")
        ->check(CLI::Range(0U, MostClients))
        ->capture_default_str();
    app.add_option("--grow", options.grow, "Workers that are added in the middle of the load")
        ->check(CLI::Range(0U, MostClients));
    app.add_option("--shrink", options.shrink,
                   "Workers that are taken away in the middle of the first pass over the records")
        ->check(CLI::Range(0U, MostClients));
    app.add_option("--rest", rest,
                   "Milliseconds that a client rests after each batch of records it has worked on")
        ->check(CLI::Range(0U, LongestWork * 1000))
        ->capture_default_str();
    app.add_option("--soak", soak,
                   "For so many minutes, run again and again in one process, each time with other "
                   "options, and see that it uses no more in the end; only --data counts then")
        ->type_name("MINUTES")
        ->check(CLI::Range(1U, LongestSoak));
}

void CommandLine::DeclareDiagnostics() {
    plain = app.add_flag("--no-detection", noDetection,
                         "Plain sections instead of deadlock-detecting ones");
    trace = app.add_option(
                   "--trace", flags,
                   "Debug flags, hexadecimal or decimal, whose events are shown on the console: "
                   "0x10000 writers that go on as readers")
                ->type_name("MODE");
}

void CommandLine::DeclareDatabase() {
    app.add_option("--data", data, "UnicodeData.txt, or the folder it is in")
        ->capture_default_str();
    app.add_option("--database", database,
                   "Keep the database in this file, which must be new or empty (default: a "
                   "temporary file)");
}

void CommandLine::DeclareDeadlock() {
    deadlock = app.add_option("--deadlock", ring,
                              "Instead of the ordinary work, let N clients (default 3) run into a "
                              "deadlock, report it and resolve it")
                   ->type_name("[N]")
                   ->expected(0, 1)
                   ->excludes(plain);
    app.add_option(
           "--picture", picture,
           "Draw the deadlock into this file: as SVG if its name ends with .svg (that takes "
           "Graphviz), else in Graphviz' language")
        ->type_name("FILE")
        ->needs(deadlock);
    app.add_flag("--stay", options.ringStays,
                 "Let nobody resolve it: the process hangs until it is killed, for a debugger to "
                 "look at")
        ->needs(deadlock);
    app.add_flag("--readers", options.ringThroughReaders,
                 "Make one of them keep reading the database, and another one want to write it")
        ->needs(deadlock);
}

// How many clients the deadlock takes; 0 without one.
unsigned CommandLine::Ring() {
    if (deadlock->count() == 0) return 0;
    std::string const given = deadlock->results().front();
    if (given.empty() || given == "{}") return DefaultRing;  // how CLI11 tells of no value
    std::string const wrong = CLI::Range(2U, MostClients)(ring = given);
    if (!wrong.empty()) throw CLI::ValidationError("--deadlock", wrong);
    return static_cast<unsigned>(std::stoul(given));
}

Options CommandLine::Checked() {
    options.ring = Ring();
    if (trace->count() > 0) options.trace = DebugFlags(flags);
    RequireReadersToBeWaitedFor(options);
    RequireAWorkerToStay(options);
    if (options.level == ZoThreadMgr::NoneCS) LimitToOneThread(options, threads->count() > 0);
    options.work = std::chrono::seconds(seconds);
    options.rest = std::chrono::milliseconds(rest);
    options.soak = std::chrono::minutes(soak);
    options.detection = !noDetection;
    options.data = data;
    options.database = database;
    options.picture = picture;
    return options;
}

}  // namespace

std::optional<Options> ParseOptions(int count, char** words) {
    CommandLine line;
    try {
        line.Parse(count, words);
        return line.Checked();
    } catch (CLI::CallForHelp const&) {
        std::cout << line.Help();
        return std::nullopt;
    } catch (CLI::ParseError const& error) {
        throw InputError(OnOneLine(error.what()) + " (zohost --help tells the options)");
    }
}

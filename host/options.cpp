#include "options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <string>

#include "input_error.h"

namespace {

constexpr unsigned MostClients = 64;
constexpr unsigned LongestWork = 86400;
constexpr unsigned DefaultRing = 3;

std::string OnOneLine(std::string text) {
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
}

}  // namespace

std::optional<Options> ParseOptions(int count, char** words) {
    Options options;
    unsigned seconds = static_cast<unsigned>(options.work.count());
    bool noDetection = false;
    std::string data = options.data.string();
    std::string database;
    std::string ring;

    CLI::App app{
        "Runs the SQLite database engine on this library's sections: client threads load the\n"
        "Unicode character data, work on it, and the result is checked.\n"
        "Ends with 0 when the check passed, 1 when it failed, 2 when it could not begin.",
        "zohost"};
    app.add_option("--threads", options.threads, "Client threads")
        ->check(CLI::Range(1U, MostClients))
        ->capture_default_str();
    app.add_option("--seconds", seconds,
                   "How long the clients work on the loaded records; they finish the pass they are "
                   "in, so 0 means one pass")
        ->check(CLI::Range(0U, LongestWork))
        ->capture_default_str();
    auto* plain = app.add_flag("--no-detection", noDetection,
                               "Plain sections instead of deadlock-detecting ones");
    app.add_option("--data", data, "UnicodeData.txt, or the folder it is in")
        ->capture_default_str();
    app.add_option("--database", database,
                   "Keep the database in this file, which must be new or empty (default: a "
                   "temporary file)");
    auto* deadlock =
        app.add_option("--deadlock", ring,
                       "Instead of the ordinary work, let N clients (default 3) run into a "
                       "deadlock, report it and resolve it")
            ->type_name("[N]")
            ->expected(0, 1)
            ->excludes(plain);
    try {
        app.parse(count, words);
        if (deadlock->count() > 0) {
            options.ring = DefaultRing;
            std::string const given = deadlock->results().front();
            if (!given.empty() && given != "{}") {  // how CLI11 tells of a value left out
                std::string const wrong = CLI::Range(2U, MostClients)(ring = given);
                if (!wrong.empty()) throw CLI::ValidationError("--deadlock", wrong);
                options.ring = static_cast<unsigned>(std::stoul(given));
            }
        }
    } catch (CLI::CallForHelp const&) {
        std::cout << app.help();
        return std::nullopt;
    } catch (CLI::ParseError const& error) {
        throw InputError(OnOneLine(error.what()) + " (zohost --help tells the options)");
    }
    options.work = std::chrono::seconds(seconds);
    options.detection = !noDetection;
    options.data = data;
    options.database = database;
    return options;
}

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "zobase.h"
#include "zobaseservices.h"
#include "zoconfigfile.h"
#include "zoreport.h"
#include "zoundisturbed.h"

ZoConfig::~ZoConfig() = default;

namespace {

// --- the words of a line -------------------------------------------------------------------------

constexpr std::string_view Blanks = " \t\r\v\f";

std::string_view Trim(std::string_view text) {
    std::size_t const begin = text.find_first_not_of(Blanks);
    if (begin == std::string_view::npos) return {};
    return text.substr(begin, text.find_last_not_of(Blanks) - begin + 1);
}

bool IsCommentMark(char c) {
    return c == ';' || c == '#';
}

// A section or key is one printable word.
bool IsName(std::string_view text) {
    if (text.empty()) return false;
    for (char const c : text) {
        if (static_cast<unsigned char>(c) <= ' ' || c == '[' || c == ']') return false;
        if (IsCommentMark(c)) return false;
    }
    return true;
}

int DigitValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return 16;
}

std::optional<int> ParseNumber(std::string_view text) {
    bool const negative = text.starts_with('-');
    if (negative || text.starts_with('+')) text.remove_prefix(1);
    bool const hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    if (hexadecimal) text.remove_prefix(2);
    if (text.empty()) return std::nullopt;

    // Hexadecimal numbers are flag words: they may use the sign bit. Decimal ones are amounts.
    std::int64_t const most = negative      ? std::int64_t{1} << 31
                              : hexadecimal ? std::int64_t{0xFFFFFFFF}
                                            : std::int64_t{0x7FFFFFFF};
    int const base = hexadecimal ? 16 : 10;
    std::int64_t value = 0;
    for (char const c : text) {
        int const digit = DigitValue(c);
        if (digit >= base) return std::nullopt;
        value = value * base + digit;
        if (value > most) return std::nullopt;
    }
    return static_cast<int>(static_cast<std::uint32_t>(negative ? -value : value));
}

// What is left of a line without a comment, which a mark begins anywhere.
std::string_view CutComment(std::string_view text) {
    return Trim(text.substr(0, text.find_first_of(";#")));
}

// The same for a text, in which a mark begins a comment only after a blank.
std::string_view CutCommentOfText(std::string_view text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (IsCommentMark(text[i]) && (i == 0 || Blanks.find(text[i - 1]) != Blanks.npos)) {
            return Trim(text.substr(0, i));
        }
    }
    return text;
}

bool HasControlCharacter(std::string_view text) {
    for (char const c : text) {
        if (static_cast<unsigned char>(c) < ' ') return true;
    }
    return false;
}

// --- the known names -----------------------------------------------------------------------------

// All that is asked for: by the library in [debug], by the stand-in in [base]. Everything else in a
// file is a slip of the pen, or meant for a program that asks for it itself.
struct Name {
    std::string_view section;
    std::string_view key;
};
constexpr Name KnownNames[] = {
    {"debug", "csSleepTime"}, {"debug", "csStacks"}, {"debug", "ZOVAConsole"},
    {"debug", "mode"},        {"base", "log"},       {"base", "answer"},
};

constexpr std::size_t LongestKnown = 15;
static_assert(std::all_of(std::begin(KnownNames), std::end(KnownNames), [](Name const& name) {
    return name.section.size() <= LongestKnown && name.key.size() <= LongestKnown;
}));

char InLowerCase(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// How many characters must be added, dropped or changed to turn one into the other, upper and lower
// case alike. `known` is a word of KnownNames.
std::size_t Distance(std::string_view text, std::string_view known) {
    std::size_t row[LongestKnown + 1];
    for (std::size_t k = 0; k <= known.size(); ++k) row[k] = k;
    for (std::size_t t = 0; t < text.size(); ++t) {
        std::size_t diagonal = std::exchange(row[0], t + 1);
        for (std::size_t k = 0; k < known.size(); ++k) {
            bool const same = InLowerCase(text[t]) == InLowerCase(known[k]);
            std::size_t const changed = diagonal + (same ? 0 : 1);
            diagonal = row[k + 1];
            row[k + 1] = std::min({changed, diagonal + 1, row[k] + 1});
        }
    }
    return row[known.size()];
}

// So near that one may have been meant for the other. The known names differ by more than that.
bool IsSlip(std::size_t distance, std::string_view known) {
    return distance <= 2 && distance <= known.size() / 2;
}

std::string QuoteSection(std::string_view section) {
    return "[" + std::string(section) + "]";
}

// What is told of a name that nobody knows; empty when it is known.

std::string DescribeUnknownSection(std::string_view section) {
    Name const* nearest = nullptr;
    for (Name const& name : KnownNames) {
        if (name.section == section) return {};
        if (IsSlip(Distance(section, name.section), name.section)) nearest = &name;
    }
    std::string text = "unknown section " + QuoteSection(section);
    if (nearest != nullptr) text += "; did you mean " + QuoteSection(nearest->section) + "?";
    return text;
}

std::string DescribeUnknownKey(std::string_view section, std::string_view key) {
    bool const inKnownSection = DescribeUnknownSection(section).empty();
    if (!section.empty() && !inKnownSection) return {};  // the section has been told
    Name const* nearest = nullptr;
    for (Name const& name : KnownNames) {
        if (name.section == section && name.key == key) return {};
        if (IsSlip(Distance(key, name.key), name.key)) nearest = &name;
    }
    std::string text =
        "unknown key " + std::string(key) +
        (section.empty() ? " before the first section" : " in " + QuoteSection(section));
    if (nearest != nullptr) {
        text += "; did you mean " + std::string(nearest->key) + " in " +
                QuoteSection(nearest->section) + "?";
    }
    return text;
}

// --- the file ------------------------------------------------------------------------------------

class FileConfig final : public ZoConfig {
public:
    // Takes one line in; returns what is wrong with it, or null. A wrong line changes nothing.
    char const* TakeLine(std::string_view line);
    // What is told of the name in the line that was taken in last; empty when it is a known one.
    std::string const& Unknown() const { return unknown; }

    int ReadValue(char const* key, int* out, char const* const* sectionPath) override;
    char const* LogPath() const { return logPath.empty() ? nullptr : logPath.c_str(); }

private:
    char const* TakeSection(std::string_view line);
    char const* TakeLogPath(std::string_view value);

    std::string section;  // that the next line belongs to
    std::map<std::string, std::map<std::string, int, std::less<>>, std::less<>> sections;
    std::string logPath;
    std::string unknown;
};

char const* FileConfig::TakeLine(std::string_view line) {
    unknown.clear();
    line = Trim(line);
    if (line.empty() || IsCommentMark(line.front())) return nullptr;
    if (line.front() == '[') return TakeSection(line);

    std::size_t const equals = line.find('=');
    if (equals == std::string_view::npos) return "neither [section] nor key = value";
    std::string_view const key = Trim(line.substr(0, equals));
    if (!IsName(key)) return "the key is not one word";
    std::string_view const value = Trim(line.substr(equals + 1));
    if (section == "base" && key == "log") return TakeLogPath(value);
    std::optional<int> const number = ParseNumber(CutComment(value));
    if (!number) return "the value is not a number of 32 bits";
    sections[section].insert_or_assign(std::string(key), *number);
    unknown = DescribeUnknownKey(section, key);
    return nullptr;
}

char const* FileConfig::TakeSection(std::string_view line) {
    std::size_t const end = line.find(']');
    if (end == std::string_view::npos) return "the section has no ]";
    if (!CutComment(line.substr(end + 1)).empty()) return "something follows the section";
    std::string_view const name = Trim(line.substr(1, end - 1));
    if (!IsName(name)) return "the section is not one word";
    section = name;
    unknown = DescribeUnknownSection(name);
    return nullptr;
}

char const* FileConfig::TakeLogPath(std::string_view value) {
    value = CutCommentOfText(value);
    if (value.empty() || HasControlCharacter(value)) return "the value is not a path";
    logPath = value;
    return nullptr;
}

// Where the dotted name `name` is the names of `path` joined.
bool IsJoined(std::string_view name, char const* const* path) {
    if (path == nullptr || *path == nullptr) return name.empty();
    for (;; ++path) {
        std::string_view const part = *path;
        if (!name.starts_with(part)) return false;
        name.remove_prefix(part.size());
        if (path[1] == nullptr) return name.empty();
        if (!name.starts_with('.')) return false;
        name.remove_prefix(1);
    }
}

// Searches without making the joined name: looking up allocates nothing, so it cannot fail for
// want of memory. A file has few sections.
int FileConfig::ReadValue(char const* key, int* out, char const* const* sectionPath) {
    constexpr int NotFound = -2005;
    if (key == nullptr || out == nullptr) return NotFound;
    for (auto const& [name, values] : sections) {
        if (!IsJoined(name, sectionPath)) continue;
        auto const found = values.find(std::string_view(key));
        if (found == values.end()) return NotFound;
        *out = found->second;
        return 0;
    }
    return NotFound;
}

// Far more than anybody writes by hand; keeps a device named by mistake from filling the memory.
constexpr std::size_t LongestFile = std::size_t{1} << 20;

// Appends what `descriptor` has; returns 0 or the error's number.
int ReadWhole(int descriptor, std::string& text) {
    char block[4096];
    for (;;) {
        ssize_t const got = read(descriptor, block, sizeof block);
        if (got == 0) return 0;
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return errno;
        text.append(block, static_cast<std::size_t>(got));
        if (text.size() > LongestFile) return EFBIG;
    }
}

int ReadFile(char const* path, std::string& text) {
    int const descriptor = open(path, O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) return errno;
    int const error = ReadWhole(descriptor, text);
    close(descriptor);
    return error;
}

std::unique_ptr<FileConfig> Parse(char const* path, std::string_view text) {
    auto configuration = std::make_unique<FileConfig>();
    if (text.starts_with("\xEF\xBB\xBF")) text.remove_prefix(3);
    for (unsigned long number = 1; !text.empty(); ++number) {
        std::size_t const end = text.find('\n');
        if (char const* const wrong = configuration->TakeLine(text.substr(0, end))) {
            ReportToStandardError("%s:%lu: line ignored: %s", path, number, wrong);
        } else if (!configuration->Unknown().empty()) {
            ReportToStandardError("%s:%lu: %s", path, number, configuration->Unknown().c_str());
        }
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return configuration;
}

std::unique_ptr<FileConfig> Load() {
    char const* path = std::getenv("ZOVA_CONFIG");
    bool const named = path != nullptr && *path != '\0';
    if (!named) path = "zova.ini";
    std::string text;
    int const error = ReadFile(path, text);
    if (error == 0) return Parse(path, text);
    if (named || error != ENOENT) {
        ReportToStandardError("%s: cannot read the configuration: %s", path,
                              strerrordesc_np(error));
    }
    return nullptr;
}

// A thread that is cancelled meanwhile finishes loading first: a second thread would have to load
// again and repeat the messages.
FileConfig* LoadOnce() {
    Undisturbed const undisturbed;
    try {
        return Load().release();
    } catch (std::bad_alloc const&) {
        ReportToStandardError("no memory for the configuration");
        return nullptr;
    }
}

// Read at the first use, never destroyed: destructors of other libraries may still ask. Null when
// there is no file. The system may set errno in a wait for the thread that reads.
FileConfig* FromFile() {
    int const error = errno;
    static FileConfig* const configuration = LoadOnce();
    errno = error;
    return configuration;
}

constinit std::atomic<ZoConfig*> installed{nullptr};

}  // namespace

char const* ConfiguredLogPath() {
    FileConfig const* const configuration = FromFile();
    return configuration != nullptr ? configuration->LogPath() : nullptr;
}

ZoConfig* DefaultConfig(ZoConfig*) {
    if (ZoConfig* const configuration = installed.load(std::memory_order_acquire)) {
        return configuration;
    }
    return FromFile();
}

ZoConfig* ZoSetDefaultConfig(ZoConfig* configuration) {
    return installed.exchange(configuration, std::memory_order_acq_rel);
}

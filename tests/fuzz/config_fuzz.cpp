// A configuration file of any bytes, read by the stand-in and by regular expressions: both find the
// same values and complain of as many lines.

#include <regex.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>

#include "../../base/zoconfig.cpp"  // for what it hides

namespace {

// What files are made of: some bytes stand for it, so that most lines mean something.
constexpr std::size_t FirstWord = 0x80;
std::string const words[] = {
    "[debug]\n", "\n[base]\n", "[x",       "\nmode = ", "\nmode=0x",    "\nlog = ",
    "\nx = -",   "7FFFFFFF",   "FFFFFFFF", "80000000",  "2147483648",   "2147483647",
    "0",         "\n",         " ; ",      "#",         "\xEF\xBB\xBF", std::string(1, '\0'),
    "\x7F",      " = 1\n"};

unsigned complaints;

// Matches bytes, NUL among them.
class Pattern {
public:
    explicit Pattern(char const* text) {
        if (regcomp(&compiled, text, REG_EXTENDED) != 0) std::abort();
    }
    bool Matches(std::string const& line) {
        groups[0] = {0, static_cast<regoff_t>(line.size())};
        return regexec(&compiled, line.c_str(), 4, groups, REG_STARTEND) == 0;
    }
    std::string Group(std::string const& line, int number) const {
        regmatch_t const at = groups[number];
        return line.substr(static_cast<std::size_t>(at.rm_so),
                           static_cast<std::size_t>(at.rm_eo - at.rm_so));
    }

private:
    regex_t compiled{};
    regmatch_t groups[4]{};
};

#define BLANKS "[ \t\r\v\f]*"
#define NAME "(([^][;#[:cntrl:] ]|\x7F)+)"
#define COMMENT "([;#](.|[[:cntrl:]])*)?$"
Pattern nothing("^" BLANKS COMMENT);
Pattern head("^" BLANKS "\\[" BLANKS NAME BLANKS "\\]" BLANKS COMMENT);
Pattern number("^" BLANKS "(([^][;#=[:cntrl:] ]|\x7F)+)" BLANKS "=" BLANKS
               "([-+]?(0[xX][0-9a-fA-F]+|[0-9]+))" BLANKS COMMENT);
Pattern logLine("^" BLANKS "log" BLANKS "=" BLANKS "(.|[[:cntrl:]])*$");

bool Fits(std::string const& digits, long long& value) {
    bool const negative = digits[0] == '-',
               hexadecimal = digits.find_first_of("xX") != std::string::npos;
    value = std::strtoll(digits.c_str(), nullptr, hexadecimal ? 16 : 10);
    return negative ? value >= INT32_MIN : value <= (hexadecimal ? UINT32_MAX : INT32_MAX);
}

void Compare(std::string const& text) {
    std::map<std::pair<std::string, std::string>, int> expected;
    std::string section;
    unsigned wrong = 0;
    for (std::size_t at = text.starts_with("\xEF\xBB\xBF") ? 3 : 0; at < text.size();) {
        std::string const line = text.substr(at, text.find('\n', at) - at);
        at += line.size() + 1;
        long long value = 0;
        if (nothing.Matches(line) || (section == "base" && logLine.Matches(line))) continue;
        if (head.Matches(line)) {
            section = head.Group(line, 1);
        } else if (number.Matches(line) && Fits(number.Group(line, 3), value)) {
            expected[{section, number.Group(line, 1)}] = static_cast<int>(value);
        } else {
            ++wrong;
        }
    }
    complaints = 0;
    auto const found = Parse("file", text);
    if (complaints != wrong) std::abort();
    for (auto const& [name, value] : expected) {
        char const* const path[] = {name.first.c_str(), nullptr};
        int out = 0;
        if (found->ReadValue(name.second.c_str(), &out, path) != 0 || out != value) std::abort();
    }
}

}  // namespace

// Counts the lines that are ignored. Names that are only unknown, and paths of a log, have no
// model.
void ReportToStandardError(char const* format, ...) {
    char text[256];
    std::va_list values;
    va_start(values, format);
    std::vsnprintf(text, sizeof text, format, values);
    va_end(values);
    bool const ignored = std::string(format).find("ignored") != std::string::npos;
    complaints += ignored && std::string(text).find("not a path") == std::string::npos ? 1 : 0;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string text;
    for (; size > 0; --size, ++data) {
        std::size_t const word = *data - FirstWord;
        text += word < std::size(words) ? words[word] : std::string(1, static_cast<char>(*data));
    }
    Compare(text);
    return 0;
}

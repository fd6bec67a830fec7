#include "unicode_data.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string_view>
#include <system_error>
#include <unordered_map>

#include "input_error.h"

namespace {

constexpr std::size_t FieldCount = 15;
constexpr std::uint32_t LastCodePoint = 0x10FFFF;
constexpr std::uint32_t LastCombiningClass = 254;

using Fields = std::array<std::string_view, FieldCount>;

// Takes one line apart. What is wrong with it is thrown as text; the reader adds file and line.
class LineParser {
public:
    static CharacterRecord Parse(std::string_view line) {
        RefuseStrangeBytes(line);
        Fields const field = Split(line);
        CharacterRecord record;
        record.code = Code(field[0], "code point");
        record.name = Filled(field[1], "name");
        record.category = Category(field[2]);
        record.combining = Number(field[3], 10, LastCombiningClass, "combining class");
        record.bidi = Filled(field[4], "bidirectional class");
        record.decomposition = field[5];
        record.decimal = field[6];
        record.digit = field[7];
        record.numeric = field[8];
        record.mirrored = YesOrNo(field[9]);
        record.oldName = field[10];
        record.comment = field[11];
        record.upper = MaybeCode(field[12], "upper-case code point");
        record.lower = MaybeCode(field[13], "lower-case code point");
        record.title = MaybeCode(field[14], "title-case code point");
        return record;
    }

private:
    // The file is printable ASCII throughout.
    static void RefuseStrangeBytes(std::string_view line) {
        for (char const c : line) {
            if (c >= ' ' && c <= '~') continue;
            if (c == '\0') throw InputError("has a NUL byte in it");
            if (c == '\r')
                throw InputError("has a carriage return in it; lines end with \\n alone");
            std::array<char, 48> text{};
            std::snprintf(text.data(), text.size(), "has the byte 0x%02X in it, not ASCII text",
                          static_cast<unsigned>(static_cast<unsigned char>(c)));
            throw InputError(text.data());
        }
    }

    static Fields Split(std::string_view line) {
        Fields field;
        std::size_t found = 0;
        for (std::size_t begin = 0; begin <= line.size(); ++found) {
            std::size_t const end = std::min(line.find(';', begin), line.size());
            if (found < FieldCount) field[found] = line.substr(begin, end - begin);
            begin = end + 1;
        }
        if (found != FieldCount) {
            throw InputError("has " + std::to_string(found) + " fields instead of " +
                             std::to_string(FieldCount));
        }
        return field;
    }

    static InputError Wrong(std::string const& what, std::string_view text) {
        return InputError("has the " + what + " \"" + std::string(text) + "\"");
    }

    static std::uint32_t Number(std::string_view text, int base, std::uint32_t most,
                                char const* what) {
        std::uint32_t number = 0;
        char const* const end = text.data() + text.size();
        auto const [stop, error] = std::from_chars(text.data(), end, number, base);
        if (error != std::errc() || stop != end || number > most) throw Wrong(what, text);
        return number;
    }

    static std::uint32_t Code(std::string_view text, char const* what) {
        if (text.size() < 4 || text.size() > 6) throw Wrong(what, text);
        return Number(text, 16, LastCodePoint, what);
    }

    static std::optional<std::uint32_t> MaybeCode(std::string_view text, char const* what) {
        if (text.empty()) return std::nullopt;
        return Code(text, what);
    }

    static std::string Filled(std::string_view text, char const* what) {
        if (text.empty()) throw Wrong(what, text);
        return std::string(text);
    }

    // One upper-case and one lower-case letter: it becomes part of a table's name.
    static std::string Category(std::string_view text) {
        bool const good = text.size() == 2 && text[0] >= 'A' && text[0] <= 'Z' && text[1] >= 'a' &&
                          text[1] <= 'z';
        if (!good) throw Wrong("general category", text);
        return std::string(text);
    }

    static bool YesOrNo(std::string_view text) {
        if (text != "Y" && text != "N") throw Wrong("mirrored mark", text);
        return text == "Y";
    }
};

InputError AtLine(std::filesystem::path const& file, std::size_t line, std::string const& what) {
    return InputError(file.string() + ":" + std::to_string(line) + ": the line " + what);
}

void RefuseUnlessRegular(std::filesystem::path const& file) {
    std::error_code error;
    auto const status = std::filesystem::status(file, error);
    if (!std::filesystem::exists(status)) {
        throw InputError(file.string() + ": there is no such data file");
    }
    // A device may have no end, and the check reads the file a second time.
    if (!std::filesystem::is_regular_file(status)) {
        throw InputError(file.string() + ": the data file is not a regular file");
    }
}

}  // namespace

std::filesystem::path UnicodeDataFile(std::filesystem::path const& path) {
    std::error_code error;
    return std::filesystem::is_directory(path, error) ? path / "UnicodeData.txt" : path;
}

std::vector<CharacterRecord> ReadUnicodeData(std::filesystem::path const& file) {
    RefuseUnlessRegular(file);
    std::ifstream stream(file, std::ios::binary);
    if (!stream) throw InputError(file.string() + ": cannot be read: " + std::strerror(errno));

    std::vector<CharacterRecord> records;
    std::unordered_map<std::uint32_t, std::size_t> lineOf;
    std::size_t number = 0;
    for (std::string line; std::getline(stream, line);) {
        ++number;
        // Without its end a last line that looks whole may still be cut short.
        if (stream.eof()) throw AtLine(file, number, "has no end: the file is cut off");
        try {
            records.push_back(LineParser::Parse(line));
        } catch (InputError const& error) {
            throw AtLine(file, number, error.what());
        }
        auto const [known, isNew] = lineOf.emplace(records.back().code, number);
        if (!isNew) {
            throw AtLine(file, number,
                         "repeats the code point of line " + std::to_string(known->second));
        }
    }
    if (stream.bad()) {
        throw InputError(file.string() + ": reading failed after line " + std::to_string(number));
    }
    if (records.empty()) throw InputError(file.string() + ":1: the data file has no records");
    return records;
}

std::string CodePointName(std::uint32_t code) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "U+%04X", code);
    return text.data();
}

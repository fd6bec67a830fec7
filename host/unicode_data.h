// The Unicode character data: what the clients store.

#ifndef KELVARA_HOST_UNICODE_DATA_H_
#define KELVARA_HOST_UNICODE_DATA_H_

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

// One line of UnicodeData.txt. The first and the last character of a range, such as
// "<CJK Ideograph, First>", are records like any other.
struct CharacterRecord {
    std::uint32_t code = 0;
    std::string name;
    std::string category;  // general category, such as "Lu"; the table the record belongs to
    std::uint32_t combining = 0;
    std::string bidi;
    std::string decomposition;
    std::string decimal;
    std::string digit;
    std::string numeric;
    bool mirrored = false;
    std::string oldName;
    std::string comment;
    std::optional<std::uint32_t> upper;
    std::optional<std::uint32_t> lower;
    std::optional<std::uint32_t> title;

    bool operator==(CharacterRecord const&) const = default;
};

// The file that `path` names, or the one in the folder that it names.
std::filesystem::path UnicodeDataFile(std::filesystem::path const& path);

// All records of `file` in its order, each code point once. Throws InputError, which names the file
// and the line, at the first thing that is not as it must be.
std::vector<CharacterRecord> ReadUnicodeData(std::filesystem::path const& file);

// "U+0041"
std::string CodePointName(std::uint32_t code);

#endif  // KELVARA_HOST_UNICODE_DATA_H_

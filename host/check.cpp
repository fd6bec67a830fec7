#include "check.h"

#include <algorithm>
#include <map>
#include <set>
#include <string_view>
#include <unordered_map>

#include "character_store.h"
#include "engine.h"
#include "object_cache.h"
#include "unicode_data.h"

namespace {

// FNV-1a, 64 bits.
class Digest {
public:
    void Add(std::string_view text) {
        for (char const c : text) {
            value = (value ^ static_cast<unsigned char>(c)) * 0x100000001B3U;
        }
    }
    std::uint64_t Value() const { return value; }

private:
    std::uint64_t value = 0xCBF29CE484222325U;
};

std::string CodeText(std::optional<std::uint32_t> code) {
    return code.has_value() ? CodePointName(*code) : std::string();
}

// One way to write a character down.
std::string CanonicalText(StoredCharacter const& character) {
    CharacterRecord const& record = character.record;
    std::string text;
    for (std::string const& field :
         {CodeText(record.code), record.name, record.category, std::to_string(record.combining),
          record.bidi, record.decomposition, record.decimal, record.digit, record.numeric,
          std::string(record.mirrored ? "Y" : "N"), record.oldName, record.comment,
          CodeText(record.upper), CodeText(record.lower), CodeText(record.title),
          std::to_string(character.revision)}) {
        text += field;
        text += ';';
    }
    return text += '\n';
}

using Table = std::vector<StoredCharacter>;
using Contents = std::map<std::string, Table>;  // by kind

Contents SingleThreadedPass(std::filesystem::path const& data, std::int64_t revision) {
    Contents contents;
    for (CharacterRecord const& record : ReadUnicodeData(data)) {
        contents[record.category].push_back({record, revision});
    }
    for (auto& [kind, table] : contents) {
        std::sort(table.begin(), table.end(),
                  [](auto const& a, auto const& b) { return a.record.code < b.record.code; });
    }
    return contents;
}

class Checker {
public:
    explicit Checker(std::filesystem::path const& database)
        : connection(database, "the check"), store(connection) {}

    CheckResult Compare(Contents const& expected, ObjectCache& cache) {
        std::set<std::string> const present = TablesPresent();
        Digest found;
        Digest wanted;
        for (auto const& [kind, table] : expected) {
            for (StoredCharacter const& character : table) wanted.Add(CanonicalText(character));
            if (present.count(TableName(kind)) == 0) {
                Problem("table " + TableName(kind) + " is missing");
                continue;
            }
            Table const inDatabase = store.All(kind);
            for (StoredCharacter const& character : inDatabase) found.Add(CanonicalText(character));
            CompareTable(TableName(kind), inDatabase, table);
            ++result.tables;
            result.rows += inDatabase.size();
            for (StoredCharacter const& character : inDatabase) {
                stored.emplace(character.record.code, character);
            }
        }
        for (std::string const& name : present) {
            if (!IsExpected(name, expected)) Problem("there is a table " + name + " too many");
        }
        result.digest = found.Value();
        result.expectedDigest = wanted.Value();
        if (result.digest != result.expectedDigest) Problem("the digest of all contents differs");
        CompareCache(cache.All());
        CheckIntegrity();
        return result;
    }

private:
    std::set<std::string> TablesPresent() {
        Statement select(connection, "SELECT name FROM sqlite_master WHERE type = 'table'");
        std::set<std::string> names;
        while (select.Step()) names.insert(select.Text(0));
        return names;
    }

    static bool IsExpected(std::string const& name, Contents const& expected) {
        return std::any_of(expected.begin(), expected.end(),
                           [&](auto const& entry) { return TableName(entry.first) == name; });
    }

    void CompareTable(std::string const& name, Table const& found, Table const& expected) {
        if (found.size() != expected.size()) {
            Problem("table " + name + " has " + std::to_string(found.size()) + " rows instead of " +
                    std::to_string(expected.size()));
        }
        auto const [f, e] =
            std::mismatch(found.begin(), found.end(), expected.begin(), expected.end());
        if (f == found.end() && e == expected.end()) return;
        if (e == expected.end() || (f != found.end() && f->record.code < e->record.code)) {
            Problem("table " + name + ": " + CodePointName(f->record.code) + " is too many");
        } else if (f == found.end() || f->record.code > e->record.code) {
            Problem("table " + name + ": " + CodePointName(e->record.code) + " is missing");
        } else {
            Problem("table " + name + ": " + CodePointName(e->record.code) + " is \"" +
                    OnOneLine(*f) + "\" instead of \"" + OnOneLine(*e) + "\"");
        }
    }

    void CompareCache(ObjectCache::Contents const& cached) {
        for (auto const& [code, object] : cached.byCode) CompareCached(code, object);
        for (auto const& [name, object] : cached.byName) {
            CompareCached(object.record.code, object);
            if (object.record.name != name) {
                Problem("the object cache has \"" + OnOneLine(object) + "\" by the name " + name);
            }
        }
        result.cachedByCode = cached.byCode.size();
        result.cachedByName = cached.byName.size();
    }

    void CompareCached(std::uint32_t code, StoredCharacter const& object) {
        auto const found = stored.find(code);
        if (found != stored.end() && found->second == object) return;
        Problem("the object cache has " + CodePointName(code) + " as \"" + OnOneLine(object) +
                "\", the database has " +
                (found == stored.end() ? "nothing" : "\"" + OnOneLine(found->second) + "\""));
    }

    static std::string OnOneLine(StoredCharacter const& character) {
        std::string text = CanonicalText(character);
        text.pop_back();
        return text;
    }

    void CheckIntegrity() {
        Statement check(connection, "PRAGMA integrity_check(1)");
        result.integrity = check.Step() ? check.Text(0) : "no answer";
        if (result.integrity != "ok") Problem("PRAGMA integrity_check says: " + result.integrity);
    }

    void Problem(std::string text) { result.problems.push_back(std::move(text)); }

    Connection connection;
    CharacterStore store;
    std::unordered_map<std::uint32_t, StoredCharacter> stored;  // what the database has
    CheckResult result;
};

}  // namespace

CheckResult CheckDatabase(std::filesystem::path const& database, std::filesystem::path const& data,
                          std::int64_t revision, ObjectCache& cache) {
    return Checker(database).Compare(SingleThreadedPass(data, revision), cache);
}

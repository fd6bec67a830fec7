// Character records as objects in a database: a table for each general category.
//
// A store belongs to one connection and is used by the thread that has that connection's turn,
// inside a transaction of theirs.

#ifndef KELVARA_HOST_CHARACTER_STORE_H_
#define KELVARA_HOST_CHARACTER_STORE_H_

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "engine.h"
#include "unicode_data.h"

// What the database holds of a character: the record, and how often it has been changed since.
struct StoredCharacter {
    CharacterRecord record;
    std::int64_t revision = 0;

    bool operator==(StoredCharacter const&) const = default;
};

using Kinds = std::set<std::string>;

Kinds KindsOf(std::vector<CharacterRecord> const& records);
std::string TableName(std::string const& kind);

class CharacterStore {
public:
    explicit CharacterStore(Connection& connection);
    CharacterStore(CharacterStore const&) = delete;
    CharacterStore& operator=(CharacterStore const&) = delete;
    ~CharacterStore();

    void CreateTables(Kinds const& kinds);
    void Insert(StoredCharacter const& character);
    std::optional<StoredCharacter> Find(std::string const& kind, std::uint32_t code);
    // The first of those that have the name.
    std::optional<StoredCharacter> FindByName(std::string const& kind, std::string const& name);
    // Stores the revision. False when there is no such character.
    bool Update(StoredCharacter const& character);
    bool Delete(StoredCharacter const& character);
    // A table's contents, in the order of code points.
    std::vector<StoredCharacter> All(std::string const& kind);

private:
    struct Statements;
    Statements& For(std::string const& kind);
    bool Change(Statement& statement);
    static std::optional<StoredCharacter> FirstRow(Statement& select, std::string const& kind);

    Connection& connection;
    std::map<std::string, std::unique_ptr<Statements>> statements;  // prepared at first use
};

#endif  // KELVARA_HOST_CHARACTER_STORE_H_

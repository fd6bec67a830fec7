#include "character_store.h"

namespace {

char const* const Columns =
    "code, name, combining, bidi, decomposition, decimal, digit, numeric, mirrored, oldName, "
    "comment, upper, lower, title, revision";

char const* const ColumnTypes =
    "code INTEGER PRIMARY KEY, name TEXT NOT NULL, combining INTEGER NOT NULL, "
    "bidi TEXT NOT NULL, decomposition TEXT NOT NULL, decimal TEXT NOT NULL, digit TEXT NOT NULL, "
    "numeric TEXT NOT NULL, mirrored INTEGER NOT NULL, oldName TEXT NOT NULL, "
    "comment TEXT NOT NULL, upper INTEGER, lower INTEGER, title INTEGER, "
    "revision INTEGER NOT NULL";

void BindCode(Statement& statement, int parameter, std::optional<std::uint32_t> code) {
    if (code.has_value()) {
        statement.Bind(parameter, std::int64_t{*code});
    } else {
        statement.BindNull(parameter);
    }
}

void BindAll(Statement& statement, StoredCharacter const& character) {
    CharacterRecord const& record = character.record;
    statement.Bind(1, std::int64_t{record.code});
    statement.Bind(2, record.name);
    statement.Bind(3, std::int64_t{record.combining});
    statement.Bind(4, record.bidi);
    statement.Bind(5, record.decomposition);
    statement.Bind(6, record.decimal);
    statement.Bind(7, record.digit);
    statement.Bind(8, record.numeric);
    statement.Bind(9, std::int64_t{record.mirrored});
    statement.Bind(10, record.oldName);
    statement.Bind(11, record.comment);
    BindCode(statement, 12, record.upper);
    BindCode(statement, 13, record.lower);
    BindCode(statement, 14, record.title);
    statement.Bind(15, character.revision);
}

std::uint32_t Unsigned(Statement const& row, int column) {
    return static_cast<std::uint32_t>(row.Integer(column));
}

std::optional<std::uint32_t> MaybeCode(Statement const& row, int column) {
    if (row.IsNull(column)) return std::nullopt;
    return Unsigned(row, column);
}

StoredCharacter ReadRow(Statement const& row, std::string const& kind) {
    StoredCharacter character;
    CharacterRecord& record = character.record;
    record.code = Unsigned(row, 0);
    record.name = row.Text(1);
    record.category = kind;
    record.combining = Unsigned(row, 2);
    record.bidi = row.Text(3);
    record.decomposition = row.Text(4);
    record.decimal = row.Text(5);
    record.digit = row.Text(6);
    record.numeric = row.Text(7);
    record.mirrored = row.Integer(8) != 0;
    record.oldName = row.Text(9);
    record.comment = row.Text(10);
    record.upper = MaybeCode(row, 11);
    record.lower = MaybeCode(row, 12);
    record.title = MaybeCode(row, 13);
    character.revision = row.Integer(14);
    return character;
}

}  // namespace

Kinds KindsOf(std::vector<CharacterRecord> const& records) {
    Kinds kinds;
    for (CharacterRecord const& record : records) kinds.insert(record.category);
    return kinds;
}

std::string TableName(std::string const& kind) {
    return "kind_" + kind;
}

struct CharacterStore::Statements {
    Statements(Connection& connection, std::string const& table)
        : insert(connection, "INSERT INTO " + table + " (" + Columns +
                                 ") VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"),
          find(connection, std::string("SELECT ") + Columns + " FROM " + table + " WHERE code = ?"),
          findByName(connection, std::string("SELECT ") + Columns + " FROM " + table +
                                     " WHERE name = ? ORDER BY code LIMIT 1"),
          update(connection, "UPDATE " + table + " SET revision = ? WHERE code = ?"),
          remove(connection, "DELETE FROM " + table + " WHERE code = ?") {}

    Statement insert;
    Statement find;
    Statement findByName;
    Statement update;
    Statement remove;
};

CharacterStore::CharacterStore(Connection& connection) : connection(connection) {}

CharacterStore::~CharacterStore() = default;

CharacterStore::Statements& CharacterStore::For(std::string const& kind) {
    std::unique_ptr<Statements>& slot = statements[kind];
    if (slot == nullptr) slot = std::make_unique<Statements>(connection, TableName(kind));
    return *slot;
}

bool CharacterStore::Change(Statement& statement) {
    statement.Step();
    statement.Reset();
    return connection.Changes() == 1;
}

void CharacterStore::CreateTables(Kinds const& kinds) {
    for (std::string const& kind : kinds) {
        connection.Execute("CREATE TABLE " + TableName(kind) + " (" + ColumnTypes + ")");
        connection.Execute("CREATE INDEX name_" + kind + " ON " + TableName(kind) + " (name)");
    }
}

void CharacterStore::Insert(StoredCharacter const& character) {
    Statement& insert = For(character.record.category).insert;
    BindAll(insert, character);
    Change(insert);
}

std::optional<StoredCharacter> CharacterStore::Find(std::string const& kind, std::uint32_t code) {
    Statement& find = For(kind).find;
    find.Bind(1, std::int64_t{code});
    return FirstRow(find, kind);
}

std::optional<StoredCharacter> CharacterStore::FindByName(std::string const& kind,
                                                          std::string const& name) {
    Statement& find = For(kind).findByName;
    find.Bind(1, name);
    return FirstRow(find, kind);
}

std::optional<StoredCharacter> CharacterStore::FirstRow(Statement& select,
                                                        std::string const& kind) {
    std::optional<StoredCharacter> found;
    if (select.Step()) found = ReadRow(select, kind);
    select.Reset();
    return found;
}

bool CharacterStore::Update(StoredCharacter const& character) {
    Statement& update = For(character.record.category).update;
    update.Bind(1, character.revision);
    update.Bind(2, std::int64_t{character.record.code});
    return Change(update);
}

bool CharacterStore::Delete(StoredCharacter const& character) {
    Statement& remove = For(character.record.category).remove;
    remove.Bind(1, std::int64_t{character.record.code});
    return Change(remove);
}

std::vector<StoredCharacter> CharacterStore::All(std::string const& kind) {
    Statement select(connection, std::string("SELECT ") + Columns + " FROM " + TableName(kind) +
                                     " ORDER BY code");
    std::vector<StoredCharacter> all;
    while (select.Step()) all.push_back(ReadRow(select, kind));
    return all;
}

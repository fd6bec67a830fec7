#include "transactions.h"

#include <algorithm>

namespace {

// What the cache has missed and the database has found.
std::optional<StoredCharacter> Offered(ObjectCache& cache, std::uint64_t generation,
                                       std::optional<StoredCharacter> found) {
    if (found.has_value()) cache.Offer(*found, generation);
    return found;
}

std::optional<StoredCharacter> FindThroughCache(Session& session, std::uint64_t generation,
                                                std::string const& kind, std::uint32_t code) {
    std::optional<StoredCharacter> cached = session.cache.Find(code);
    if (cached.has_value()) return cached;
    return Offered(session.cache, generation, session.store.Find(kind, code));
}

}  // namespace

// --- reading -----------------------------------------------------------------------------------

ReadTransaction::ReadTransaction(Session& session, char const* label)
    : session(session),
      turn(session.turn),
      bracket(session.plan, label),
      generation(session.cache.Generation()),
      transaction(session.connection, Transaction::Reading) {}

std::optional<StoredCharacter> ReadTransaction::Find(std::string const& kind, std::uint32_t code) {
    return FindThroughCache(session, generation, kind, code);
}

std::optional<StoredCharacter> ReadTransaction::FindByName(std::string const& kind,
                                                           std::string const& name) {
    std::optional<StoredCharacter> cached = session.cache.Find(name);
    if (cached.has_value()) return cached;
    return Offered(session.cache, generation, session.store.FindByName(kind, name));
}

bool ReadTransaction::WasUndisturbed() {
    return !session.plan.SeparatesWriters() || session.cache.Generation() == generation;
}

// --- writing -----------------------------------------------------------------------------------

WriteTransaction::WriteTransaction(Session& session, char const* label)
    : session(session),
      label(label),
      turn(session.turn),
      bracket(session.plan, label),
      transaction(session.connection, Transaction::Writing),
      generation(session.cache.Generation()) {}

std::optional<StoredCharacter> WriteTransaction::Find(std::string const& kind, std::uint32_t code) {
    auto const own = changes.find(code);
    if (own != changes.end()) return own->second.object;
    return FindThroughCache(session, generation, kind, code);
}

void WriteTransaction::Insert(StoredCharacter const& character) {
    session.store.Insert(character);
    changes[character.record.code].object = character;
}

bool WriteTransaction::Update(StoredCharacter const& character) {
    if (!session.store.Update(character)) return false;
    changes[character.record.code].object = character;
    return true;
}

bool WriteTransaction::Delete(StoredCharacter const& character) {
    if (!session.store.Delete(character)) return false;
    changes[character.record.code] = {true, std::nullopt};
    return true;
}

void WriteTransaction::Commit() {
    bracket.Upgrade();
    session.cache.Commit([this] { transaction.Commit(); }, changes);
}

bool WriteTransaction::CommitAndReadBack() {
    Commit();
    if (!session.plan.SeparatesWriters()) return true;
    ReaderBracket const reader(session.plan, label);
    bracket.End();
    Transaction reading(session.connection, Transaction::Reading);
    bool const asWritten = std::all_of(changes.begin(), changes.end(), [this](auto const& entry) {
        std::optional<StoredCharacter> const& object = entry.second.object;
        return !object.has_value() ||
               session.store.Find(object->record.category, entry.first) == object;
    });
    reading.Commit();
    return asWritten && session.cache.Generation() == generation + 1;
}

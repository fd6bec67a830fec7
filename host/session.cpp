#include "session.h"

#include <algorithm>

namespace {

unsigned SharersAmong(unsigned clients, bool sharing) {
    return sharing && clients >= 3 ? std::max(2U, clients / 2) : 0;
}

}  // namespace

Sessions::Sessions(std::filesystem::path const& database, LockingPlan& plan, ObjectCache& cache,
                   unsigned clients, bool sharing)
    : sharers(SharersAmong(clients, sharing)) {
    auto const add = [&](std::string const& owners) {
        sessions.push_back(
            std::make_unique<Session>(database, plan, cache, "the connection of " + owners));
    };
    if (sharers > 0) add("clients 1 to " + std::to_string(sharers));
    for (unsigned client = sharers; client < clients; ++client) {
        add("client " + std::to_string(client + 1));
    }
}

Session& Sessions::Of(unsigned client) {
    if (sharers == 0) return *sessions[client];
    return *sessions[client < sharers ? 0 : client - sharers + 1];
}

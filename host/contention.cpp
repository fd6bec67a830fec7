#include "contention.h"

#include <algorithm>
#include <vector>

#include "zowaits.h"

namespace {

constexpr int MostLocks = 8;
constexpr int MostSleeps = 4;

// Objects may come while they are counted; what has no room then is left out.
std::vector<ZoContention> MostContendedFirst() {
    std::vector<ZoContention> figures(static_cast<std::size_t>(ZoCopyContention(nullptr, 0)));
    int const room = static_cast<int>(figures.size());
    figures.resize(
        static_cast<std::size_t>(std::min(room, ZoCopyContention(figures.data(), room))));
    std::sort(figures.begin(), figures.end(),
              [](ZoContention const& one, ZoContention const& other) {
                  return one.nanoseconds > other.nanoseconds;
              });
    return figures;
}

bool IsLock(ZoContention const& figures) {
    return figures.kind != ZoSynchroKind::Condition && figures.kind != ZoSynchroKind::Queue;
}

double Milliseconds(unsigned long long nanoseconds) {
    return static_cast<double>(nanoseconds) / 1e6;
}

void TellLine(std::FILE* to, ZoContention const& figures) {
    std::fprintf(to, "%-54s %8llu %11.1f %9.1f", figures.name, figures.waits,
                 Milliseconds(figures.nanoseconds), Milliseconds(figures.longest));
    if (figures.kind == ZoSynchroKind::Queue) {
        std::fprintf(to, "  longest queue %llu, %llu refused, %llu aborted", figures.greatestLength,
                     figures.refused, figures.aborted);
    }
    std::fprintf(to, "\n");
}

void TellFirst(std::FILE* to, char const* what, std::vector<ZoContention> const& figures,
               bool locks, int most) {
    std::fprintf(to, "%-54s %8s %11s %9s\n", what, "waits", "ms in all", "longest");
    for (ZoContention const& one : figures) {
        if (IsLock(one) != locks || one.waits == 0 || most-- <= 0) continue;
        TellLine(to, one);
    }
}

}  // namespace

void TellContention(std::FILE* to) {
    std::vector<ZoContention> const figures = MostContendedFirst();
    TellFirst(to, "locks that threads waited for", figures, true, MostLocks);
    TellFirst(to, "where threads slept", figures, false, MostSleeps);
    std::fprintf(to, "\n");
    std::fflush(to);
}

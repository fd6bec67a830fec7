// How far a phase of the run is: a bar with rate and time left where standard error is a terminal,
// else a line a second on standard output.

#ifndef KELVARA_HOST_PROGRESS_H_
#define KELVARA_HOST_PROGRESS_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "operations.h"

using Seconds = std::chrono::duration<double>;

class Progress {
public:
    // `part` tells how much of the phase is done, from 0 to 1; null when nobody knows.
    Progress(char const* phase, OperationCounts const& counts, std::function<double()> part);

    // Call it several times a second; `state` is told with the number and rate of the operations.
    void Tell(std::string const& state);
    // The end of the phase, always as a line.
    void TellEnd(std::string const& state);
    Seconds Elapsed() const { return std::chrono::steady_clock::now() - start; }

private:
    using Clock = std::chrono::steady_clock;

    void DrawBar(Clock::time_point now);
    void PrintLine(Clock::time_point now, std::string const& state);
    double Rate(Clock::time_point now) const;

    char const* phase;
    OperationCounts const& counts;
    std::function<double()> part;
    bool const onTerminal;
    Clock::time_point const start;
    Clock::time_point lastTime;
    std::uint64_t const before;
    std::uint64_t lastCount;
};

// Before anything else is printed on standard error: takes the bar away, if there is one. Any
// thread.
void EraseProgressBar();

#endif  // KELVARA_HOST_PROGRESS_H_

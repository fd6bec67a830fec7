// The soak: zohost's whole job again and again in one process, each time with another level, other
// threads and workers, with and without detection and traces, on the ordinary work or on a
// deadlock, and with signals all the while. Each round sets the library up and tears it down, and
// checks its data. What the process uses between the rounds must stay the same.

#ifndef KELVARA_HOST_SOAK_H_
#define KELVARA_HOST_SOAK_H_

#include <atomic>
#include <thread>

#include "options.h"

// Sends the process SIGINT, which an abortion handler refuses, and SIGUSR1 as long as this lives,
// inside the life of the library's context. One SIGINT that it has not sent ends the run as SIGTERM
// does.
class SignalStorm {
public:
    // Throws std::bad_alloc.
    SignalStorm();
    SignalStorm(SignalStorm const&) = delete;
    SignalStorm& operator=(SignalStorm const&) = delete;
    ~SignalStorm();

    // Of all storms.
    static unsigned long Refused();

private:
    static int Refuse(void*);
    void Blow();

    std::atomic<bool> over{false};
    std::thread sender;
};

// Rounds until `options.soak` is over and there were enough of them; `options` has the data file.
// What a round says goes to soak.log in the current folder, which has the last round's. True when
// every round passed and no more is in use at the end than the bounds allow.
bool RunSoak(Options const& options);

#endif  // KELVARA_HOST_SOAK_H_

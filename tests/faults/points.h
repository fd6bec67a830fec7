// The calls of the library, and of the base library beside it, into the system library: where they
// can be made to fail, and where something can happen to the thread that makes one.
//
//     points::Arm(points::Watch);              // which places are there?
//     …                                        // what is tested
//     for (points::Place const& place : points::places->place) …
//     points::Arm(points::Fail, place.key, 2);  // the second call from that place fails
//
// A program that links points.cpp calls the system library through it. Calls of its own, and of
// other libraries, pass. A place is a call stack, so the libraries and the program need frame
// pointers and no tail calls: a debug build. In the environment, ZO_FAULT="MODE KEY PASS" arms a
// point while the libraries are being loaded. ZO_SHAKE=SEED delays calls at random to the end of
// the program, in every build.

#ifndef KELVARA_TESTS_FAULTS_POINTS_H_
#define KELVARA_TESTS_FAULTS_POINTS_H_

#include <atomic>
#include <cstdint>

namespace points {

enum Mode {
    Off,
    Watch,   // nothing happens
    Fail,    // a call fails that can
    Cancel,  // the calling thread is cancelled, if it is a victim
    End,     // the calling thread ends, if it is a victim and this is a cancellation point
    Meet,    // another thread does something while the calling one stands there
    Shake,   // calls are delayed at random
};

struct Place {
    std::atomic<std::uint64_t> key;      // 0: none
    std::atomic<int> passes, ofVictims;  // since Arm
    bool canFail, endsThread;
    int function;              // of `names`
    std::uint32_t frames[32];  // the innermost first; 0 at the end; a module's number times Module,
                               // and the offset of the return address in it
};
constexpr std::uint32_t Module = 1U << 28;
struct Places {
    Place place[4096];
};
// In memory that child processes share.
extern Places* places;

void Arm(Mode mode, std::uint64_t key = 0, int pass = 0);
void Disarm();
bool Happened();
// Whether a call of `function`, or of any, was made to fail.
bool Failed(char const* function = nullptr);

// Of the calling thread.
void BeVictim();
// What happens in a Meet, on the thread that stands there.
void MeetWith(void (*action)());

// How many waits for a condition the library has begun, those that have ended included.
long Waits();

// Blocks that the library has allocated and that are still there.
long Live();
// The calling thread lives as long as the process, unless it is a victim: blocks that it allocates
// from now on do not count.
void Outlive();

// The functions that can be met here: those that can fail, an empty name, the others, null.
extern char const* const names[];

}  // namespace points

#endif  // KELVARA_TESTS_FAULTS_POINTS_H_

// The calls of the library, and of the base library beside it, into the system library: where they
// can be made to fail, and where something can happen to the thread that makes one.
//
//     points::Arm(points::Fail, 3);    // the third of them that can fail fails
//     …                                // what is tested
//     points::Disarm();
//     if (!points::Happened()) …       // there are not so many
//
// A program that links points.cpp calls the system library through it. Calls of its own, and of
// other libraries, pass. In the environment, ZO_FAULT=N arms the Nth failure while the libraries
// are being loaded, and ZO_SHAKE=SEED delays calls at random to the end of the program.

#ifndef KELVARA_TESTS_FAULTS_POINTS_H_
#define KELVARA_TESTS_FAULTS_POINTS_H_

namespace points {

enum Mode {
    Off,
    Fail,    // a call fails that can
    Cancel,  // the calling thread is cancelled, if it is a victim
    End,     // the calling thread ends, if it is a victim and this is a cancellation point
    Meet,    // another thread does something while the calling one stands there
    Shake,   // calls are delayed at random
};

void Arm(Mode mode, long nth);
void Disarm();
// Only the first passes of each place count from now on.
void CountAtMost(long passesOfAPlace);
bool Happened();
// Whether a call of `function`, or of any, was made to fail.
bool Failed(char const* function = nullptr);
// The function whose call it was; empty if it has not happened.
char const* Where();

// Of the calling thread.
void BeVictim();
// What happens in a Meet, on any thread of the program's.
void MeetWith(void (*action)());

// How many waits for a condition the library has begun since Arm, those that have ended included.
long Waits();

// Blocks that the library has allocated and that are still there.
long Live();
// The calling thread lives as long as the process, unless it is a victim: blocks that it allocates
// from now on do not count.
void Outlive();

// All calls of this process and of its children since this, by function and place: how many
// functions and places there were.
void Remember();
struct Sites {
    int functions, places;
    long calls;
};
Sites Reached();
bool IsReached(char const* function);
// The functions that can fail here; null at the end.
extern char const* const names[];

}  // namespace points

#endif  // KELVARA_TESTS_FAULTS_POINTS_H_

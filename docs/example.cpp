// Two accounts, two threads, and a lock order that was not thought through.
#include <cstdio>
#include <thread>

#include "_zothrd.h"
#include "zocrits.h"

int main() {
    *ZoGetDeadLockDetectionEnabled() = 1;  // before the sections it is meant for are made
    ___ZoExtendedContext(1);               // once, before other threads use the library

    ZoCritSect* savings = ZoCritSect::Make("savings");
    ZoCritSect* current = ZoCritSect::Make("current");
    long inSavings = 500, inCurrent = 100;

    auto transfer = [](ZoCritSect* first, ZoCritSect* second, long& from, long& to) {
        first->Begin();
        second->Begin();  // finds the ring, if there is one, before it blocks
        from -= 10;
        to += 10;
        second->Exit();
        first->Exit();
    };
    std::thread there([&] { transfer(savings, current, inSavings, inCurrent); });
    there.join();  // side by side, the two could block each other: then deadlock.txt names them
    std::thread back([&] { transfer(current, savings, inCurrent, inSavings); });
    back.join();

    char line[256];
    savings->GetInfo(line, sizeof line);
    std::printf("%s, holding %ld\n", line, inSavings);

    delete savings;
    delete current;
    ___ZoExtendedContext(0);  // after all threads have stopped using the library
}

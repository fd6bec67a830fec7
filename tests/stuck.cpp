// A process that stands still, for a debugger to look at: a ring through a reader, a ring of plain
// sections, which nobody detects, and a queue whose only worker waits too.

#include <sys/prctl.h>
#include <unistd.h>

#include <barrier>
#include <cstdio>
#include <string>
#include <thread>

#include "_zothrd.h"
#include "rw_mutex.h"
#include "zocond.h"
#include "zocrits.h"
#include "zowrkque.h"

namespace {

template <class Lock>
void Await(Lock* lock, char const* text) {
    for (std::string info(1024, '\0'); info.find(text) == info.npos; usleep(1000)) {
        lock->GetInfo(info.data(), 1024);
    }
}

class Blocked final : public ZoWorkUnit {
public:
    explicit Blocked(ZoCritSect* section) : section(section) {}
    void Handle(ZoWorkQueue*) override { section->Begin(); }
    void Aborted(ZoWorkQueue*) override {}

private:
    ZoCritSect* section;
};

}  // namespace

int main() {
    prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);
    *ZoGetDeadLockDetectionEnabled() = 1;
    ___ZoExtendedContext(1);
    ZoRW_Mutex* const mutex = ZoRW_Mutex::Make(nullptr);
    ZoCritSect* const accounts = ZoCritSect::Make("accounts");
    ZoCritSect* const left = ZoCritSect::MakeImplementation("left");
    ZoCritSect* const right = ZoCritSect::MakeImplementation("right");
    Condition::MakeCondition("slept")->WaitForCondition(0, 5);
    std::barrier meeting(4);

    std::thread reader([&] {
        mutex->StartRW(0, 0);
        meeting.arrive_and_wait();
        accounts->Begin();
    });
    std::thread writer([&] {
        accounts->Begin();
        accounts->Begin();
        meeting.arrive_and_wait();
        mutex->StartRW(1, 0);
    });
    auto const hold = [&](ZoCritSect* first, ZoCritSect* second) {
        first->Begin();
        meeting.arrive_and_wait();
        second->Begin();
    };
    std::thread leftFirst(hold, left, right);
    std::thread rightFirst(hold, right, left);

    Await(accounts, "wait count: 1");
    ZoWorkQueue* const queue = ZoWorkQueue::Create(1, nullptr);
    Blocked units[3] = {Blocked(accounts), Blocked(accounts), Blocked(accounts)};
    for (Blocked& unit : units) queue->Append(&unit);
    Await(accounts, "wait count: 2");
    Await(left, "wait count: 1");
    Await(right, "wait count: 1");
    std::printf("%p\n", static_cast<void*>(queue));
    std::fflush(stdout);
    pause();
}

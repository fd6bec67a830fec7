#include <cstdio>
#include <mutex>

#include "_zothrd.h"
#include "zotask.h"

int main() {
    ___ZoExtendedContext(1);  // once, before other threads use the library
    {
        ZoSection accounts("accounts");
        long balance = 0;
        zotask::Pool pool(4);
        zotask::ParallelFor(pool, 1, 101, [&](int amount) {
            std::lock_guard hold(accounts);
            balance += amount;
        });
        std::printf("%ld\n", zotask::Submit(pool, [&] { return balance / 2; }).Get());
    }
    ___ZoExtendedContext(0);  // after all threads have stopped using the library
}

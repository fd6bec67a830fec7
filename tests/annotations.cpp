// Compiled by Clang with -Werror=thread-safety: as it is without a complaint, and with each of the
// faults not at all.
#include <mutex>

#include "zolock.h"
#include "zomtobj.h"

class Bank {
public:
    void Deposit(long amount) {
#if FAULT != 1
        ZoHold hold(accounts);
#endif
        balance += amount;
    }
    long Balance() {
        ZoSharedHold reader(plan);
#if FAULT == 2
        return ++seen;  // reading, it writes
#else
        return seen;
#endif
    }
    void Plain(ZoCritSect* section) {
        section->Begin();
#if FAULT != 3
        section->Exit();
#endif
    }
    void Try() {
#if FAULT == 4
        accounts.try_lock();
#else
        if (!accounts.try_lock()) return;
#endif
        Safe();
        accounts.unlock();
    }
    void TrySafe() {
#if FAULT != 7
        if (!plan.try_lock_shared()) return;
#endif
        plan.unlock_shared();
        std::unique_lock<ZoSharedSection> const writer(plan, std::try_to_lock);
    }
    void Managed(ZoThreadMgr& manager) {
#if FAULT == 5
        ZoReader reader(manager);
        manager.UpgradeWriter("a reader does not");
#else
        ZoWriter writer(manager, "w", ZoWriter::LessExclusive);
        writer.Upgrade();
#endif
    }
    void Object(ZoMTObj& object) {
#if FAULT != 6
        object.BeginCriticalSection();
#endif
        object.EndCriticalSection();
        ZoAutoSync hold(&object);
    }

private:
    void Safe() ZO_REQUIRES(accounts) {
        ++balance;
    }

    ZoSection accounts{"accounts"};
    ZoSharedSection plan;
    long balance ZO_GUARDED_BY(accounts) = 0;
    long seen ZO_GUARDED_BY(plan) = 0;
};

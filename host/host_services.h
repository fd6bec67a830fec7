// What zohost gives the library in place of an engine's base library: a configuration with the
// console switched on, a log that is shown and counted, and a message service that resolves
// deadlocks. zohost lets writers become readers on purpose, so that message is counted and asks for
// a trace; it is not shown.
//
// A deadlock is resolved by the thread whose wait would have closed the ring. The library shows its
// message on that thread and lets it leave sections it owns before it blocks; so a thread that can
// give way registers as a victim around the wait:
//
//     VictimScope scope(*this);      // GiveWay is called if the wait would close a ring
//     neighbours.lock();

#ifndef KELVARA_HOST_HOST_SERVICES_H_
#define KELVARA_HOST_HOST_SERVICES_H_

#include <atomic>
#include <optional>

#include "zobaseservices.h"
#include "zotypes.h"

class DeadlockVictim {
public:
    // Leaves the sections that stand in the way of others. Called on the victim's own thread, which
    // enters no section of another's here.
    virtual void GiveWay() noexcept = 0;

protected:
    ~DeadlockVictim() = default;
};

class VictimScope {
public:
    explicit VictimScope(DeadlockVictim& victim);
    VictimScope(VictimScope const&) = delete;
    VictimScope& operator=(VictimScope const&) = delete;
    ~VictimScope();
};

// The user's configuration. The debug flags of the command line go before its own; the console is
// on where it says nothing about that, and where the command line sets a flag.
class HostConfig final : public ZoConfig {
public:
    HostConfig(ZoConfig* user, std::optional<ZoUInt32> flags) : user(user), flags(flags) {}
    int ReadValue(char const* key, int* out, char const* const* sectionPath) override;

private:
    ZoConfig* user;  // null when the user has none
    std::optional<ZoUInt32> flags;
};

// To standard error, a line an entry.
class HostLog final : public ZoLog {
public:
    int Printf(int level, char const* format, ...) override __attribute__((format(printf, 3, 4)));
    unsigned FalseAlarms() const { return falseAlarms; }

private:
    std::atomic<unsigned> falseAlarms{0};
};

class HostMessages final : public ZoMessageService {
public:
    unsigned int Show(int reserved, unsigned int style, char const* format, ...) override
        __attribute__((format(printf, 4, 5)));
    unsigned Deadlocks() const { return deadlocks; }
    unsigned Lowerings() const { return lowerings; }

private:
    std::atomic<unsigned> deadlocks{0};
    std::atomic<unsigned> lowerings{0};
};

// Installs all three for its lifetime, which encloses that of the library context.
class HostServices {
public:
    explicit HostServices(std::optional<ZoUInt32> debugFlags);
    HostServices(HostServices const&) = delete;
    HostServices& operator=(HostServices const&) = delete;
    ~HostServices();

    // How many deadlocks the library has reported, and how many of them it has called off.
    unsigned Deadlocks() const { return messages.Deadlocks(); }
    unsigned FalseAlarms() const { return log.FalseAlarms(); }
    // How many writers have gone on as readers.
    unsigned Lowerings() const { return messages.Lowerings(); }

private:
    HostConfig config;
    HostLog log;
    HostMessages messages;
    ZoConfig* previousConfig;
    ZoLog* previousLog;
    ZoMessageService* previousMessages;
};

#endif  // KELVARA_HOST_HOST_SERVICES_H_

// The deadlock demonstration: n clients, n named sections, in a ring.
//
// Each client reads its share of the records, takes its own section, meets the others, and then
// wants its neighbour's section too. The last one to ask would close the ring. The library reports
// that before it blocks; the client then gives its own section up, so its predecessor can go on,
// and one after the other finishes. When at last the neighbour's section comes, the client drops
// what it has read, takes its own section after it and begins its work again.
//
// While a client waits for a section it is in no transaction, so that no writer waits for it in the
// manager. But that is a ring as well, and the other kind of demonstration: the first client has no
// section and reads the database all the while, and the last one wants no section but to write.
// Each of the others leaves its sections before it writes, or it would close another ring. The one
// that closes the ring ends its read, or gives its section up.

#ifndef KELVARA_HOST_DEADLOCK_RING_H_
#define KELVARA_HOST_DEADLOCK_RING_H_

#include <atomic>
#include <barrier>
#include <cstddef>
#include <memory>
#include <vector>

#include "operations.h"
#include "section.h"
#include "session.h"
#include "unicode_data.h"

class DeadlockRing {
public:
    // `sessions` has one for each client, shared by none.
    DeadlockRing(std::vector<CharacterRecord> const& records, Sessions& sessions, unsigned clients,
                 bool throughReaders, bool stays);

    // What a client does. Every record is changed once.
    void Run(unsigned client, OperationCounts& counts);

    unsigned Finished() const { return finished; }  // transactions committed
    unsigned Repeated() const { return repeated; }  // of them after giving way

private:
    friend class RingClient;

    std::vector<CharacterRecord> const& records;
    Sessions& sessions;
    bool const throughReaders;
    bool const stays;  // nobody gives way, and no client ends
    std::vector<std::unique_ptr<Section>> sections;
    std::barrier<> meeting;
    std::atomic<unsigned> finished{0};
    std::atomic<unsigned> repeated{0};
};

#endif  // KELVARA_HOST_DEADLOCK_RING_H_

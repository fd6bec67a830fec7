#include <atomic>

#include "zobase.h"
#include "zobaseservices.h"

namespace {

// A program without an engine expects no version in particular: every one fits.
int AcceptEveryVersion(unsigned long, unsigned long, unsigned long, unsigned long, unsigned long,
                       int) {
    return 0;
}

constinit std::atomic<ZoVersionCheck> checkInForce{&AcceptEveryVersion};

}  // namespace

int CheckZoVersionNumber(unsigned long major, unsigned long minor, unsigned long release,
                         unsigned long build, unsigned long fifth, int flags) {
    return checkInForce.load(std::memory_order_acquire)(major, minor, release, build, fifth, flags);
}

ZoVersionCheck ZoSetVersionCheck(ZoVersionCheck check) {
    return checkInForce.exchange(check != nullptr ? check : &AcceptEveryVersion,
                                 std::memory_order_acq_rel);
}

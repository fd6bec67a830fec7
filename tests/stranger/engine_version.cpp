// What tells an engine's base library from the stand-in.
#include "zobase.h"

int CheckZoVersionNumber(unsigned long, unsigned long, unsigned long, unsigned long, unsigned long,
                         int) {
    return 95;
}

// A program of somebody else's: every public header, one lock, and who the base library is.
#include "headers.inc"

#ifdef WITHOUT_ENGINE
#include "zobaseservices.h"
#endif

#include <cstdio>

int main() {
    ___ZoExtendedContext(1);
    ZoCritSect* const section = ZoCritSect::Make("stranger");
    section->Begin();
    char info[64];
    section->GetInfo(info, sizeof info);
    section->Exit();
    delete section;
    ___ZoExtendedContext(0);
#ifdef WITHOUT_ENGINE
    if (ZoAssertCount() != 0) return 1;
#endif
    std::printf("%s; the base library answers %d\n", info, ZoCheckDll(0));
}

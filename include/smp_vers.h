// Module identification: what the host's module loader asks every module.
//
//     if (ZoCheckDll(0) != 0) …                  // the base library's verdict on this version
//     char const* name = nullptr;
//     GETZOSMPINFO(nullptr, nullptr, nullptr, nullptr, &name);    // "zo95Kex"
//
// All texts are the library's own, constant, and live as long as it is loaded. The version is five
// numbers: major, minor, release, build, and a fifth that is 0.
//
// Who may call: any thread, anything, before the library context is set up too. Nothing here fails.

#ifndef KELVARA_INCLUDE_SMP_VERS_H_
#define KELVARA_INCLUDE_SMP_VERS_H_

#include "zotypes.h"

extern "C" {

// Has the base library compare this module's version with what the host expects, and returns its
// answer. `flags` are the base library's; their two lowest bits are always set.
ZO_API int ZoCheckDll(int flags);

// Fills everything, so no pointer may be null; returns the module's title. `dateTime` is as
// "Mar  7 2024 16:05:09", `platform` is "unknown", `comment` is empty; `compilerNum` is the
// compiler's version as major * 10000 + minor * 100 + patch.
ZO_API char const* ZoDescribeDll(ZoUInt32* major, ZoUInt32* minor, ZoUInt32* release,
                                 ZoUInt32* build, ZoUInt32* fifth, char const** name,
                                 char const** dateTime, char const** platform,
                                 ZoUInt32* compilerNum, char const** compilerName,
                                 char const** comment);

// Fills what is not null. `versionInfo` is the title and the version, as
// "Kelvara Extended Algorithms 1.0.0.0.0 " with the blank at the end; `date` is as "Mar  7 2024".
ZO_API void GETZOSMPINFO(char const** compilerName, ZoUInt32* compilerNum, char const** versionInfo,
                         char const** date, char const** name);
}

#endif  // KELVARA_INCLUDE_SMP_VERS_H_

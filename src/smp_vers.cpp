#include "smp_vers.h"

#include <cstdio>

#include "zobase.h"

// The version is the project's; the build hands it over.
#if !defined(ZO_VERSION_MAJOR) || !defined(ZO_VERSION_MINOR) || !defined(ZO_VERSION_RELEASE) || \
    !defined(ZO_VERSION_BUILD)
#error "the build defines the version"
#endif

namespace {

constexpr ZoUInt32 MajorVersion = ZO_VERSION_MAJOR;
constexpr ZoUInt32 MinorVersion = ZO_VERSION_MINOR;
constexpr ZoUInt32 ReleaseVersion = ZO_VERSION_RELEASE;
constexpr ZoUInt32 BuildVersion = ZO_VERSION_BUILD;
constexpr ZoUInt32 FifthVersion = 0;

char const* const DLLname = "zo95Kex";
char const* const DLLtitle = "Kelvara Extended Algorithms";
char const* const DLLdate = __DATE__;
char const* const DLLdateTime = __DATE__ " " __TIME__;

#ifdef __clang__
char const* const DLLcompilerName = __VERSION__;  // names itself
constexpr ZoUInt32 DLLcompilerNum =
    __clang_major__ * 10000 + __clang_minor__ * 100 + __clang_patchlevel__;
#else
char const* const DLLcompilerName = "GCC " __VERSION__;
constexpr ZoUInt32 DLLcompilerNum = __GNUC__ * 10000 + __GNUC_MINOR__ * 100 + __GNUC_PATCHLEVEL__;
#endif

char DLL_version_info[256];

// Written once, by the first caller who asks for it: a later one may still be reading it.
char const* VersionInfo() {
    static int const length = std::snprintf(
        DLL_version_info, sizeof DLL_version_info, "%s %lu.%lu.%lu.%lu.%lu ", DLLtitle,
        static_cast<unsigned long>(MajorVersion), static_cast<unsigned long>(MinorVersion),
        static_cast<unsigned long>(ReleaseVersion), static_cast<unsigned long>(BuildVersion),
        static_cast<unsigned long>(FifthVersion));
    static_cast<void>(length);
    return DLL_version_info;
}

}  // namespace

int ZoCheckDll(int flags) {
    return CheckZoVersionNumber(MajorVersion, MinorVersion, ReleaseVersion, BuildVersion,
                                FifthVersion, flags | 3);
}

char const* ZoDescribeDll(ZoUInt32* major, ZoUInt32* minor, ZoUInt32* release, ZoUInt32* build,
                          ZoUInt32* fifth, char const** name, char const** dateTime,
                          char const** platform, ZoUInt32* compilerNum, char const** compilerName,
                          char const** comment) {
    *major = MajorVersion;
    *minor = MinorVersion;
    *release = ReleaseVersion;
    *build = BuildVersion;
    *fifth = FifthVersion;
    *name = DLLname;
    *dateTime = DLLdateTime;
    *platform = "unknown";
    *compilerNum = DLLcompilerNum;
    *compilerName = DLLcompilerName;
    *comment = "";
    return DLLtitle;
}

void GETZOSMPINFO(char const** compilerName, ZoUInt32* compilerNum, char const** versionInfo,
                  char const** date, char const** name) {
    if (versionInfo != nullptr) *versionInfo = VersionInfo();
    if (date != nullptr) *date = DLLdate;
    if (compilerName != nullptr) *compilerName = DLLcompilerName;
    if (compilerNum != nullptr) *compilerNum = DLLcompilerNum;
    if (name != nullptr) *name = DLLname;
}

// The picture of a deadlock, drawn by the tool zo95kex-deadlock, which lies beside zohost.

#ifndef KELVARA_HOST_PICTURE_H_
#define KELVARA_HOST_PICTURE_H_

#include <filesystem>

// Draws the last report of the library's deadlock log into `file`: as SVG if its name ends with
// .svg. False when the tool could not be run or failed; it has said why on standard error then.
bool DrawLastDeadlock(std::filesystem::path const& file);

#endif  // KELVARA_HOST_PICTURE_H_

// Entering a section only if that needs no wait.

#ifndef KELVARA_SRC_SECTION_TRY_H_
#define KELVARA_SRC_SECTION_TRY_H_

class ZoCritSect;

// Enters a section that the calling thread does not own. False: it is not free, or of a kind that
// cannot be tried, and nothing has been done.
bool TryBegin(ZoCritSect& section);

#endif  // KELVARA_SRC_SECTION_TRY_H_

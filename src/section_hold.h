// Holds a section for a scope, also in code that runs without the library context.
//
//     SectionHold const hold(fscs);    // nothing if fscs is null
//
// Clang's thread-safety analysis takes the section as held in the scope, also where it is null:
// without the context only one thread uses what the section guards.

#ifndef KELVARA_SRC_SECTION_HOLD_H_
#define KELVARA_SRC_SECTION_HOLD_H_

#include "zocrits.h"

class ZO_SCOPED_CAPABILITY SectionHold {
public:
    explicit SectionHold(ZoCritSect* section) ZO_ACQUIRE(section) : section(section) {
        if (section != nullptr) section->Begin();
    }
    SectionHold(SectionHold const&) = delete;
    SectionHold& operator=(SectionHold const&) = delete;
    ~SectionHold() ZO_RELEASE() {
        if (section != nullptr) section->Exit();
    }

    bool IsHeld() const { return section != nullptr; }

private:
    ZoCritSect* const section;
};

#endif  // KELVARA_SRC_SECTION_HOLD_H_

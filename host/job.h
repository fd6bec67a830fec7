// A whole run: the phases in their order, from the data file to the checked database.

#ifndef KELVARA_HOST_JOB_H_
#define KELVARA_HOST_JOB_H_

#include "options.h"

// True when the check passed. Throws InputError when the run cannot begin, another exception when
// it cannot go on.
bool RunJob(Options const& options);

#endif  // KELVARA_HOST_JOB_H_

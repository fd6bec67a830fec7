// The section path of the library's configuration keys.

#ifndef KELVARA_SRC_DEBUG_PATH_H_
#define KELVARA_SRC_DEBUG_PATH_H_

extern char const* const debug_path[2];

#endif  // KELVARA_SRC_DEBUG_PATH_H_

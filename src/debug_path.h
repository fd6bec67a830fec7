// The section of the library's configuration keys, as ReadValue takes it.

#ifndef KELVARA_SRC_DEBUG_PATH_H_
#define KELVARA_SRC_DEBUG_PATH_H_

inline constexpr char const* debug_path[] = {"debug", nullptr};

#endif  // KELVARA_SRC_DEBUG_PATH_H_

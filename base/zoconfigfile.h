// The configuration file, as the rest of the stand-in base library reads it.

#ifndef KELVARA_BASE_ZOCONFIGFILE_H_
#define KELVARA_BASE_ZOCONFIGFILE_H_

// The path that key `log` in section `base` of the configuration file names; null when it names
// none. It stays valid for ever.
char const* ConfiguredLogPath();

#endif  // KELVARA_BASE_ZOCONFIGFILE_H_

// The command line of zohost.

#ifndef KELVARA_HOST_OPTIONS_H_
#define KELVARA_HOST_OPTIONS_H_

#include <chrono>
#include <filesystem>
#include <optional>

#include "zothrdmg.h"
#include "zotypes.h"

struct Options {
    unsigned threads = 4;                 // 1 at level 0
    unsigned level = ZoThreadMgr::AllCS;  // of the thread manager
    std::chrono::seconds work{5};         // how long the clients work on the loaded records
    bool detection = true;
    std::optional<ZoUInt32> trace;  // the debug flags, in place of the configuration's
    std::filesystem::path data = "/usr/share/unicode/UnicodeData.txt";
    std::filesystem::path database;     // empty: a temporary one
    unsigned workers = 2;               // of the work queue, at first
    unsigned grow = 0;                  // more from the middle of the load on
    unsigned shrink = 0;                // fewer from the middle of the work on
    std::chrono::milliseconds rest{0};  // of a client after each batch
    std::chrono::minutes soak{0};       // 0: one run
    unsigned ring = 0;              // clients of the deadlock demonstration; 0: the ordinary run
    std::filesystem::path picture;  // of that deadlock; empty: none
    bool ringStays = false;         // nobody resolves it: for a debugger to look at
    bool ringThroughReaders = false;
};

// Nothing when the command line asked for help, which has been printed. Throws InputError.
std::optional<Options> ParseOptions(int count, char** words);

#endif  // KELVARA_HOST_OPTIONS_H_

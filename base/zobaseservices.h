// The stand-in base library: what its services do, and replacing them at run time.
//
//     class Quiet : public ZoMessageService { … };
//     static Quiet quiet;
//     ZoMessageService* previous = ZoSetMessageService(&quiet);
//     …
//     ZoSetMessageService(previous);
//
// For programs that have no engine: the host, the tools and the tests. A program may instead define
// ZOVA_assert, ZoSystemLog, ZoMessage or DefaultConfig itself; the dynamic linker then prefers its
// own to the one here, for the calls made in here too.
//
// What the services do unless replaced; all of them work before main() and after it:
//
// - Configuration: the file that the environment variable ZOVA_CONFIG names, else zova.ini in the
//   current directory, else none. It is read once, at the first question.
//
//       ; a comment, as is everything after # or ;
//       [debug]
//       csSleepTime = 50
//       mode = 0xF0000000
//       [base]
//       log = /var/log/engine.log
//
//   Names are single words, upper and lower case differ. A section path of several names is one
//   section whose name joins them with dots: {"a", "b"} is [a.b]; an empty path means the lines
//   before the first section. Of a key given twice the last stands. Values are decimal numbers from
//   -2147483648 to 2147483647, or hexadecimal ones, where 0x80000000 to 0xFFFFFFFF are the bits of
//   a negative number. Only `log` in [base] is a text, a path as it stands, without quotes; there #
//   and ; begin a comment only after a blank. A line that makes no sense is reported on standard
//   error and then treated as if it were not there, a section line too; so is a file that cannot be
//   read or is longer than 1 MiB. A missing zova.ini is fine. A section or a key that neither the
//   library nor the stand-in asks for is reported too, with the known one that is spelt nearly so;
//   it is kept all the same, for a program that asks for it.
// - System log: one line an entry, "2001-02-03T04:05:06.789Z 4 text" (time in UTC, level, text with
//   its line breaks spelled \n), appended to the file `log` in [base], else to standard error.
//   Processes may share the file.
// - Messages: printed on standard error. The answer is key `answer` in [base] of the default
//   configuration in force, else 0: 0x40000000 or 0x80000000 asks for a debugger.
// - Assertions: counted, and printed on standard error as "file:line: assertion failed: text". With
//   ZOVA_ASSERT=abort in the environment they end the program.
// - Version check: every version fits; the answer is 0.
//
// Nothing that is printed is a cancellation point or changes errno, and each text is one write().
//
// Each setter installs a service that the caller owns and keeps alive while it is installed, and
// returns what was in force before, so that a new service can pass on to it. Null brings the
// stand-in's own back. Any thread may call a setter at any time; a thread that has fetched a
// service just before still finishes its call on the old one.

#ifndef KELVARA_BASE_ZOBASESERVICES_H_
#define KELVARA_BASE_ZOBASESERVICES_H_

#include "zobase.h"

// Installs another system log.
ZO_BASE_API ZoLog* ZoSetSystemLog(ZoLog* log);
// Installs another message service.
ZO_BASE_API ZoMessageService* ZoSetMessageService(ZoMessageService* service);
// The stand-in's own configuration counts as null here: it is absent where there is no file, and a
// setter should not be what reads the file. A service that passes questions on gets it from
// DefaultConfig.
ZO_BASE_API ZoConfig* ZoSetDefaultConfig(ZoConfig* configuration);

// Called by ZOVA_assert in place of its own report.
using ZoAssertHandler = void (*)(char const* text, char const* file, int line);
ZO_BASE_API ZoAssertHandler ZoSetAssertHandler(ZoAssertHandler handler);
// How many assertions were raised so far, handled by the stand-in or by a handler.
ZO_BASE_API unsigned long ZoAssertCount();

// Called by CheckZoVersionNumber in place of its own answer.
using ZoVersionCheck = int (*)(unsigned long major, unsigned long minor, unsigned long release,
                               unsigned long build, unsigned long fifth, int flags);
ZO_BASE_API ZoVersionCheck ZoSetVersionCheck(ZoVersionCheck check);

#endif  // KELVARA_BASE_ZOBASESERVICES_H_

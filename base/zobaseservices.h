// Replacing the stand-in base library's services at run time.
//
//     class Quiet : public ZoMessageService { … };
//     static Quiet quiet;
//     ZoMessageService* previous = ZoSetMessageService(&quiet);
//     …
//     ZoSetMessageService(previous);
//
// For programs that have no engine: the host, the tools and the tests. Each setter installs a
// service that the caller owns and keeps alive while it is installed, and returns the previous one;
// null brings the stand-in's own service back. Any thread may call a setter at any time; a thread
// that has fetched a service just before still finishes its call on the old one.

#ifndef KELVARA_BASE_ZOBASESERVICES_H_
#define KELVARA_BASE_ZOBASESERVICES_H_

#include "zobase.h"

ZO_BASE_API ZoLog* ZoSetSystemLog(ZoLog* log);
ZO_BASE_API ZoMessageService* ZoSetMessageService(ZoMessageService* service);
// Unlike the other services the configuration may be absent: with null, DefaultConfig answers what
// the configuration file says, or null where there is none.
ZO_BASE_API ZoConfig* ZoSetDefaultConfig(ZoConfig* configuration);

// Called by ZOVA_assert in place of its own report.
using ZoAssertHandler = void (*)(char const* text, char const* file, int line);
ZO_BASE_API ZoAssertHandler ZoSetAssertHandler(ZoAssertHandler handler);
// How many assertions the stand-in has been told of so far, replaced handler or not.
ZO_BASE_API unsigned long ZoAssertCount();

// Called by CheckZoVersionNumber in place of its own answer.
using ZoVersionCheck = int (*)(unsigned long major, unsigned long minor, unsigned long release,
                               unsigned long build, unsigned long fifth, int flags);
ZO_BASE_API ZoVersionCheck ZoSetVersionCheck(ZoVersionCheck check);

#endif  // KELVARA_BASE_ZOBASESERVICES_H_

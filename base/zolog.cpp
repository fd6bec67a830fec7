#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdio>

#include "zobase.h"
#include "zobaseservices.h"
#include "zoconfigfile.h"
#include "zoreport.h"
#include "zoundisturbed.h"

ZoLog::~ZoLog() = default;

namespace {

// Standard error stands in for a log file that is not named or cannot be opened.
int OpenLog() {
    char const* const path = ConfiguredLogPath();
    if (path == nullptr) return STDERR_FILENO;
    int const descriptor = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (descriptor >= 0) return descriptor;
    ReportToStandardError("%s: cannot open the log: %s; logging to standard error", path,
                          strerrordesc_np(errno));
    return STDERR_FILENO;
}

// Opened at the first entry and never closed: destructors of other libraries may still log.
int LogDescriptor() {
    static int const descriptor = OpenLog();
    return descriptor;
}

struct EntryHead {
    char text[64];
};

// "2001-02-03T04:05:06.789Z 4 ". The time is UTC: the entries of one file order by it whatever zone
// each process runs in.
EntryHead MakeHead(int level) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm parts{};
    gmtime_r(&now.tv_sec, &parts);
    EntryHead head{};
    std::size_t const length = strftime(head.text, sizeof head.text, "%Y-%m-%dT%H:%M:%S", &parts);
    std::snprintf(head.text + length, sizeof head.text - length, ".%03ldZ %d ",
                  now.tv_nsec / 1'000'000L, level);
    return head;
}

class FileLog final : public ZoLog {
public:
    int Printf(int level, char const* format, ...) override __attribute__((format(printf, 3, 4)));
};

// Undisturbed as a whole: the first use of the calendar looks for the file of the local time zone.
int FileLog::Printf(int level, char const* format, ...) {
    Undisturbed const undisturbed;
    va_list args;
    va_start(args, format);
    WriteReport(LogDescriptor(), MakeHead(level).text, ReportForm::OneLine, format, args);
    va_end(args);
    return 0;
}

// Never destroyed, for the same reason.
union Immortal {
    constexpr Immortal() : log() {}
    ~Immortal() {}
    FileLog log;
};

constinit Immortal fileLog;
constinit std::atomic<ZoLog*> logInForce{&fileLog.log};

}  // namespace

ZoLog* ZoSystemLog() {
    return logInForce.load(std::memory_order_acquire);
}

ZoLog* ZoSetSystemLog(ZoLog* log) {
    return logInForce.exchange(log != nullptr ? log : &fileLog.log, std::memory_order_acq_rel);
}

// How the stand-in base library says anything: one text, one write.
//
//     ReportToStandardError("%s:%d: assertion failed: %s", file, line, text);
//
// A report is made whole in memory and handed over in a single write(), so that reports of several
// threads, and of several processes that append to one file, do not mix. Any thread may report at
// any time, before main() and after it included. Reporting is no cancellation point and leaves
// errno as it was.

#ifndef KELVARA_BASE_ZOREPORT_H_
#define KELVARA_BASE_ZOREPORT_H_

#include <cstdarg>

enum class ReportForm {
    AsIs,     // line breaks inside the text stay
    OneLine,  // line breaks inside the text become the two characters \n (or \r)
};

// Writes `prefix` and the formatted text to `descriptor`, with exactly one newline at the end.
// Where the descriptor does not take it, the report goes to standard error. When memory runs out a
// long text is cut short.
void WriteReport(int descriptor, char const* prefix, ReportForm form, char const* format,
                 va_list args) __attribute__((format(printf, 4, 0)));

void ReportToStandardError(char const* format, ...) __attribute__((format(printf, 1, 2)));

#endif  // KELVARA_BASE_ZOREPORT_H_

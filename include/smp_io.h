// The console: diagnostic text to standard error, while it is switched on.
//
//     *GetConsole() << "records" << ARROW << 34924 << endl;     // records --> 34924
//
// Two layers. A sink, _smp_io, writes raw text to standard error. A front, smp_io, formats values
// and hands the text to the sink it holds. Other sinks derive from _smp_io and are put into a
// front's `sink` for a while.
//
// The switch is the configuration key "ZOVAConsole" in section "debug", read at the first write or
// flush: absent or 0 discards everything. _Configure_smp_io() reads it again.
//
// Who may call: any thread, anything. Each insertion is one call of the sink, and the sink above
// makes one write of it; a line made of several insertions may interleave with other threads'
// lines. A sink is called without any lock of the console, by several threads at once if they write
// at once. Code that replaces `sink` does so while no other thread uses that front. A deadlock
// report (zocrits.h) puts a sink of its own around the console's for its length, so other threads'
// text goes into the log too, and the console's sink is called by the reporting thread with csDLD
// held.
//
// Nothing here fails: errors of standard error are ignored, and an insertion allocates nothing.

#ifndef KELVARA_INCLUDE_SMP_IO_H_
#define KELVARA_INCLUDE_SMP_IO_H_

#include <cstdio>

#include "zotypes.h"

class ZoString;

// A sink: writes to standard error.
class ZO_API _smp_io {
public:
    _smp_io();
    _smp_io(_smp_io const&) = delete;
    _smp_io& operator=(_smp_io const&) = delete;
    virtual ~_smp_io();

    // Writes `text` verbatim: exactly `length` bytes, or up to its NUL when `length` is -1.
    virtual void writeOutput(char const* text, int length);
    // Not for this sink: writes "ERROR: writeOutput(ZoString) not implemented" in its place.
    virtual void writeOutput(ZoString const& text);
    virtual void flush();
};

// A front. Every insertion returns the stream, so insertions chain.
class ZO_API smp_io {
public:
    // Makes and owns an _smp_io. When memory ran out the stream discards everything.
    smp_io();
    smp_io(smp_io const&) = delete;
    smp_io& operator=(smp_io const&) = delete;
    // Destroys the sink it holds then.
    virtual ~smp_io();

    // Each hands its argument to the sink, a number as its decimal digits.
    virtual smp_io& operator<<(char const* text);
    virtual smp_io& operator<<(ZoString const& text);
    virtual smp_io& operator<<(int number);
    virtual smp_io& operator<<(unsigned int number);
    virtual smp_io& operator<<(short number);
    virtual smp_io& operator<<(unsigned short number);
    virtual smp_io& operator<<(long number);
    virtual smp_io& operator<<(unsigned long number);
    virtual smp_io& operator<<(float number);
    virtual smp_io& operator<<(double number);
    virtual smp_io& operator<<(char character);  // exactly this one
    virtual smp_io& operator<<(void* pointer);   // as "%p" prints it
    // As _smp_io::writeOutput; returns `length`.
    virtual int Print(char const* text, int length);
    virtual smp_io& flush();
    virtual smp_io& flush(smp_io& stream);  // flushes `stream` and returns it
    virtual smp_io& operator<<(smp_io& (*manipulator)(smp_io&));

    _smp_io* sink;  // owned
};

// The widest integers, as their decimal digits.
inline smp_io& operator<<(smp_io& stream, long long number) {
    char text[24];
    std::snprintf(text, sizeof text, "%lld", number);
    return stream << text;
}
inline smp_io& operator<<(smp_io& stream, unsigned long long number) {
    char text[24];
    std::snprintf(text, sizeof text, "%llu", number);
    return stream << text;
}

ZO_API smp_io& endl(smp_io& stream);           // a newline, then a flush of the sink
ZO_API smp_io& ARROW(smp_io& stream);          // " --> "
ZO_API smp_io& UNKNOWN_ERROR(smp_io& stream);  // "unknown error"

// The process-wide console; null while the library context is not set up.
extern ZO_API smp_io* smp_console;
ZO_API smp_io* GetConsole();
// Makes `console` the console and returns the previous one, which the caller owns from then on.
// With null, returns the current console and changes nothing.
ZO_API smp_io* Console(smp_io* console);
// Reads the switch again, at once. Until it is read other threads write as it stood before; what
// the configuration itself writes, on the calling thread, is discarded, and its call of this
// function does nothing.
ZO_API void _Configure_smp_io();

#endif  // KELVARA_INCLUDE_SMP_IO_H_

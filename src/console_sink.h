// The sink of a console, shared by the threads that write to it.

#ifndef KELVARA_SRC_CONSOLE_SINK_H_
#define KELVARA_SRC_CONSOLE_SINK_H_

#include "smp_io.h"

// A sink that a SinkScope installs. It lives as long as the scope, and until the last thread that
// fetched it meanwhile has used it.
class ScopedSink : public _smp_io {
private:
    friend class SinkUse;
    friend class SinkScope;
    long users = 1;  // the scope, and the threads that use the sink; guarded by the console's lock
};

// A console's sink for one use. A sink is the host's code and is called without any lock.
class SinkUse {
public:
    explicit SinkUse(smp_io const& stream);
    SinkUse(SinkUse const&) = delete;
    SinkUse& operator=(SinkUse const&) = delete;
    ~SinkUse();

    explicit operator bool() const { return sink != nullptr; }
    _smp_io* operator->() const { return sink; }

private:
    _smp_io* Fetch(smp_io const& stream);
    bool IsLast();  // whether the scope is over and this its sink's last use, which ends

    ScopedSink* scoped = nullptr;  // the sink, if it is the one of a scope
    _smp_io* const sink;
};

// Replaces a console's sink for a scope by `own`, which it owns; null replaces nothing. A scope may
// begin inside another one, on the same thread. Two threads must not have scopes at once.
class SinkScope {
public:
    SinkScope(smp_io& console, ScopedSink* own);
    SinkScope(SinkScope const&) = delete;
    SinkScope& operator=(SinkScope const&) = delete;
    ~SinkScope();

private:
    void Install();
    bool Remove();  // whether no thread uses the sink any more

    smp_io& console;
    _smp_io* saved = nullptr;
    ScopedSink* const own;
    ScopedSink* outer = nullptr;  // of the scope around this one
};

// Hold the console's lock over a fork.
void LockConsole();
void UnlockConsole();

#endif  // KELVARA_SRC_CONSOLE_SINK_H_

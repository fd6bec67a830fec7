// The call stacks in a deadlock report, which the configuration key "csStacks" in section "debug"
// switches on.
//
// A thread that announces a wait keeps its own stack in its record; whoever finds a ring tells
// those of its threads. Both happen with csDLD held, and neither allocates.

#ifndef KELVARA_SRC_CALL_STACK_H_
#define KELVARA_SRC_CALL_STACK_H_

class ZoTLS;
class smp_io;

class CallStacks {
public:
    // Reads the key, once in the process, and loads what keeping a stack needs. Without locks held.
    static void ReadKeyOnce();

    // The calling thread's, whose record `me` is; does nothing unless the key is set.
    static void Keep(ZoTLS* me);
    // A line for the thread and one for each frame; nothing unless the thread has kept its stack.
    static void Tell(ZoTLS const* thread, smp_io& console);
};

#endif  // KELVARA_SRC_CALL_STACK_H_

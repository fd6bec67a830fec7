// The call stacks in a deadlock report, which the configuration key "csStacks" in section "debug"
// switches on.
//
// A thread that announces a wait stores its own stack in its record. The thread that finds a ring
// prints the stacks of the ring's threads. Both happen with csDLD held, and neither allocates.

#ifndef KELVARA_SRC_CALL_STACK_H_
#define KELVARA_SRC_CALL_STACK_H_

class ZoTLS;
class smp_io;

class CallStacks {
public:
    // Reads the key, once in the process, and loads the unwinder. Called without locks held.
    static void ReadKeyOnce();

    // Stores the stack of the calling thread in its record, `me`. Does nothing unless the key is
    // set.
    static void Keep(ZoTLS* me);
    // Prints a line for the thread and one for each frame; nothing if no stack is stored.
    static void Tell(ZoTLS const* thread, smp_io& console);
};

#endif  // KELVARA_SRC_CALL_STACK_H_

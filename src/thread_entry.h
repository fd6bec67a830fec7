// The way from a system thread into the thread object.

#ifndef KELVARA_SRC_THREAD_ENTRY_H_
#define KELVARA_SRC_THREAD_ENTRY_H_

class ZoThread;

// What a starter hands to its new thread. It lies on the starter's stack: the starter waits for
// `started`, and the new thread does not touch the record once it has set it.
struct StartRecord {
    ZoThread* owner;
    int volatile started;  // set with release order, read with acquire order
};

// Runs the life of the thread object in `startRecord`, a StartRecord; returns its result.
int Trampoline(void* startRecord);

// Runs the life of `thread` on the calling thread and returns its result. Stores 1 through
// `started`, unless it is null, when the starter may go on. Does not return when the calling thread
// is aborted.
int CplusplusTrampoline(ZoThread* thread, int volatile* started);

// The entry function of POSIX threads; `startRecord` is a PosixStartRecord.
void* PosixTrampoline(void* startRecord);

#endif  // KELVARA_SRC_THREAD_ENTRY_H_

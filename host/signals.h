// Signals: ending a run early and in order, and asking how its locks stand.
//
// SIGINT (Ctrl-C) and SIGQUIT go through the library's abortion handlers, which ask here:
//
//     while                                     the answer     and then
//     a transaction is open                     refused        the run ends as after SIGTERM
//     the database is being set up or checked   refused        the same
//     clients rest or wait for each other       agreed         the process ends at once, status 0;
//                                                              no transaction begins any more
//
// SIGTERM lets the clients finish the pass they are in, so that the result can still be checked and
// nothing temporary is left. A second SIGTERM ends the program at once.
//
// SIGUSR1 asks for a status report of the locks. The handler only notes it; a thread that may print
// takes the note and answers.

#ifndef KELVARA_HOST_SIGNALS_H_
#define KELVARA_HOST_SIGNALS_H_

// By the main thread, for the rest of the process: SIGUSR1 and SIGTERM at its beginning, the others
// once the library is set up. The second throws std::bad_alloc.
void HandleRequests();
void HandleInterrupts();

// Whether there was a request for a status report since the last call.
bool TakeStatusRequest();
// Whether the run is to end.
bool WasInterrupted();

// A transaction is open, or about to be, as long as this lives. Once the end of the process has
// been agreed to, the constructor does not return. The thread holds no lock that a handler needs.
class OpenTransaction {
public:
    OpenTransaction();
    OpenTransaction(OpenTransaction const&) = delete;
    OpenTransaction& operator=(OpenTransaction const&) = delete;
    ~OpenTransaction();
};

// The main thread leaves the work to the clients as long as this lives: only then may the process
// end at once.
class ClientsAtWork {
public:
    ClientsAtWork();
    ClientsAtWork(ClientsAtWork const&) = delete;
    ClientsAtWork& operator=(ClientsAtWork const&) = delete;
    ~ClientsAtWork();
};

// Delays an agreed end of the process until this is gone. Once the end has begun, the constructor
// does not return. For short steps, and for those that use what exit() destroys.
class EndDelay {
public:
    EndDelay();
    EndDelay(EndDelay const&) = delete;
    EndDelay& operator=(EndDelay const&) = delete;
    ~EndDelay();
};

#endif  // KELVARA_HOST_SIGNALS_H_

// Ending a run early and in order.
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

#ifndef KELVARA_HOST_INTERRUPT_H_
#define KELVARA_HOST_INTERRUPT_H_

// By the main thread, once the library is set up, for the rest of the process.
void HeedInterrupts();
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

// The process does not end as long as this lives, but an agreed end is only put off: once there is
// one, the constructor does not return. For steps that use what exit() destroys, and for short
// ones.
class EndPutOff {
public:
    EndPutOff();
    EndPutOff(EndPutOff const&) = delete;
    EndPutOff& operator=(EndPutOff const&) = delete;
    ~EndPutOff();
};

#endif  // KELVARA_HOST_INTERRUPT_H_

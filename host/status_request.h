// SIGUSR1 asks for a status report of the locks while zohost runs:
//
//     kill -USR1 PROCESS
//
// The handler only notes it. Some thread that may print takes the note and answers.

#ifndef KELVARA_HOST_STATUS_REQUEST_H_
#define KELVARA_HOST_STATUS_REQUEST_H_

void HeedStatusRequests();
// Whether there was a request since the last call.
bool TakeStatusRequest();

#endif  // KELVARA_HOST_STATUS_REQUEST_H_

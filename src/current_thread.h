// The calling thread's record, as the library's own hot paths reach it: without a call where that
// is possible. zotls.cpp makes it and keeps `currentRecord`.

#ifndef KELVARA_SRC_CURRENT_THREAD_H_
#define KELVARA_SRC_CURRENT_THREAD_H_

#include "zotls.h"

// What the key's slot holds for the calling thread. One load, where asking the key is a call into
// the system library; the initial-exec model fixes its distance from the thread's base. Unlike the
// slot it is kept while the key's destructor destroys the record, so that what the destruction
// calls finds this record and makes no second one.
[[gnu::tls_model("initial-exec")]] extern constinit thread_local ZoTLS* currentRecord;

// The calling thread's record, made if there is none; null when that fails.
inline ZoTLS* CurrentThread() {
    ZoTLS* const record = currentRecord;
    return record != nullptr ? record : ZoTLS::GetThreadLocalStorage();
}

// Hold the lock of the creation of the record key over a fork.
void LockRecordKey();
void UnlockRecordKey();

#endif  // KELVARA_SRC_CURRENT_THREAD_H_

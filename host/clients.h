// Running the client threads: thread objects of the library, counted by a resource watcher.

#ifndef KELVARA_HOST_CLIENTS_H_
#define KELVARA_HOST_CLIENTS_H_

#include <functional>

// Runs body(0) to body(count - 1), each on a thread of its own, and returns when all have ended.
// Meanwhile calls `tick` a few times a second on the calling thread. Throws what the first
// body to fail threw; when not all threads can be started, no body runs.
void RunClients(unsigned count, std::function<void(unsigned)> const& body,
                std::function<void()> const& tick);

#endif  // KELVARA_HOST_CLIENTS_H_

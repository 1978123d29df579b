#ifndef VELTA_HOST_SEND_QUEUE_H
#define VELTA_HOST_SEND_QUEUE_H

#include <string>

#pragma GCC visibility push(default)

// Queues one event, a JSON text, for sending under the agent's limit of events a minute.
//
// Thread use: any thread, also while the caller holds a lock: must neither block nor call back into the
// module.
void PushMinuteLimitEventToSendQueue(const std::string& event);

#pragma GCC visibility pop

#endif  // VELTA_HOST_SEND_QUEUE_H

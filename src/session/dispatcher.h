// The dispatcher: the one thread of the process that runs slot callbacks.
#pragma once

#include "session/message_queue.h"

namespace TQ::detail {

/// Calls and notifications of all sessions, in the order in which they were read, and the requests
/// whose own write failed.
extern MessageQueue& g_dispatchQueue;

/// Hands `message` to the dispatcher, unless the queue is closed.
void Dispatch(MessageRef message);

/// The body of the dispatcher thread. It ends when the library stops and no session is left; a null
/// message wakes it for that.
///
/// Intended: what is queued by then stays queued, with its sessions and their connections. The
/// dispatcher of the next life serves it, and an unload releases it uncompleted.
void RunDispatcher();

}  // namespace TQ::detail

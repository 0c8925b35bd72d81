// The pipe listener: waits for local peers.
#pragma once

namespace TQ::detail {

/// The body of the pipe listener thread. Waits at its gate and ends, since no pipes are defined.
void RunPipeListener();

}  // namespace TQ::detail

// The comparison: two processes that move the same byte counts over a TCP connection or a pair of
// UNIX stream sockets and do nothing else. One write and as many reads as it takes for each
// message, blocking sockets, no delay.
#pragma once

#include "child.h"
#include "exchange.h"

#include <cstdint>

namespace TQ::bench {

class RawSide final : public ISide {
 public:
  RawSide(Transport transport, const Exchange& exchange);
  ~RawSide() override;

  std::vector<double> RoundTrips(const Exchange& exchange, uint32_t count) override;
  double Throughput(const Exchange& exchange, uint32_t count, uint32_t inFlight) override;

 private:
  Child server;
  int socket = -1;
};

/// The server's process: answers `requestBytes` with `replyBytes` until the connection closes.
int ServeRaw(Transport transport, uint32_t requestBytes, uint32_t replyBytes);

}  // namespace TQ::bench

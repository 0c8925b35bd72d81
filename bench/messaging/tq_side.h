// The library under measurement: calls one after the other, and notifications with completion.
#pragma once

#include "child.h"
#include "exchange.h"

#include <tq/tq.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <semaphore>
#include <string>

namespace TQ::bench {

class TqSide final : public ISide {
 public:
  explicit TqSide(Transport transport);
  ~TqSide() override;

  std::vector<double> RoundTrips(const Exchange& exchange, uint32_t count) override;
  double Throughput(const Exchange& exchange, uint32_t count, uint32_t inFlight) override;

 private:
  /// What the completions of one throughput run share. It lives until the next run, since the last
  /// completion may still be at work when its effect is seen.
  struct Window {
    explicit Window(uint32_t inFlight) : free(inFlight) {}

    std::counting_semaphore<> free;
    std::atomic<bool> whole{true};
  };

  Child server;
  std::unique_ptr<Window> window;
  std::string peer;  ///< the server's full name
};

/// An exchange with the byte counts that its lists really have on the wire.
Exchange MakeExchange(const std::string& name, uint32_t textBytes);

/// The server's process: one slot that answers with one integer.
int ServeTq(Transport transport);

}  // namespace TQ::bench

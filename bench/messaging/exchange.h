// What both sides of the comparison exchange and how they are measured.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace TQ::bench {

/// How the two processes reach each other. Beside the library's pipes stands a raw exchange over
/// UNIX stream sockets, of which its pipes are made here.
enum class Transport { TCP, PIPE };

inline const char* NameOf(Transport transport) {
  return transport == Transport::TCP ? "TCP" : "pipe";
}

/// One request and its reply. The byte counts are those of whole frames; the raw side moves just as
/// many.
struct Exchange {
  std::string name;
  uint32_t textBytes;     ///< length of the string in the request's list
  uint32_t requestBytes;  ///< the call's frame
  uint32_t replyBytes;    ///< the reply's frame
};

/// One way to make exchanges with a second process.
class ISide {
 public:
  virtual ~ISide() = default;

  /// Makes `count` exchanges one after the other: their times in microseconds.
  virtual std::vector<double> RoundTrips(const Exchange& exchange, uint32_t count) = 0;

  /// Makes `count` exchanges with at most `inFlight` unanswered: exchanges a second.
  virtual double Throughput(const Exchange& exchange, uint32_t count, uint32_t inFlight) = 0;
};

}  // namespace TQ::bench

// Calls between two processes over each transport, beside a raw exchange of the same bytes.
//
// The two take turns in one run, so that a machine whose speed drifts slows both. Each figure is
// the median over the rounds, each ratio the median of the rounds' ratios.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <functional>
#include <string>
#include <vector>

#include "raw_side.h"
#include "tq_side.h"

namespace {

using namespace TQ::bench;

struct Effort {
  uint32_t rounds = 9;
  uint32_t roundTrips = 4000;
  uint32_t messages = 40000;
  uint32_t warmUp = 500;
  uint32_t inFlight = 256;
};

double Quantile(std::vector<double> values, double share) {
  const auto rank = static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
  std::nth_element(values.begin(), values.begin() + rank, values.end());
  return values[static_cast<std::size_t>(rank)];
}

double Median(const std::vector<double>& values) { return Quantile(values, 0.5); }

/// One figure of both sides, round by round.
struct Figure {
  std::vector<double> raw;
  std::vector<double> tq;

  void Print(Transport transport, const Exchange& exchange, const char* name,
             const char* unit) const {
    std::vector<double> ratios;
    for (std::size_t i = 0; i < raw.size(); ++i) ratios.push_back(tq[i] / raw[i]);
    const auto [low, high] = std::minmax_element(ratios.begin(), ratios.end());
    std::printf("%-9s %-8s %-17s %12.1f %12.1f %-4s %8.2f   (%.2f to %.2f)\n", NameOf(transport),
                exchange.name.c_str(), name, Median(raw), Median(tq), unit, Median(ratios), *low,
                *high);
  }
};

void Compare(Transport transport, TqSide& tq, const Exchange& exchange, const Effort& effort) {
  RawSide raw(transport, exchange);
  raw.RoundTrips(exchange, effort.warmUp);
  tq.RoundTrips(exchange, effort.warmUp);

  Figure p50, p99, rate;
  for (uint32_t round = 0; round < effort.rounds; ++round) {
    const auto rawTimes = raw.RoundTrips(exchange, effort.roundTrips);
    const auto tqTimes = tq.RoundTrips(exchange, effort.roundTrips);
    p50.raw.push_back(Quantile(rawTimes, 0.5));
    p50.tq.push_back(Quantile(tqTimes, 0.5));
    p99.raw.push_back(Quantile(rawTimes, 0.99));
    p99.tq.push_back(Quantile(tqTimes, 0.99));
    rate.raw.push_back(raw.Throughput(exchange, effort.messages, effort.inFlight));
    rate.tq.push_back(tq.Throughput(exchange, effort.messages, effort.inFlight));
  }
  p50.Print(transport, exchange, "round trip, p50", "us");
  p99.Print(transport, exchange, "round trip, p99", "us");
  rate.Print(transport, exchange, "messages a second", "");
}

int RunBenchmark(const Effort& effort) {
  const Exchange exchanges[] = {MakeExchange("small", 32), MakeExchange("4 KiB", 4096)};
  std::printf("%u rounds of %u calls and of %u messages with %u in flight\n", effort.rounds,
              effort.roundTrips, effort.messages, effort.inFlight);
  for (const Exchange& exchange : exchanges) {
    std::printf("%s: %u bytes there, %u bytes back\n", exchange.name.c_str(), exchange.requestBytes,
                exchange.replyBytes);
  }
  std::printf("%-9s %-8s %-17s %12s %12s %-4s %8s   %s\n", "transport", "exchange", "figure", "raw",
              "tq", "", "tq / raw", "(lowest and highest round)");
  for (const Transport transport : {Transport::TCP, Transport::PIPE}) {
    TqSide tq(transport);
    for (const Exchange& exchange : exchanges) Compare(transport, tq, exchange, effort);
  }
  return 0;
}

Transport TransportOf(const std::string& name) {
  return name == NameOf(Transport::TCP) ? Transport::TCP : Transport::PIPE;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  try {
    if (arguments.size() == 4 && arguments[0] == "--serve-raw") {
      return ServeRaw(TransportOf(arguments[1]), static_cast<uint32_t>(std::stoul(arguments[2])),
                      static_cast<uint32_t>(std::stoul(arguments[3])));
    }
    if (arguments.size() == 2 && arguments[0] == "--serve-tq") {
      return ServeTq(TransportOf(arguments[1]));
    }
    if (arguments.empty()) return RunBenchmark(Effort{});
    if (arguments.size() == 1 && arguments[0] == "--quick") {
      return RunBenchmark(Effort{3, 500, 4000, 100, 256});
    }
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "messaging_bench: %s\n", failure.what());
    return 1;
  }
  std::fprintf(stderr, "usage: messaging_bench [--quick]\n");
  return 2;
}

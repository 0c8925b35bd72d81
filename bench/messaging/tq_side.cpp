#include "tq_side.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <semaphore>
#include <sstream>
#include <stdexcept>

namespace TQ::bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned SLOT = 1;
constexpr uint32_t CALL_HEAD_BYTES = 20;
constexpr uint32_t REPLY_HEAD_BYTES = 16;
constexpr uint16_t FIRST_PORT = 20000;
constexpr uint16_t PORT_COUNT = 12000;

/// Closes its handle.
class List {
 public:
  explicit List(HTQPARAMLIST owned) : handle(owned) {}
  ~List() { TQCloseHandle(handle); }
  List(const List&) = delete;
  List& operator=(const List&) = delete;

  const HTQPARAMLIST handle;
};

void FillRequest(HTQPARAMLIST list, uint32_t textBytes) {
  TQSetInt32Value(list, "count", 3);
  TQSetInt64Value(list, "id", 1234567890123);
  TQSetStringValue(list, "text", std::string(textBytes, 'x').c_str());
}

int Answer(HTQPARAMLIST params, HTQPARAMLIST result, const TQSlotCallInfo*) {
  TQSetInt32Value(result, "ok", TQGetInt32Value(params, "count"));
  return 0;
}

std::atomic<bool> g_listening{false};
std::atomic<bool> g_failed{false};

void WatchListener(uint32_t level, int32_t, const char* text) {
  if (level == TQ_LOG_CRITICAL) g_failed = true;
  if (std::string(text).starts_with("listening for incoming connection")) g_listening = true;
}

}  // namespace

Exchange MakeExchange(const std::string& name, uint32_t textBytes) {
  const List request(TQCreateParamList());
  const List reply(TQCreateParamList());
  FillRequest(request.handle, textBytes);
  TQSetInt32Value(reply.handle, "ok", 3);
  return {name, textBytes, CALL_HEAD_BYTES + TQGetHandleSize(request.handle),
          REPLY_HEAD_BYTES + TQGetHandleSize(reply.handle)};
}

TqSide::TqSide(Transport transport) : server({"--serve-tq", NameOf(transport)}) {
  std::istringstream greeting(server.Greeting());
  std::string host;
  int port = 0;
  greeting >> host >> port;
  TQInitialize("bench-client", 0, nullptr);
  char name[256];
  if (TQConnect(host.c_str(), port, name, sizeof name, nullptr, 0) != TQ_ERR_OK) {
    throw std::runtime_error("cannot connect to the library's server");
  }
  peer = name;
}

TqSide::~TqSide() {
  TQDisconnect(peer.c_str());
  TQShutdown();
}

std::vector<double> TqSide::RoundTrips(const Exchange& exchange, uint32_t count) {
  const List request(TQCreateParamList());
  FillRequest(request.handle, exchange.textBytes);
  std::vector<double> times;
  times.reserve(count);
  for (uint32_t i = 0; i < count; ++i) {
    const auto start = Clock::now();
    const List reply(TQCall(peer.c_str(), SLOT, request.handle));
    times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    if (TQGetInt32Value(reply.handle, "ok") != 3) throw std::runtime_error("a wrong reply");
  }
  return times;
}

double TqSide::Throughput(const Exchange& exchange, uint32_t count, uint32_t inFlight) {
  window = std::make_unique<Window>(inFlight);
  const TQNotifyCallback completed = [](const char*, unsigned, HTQPARAMLIST, HTQPARAMLIST result,
                                        void* context) {
    auto* shared = static_cast<Window*>(context);
    if (TQGetInt32Value(result, "ok") != 3) shared->whole = false;
    shared->free.release();
    return TQ_ERR_OK;
  };
  const List request(TQCreateParamList());
  FillRequest(request.handle, exchange.textBytes);
  const auto start = Clock::now();
  for (uint32_t i = 0; i < count; ++i) {
    window->free.acquire();
    if (TQNotify(peer.c_str(), SLOT, request.handle, completed, window.get()) != TQ_ERR_OK) {
      throw std::runtime_error("the session broke");
    }
  }
  for (uint32_t i = 0; i < inFlight; ++i) window->free.acquire();
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  if (!window->whole) throw std::runtime_error("a wrong reply");
  return count / seconds;
}

int ServeTq(Transport transport) {
  // Who connects to a pipe waits for it.
  g_listening = transport == Transport::PIPE;
  TQSetLogLevel(TQ_LOG_CRITICAL | TQ_LOG_INFO, 0, WatchListener);
  TQRegisterSlot(SLOT, Answer, nullptr);
  // The library takes a port as it is and waits for one in use, so a likely free one is picked.
  const auto port = static_cast<uint16_t>(FIRST_PORT + getpid() % PORT_COUNT);
  const std::string host =
      transport == Transport::TCP ? "127.0.0.1" : "\\tq-bench-" + std::to_string(getpid());
  TQInitializeEx(host.c_str(), "bench-server", port, nullptr);
  TQConnectionReady();
  while (!g_listening && !g_failed) usleep(1000);
  TQSetLogLevel(0, 0, nullptr);
  if (g_listening) GreetAndWait(host + ' ' + std::to_string(port));
  TQShutdown();  // up to 10 seconds with a pipe, whose idle listener looks up no sooner
  return g_listening ? 0 : 1;
}

}  // namespace TQ::bench

// Two terminals: `hello serve` in one, `hello call` in the other.
#include <cstdint>
#include <cstdio>
#include <string>

#include <tq/tq.h>

constexpr unsigned GREET = 1;

// A slot. `result` is what the caller gets; it is null when the caller wants no answer.
int Greet(HTQPARAMLIST params, HTQPARAMLIST result, const TQSlotCallInfo* info) {
  const char* who = TQGetStringValue(params, "who");
  std::printf("%s greets %s\n", info->applicationName, who != nullptr ? who : "nobody");
  if (result.impl != nullptr) TQSetStringValue(result, "text", "good day");
  return 0;
}

void OnLog(uint32_t, int32_t, const char* text) { std::fprintf(stderr, "tq: %s\n", text); }

int Serve() {
  TQRegisterSlot(GREET, Greet, nullptr);
  TQConnectionReady();  // from here on peers are let in
  std::puts("serving, Enter ends it");
  std::getchar();
  return 0;
}

int Call() {
  char server[256];  // gets the server's name, "host:5000/server", by which it is called
  // The last two: no authentication data.
  const auto result = TQConnect("127.0.0.1", 5000, server, sizeof server, nullptr, 0);
  if (result == TQ_ERR_NAME_REJECTED) {
    // Names are unique: a server admits one peer of a name at a time. A caller that comes back at
    // once may find its old name still there.
    std::puts("the server turned us away: a caller of this name is still connected, try again");
    return 1;
  }
  if (result != TQ_ERR_OK) {
    std::puts("nobody listens on 127.0.0.1:5000 (start `hello serve` first)");
    return 1;
  }
  HTQPARAMLIST params = TQCreateParamList();
  TQSetStringValue(params, "who", "the world");
  HTQPARAMLIST reply = TQCall(server, GREET, params);
  const char* text = TQGetStringValue(reply, "text");
  std::printf("%s says %s\n", server, text != nullptr ? text : "nothing");
  TQCloseHandle(reply);
  TQCloseHandle(params);
  return 0;
}

int main(int argc, char** argv) {
  const bool serve = argc > 1 && std::string(argv[1]) == "serve";
  TQSetLogLevel(TQ_LOG_CRITICAL | TQ_LOG_ERROR, 0, OnLog);
  // Port 0 listens nowhere. The last argument: no limits of our own.
  TQInitialize(serve ? "server" : "caller", serve ? 5000 : 0, nullptr);
  const int status = serve ? Serve() : Call();
  TQShutdown();
  return status;
}

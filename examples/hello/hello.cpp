// Two terminals: `hello serve` in one, `hello call` in the other.
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

int main(int argc, char** argv) {
  const bool serve = argc > 1 && std::string(argv[1]) == "serve";
  TQInitialize(serve ? "server" : "caller", serve ? 5000 : 0, nullptr);
  if (serve) {
    TQRegisterSlot(GREET, Greet, nullptr);
    TQConnectionReady();  // from here on peers are let in
    std::getchar();
  } else {
    char server[256];
    if (TQConnect("127.0.0.1", 5000, server, sizeof server, nullptr, 0) == TQ_ERR_OK) {
      HTQPARAMLIST params = TQCreateParamList();
      TQSetStringValue(params, "who", "the world");
      HTQPARAMLIST reply = TQCall(server, GREET, params);
      const char* text = TQGetStringValue(reply, "text");
      std::printf("%s says %s\n", server, text != nullptr ? text : "nothing");
      TQCloseHandle(reply);
      TQCloseHandle(params);
    } else {
      std::puts("nobody listens on 127.0.0.1:5000 (start `hello serve` first)");
    }
  }
  TQShutdown();
}

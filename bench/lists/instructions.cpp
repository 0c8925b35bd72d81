// lists_instructions <step> <number of values>: does that step once in a function of its own, whose
// instructions instructions.sh counts.
//
//   announce   puts a list on a channel that copies nothing
//   send       puts a list on a channel that copies its bytes
//   receive    takes a list off a channel
#include "content.h"
#include "memory_pipe.h"
#include "params/list_store.h"
#include "wire/list_stream.h"

#include <tq/tq.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace TQ::bench;
using namespace TQ::detail;

// Counted from their first instruction to their last, with all that they call.
extern "C" {
[[gnu::noinline]] int32_t CountedWrite(const FastHolderImpl& list, ITransportChannel& channel) {
  return WriteParamList(list, channel, nullptr);
}

[[gnu::noinline]] int32_t CountedRead(FastHolderImpl& list, ITransportChannel& channel,
                                      ListDescriptor own) {
  return ReadParamList(list, channel, own, nullptr);
}
}

namespace {

/// Takes what it is given for written.
class NullChannel final : public ITransportChannel {
 public:
  bool CheckValid() const override { return true; }
  int32_t Send(const void* /*buffer*/, uint32_t length) override {
    return static_cast<int32_t>(length);
  }
  int32_t Receive(void* /*buffer*/, uint32_t /*length*/) override { return -1; }
  int32_t Receive(void* /*buffer*/, uint32_t /*length*/, const StopFlag* /*flag*/) override {
    return -1;
  }
  std::string GetRemoteAddress() const override { return {}; }
  std::string GetLocalAddress() const override { return {}; }
  int32_t WaitForData(uint32_t /*timeoutMs*/) override { return 0; }
  int32_t WaitForData() override { return 0; }
  void Wakeup() override {}
};

bool Run(const char* step, HTQPARAMLIST list) {
  if (std::strcmp(step, "announce") == 0) {
    NullChannel channel;
    return CountedWrite(*list.impl, channel) >= 0;
  }
  MemoryPipe pipe;
  const std::vector<uint8_t> room(list.impl->BlockSize());
  pipe.Send(room.data(), list.impl->BlockSize());  // so that the pipe need not grow
  pipe.Reset();
  if (CountedWrite(*list.impl, pipe) < 0) return false;
  if (std::strcmp(step, "send") == 0) return true;
  const HTQPARAMLIST received = TQCreateParamList();
  const bool read = CountedRead(*received.impl, pipe, DescriptorOf(*list.impl)) >= 0;
  TQCloseHandle(received);
  return read;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: lists_instructions announce|send|receive <number of values>\n");
    return 2;
  }
  const HTQPARAMLIST list = TQCreateParamList();
  for (const std::string& name : ManyContent(std::atoi(argv[2])).names) {
    TQSetInt32Value(list, name.c_str(), 1);
  }
  std::printf("%u\n", list.impl->BlockSize());
  const bool done = Run(argv[1], list);
  TQCloseHandle(list);
  return done ? 0 : 1;
}

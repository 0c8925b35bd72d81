// The hexadecimal examples of docs/wire-format.md, encoded and decoded by the library.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "frame/settings.h"
#include "platform/pipes.h"
#include "session/challenge.h"
#include "session/name_string.h"
#include "session/session.h"
#include "support/memory_channel.h"
#include "support/platform.h"
#include "support/wait_until.h"
#include "wire/list_stream.h"
#include "wire/message.h"

#include <tq/tq.h>

namespace {

using namespace TQ::detail;
using TQ::test::Bytes;
namespace platform = TQ::platform;

/// The bytes of the `hex` blocks of the document, by the word behind "hex".
std::map<std::string, Bytes> ReadExamples() {
  std::map<std::string, Bytes> examples;
  std::ifstream document(TQ_DOCS_DIR "/wire-format.md");
  std::string current;
  for (std::string line; std::getline(document, line);) {
    if (line.rfind("```hex ", 0) == 0) {
      current = line.substr(7);
      examples[current];
    } else if (line.rfind("```", 0) == 0) {
      current.clear();
    } else if (!current.empty()) {
      std::string digits = line.substr(0, line.find('#'));
      digits.erase(std::remove_if(digits.begin(), digits.end(),
                                  [](unsigned char c) { return std::isspace(c) != 0; }),
                   digits.end());
      for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
        examples[current].push_back(
            static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
      }
    }
  }
  return examples;
}

/// A list made by `fill`.
struct ExampleList {
  std::string name;
  std::function<void(HTQPARAMLIST)> fill;
};

void FillNested(HTQPARAMLIST list, bool withValue) {
  const HTQPARAMLIST nested = TQCreateParamList();
  if (withValue) TQSetInt32Value(nested, "a", 1);
  TQSetHandleValue(list, "c", nested);
  TQCloseHandle(nested);
}

std::vector<ExampleList> ExampleLists() {
  return {
      {"int32", [](HTQPARAMLIST list) { TQSetInt32Value(list, "ab", 7); }},
      {"string", [](HTQPARAMLIST list) { TQSetStringValue(list, "a", "hi"); }},
      {"int64", [](HTQPARAMLIST list) { TQSetInt64Value(list, "id", 0x0102030405060708); }},
      {"binary",
       [](HTQPARAMLIST list) {
         const uint8_t bytes[] = {1, 2, 3, 4, 5};
         TQSetBinaryValue(list, "key", bytes, sizeof bytes);
       }},
      {"null-handle", [](HTQPARAMLIST list) { TQSetHandleValue(list, "h", {nullptr}); }},
      {"string-array",
       [](HTQPARAMLIST list) {
         const char* const texts[] = {"a", "bcd"};
         TQSetStringArray(list, "s", 2, texts);
       }},
      {"int32-array",
       [](HTQPARAMLIST list) {
         const uint32_t values[] = {1, 258};
         TQSetInt32Array(list, "n", 2, values);
       }},
      {"int64-array",
       [](HTQPARAMLIST list) {
         const uint64_t values[] = {1};
         TQSetInt64Array(list, "q", 1, values);
       }},
      {"binary-array",
       [](HTQPARAMLIST list) {
         const uint8_t bytes[] = {1, 2, 3};
         const void* const datas[] = {bytes};
         const uint32_t sizes[] = {sizeof bytes};
         TQSetBinaryArray(list, "b", 1, datas, sizes);
       }},
      {"nested", [](HTQPARAMLIST list) { FillNested(list, true); }},
      {"nested-empty", [](HTQPARAMLIST list) { FillNested(list, false); }},
  };
}

/// The frame that a message of this kind goes out as. The request id is the process's next.
Bytes FrameOf(uint32_t kind, uint32_t slotId, HTQPARAMLIST params) {
  auto* channel = new TQ::test::MemoryChannel();
  const SessionRef session(new TQAPPImpl());
  session->Assign(ChannelRef(channel));
  const auto message = TQSlotCallMessage::Outbound(session, kind, slotId, params.impl, nullptr, {});
  EXPECT_GE(message->Serialize(kind), 0);
  return channel->Written();
}

TEST(WireFormat, EveryExampleOfTheDocumentIsTested) {
  std::set<std::string> tested = {"call", "empty-reply", "notification", "subscribe",
                                  "name", "empty-name",  "zero-digest"};
  tested.insert({"pipe-address", "pipe-address-long", "pipe-companion"});
  for (const ExampleList& example : ExampleLists()) tested.insert(example.name);
  std::set<std::string> documented;
  for (const auto& [name, bytes] : ReadExamples()) documented.insert(name);
  EXPECT_EQ(documented, tested);
}

TEST(WireFormat, ListsGoOutAsTheDocumentShowsThem) {
  const auto examples = ReadExamples();
  for (const ExampleList& example : ExampleLists()) {
    SCOPED_TRACE(example.name);
    const HTQPARAMLIST list = TQCreateParamList();
    example.fill(list);
    TQ::test::MemoryChannel channel;
    EXPECT_EQ(WriteParamList(*list.impl, channel, nullptr),
              static_cast<int32_t>(examples.at(example.name).size()));
    EXPECT_EQ(channel.Written(), examples.at(example.name));
    TQCloseHandle(list);
  }
}

TEST(WireFormat, TheDocumentsListsReadBackToTheSameBytes) {
  const auto examples = ReadExamples();
  for (const ExampleList& example : ExampleLists()) {
    SCOPED_TRACE(example.name);
    const HTQPARAMLIST original = TQCreateParamList();
    example.fill(original);
    const ListDescriptor own = DescriptorOf(*original.impl);
    TQCloseHandle(original);

    TQ::test::MemoryChannel channel(examples.at(example.name));
    const ListRef read = FastHolderImpl::Create();
    EXPECT_EQ(ReadParamList(*read, channel, own, nullptr),
              static_cast<int32_t>(examples.at(example.name).size()));
    EXPECT_EQ(read->ParamCount(), 1U);
    EXPECT_EQ(WriteParamList(*read, channel, nullptr),
              static_cast<int32_t>(examples.at(example.name).size()));
    EXPECT_EQ(channel.Written(), examples.at(example.name));
  }
}

TEST(WireFormat, FramesGoOutAsTheDocumentShowsThem) {
  const auto examples = ReadExamples();
  const HTQPARAMLIST list = TQCreateParamList();
  TQSetInt32Value(list, "a", 1);
  EXPECT_EQ(FrameOf(MSG_CALL, 7, list), examples.at("call"));
  EXPECT_EQ(FrameOf(MSG_NOTIFY, 7, {nullptr}), examples.at("notification"));
  TQRemoveAllValues(list);
  TQSetStringValue(list, "signalName", "tick");
  TQSetInt32Value(list, "slotName", 9);
  EXPECT_EQ(FrameOf(MSG_NOTIFY, 0xFFFFFFFF, list), examples.at("subscribe"));
  TQCloseHandle(list);
}

TEST(WireFormat, ARepliesHeadHasNoSlot) {
  auto* channel = new TQ::test::MemoryChannel();
  const SessionRef session(new TQAPPImpl());
  session->Assign(ChannelRef(channel));
  const auto message = TQSlotCallMessage::Inbound(session, 1, MSG_CALL, 0);
  EXPECT_GE(message->Serialize(MSG_REPLY), 0);
  EXPECT_EQ(channel->Written(), ReadExamples().at("empty-reply"));
}

TEST(WireFormat, NamesGoOutAndComeBackAsTheDocumentShowsThem) {
  const auto examples = ReadExamples();
  for (const auto& [example, name] :
       std::map<std::string, std::string>{{"name", "vm:5000/a"}, {"empty-name", ""}}) {
    SCOPED_TRACE(example);
    TQ::test::MemoryChannel channel(examples.at(example));
    localApplicationName.Set(name);
    EXPECT_GE(WriteLocalName(channel), 0);
    EXPECT_EQ(channel.Written(), examples.at(example));
    EXPECT_EQ(ReadNameString(channel), name);
  }
}

TEST(WireFormat, TheDigestIsTheOneOfTheDocument) {
  const Md5Digest digest = DigestOf(AuthBlock{}, Challenge{});
  EXPECT_EQ(Bytes(digest.begin(), digest.end()), ReadExamples().at("zero-digest"));
}

std::string PathOf(const std::string& pipeName) { return platform::PIPE_PREFIX + pipeName; }

/// Where the pipe of this path is found. Another process may hold the name for a moment.
Bytes AddressOfPipe(const std::string& path) {
  platform::PipeEnd pipe;
  EXPECT_TRUE(TQ::test::WaitUntil([&] {
    pipe = platform::CreatePipeEnd(path, platform::PipeAccess::READ, 0);
    return pipe.IsOpen();
  }));
  return TQ::test::platform::PipeAddress(pipe.Handle());
}

TEST(WireFormat, PipesAreFoundWhereTheDocumentSays) {
  const auto examples = ReadExamples();
  EXPECT_EQ(AddressOfPipe(PathOf("orders_in")), examples.at("pipe-address"));
  EXPECT_EQ(AddressOfPipe(PathOf("\\orders_in")), examples.at("pipe-address"));
  EXPECT_EQ(AddressOfPipe(PathOf(std::string(200, 'a') + "_in")), examples.at("pipe-address-long"));
}

/// Both ends of a pipe.
struct OpenedPipe {
  platform::PipeEnd opened;
  platform::PipeEnd accepted;
};

/// Opens the pipe while the test accepts it.
OpenedPipe OpenAccepted(const std::string& name, const platform::PipeEnd* companion) {
  namespace peer = TQ::test::platform;
  const peer::Handle listener = peer::ListenPipe(name);
  EXPECT_NE(listener, peer::NO_HANDLE);
  auto opened = std::async(std::launch::async, [&] {
    return platform::OpenPipeEnd(PathOf(name), platform::PipeAccess::WRITE, companion);
  });
  platform::PipeEnd accepted(peer::AcceptPipe(listener, TQ::test::DEFAULT_DEADLINE));
  EXPECT_TRUE(accepted.IsOpen());
  peer::CloseSocket(listener);
  return {opened.get(), std::move(accepted)};
}

TEST(WireFormat, TheConnectingSidesSocketsHaveTheAddressesOfTheDocument) {
  namespace peer = TQ::test::platform;
  const std::string name = "tq-docs-" + std::to_string(peer::ProcessId());
  const OpenedPipe first = OpenAccepted(name + "_in", nullptr);
  const Bytes firstAddress = peer::PipeAddress(first.opened.Handle());
  ASSERT_EQ(firstAddress.size(), 6U);

  // The document's example with the digits that the system has chosen here.
  Bytes expected = ReadExamples().at("pipe-companion");
  std::copy(firstAddress.begin() + 1, firstAddress.end(), expected.end() - 5);
  const OpenedPipe second = OpenAccepted(name + "_out", &first.opened);
  EXPECT_EQ(peer::PipeAddress(second.opened.Handle()), expected);
}

}  // namespace

#include "support/raw_peer.h"

#include "support/md5.h"
#include "support/transport.h"

#include <algorithm>
#include <stdexcept>
#include <thread>
#include <utility>

namespace TQ::test {

namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;
using platform::IoStatus;

// Far above what any test sends; keeps a damaged length from asking for all memory.
constexpr uint32_t MAX_RECEIVED_BLOCK = 256u * 1024 * 1024;
constexpr uint32_t MAX_RECEIVED_NAME = 1024u * 1024;

Milliseconds Remaining(Clock::time_point end) {
  const auto left = std::chrono::ceil<Milliseconds>(end - Clock::now());
  return std::max(left, Milliseconds{0});
}

std::string AddressText(uint16_t port) { return "127.0.0.1:" + std::to_string(port); }

std::string Describe(IoStatus status) {
  switch (status) {
    case IoStatus::OK:
      return "ok";
    case IoStatus::TIMED_OUT:
      return "no progress in time";
    case IoStatus::CLOSED:
      return "the other side has closed";
    case IoStatus::RESET:
      return "the connection was broken";
    default:
      return "the socket call failed";
  }
}

}  // namespace

// ---- bytes -------------------------------------------------------------------------------------

Bytes NameStringBytes(const std::string& name) {
  const auto paddedLength = static_cast<uint32_t>((name.size() + 4) / 4 * 4);
  Bytes out = Concat({U32(paddedLength), ToBytes(name)});
  out.resize(4 + paddedLength);
  return out;
}

Bytes DigestBytes(const Bytes& authBlock, const Bytes& challenge) {
  Bytes block = authBlock;
  block.resize(RAW_AUTH_BLOCK_SIZE);
  return Md5(Concat({block, challenge}));
}

Bytes RequestHead(uint32_t id, uint32_t kind, uint32_t slotId, uint32_t blockSize,
                  uint32_t handleCount) {
  return Concat({U32(id), U32(kind), U32(slotId), U32(blockSize), U32(handleCount)});
}

Bytes ReplyHead(uint32_t id, uint32_t blockSize, uint32_t handleCount, uint32_t kind) {
  return Concat({U32(id), U32(kind), U32(blockSize), U32(handleCount)});
}

Bytes RequestBytes(uint32_t id, uint32_t kind, uint32_t slotId, const RawList& list) {
  return Concat(
      {RequestHead(id, kind, slotId, list.BlockSize(), list.HandleCount()), list.Stream()});
}

Bytes ReplyBytes(uint32_t id, const RawList& list) {
  return Concat({ReplyHead(id, list.BlockSize(), list.HandleCount()), list.Stream()});
}

// ---- the connection ----------------------------------------------------------------------------

std::optional<RawPeer> RawPeer::TryConnect(uint16_t port, int receiveBuffer) {
  if (OverPipes()) {
    return TryConnectPipes(PipeName(port));
  }
  const auto connected = platform::Connect(port, DEFAULT_DEADLINE, receiveBuffer);
  if (connected == platform::NO_HANDLE) {
    return std::nullopt;
  }
  return RawPeer(connected);
}

// The first pipe decides whether there is a listener; from then on it waits for this peer alone.
std::optional<RawPeer> RawPeer::TryConnectPipes(const std::string& pipeName) {
  const auto inbound = platform::OpenPipe(pipeName + "_in", platform::NO_HANDLE, DEFAULT_DEADLINE);
  if (inbound == platform::NO_HANDLE) {
    return std::nullopt;
  }
  auto outbound = platform::NO_HANDLE;
  const bool opened = WaitUntil([&] {
    outbound = platform::OpenPipe(pipeName + "_out", inbound, DEFAULT_DEADLINE);
    return outbound != platform::NO_HANDLE;
  });
  if (!opened) {
    platform::CloseSocket(inbound);
    return std::nullopt;
  }
  return RawPeer(outbound, inbound, pipeName + "_out", pipeName + "_in");
}

std::optional<RawPeer> RawPeer::Connect(uint16_t port, Milliseconds timeout, int receiveBuffer) {
  std::optional<RawPeer> peer;
  (void)WaitUntil(
      [&] {
        peer = TryConnect(port, receiveBuffer);
        return peer.has_value();
      },
      timeout);
  return peer;
}

RawPeer::RawPeer(platform::Handle connected)
    : socket(connected),
      writeSocket(connected),
      localAddress(AddressText(platform::LocalPort(connected))),
      remoteAddress(AddressText(platform::RemotePort(connected))) {}

RawPeer::RawPeer(platform::Handle readPipe, platform::Handle writePipe, std::string readName,
                 std::string writeName)
    : socket(readPipe),
      writeSocket(writePipe),
      localAddress(std::move(readName)),
      remoteAddress(std::move(writeName)) {}

RawPeer::RawPeer(RawPeer&& other) noexcept
    : socket(std::exchange(other.socket, platform::NO_HANDLE)),
      writeSocket(std::exchange(other.writeSocket, platform::NO_HANDLE)),
      localAddress(std::move(other.localAddress)),
      remoteAddress(std::move(other.remoteAddress)),
      sawReset(other.sawReset),
      problem(std::move(other.problem)) {}

RawPeer& RawPeer::operator=(RawPeer&& other) noexcept {
  if (this != &other) {
    Close();
    socket = std::exchange(other.socket, platform::NO_HANDLE);
    writeSocket = std::exchange(other.writeSocket, platform::NO_HANDLE);
    localAddress = std::move(other.localAddress);
    remoteAddress = std::move(other.remoteAddress);
    sawReset = other.sawReset;
    problem = std::move(other.problem);
  }
  return *this;
}

bool RawPeer::Fail(const std::string& what, IoStatus status) {
  sawReset = sawReset || status == IoStatus::RESET;
  problem = what + ": " + Describe(status);
  return false;
}

bool RawPeer::SendBytes(const Bytes& bytes, Milliseconds timeout) {
  const auto end = Clock::now() + timeout;
  size_t sent = 0;
  while (sent < bytes.size()) {
    if (writeSocket == platform::NO_HANDLE) {
      return Fail("send", IoStatus::FAILED);
    }
    const auto result =
        platform::SendSome(writeSocket, bytes.data() + sent, bytes.size() - sent, Remaining(end));
    if (result.status != IoStatus::OK) {
      return Fail("send, " + std::to_string(bytes.size() - sent) + " bytes left", result.status);
    }
    sent += result.count;
  }
  return true;
}

bool RawPeer::SendSlowly(const Bytes& bytes, std::chrono::microseconds pause) {
  for (const uint8_t byte : bytes) {
    if (!SendBytes({byte})) {
      return false;
    }
    std::this_thread::sleep_for(pause);
  }
  return true;
}

std::optional<Bytes> RawPeer::ReceiveExactly(size_t count, Milliseconds timeout) {
  const auto end = Clock::now() + timeout;
  Bytes bytes(count);
  size_t received = 0;
  while (received < count) {
    if (!IsOpen()) {
      Fail("receive", IoStatus::FAILED);
      return std::nullopt;
    }
    const auto result =
        platform::ReceiveSome(socket, bytes.data() + received, count - received, Remaining(end));
    if (result.status != IoStatus::OK) {
      Fail("receive, " + std::to_string(count - received) + " of " + std::to_string(count) +
               " bytes missing",
           result.status);
      return std::nullopt;
    }
    received += result.count;
  }
  return bytes;
}

std::optional<Bytes> RawPeer::ReceiveUntilClosed(Milliseconds timeout) {
  const auto end = Clock::now() + timeout;
  Bytes bytes;
  for (;;) {
    uint8_t chunk[16384];
    if (!IsOpen()) {
      Fail("receive until closed", IoStatus::FAILED);
      return std::nullopt;
    }
    const auto result = platform::ReceiveSome(socket, chunk, sizeof chunk, Remaining(end));
    bytes.insert(bytes.end(), chunk, chunk + result.count);
    if (result.status == IoStatus::CLOSED || result.status == IoStatus::RESET) {
      sawReset = result.status == IoStatus::RESET;
      return bytes;
    }
    // A peer that never stops sending must not keep the test for ever.
    if (result.status != IoStatus::OK || Clock::now() >= end) {
      Fail("receive until closed", result.status);
      return std::nullopt;
    }
  }
}

bool RawPeer::StaysSilentFor(Milliseconds duration) {
  uint8_t byte = 0;
  return IsOpen() &&
         platform::ReceiveSome(socket, &byte, 1, duration).status == IoStatus::TIMED_OUT;
}

bool RawPeer::WaitClosed(Milliseconds timeout) { return ReceiveUntilClosed(timeout).has_value(); }

void RawPeer::ShutdownWrite() {
  if (socket != writeSocket) {
    platform::CloseSocket(std::exchange(writeSocket, platform::NO_HANDLE));
  } else if (IsOpen()) {
    platform::ShutdownWrite(socket);
  }
}

void RawPeer::CloseReadPipe() {
  if (socket != writeSocket) {
    platform::CloseSocket(std::exchange(socket, platform::NO_HANDLE));
  }
}

void RawPeer::Close() {
  const auto other = std::exchange(writeSocket, platform::NO_HANDLE);
  if (other != socket) {
    platform::CloseSocket(other);
  }
  platform::CloseSocket(std::exchange(socket, platform::NO_HANDLE));
}

void RawPeer::Reset() {
  if (IsOpen() && socket == writeSocket) {
    writeSocket = platform::NO_HANDLE;
    platform::CloseWithReset(std::exchange(socket, platform::NO_HANDLE));
  }
  Close();
}

// ---- handshake ---------------------------------------------------------------------------------

std::optional<RawName> RawPeer::ReadName(Milliseconds timeout) {
  const auto end = Clock::now() + timeout;
  const auto length = ReceiveExactly(4, timeout);
  if (!length) {
    return std::nullopt;
  }
  RawName name;
  name.paddedLength = ReadU32(length->data());
  if (name.paddedLength > MAX_RECEIVED_NAME) {
    problem = "a name of " + std::to_string(name.paddedLength) + " bytes";
    return std::nullopt;
  }
  const auto text = ReceiveExactly(name.paddedLength, Remaining(end));
  if (!text) {
    return std::nullopt;
  }
  name.text.assign(text->begin(), std::find(text->begin(), text->end(), uint8_t{0}));
  name.bytes = Concat({*length, *text});
  return name;
}

// Runs the steps in order and stops at the first that fails or at the one that was asked for.
class RawPeer::Handshake {
 public:
  Handshake(RawPeer& owner, const HandshakeOptions& handshakeOptions)
      : peer(owner), options(handshakeOptions) {}

  template <typename Operation>
  void Step(const char* what, Operation operation) {
    if (!result.failure.empty() || result.stepsDone >= options.stopAfterStep) {
      return;
    }
    if (operation()) {
      ++result.stepsDone;
    } else {
      result.failure =
          "step " + std::to_string(result.stepsDone + 1) + ", " + what + ": " + peer.problem;
    }
  }

  bool Send(const Bytes& bytes) { return peer.SendBytes(bytes, options.timeout); }

  bool Receive(Bytes& out, size_t count) {
    auto bytes = peer.ReceiveExactly(count, options.timeout);
    if (bytes) {
      out = std::move(*bytes);
    }
    return bytes.has_value();
  }

  bool ReceiveName(RawName& out) {
    auto name = peer.ReadName(options.timeout);
    if (name) {
      out = std::move(*name);
    }
    return name.has_value();
  }

  bool SendFirstName(const std::string& name) {
    return Send(options.firstNameBytes.value_or(NameStringBytes(name)));
  }

  bool SendSecondName(const std::string& name) {
    return Send(
        options.secondNameBytes.value_or(NameStringBytes(options.secondName.value_or(name))));
  }

  HandshakeResult result;

 private:
  RawPeer& peer;
  const HandshakeOptions& options;
};

HandshakeResult RawPeer::HandshakeAsConnector(const std::string& name, const Bytes& authBlock,
                                              const HandshakeOptions& options) {
  Handshake run(*this, options);
  HandshakeResult& result = run.result;
  run.Step("send first name", [&] { return run.SendFirstName(name); });
  run.Step("receive first name", [&] { return run.ReceiveName(result.peerFirstName); });
  run.Step("receive challenge", [&] { return run.Receive(result.challenge, RAW_CHALLENGE_SIZE); });
  run.Step("send digest", [&] {
    result.digest = options.digestBytes.value_or(DigestBytes(authBlock, result.challenge));
    if (options.wrongDigest && !result.digest.empty()) {
      result.digest.back() ^= 0x01;
    }
    return run.Send(result.digest);
  });
  run.Step("send second name", [&] { return run.SendSecondName(name); });
  run.Step("receive second name", [&] { return run.ReceiveName(result.peerSecondName); });
  return std::move(result);
}

HandshakeResult RawPeer::HandshakeAsAcceptor(const std::string& name, const Bytes& authBlock,
                                             const HandshakeOptions& options) {
  Handshake run(*this, options);
  HandshakeResult& result = run.result;
  run.Step("receive first name", [&] { return run.ReceiveName(result.peerFirstName); });
  run.Step("send first name", [&] { return run.SendFirstName(name); });
  run.Step("send challenge", [&] {
    result.challenge = options.challengeBytes.value_or(Pattern(RAW_CHALLENGE_SIZE, 77));
    return run.Send(result.challenge);
  });
  run.Step("receive digest", [&] {
    const bool received = run.Receive(result.digest, RAW_DIGEST_SIZE);
    result.digestMatches = received && result.digest == DigestBytes(authBlock, result.challenge);
    return received;
  });
  run.Step("receive second name", [&] { return run.ReceiveName(result.peerSecondName); });
  run.Step("send second name", [&] { return run.SendSecondName(name); });
  return std::move(result);
}

// ---- frames ------------------------------------------------------------------------------------

bool RawPeer::SendRequest(uint32_t id, uint32_t kind, uint32_t slotId, const RawList& list) {
  return SendBytes(RequestBytes(id, kind, slotId, list));
}

bool RawPeer::SendRequest(uint32_t id, uint32_t kind, uint32_t slotId, const Bytes& block,
                          uint32_t handleCount, const Bytes& rest) {
  const auto blockSize = static_cast<uint32_t>(block.size());
  return SendBytes(Concat({RequestHead(id, kind, slotId, blockSize, handleCount), block, rest}));
}

bool RawPeer::SendReply(uint32_t id, const RawList& list) {
  return SendBytes(ReplyBytes(id, list));
}

bool RawPeer::SendReply(uint32_t id, const Bytes& block, uint32_t handleCount, const Bytes& rest) {
  const auto blockSize = static_cast<uint32_t>(block.size());
  return SendBytes(Concat({ReplyHead(id, blockSize, handleCount), block, rest}));
}

std::optional<RawFrame> RawPeer::ReadFrame(Milliseconds timeout) {
  const auto end = Clock::now() + timeout;
  RawFrame frame;
  const auto read = [&](uint32_t count) -> std::optional<Bytes> {
    if (count > MAX_RECEIVED_BLOCK) {
      problem = "a block of " + std::to_string(count) + " bytes";
      return std::nullopt;
    }
    auto bytes = ReceiveExactly(count, Remaining(end));
    if (bytes) {
      Append(frame.bytes, *bytes);
    }
    return bytes;
  };

  const auto start = read(8);
  if (!start) {
    return std::nullopt;
  }
  frame.id = ReadU32(start->data());
  frame.kind = ReadU32(start->data() + 4);
  if (frame.kind < RAW_CALL || frame.kind > RAW_NOTIFY) {
    problem = "a frame of kind " + std::to_string(frame.kind);
    return std::nullopt;
  }
  if (frame.kind != RAW_REPLY) {
    const auto slot = read(4);
    if (!slot) {
      return std::nullopt;
    }
    frame.slotId = ReadU32(slot->data());
  }
  const auto sizes = read(8);
  if (!sizes) {
    return std::nullopt;
  }
  auto list = ReadListStream(read, ReadU32(sizes->data()), ReadU32(sizes->data() + 4));
  if (!list) {
    return std::nullopt;
  }
  frame.list = std::move(*list);
  return frame;
}

// ---- listener ----------------------------------------------------------------------------------

RawListener::RawListener(uint16_t chosenPort, int receiveBuffer) : port(chosenPort) {
  Open(receiveBuffer);
}

RawListener::~RawListener() {
  platform::CloseSocket(socket);
  platform::CloseSocket(outboundPipe);
}

void RawListener::Open(int receiveBuffer) {
  socket = OverPipes() ? platform::ListenPipe(PipeName(port) + "_in")
                       : platform::Listen(port, receiveBuffer);
  if (OverPipes()) {
    outboundPipe = platform::ListenPipe(PipeName(port) + "_out");
  }
  if (socket == platform::NO_HANDLE || (OverPipes() && outboundPipe == platform::NO_HANDLE)) {
    platform::CloseSocket(socket);
    platform::CloseSocket(outboundPipe);
    throw std::runtime_error("RawListener: port " + std::to_string(port) + " cannot be had");
  }
}

// Each name waits for one peer and is then closed, so that nobody waits behind it.
std::optional<RawPeer> RawListener::AcceptPipes(Milliseconds timeout) {
  const auto end = Clock::now() + timeout;
  const auto inbound = platform::AcceptPipe(socket, timeout);
  if (inbound == platform::NO_HANDLE) {
    return std::nullopt;
  }
  platform::CloseSocket(std::exchange(socket, platform::NO_HANDLE));
  const auto outbound = platform::AcceptPipe(outboundPipe, Remaining(end));
  platform::CloseSocket(std::exchange(outboundPipe, platform::NO_HANDLE));
  Open(0);
  const std::string target = "\\" + PipeName(port);
  RawPeer peer(inbound, outbound, target + "_in", target + "_out");
  return outbound != platform::NO_HANDLE ? std::optional<RawPeer>(std::move(peer)) : std::nullopt;
}

std::optional<RawPeer> RawListener::Accept(Milliseconds timeout) {
  if (OverPipes()) {
    return AcceptPipes(timeout);
  }
  const auto accepted = platform::Accept(socket, timeout);
  if (accepted == platform::NO_HANDLE) {
    return std::nullopt;
  }
  return RawPeer(accepted);
}

}  // namespace TQ::test

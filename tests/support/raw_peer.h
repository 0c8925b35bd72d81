// A peer that speaks the wire format on its own, without any code of the library, and can break
// every rule of it.
//
//   auto peer = RawPeer::Connect(port);                   // waits until the listener is there
//   ASSERT_TRUE(peer);
//   auto greeting = peer->HandshakeAsConnector("test:1/raw", authBlock);
//   ASSERT_TRUE(greeting.Completed()) << greeting.failure;
//   peer->SendRequest(1, RAW_CALL, 42, RawList().Int32("x", 7));
//   auto reply = peer->ReadFrame();
//   ASSERT_TRUE(reply) << peer->Problem();
//   EXPECT_EQ(reply->kind, RAW_REPLY);
//   EXPECT_EQ(reply->list.Find("sum")->number, 7u);
//   EXPECT_TRUE(peer->WaitClosed());
//
//   RawListener listener(FreePort());                     // to be connected to
//   auto accepted = listener.Accept();
//   accepted->HandshakeAsAcceptor("test:1/raw");
//
// Misbehaviour: SendSlowly, RequestBytes with Prefix (frames cut anywhere), the options of the
// handshakes, RequestHead with sizes that do not fit, the damaged entries of RawList, Reset.
//
// With the transport of support/transport.h they use TCP, or a pair of named pipes.
//
// Everything gives up after DEFAULT_DEADLINE or the timeout that it is given.
// Threads: one at a time for each RawPeer.
#pragma once

#include "support/bytes.h"
#include "support/platform.h"
#include "support/raw_list.h"
#include "support/wait_until.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace TQ::test {

// Message kinds as they stand on the wire.
constexpr uint32_t RAW_CALL = 1;
constexpr uint32_t RAW_REPLY = 2;
constexpr uint32_t RAW_NOTIFY = 3;

// The slots that connect and disconnect a signal.
constexpr uint32_t RAW_CONNECT_SIGNAL = 0xFFFFFFFF;
constexpr uint32_t RAW_DISCONNECT_SIGNAL = 0xFFFFFFFE;

constexpr size_t RAW_AUTH_BLOCK_SIZE = 256;
constexpr size_t RAW_CHALLENGE_SIZE = 1024;
constexpr size_t RAW_DIGEST_SIZE = 16;

// ---- bytes -------------------------------------------------------------------------------------

/// A name string: padded length, text, 1 to 4 zeros.
Bytes NameStringBytes(const std::string& name);

/// The digest that proves `authBlock`, which is filled with zeros to its full size.
Bytes DigestBytes(const Bytes& authBlock, const Bytes& challenge);

/// 20 bytes.
Bytes RequestHead(uint32_t id, uint32_t kind, uint32_t slotId, uint32_t blockSize,
                  uint32_t handleCount);

/// 16 bytes. `kind` is a parameter so that unknown kinds can be sent.
Bytes ReplyHead(uint32_t id, uint32_t blockSize, uint32_t handleCount, uint32_t kind = RAW_REPLY);

/// Whole frames.
Bytes RequestBytes(uint32_t id, uint32_t kind, uint32_t slotId, const RawList& list);
Bytes ReplyBytes(uint32_t id, const RawList& list);

// ---- what was received -------------------------------------------------------------------------

struct RawFrame {
  uint32_t id = 0;
  uint32_t kind = 0;
  uint32_t slotId = 0;  ///< 0 for a reply, which has none
  RawList list;
  Bytes bytes;  ///< the whole frame as it came
};

struct RawName {
  std::string text;           ///< up to the first zero
  uint32_t paddedLength = 0;  ///< as announced
  Bytes bytes;                ///< the whole name string as it came
};

// ---- handshake ---------------------------------------------------------------------------------

/// Variants of a handshake; the default is a correct one. Steps are those of the wire:
/// 1 connector's name, 2 acceptor's name, 3 challenge, 4 digest, 5 connector's name again,
/// 6 acceptor's name again.
struct HandshakeOptions {
  int stopAfterStep = 6;  ///< return after this step, with the connection open; 0 does nothing
  std::optional<std::string> secondName;  ///< this side's second name, if not as the first
  std::optional<Bytes> firstNameBytes;    ///< sent instead of this side's first name string
  std::optional<Bytes> secondNameBytes;   ///< sent instead of this side's second name string
  bool wrongDigest = false;               ///< connector: one bit of the digest is turned over
  std::optional<Bytes> digestBytes;       ///< connector: sent instead of the digest
  std::optional<Bytes> challengeBytes;    ///< acceptor: sent instead of a full challenge
  std::chrono::milliseconds timeout = DEFAULT_DEADLINE;  ///< of each step
};

struct HandshakeResult {
  int stepsDone = 0;
  RawName peerFirstName;
  RawName peerSecondName;
  Bytes challenge;             ///< received by a connector, sent by an acceptor
  Bytes digest;                ///< sent by a connector, received by an acceptor
  bool digestMatches = false;  ///< acceptor: the digest proves the block
  std::string failure;         ///< empty if no step failed

  bool Completed() const { return stepsDone == 6; }
};

// ---- the peer ----------------------------------------------------------------------------------

/// Owns one connection. Moved-from and closed peers fail every operation.
class RawPeer final {
 public:
  /// Connects to 127.0.0.1:`port`, trying again until someone listens. A `receiveBuffer` above 0
  /// limits the system's buffer, so that a peer that does not read blocks its writer early.
  static std::optional<RawPeer> Connect(uint16_t port,
                                        std::chrono::milliseconds timeout = DEFAULT_DEADLINE,
                                        int receiveBuffer = 0);

  /// One attempt.
  static std::optional<RawPeer> TryConnect(uint16_t port, int receiveBuffer = 0);

  /// One attempt over the pipes of this name, whatever the transport of the test.
  static std::optional<RawPeer> TryConnectPipes(const std::string& pipeName);

  /// Takes over a connected socket.
  explicit RawPeer(platform::Handle connected);

  /// Takes over a pair of pipes. The names are those of the pipes as the other side has them.
  RawPeer(platform::Handle readPipe, platform::Handle writePipe, std::string readName,
          std::string writeName);

  RawPeer(RawPeer&& other) noexcept;
  RawPeer& operator=(RawPeer&& other) noexcept;
  RawPeer(const RawPeer&) = delete;
  RawPeer& operator=(const RawPeer&) = delete;
  ~RawPeer() { Close(); }

  // ---- bytes -----------------------------------------------------------------------------------
  /// False if not all could be written, for instance because the other side is gone.
  bool SendBytes(const Bytes& bytes, std::chrono::milliseconds timeout = DEFAULT_DEADLINE);

  /// One byte at a time, with a pause behind each.
  bool SendSlowly(const Bytes& bytes,
                  std::chrono::microseconds pause = std::chrono::microseconds{500});

  /// Exactly `count` bytes. On failure nullopt, and the bytes that did come are lost.
  std::optional<Bytes> ReceiveExactly(size_t count,
                                      std::chrono::milliseconds timeout = DEFAULT_DEADLINE);

  /// Everything until the other side closes. nullopt if it does not close in time.
  std::optional<Bytes> ReceiveUntilClosed(std::chrono::milliseconds timeout = DEFAULT_DEADLINE);

  /// True if for `duration` neither a byte nor a close arrives.
  bool StaysSilentFor(std::chrono::milliseconds duration);

  /// Waits for the other side's close, orderly or not (WasReset), dropping bytes before it.
  bool WaitClosed(std::chrono::milliseconds timeout = DEFAULT_DEADLINE);

  /// True if the close that was seen was a broken connection.
  bool WasReset() const { return sawReset; }

  /// No more bytes go out; the other side sees an orderly end, and reading goes on.
  void ShutdownWrite();

  /// Closes the pipe that is read, so that the other side's writes fail; writing goes on. Nothing
  /// that a socket could do.
  void CloseReadPipe();

  /// Orderly close, unless unread bytes make the system break the connection.
  void Close();

  /// Breaks the connection: the other side's read fails. A pipe has nothing but its close.
  void Reset();

  bool IsOpen() const { return socket != platform::NO_HANDLE; }
  /// Of a socket.
  uint16_t LocalPort() const { return platform::LocalPort(socket); }
  /// The address of this end, which is the other side's remote address, and of that end.
  const std::string& LocalAddress() const { return localAddress; }
  const std::string& RemoteAddress() const { return remoteAddress; }
  platform::Handle Native() const { return socket; }

  // ---- handshake -------------------------------------------------------------------------------
  bool SendName(const std::string& name) { return SendBytes(NameStringBytes(name)); }
  std::optional<RawName> ReadName(std::chrono::milliseconds timeout = DEFAULT_DEADLINE);

  /// The side that connects. `authBlock` may be shorter than 256 bytes.
  HandshakeResult HandshakeAsConnector(const std::string& name, const Bytes& authBlock = {},
                                       const HandshakeOptions& options = {});

  /// The side that accepts. It goes on after a wrong digest; look at `digestMatches`.
  HandshakeResult HandshakeAsAcceptor(const std::string& name, const Bytes& authBlock = {},
                                      const HandshakeOptions& options = {});

  // ---- frames ----------------------------------------------------------------------------------
  bool SendRequest(uint32_t id, uint32_t kind, uint32_t slotId, const RawList& list = {});

  /// A head that announces `block`'s size and any count of handles, the block, then `rest`.
  bool SendRequest(uint32_t id, uint32_t kind, uint32_t slotId, const Bytes& block,
                   uint32_t handleCount, const Bytes& rest);

  bool SendReply(uint32_t id, const RawList& list = {});
  bool SendReply(uint32_t id, const Bytes& block, uint32_t handleCount, const Bytes& rest);

  /// The next frame. On failure nullopt, with the reason in Problem.
  std::optional<RawFrame> ReadFrame(std::chrono::milliseconds timeout = DEFAULT_DEADLINE);

  /// Why the last failed operation failed.
  const std::string& Problem() const { return problem; }

 private:
  class Handshake;

  bool Fail(const std::string& what, platform::IoStatus status);

  platform::Handle socket = platform::NO_HANDLE;       ///< or the pipe that is read
  platform::Handle writeSocket = platform::NO_HANDLE;  ///< the same socket, or the other pipe
  std::string localAddress;
  std::string remoteAddress;
  bool sawReset = false;
  std::string problem;
};

/// Listens on 127.0.0.1, or on the pipes that stand for the port.
class RawListener final {
 public:
  /// Throws std::runtime_error if the port cannot be had. `receiveBuffer` as for RawPeer::Connect.
  explicit RawListener(uint16_t port, int receiveBuffer = 0);
  ~RawListener();

  RawListener(const RawListener&) = delete;
  RawListener& operator=(const RawListener&) = delete;

  uint16_t Port() const { return port; }

  /// The next connection; nullopt if none comes in time.
  std::optional<RawPeer> Accept(std::chrono::milliseconds timeout = DEFAULT_DEADLINE);

 private:
  void Open(int receiveBuffer);
  std::optional<RawPeer> AcceptPipes(std::chrono::milliseconds timeout);

  const uint16_t port;
  platform::Handle socket = platform::NO_HANDLE;        ///< or the pipe that is read
  platform::Handle outboundPipe = platform::NO_HANDLE;  ///< the other pipe, if there is one
};

}  // namespace TQ::test

// The handshake: how a fresh channel becomes an admitted session.
//
//   connecting side                                  accepting side
//   1  name                           ------->
//   2                                 <-------       name
//   3                                 <-------       challenge, 1024 bytes
//   4  MD5 of block and challenge     ------->
//   5  name, again                    ------->
//   6                                 <-------       name, again
//
// The proof runs one way: the connecting side proves that it knows the block, and takes any peer
// that goes through the motions. A refusal has no word of its own: the channel closes.
#include "frame/log.h"
#include "session/application_name.h"
#include "session/application_registry.h"
#include "session/challenge.h"
#include "session/name_string.h"
#include "session/session.h"

#include <algorithm>
#include <cstring>

using namespace TQ::detail;

namespace {

bool AlreadyConnected(const std::string& name) {
  return g_applications.Find(name.c_str()).IsValid();
}

}  // namespace

bool TQAPPImpl::Assign(const ChannelRef& newChannel) {
  channel = newChannel;
  return channel.IsValid();
}

void TQAPPImpl::ReportUnknownPeer() const {
  const auto listener = g_unknownConnectListener.load(std::memory_order_relaxed);
  if (listener != nullptr) listener(localAddress.c_str(), remoteAddress.c_str());
}

/// Takes the peer's name apart; false, with nothing changed, when a piece is missing.
bool TQAPPImpl::AdoptPeerName(const std::string& peerName) {
  const ParsedApplicationName parsed(peerName.c_str());
  if (parsed.Host() == nullptr || parsed.Application() == nullptr) return false;
  peerHost = parsed.Host();
  peerApplication = parsed.Application();
  return true;
}

// --- accepting side ------------------------------------------------------------------------------

bool TQAPPImpl::AcceptHandshake(const ChannelRef& acceptedChannel) {
  if (Assign(acceptedChannel) && CreateManagementThreads()) RunAcceptingSide();
  StartManagementThreads();
  return Authenticated();
}

void TQAPPImpl::RunAcceptingSide() {
  remoteAddress = channel->GetRemoteAddress();
  localAddress = channel->GetLocalAddress();

  const std::string firstName = ReadNameString(*channel);
  if (firstName.empty()) {
    Log(TQ_LOG_WARNING, "Stage 1: no appID specified");
    ReportUnknownPeer();
    return;
  }
  (void)WriteLocalName(*channel);  // a failed write shows in the next read

  if (!VerifyPeer(firstName)) return;

  const std::string peerName = ReadNameString(*channel);
  if (peerName.empty()) {
    Log(TQ_LOG_WARNING, "Stage 1: no appID specified");
    ReportUnknownPeer();
    return;
  }
  // Intended: the second name is tested, and two handshakes of one name at a time can both pass.
  if (AlreadyConnected(peerName)) {
    Log(TQ_LOG_ERROR, "Application already connected: '", peerName, "'");
    return;
  }
  if (!AdoptPeerName(peerName)) {
    Log(TQ_LOG_WARNING, "Stage 4: No host or name");
    ReportUnknownPeer();
    return;
  }
  (void)WriteLocalName(*channel);  // a failed write shows when the session reads
  name = peerName;
  authenticated.store(1, std::memory_order_relaxed);
}

/// Challenges the peer and checks its answer.
bool TQAPPImpl::VerifyPeer(const std::string& firstName) {
  Challenge challenge;
  randomGenerator.Fill(challenge);
  const bool sent = channel->Send(challenge.data(), CHALLENGE_SIZE) == CHALLENGE_SIZE;
  if (sent) {
    const Md5Digest expected = DigestOf(limits.CopyAuthBlock(), challenge);
    challenge.fill(0);
    Md5Digest answer;
    const auto answerSize = static_cast<uint32_t>(answer.size());
    const bool answered =
        channel->Receive(answer.data(), answerSize) == static_cast<int32_t>(answerSize);
    if (answered && answer == expected) return true;
  }
  Log(TQ_LOG_WARNING, "Stage 2: credentials failed");
  const auto listener = g_authFailedListener.load(std::memory_order_relaxed);
  if (listener != nullptr) {
    listener(localAddress.c_str(), remoteAddress.c_str(), firstName.c_str());
  }
  return false;
}

// --- connecting side -----------------------------------------------------------------------------

_tag_TQ_ERROR TQAPPImpl::ConnectHandshake(const ChannelRef& connectedChannel, char* nameOut,
                                          uint32_t nameOutSize, const uint8_t* authData,
                                          int32_t authLength) {
  // The threads come first, so that a refused argument still runs them through their start.
  _tag_TQ_ERROR result = TQ_ERR_FAILED;
  if (CreateManagementThreads()) {
    result = RunConnectingSide(connectedChannel, nameOut, nameOutSize, authData, authLength);
  }
  StartManagementThreads();
  return result;
}

_tag_TQ_ERROR TQAPPImpl::RunConnectingSide(const ChannelRef& newChannel, char* nameOut,
                                           uint32_t nameOutSize, const uint8_t* authData,
                                           int32_t authLength) {
  if (authLength > static_cast<int32_t>(AUTH_BLOCK_SIZE)) return TQ_ERR_FAILED;
  if (!Assign(newChannel)) return TQ_ERR_FAILED;
  localAddress = channel->GetLocalAddress();
  remoteAddress = channel->GetRemoteAddress();

  (void)WriteLocalName(*channel);  // a failed write shows in the next read
  const std::string firstName = ReadNameString(*channel);
  if (firstName.empty()) return TQ_ERR_FAILED;
  // Intended: this side tests the first name, before the challenge, and never again.
  if (AlreadyConnected(firstName)) return TQ_ERR_NAME_REJECTED;

  Challenge challenge;
  if (channel->Receive(challenge.data(), CHALLENGE_SIZE) != CHALLENGE_SIZE) return TQ_ERR_FAILED;
  AuthBlock block{};
  // A negative length is not refused, and nothing is copied for it.
  if (authData != nullptr && authLength > 0) std::copy_n(authData, authLength, block.begin());
  const Md5Digest digest = DigestOf(block, challenge);
  const auto digestSize = static_cast<uint32_t>(digest.size());
  if (channel->Send(digest.data(), digestSize) != static_cast<int32_t>(digestSize)) {
    return TQ_ERR_FAILED;
  }
  (void)WriteLocalName(*channel);  // a failed write shows in the next read

  // A peer that refuses closes without a word: wrong credentials and a name that is already
  // connected there both arrive as a name that cannot be read.
  const std::string peerName = ReadNameString(*channel);
  if (peerName.empty()) return TQ_ERR_NAME_REJECTED;
  if (!AdoptPeerName(peerName)) {
    ReportUnknownPeer();
    return TQ_ERR_FAILED;
  }
  name = peerName;
  authenticated.store(1, std::memory_order_relaxed);
  if (nameOut != nullptr && nameOutSize != 0) {
    std::memset(nameOut, 0, nameOutSize);
    // Intended: a buffer that is too small stays all zero, and the connection stands.
    if (nameOutSize >= name.size() + 1) std::memcpy(nameOut, name.c_str(), name.size() + 1);
  }
  return TQ_ERR_OK;
}

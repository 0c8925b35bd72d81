// Handshakes over a ScriptedChannel: what the other side gives to read, and a session that went
// through one.
//
//   AdmittedSession peer("there:1/peer");
//   EXPECT_TRUE(g_applications.Find("there:1/peer"));
//   peer.channel->HangUp();
#pragma once

#include "session/session.h"
#include "support/bytes.h"
#include "support/raw_peer.h"
#include "support/scripted_channel.h"

#include <string>

namespace TQ::test {

/// The digest over `block` and the challenge that the library has written last.
inline Bytes AnswerTo(const ScriptedChannel& channel, const Bytes& block) {
  Bytes challenge;
  for (const Bytes& written : channel.Writes()) {
    if (written.size() == RAW_CHALLENGE_SIZE) {
      challenge = written;
    }
  }
  return DigestBytes(block, challenge);
}

/// What an accepting side reads from a peer that behaves.
inline void FeedConnector(ScriptedChannel& channel, const std::string& firstName,
                          const std::string& secondName, const Bytes& block = {}) {
  channel.Feed(NameStringBytes(firstName));
  channel.FeedLater([&channel, block] { return AnswerTo(channel, block); });
  channel.Feed(NameStringBytes(secondName));
}

/// What a connecting side reads from a peer that behaves.
inline void FeedAcceptor(ScriptedChannel& channel, const std::string& firstName,
                         const std::string& secondName,
                         const Bytes& challenge = Pattern(RAW_CHALLENGE_SIZE)) {
  channel.Feed(NameStringBytes(firstName));
  channel.Feed(challenge);
  channel.Feed(NameStringBytes(secondName));
}

/// A session that has admitted a peer of this name. The other side hangs up when it goes.
struct AdmittedSession {
  explicit AdmittedSession(const std::string& name, const Bytes& block = {}) {
    FeedConnector(*channel, name, name, block);
    admitted = session->AcceptHandshake(held);
  }
  ~AdmittedSession() { channel->HangUp(); }
  AdmittedSession(const AdmittedSession&) = delete;
  AdmittedSession& operator=(const AdmittedSession&) = delete;

  ScriptedChannel* const channel = new ScriptedChannel();
  TQ::detail::ChannelRef held{channel};
  TQ::detail::SessionRef session{new TQAPPImpl()};
  bool admitted = false;
};

}  // namespace TQ::test

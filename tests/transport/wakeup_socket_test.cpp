#include "transport/wakeup_socket.h"

#include <gtest/gtest.h>

#include <array>
#include <optional>
#include <vector>

#include "platform/sockets.h"
#include "support/bytes.h"
#include "support/loopback_pair.h"
#include "support/socket_state.h"
#include "support/wait_until.h"

namespace TQ::test {
namespace {

namespace seam = TQ::platform;
using detail::WakeupSocket;

bool IsReadable(seam::SocketHandle socket) {
  return seam::WaitReadable(socket, seam::NO_SOCKET, 0).count == 1;
}

TEST(WakeupSocket, IsALoopbackDatagramSocketThatNobodyInherits) {
  const WakeupSocket wakeup;
  ASSERT_NE(wakeup.Handle(), seam::NO_SOCKET);
  EXPECT_FALSE(IsStream(wakeup.Handle()));
  EXPECT_TRUE(IsNonBlocking(wakeup.Handle()));
  EXPECT_FALSE(IsInheritable(wakeup.Handle()));
  EXPECT_EQ(OwnAddress(wakeup.Handle()),
            "127.0.0.1:" + std::to_string(platform::LocalPort(wakeup.Handle())));
  EXPECT_NE(platform::LocalPort(wakeup.Handle()), 0);
}

TEST(WakeupSocket, IsConnectedToItself) {
  const WakeupSocket wakeup;
  EXPECT_EQ(platform::RemotePort(wakeup.Handle()), platform::LocalPort(wakeup.Handle()));
}

TEST(WakeupSocket, WakeLeavesOneDatagramOfAHundredFixedBytesFromItself) {
  WakeupSocket wakeup;
  EXPECT_FALSE(IsReadable(wakeup.Handle()));
  wakeup.Wake();
  ASSERT_TRUE(IsReadable(wakeup.Handle()));
  Bytes datagram(200);
  std::array<uint8_t, 16> sender{};
  std::array<uint8_t, 16> own{};
  int32_t senderLength = 0;
  int32_t ownLength = 0;
  const auto received =
      seam::ReceiveDatagram(wakeup.Handle(), datagram.data(), 200, sender.data(), &senderLength);
  EXPECT_EQ(received.count, 100);
  EXPECT_EQ(Prefix(datagram, 100), Filled(100, 0xA5));
  ASSERT_TRUE(seam::GetLocalAddress(wakeup.Handle(), own.data(), &ownLength));
  EXPECT_EQ(senderLength, ownLength);
  EXPECT_EQ(sender, own);
  EXPECT_FALSE(IsReadable(wakeup.Handle()));
}

TEST(WakeupSocket, ConsumeTakesOneDatagram) {
  WakeupSocket wakeup;
  wakeup.Wake();
  wakeup.Wake();
  EXPECT_TRUE(wakeup.Consume());
  EXPECT_TRUE(IsReadable(wakeup.Handle()));
  EXPECT_TRUE(wakeup.Consume());
  EXPECT_FALSE(IsReadable(wakeup.Handle()));
}

TEST(WakeupSocket, ConsumeOfNothingIsNoWakeup) {
  WakeupSocket wakeup;
  EXPECT_FALSE(wakeup.Consume());
}

TEST(WakeupSocket, DatagramsOfOthersDoNotComeIn) {
  WakeupSocket wakeup;
  ASSERT_TRUE(SendDatagramTo(platform::LocalPort(wakeup.Handle()), Filled(100, 0xA5)));
  wakeup.Wake();
  // The own one came later, so the other would be there by now.
  EXPECT_TRUE(wakeup.Consume());
  EXPECT_FALSE(wakeup.Consume());
  EXPECT_FALSE(IsReadable(wakeup.Handle()));
}

TEST(WakeupSocket, TwoWakeTheirOwnersOnly) {
  WakeupSocket one;
  WakeupSocket two;
  one.Wake();
  EXPECT_FALSE(IsReadable(two.Handle()));
  EXPECT_TRUE(one.Consume());
}

TEST(WakeupSocket, IsClosedWithItsOwner) {
  {
    const WakeupSocket wakeup;
    EXPECT_EQ(OpenSockets(), std::vector<platform::Handle>{wakeup.Handle()});
  }
  EXPECT_TRUE(OpenSockets().empty());
}

TEST(WakeupSocket, WithoutADescriptorItWakesNobodyAndFailsNowhere) {
  std::optional<WakeupSocket> wakeup;
  {
    const NoMoreDescriptors none;
    wakeup.emplace();
  }
  EXPECT_EQ(wakeup->Handle(), seam::NO_SOCKET);
  wakeup->Wake();
  wakeup.reset();
  EXPECT_TRUE(OpenSockets().empty());
}

}  // namespace
}  // namespace TQ::test

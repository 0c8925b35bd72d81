#include "transport/listener_settings.h"

#include <gtest/gtest.h>
#include <tq/tq.h>

#include <string>

#include "support/bytes.h"
#include "support/hex.h"

namespace TQ::test {
namespace {

using detail::connThreadInfo;
using detail::pipeListenerGate;
using detail::socketListenerGate;

std::string AddressHex(const ConnThreadInfo& info) {
  return ToHex(info.ListenAddress().data(), 16);
}

const char* const NO_ADDRESS = "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00";

TEST(ListenerSettings, LibraryStartsWithNoListenerAndClosedGates) {
  ASSERT_TRUE(connThreadInfo.IsValid());
  EXPECT_FALSE(connThreadInfo->Enabled());
  EXPECT_EQ(AddressHex(*connThreadInfo), NO_ADDRESS);
  EXPECT_TRUE(detail::connPipeThreadInfo.IsValid());
  EXPECT_EQ(detail::connPipeThreadInfo->pipeName.Copy(), "");
  EXPECT_FALSE(socketListenerGate->Wait(0));
  EXPECT_FALSE(pipeListenerGate->Wait(0));
}

TEST(ListenerSettings, DefineRecordsTheAddressAndEnables) {
  ConnThreadInfo& info = *connThreadInfo;
  info.Define("127.0.0.1", 5000);
  EXPECT_TRUE(info.Enabled());
  EXPECT_EQ(AddressHex(info), "02 00 13 88 7f 00 00 01 00 00 00 00 00 00 00 00");
  const detail::SocketAddressArea area = info.ListenAddress();
  EXPECT_EQ(Bytes(area.begin() + 8, area.end()), Bytes(120));
}

TEST(ListenerSettings, TextThatIsNoAddressLeavesAllInterfaces) {
  ConnThreadInfo& info = *connThreadInfo;
  info.Define("10.0.0.1", 80);
  info.Define("localhost", 5000);
  EXPECT_TRUE(info.Enabled());
  EXPECT_EQ(AddressHex(info), "02 00 13 88 00 00 00 00 00 00 00 00 00 00 00 00");
}

TEST(ListenerSettings, ClearTakesTheAddressToo) {
  ConnThreadInfo& info = *connThreadInfo;
  info.Define("127.0.0.1", 5000);
  info.Clear();
  EXPECT_FALSE(info.Enabled());
  EXPECT_EQ(AddressHex(info), NO_ADDRESS);
}

TEST(ListenerSettings, DisableKeepsTheAddress) {
  ConnThreadInfo& info = *connThreadInfo;
  info.Define("127.0.0.1", 5000);
  info.Disable();
  EXPECT_FALSE(info.Enabled());
  EXPECT_NE(AddressHex(info), NO_ADDRESS);
}

TEST(ListenerSettings, GatesOpenTogetherAndForGood) {
  detail::OpenListenerGates();
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(socketListenerGate->Wait(0));
    EXPECT_TRUE(pipeListenerGate->Wait(0));
    EXPECT_TRUE(socketListenerGate->Wait(detail::WAIT_FOREVER));
  }
}

TEST(ListenerSettings, InitialisationWithAPortDefinesAListener) {
  ASSERT_EQ(TQInitialize("settings", 5000, nullptr), TQ_ERR_OK);
  EXPECT_TRUE(connThreadInfo->Enabled());
  EXPECT_EQ(AddressHex(*connThreadInfo), "02 00 13 88 7f 00 00 01 00 00 00 00 00 00 00 00");
  EXPECT_FALSE(socketListenerGate->Wait(0));
  TQShutdown();
}

TEST(ListenerSettings, InitialisationWithoutAPortDefinesNone) {
  connThreadInfo->Define("127.0.0.1", 80);
  ASSERT_EQ(TQInitialize("settings", 0, nullptr), TQ_ERR_OK);
  EXPECT_FALSE(connThreadInfo->Enabled());
  EXPECT_EQ(AddressHex(*connThreadInfo), NO_ADDRESS);
  TQShutdown();
}

TEST(ListenerSettings, InitialisationWithABackslashNamesAPipeAndNoSocket) {
  ASSERT_EQ(TQInitializeEx("\\orders", "settings", 5000, nullptr), TQ_ERR_OK);
  EXPECT_FALSE(connThreadInfo->Enabled());
  EXPECT_EQ(AddressHex(*connThreadInfo), NO_ADDRESS);
  EXPECT_EQ(detail::connPipeThreadInfo->pipeName.Copy(), "orders");
  TQShutdown();
}

TEST(ListenerSettings, StartListenersReplacesTheAddressAndOpensTheGates) {
  ASSERT_EQ(TQStartListeners(nullptr, "10.0.0.1", 80), TQ_ERR_OK);
  EXPECT_TRUE(connThreadInfo->Enabled());
  EXPECT_EQ(AddressHex(*connThreadInfo), "02 00 00 50 0a 00 00 01 00 00 00 00 00 00 00 00");
  EXPECT_TRUE(socketListenerGate->Wait(0));
  EXPECT_TRUE(pipeListenerGate->Wait(0));
}

TEST(ListenerSettings, StartListenersWithABackslashDisablesTheSocketListener) {
  connThreadInfo->Define("127.0.0.1", 80);
  ASSERT_EQ(TQStartListeners(nullptr, "\\orders", 80), TQ_ERR_OK);
  EXPECT_FALSE(connThreadInfo->Enabled());
  EXPECT_EQ(AddressHex(*connThreadInfo), NO_ADDRESS);
}

}  // namespace
}  // namespace TQ::test

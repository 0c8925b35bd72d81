#include "transport/socket_address.h"

#include <gtest/gtest.h>

#include <string>

#include "support/bytes.h"
#include "support/hex.h"

namespace TQ::test {
namespace {

using detail::MakeSocketAddress;
using detail::SocketAddressArea;

std::string HexOfStart(const SocketAddressArea& area) { return ToHex(area.data(), 16); }

bool IsZeroBehindTheAddress(const SocketAddressArea& area) {
  return Bytes(area.begin() + 8, area.end()) == Bytes(120);
}

TEST(SocketAddress, FamilyIsInHostOrderPortAndAddressInNetworkOrder) {
  const SocketAddressArea area = MakeSocketAddress("10.20.30.40", 0x1234);
  EXPECT_EQ(HexOfStart(area), "02 00 12 34 0a 14 1e 28 00 00 00 00 00 00 00 00");
  EXPECT_TRUE(IsZeroBehindTheAddress(area));
  EXPECT_EQ(area.size(), 128u);
  EXPECT_EQ(detail::FamilyOf(area.data()), 2);
  EXPECT_EQ(detail::PortOf(area.data()), 0x1234);
}

TEST(SocketAddress, PortsOfAllSizesAreKept) {
  constexpr uint16_t PORTS[] = {0, 1, 255, 256, 5000, 32768, 65535};
  for (const uint16_t port : PORTS) {
    EXPECT_EQ(detail::PortOf(MakeSocketAddress("127.0.0.1", port).data()), port);
  }
}

TEST(SocketAddress, TextIsTheDottedAddressAndTheDecimalPort) {
  EXPECT_EQ(detail::AddressTextOf(MakeSocketAddress("127.0.0.1", 5000).data()), "127.0.0.1:5000");
  EXPECT_EQ(detail::AddressTextOf(MakeSocketAddress("255.255.255.255", 65535).data()),
            "255.255.255.255:65535");
  EXPECT_EQ(detail::AddressTextOf(MakeSocketAddress("0.0.0.0", 0).data()), "0.0.0.0:0");
  EXPECT_EQ(detail::HostTextOf(MakeSocketAddress("192.168.0.7", 80).data()), "192.168.0.7");
}

TEST(SocketAddress, TellsWhetherTheTextWasDotted) {
  bool parsed = false;
  (void)MakeSocketAddress("127.0.0.1", 1, &parsed);
  EXPECT_TRUE(parsed);
  (void)MakeSocketAddress("localhost", 1, &parsed);
  EXPECT_FALSE(parsed);
}

TEST(SocketAddress, AnyOtherTextLeavesTheAddressZeroAndKeepsThePort) {
  for (const char* text :
       {"", "localhost", "127.0.0", "1.2.3.4.5", "300.1.1.1", "::1", "1.2.3.4 "}) {
    const SocketAddressArea area = MakeSocketAddress(text, 5000);
    EXPECT_EQ(HexOfStart(area), "02 00 13 88 00 00 00 00 00 00 00 00 00 00 00 00") << text;
    EXPECT_TRUE(IsZeroBehindTheAddress(area)) << text;
  }
}

}  // namespace
}  // namespace TQ::test

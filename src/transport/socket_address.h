// IPv4 socket addresses as bytes, and their text form.
//
//   0  family, 16 bits, host order
//   2  port, 16 bits, network order
//   4  address, 4 bytes, network order
//   8  zero
#pragma once

#include "platform/sockets.h"

#include <array>
#include <cstdint>
#include <ostream>
#include <string>

namespace TQ::detail {

/// The area that binding and connecting hand to the system.
using SocketAddressArea = std::array<uint8_t, platform::SOCKET_ADDRESS_AREA_SIZE>;

constexpr uint32_t ADDRESS_FAMILY_OFFSET = 0;
constexpr uint32_t ADDRESS_PORT_OFFSET = 2;
constexpr uint32_t ADDRESS_HOST_OFFSET = 4;

/// The IPv4 address `text` with that port, in an area that is zero otherwise. A text that is no
/// dotted address leaves the host bytes zero, and `*parsed`, where given, false.
SocketAddressArea MakeSocketAddress(const char* text, uint16_t port, bool* parsed = nullptr);

uint16_t FamilyOf(const uint8_t* address);
uint16_t PortOf(const uint8_t* address);

/// The dotted address alone.
std::string HostTextOf(const uint8_t* address);

/// HostTextOf for a log statement: nothing is rendered while the statement is off.
struct HostText {
  const uint8_t* address;

  friend std::ostream& operator<<(std::ostream& stream, const HostText& host) {
    return stream << HostTextOf(host.address);
  }
};

/// "127.0.0.1:5000".
std::string AddressTextOf(const uint8_t* address);

}  // namespace TQ::detail

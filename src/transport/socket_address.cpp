#include "transport/socket_address.h"

#include <cstring>

namespace TQ::detail {

SocketAddressArea MakeSocketAddress(const char* text, uint16_t port, bool* parsed) {
  SocketAddressArea area{};
  std::memcpy(&area[ADDRESS_FAMILY_OFFSET], &platform::ADDRESS_FAMILY_IPV4,
              sizeof platform::ADDRESS_FAMILY_IPV4);
  area[ADDRESS_PORT_OFFSET] = static_cast<uint8_t>(port >> 8);
  area[ADDRESS_PORT_OFFSET + 1] = static_cast<uint8_t>(port & 0xFF);
  const bool dotted = platform::ParseAddressText(text, &area[ADDRESS_HOST_OFFSET]);
  if (parsed != nullptr) *parsed = dotted;
  return area;
}

uint16_t FamilyOf(const uint8_t* address) {
  uint16_t family;
  std::memcpy(&family, address + ADDRESS_FAMILY_OFFSET, sizeof family);
  return family;
}

uint16_t PortOf(const uint8_t* address) {
  return static_cast<uint16_t>(address[ADDRESS_PORT_OFFSET] << 8 |
                               address[ADDRESS_PORT_OFFSET + 1]);
}

std::string HostTextOf(const uint8_t* address) {
  char text[platform::ADDRESS_TEXT_SIZE];
  platform::FormatAddressText(address + ADDRESS_HOST_OFFSET, text);
  return text;
}

std::string AddressTextOf(const uint8_t* address) {
  return HostTextOf(address) + ":" + std::to_string(PortOf(address));
}

}  // namespace TQ::detail

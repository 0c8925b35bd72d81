#include "session/name_string.h"

#include "frame/little_endian.h"
#include "frame/settings.h"

#include <array>
#include <vector>

namespace TQ::detail {
namespace {

constexpr uint32_t LENGTH_SIZE = 4;

}  // namespace

std::string ReadNameString(ITransportChannel& channel) {
  uint8_t lengthBytes[LENGTH_SIZE];
  if (channel.Receive(lengthBytes, LENGTH_SIZE) < 0) return {};
  const uint32_t paddedLength = LoadDword(lengthBytes);
  if (paddedLength > MAX_PADDED_NAME) return {};
  // One byte more than a peer can fill: a text without a terminator of its own ends here.
  std::array<char, MAX_PADDED_NAME + 1> text{};
  if (channel.Receive(text.data(), paddedLength) < 0) return {};
  return text.data();
}

int32_t WriteLocalName(ITransportChannel& channel) {
  const std::string name = localApplicationName.Copy();
  const auto paddedLength = static_cast<uint32_t>((name.size() + 4) & ~std::size_t{3});
  std::vector<uint8_t> bytes(LENGTH_SIZE + std::size_t{paddedLength}, 0);
  StoreDword(bytes.data(), paddedLength);
  std::copy(name.begin(), name.end(), bytes.begin() + LENGTH_SIZE);
  return channel.Send(bytes.data(), static_cast<uint32_t>(bytes.size()));
}

}  // namespace TQ::detail

// SHA-256, the checksum that a scanner sends with each package.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace inventory {

using Checksum = std::array<std::uint8_t, 32>;

/// The SHA-256 digest of `text` as FIPS 180-4 defines it.
Checksum Sha256(std::string_view text);

}  // namespace inventory

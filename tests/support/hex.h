// Bytes as hexadecimal text, for tests that compare golden bytes.
//
//   EXPECT_EQ(ToHex(block), "07 61 62 00 00 00 00 02 07 00 00 00");
//   Bytes block = FromHex("07616200 00000002 07000000");
#pragma once

#include "support/bytes.h"

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace TQ::test {

/// Two lower-case digits a byte, separated by `separator`.
inline std::string ToHex(const uint8_t* data, size_t size, std::string_view separator = " ") {
  static constexpr char DIGITS[] = "0123456789abcdef";
  std::string out;
  for (size_t index = 0; index < size; ++index) {
    if (index != 0) {
      out += separator;
    }
    out += DIGITS[data[index] >> 4];
    out += DIGITS[data[index] & 0x0F];
  }
  return out;
}

inline std::string ToHex(const Bytes& bytes, std::string_view separator = " ") {
  return ToHex(bytes.data(), bytes.size(), separator);
}

/// Accepts digits of either case; blanks, commas and line ends between the bytes are skipped.
/// Throws std::invalid_argument for anything else and for half a byte.
inline Bytes FromHex(std::string_view text) {
  const auto digit = [](char c) -> int {
    if (c >= '0' && c <= '9') {
      return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
      return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
      return c - 'A' + 10;
    }
    return -1;
  };
  Bytes out;
  for (size_t index = 0; index < text.size(); ++index) {
    const char c = text[index];
    if (c == ' ' || c == ',' || c == '\n' || c == '\r' || c == '\t') {
      continue;
    }
    const int high = digit(c);
    const int low = index + 1 < text.size() ? digit(text[index + 1]) : -1;
    if (high < 0 || low < 0) {
      throw std::invalid_argument("FromHex: not a byte at position " + std::to_string(index));
    }
    out.push_back(static_cast<uint8_t>(high * 16 + low));
    ++index;
  }
  return out;
}

}  // namespace TQ::test

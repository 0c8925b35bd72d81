// What the messages of the comparison hold, the same for every library, and how it is summed up.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace TQ::bench {

/// Eight named values: names of 5 to 12 letters, three 32-bit and two 64-bit integers, two strings
/// and a binary.
struct OrderContent {
  int32_t price = 1250;
  int32_t quantity = 3;
  int32_t warehouse = 17;
  int64_t customerId = 0x123456789ABCDEF;
  int64_t orderedAtMs = 1700000000000;
  const char* article = "cable, 3 m";
  const char* remark = "leave it with the neighbour";
  uint8_t digestOfItem[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
};

inline constexpr OrderContent SAMPLE;

/// How many lists stand around the order where it is nested.
constexpr int NESTING = 3;

/// What a message holds beside the order: `count` integers and as many names.
struct ManyContent {
  explicit ManyContent(int count) {
    for (int i = 0; i < count; ++i) {
      integers.push_back(i * 7919 % 100003);
      names.push_back("value" + std::to_string(i));
    }
  }

  std::vector<int32_t> integers;
  std::vector<std::string> names;
};

/// Adds up what was read, so that all of it is touched and every library can be compared.
class Sum {
 public:
  void Number(int64_t value) { sum += static_cast<uint64_t>(value); }
  void Text(std::string_view text) { Bytes(text.data(), text.size()); }
  void Bytes(const void* bytes, size_t size) {
    sum += size;
    if (size != 0) sum += *static_cast<const uint8_t*>(bytes);
  }
  uint64_t Value() const { return sum; }

 private:
  uint64_t sum = 0;
};

}  // namespace TQ::bench

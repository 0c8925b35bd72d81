// How a full application name is taken apart.
#include "session/application_name.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

namespace TQ::test {
namespace {

using detail::ParsedApplicationName;

struct Pieces {
  std::optional<std::string> host;
  int32_t port = 0;
  std::optional<std::string> application;

  friend bool operator==(const Pieces&, const Pieces&) = default;
  friend std::ostream& operator<<(std::ostream& stream, const Pieces& pieces) {
    return stream << '(' << pieces.host.value_or("<null>") << '|' << pieces.port << '|'
                  << pieces.application.value_or("<null>") << ')';
  }
};

std::optional<std::string> TextOf(const char* piece) {
  return piece != nullptr ? std::optional<std::string>(piece) : std::nullopt;
}

Pieces Parse(const char* name) {
  const ParsedApplicationName parsed(name);
  return {TextOf(parsed.Host()), parsed.Port(), TextOf(parsed.Application())};
}

const std::nullopt_t NONE = std::nullopt;

TEST(ApplicationName, ComesApartIntoHostPortAndApplication) {
  EXPECT_EQ(Parse("host:5000/app"), (Pieces{"host", 5000, "app"}));
  EXPECT_EQ(Parse("h:0/a"), (Pieces{"h", 0, "a"}));
  EXPECT_EQ(Parse("my.host-1:65535/Some App"), (Pieces{"my.host-1", 65535, "Some App"}));
}

TEST(ApplicationName, WithoutAColonIsAllHost) {
  EXPECT_EQ(Parse("host"), (Pieces{"host", 0, NONE}));
  EXPECT_EQ(Parse("host/app"), (Pieces{"host/app", 0, NONE}));
}

TEST(ApplicationName, WithoutASlashHasNoApplication) {
  EXPECT_EQ(Parse("host:5000"), (Pieces{"host", 5000, NONE}));
  EXPECT_EQ(Parse("host:5000/"), (Pieces{"host", 5000, NONE}));
  EXPECT_EQ(Parse("host:5000///"), (Pieces{"host", 5000, NONE}));
}

TEST(ApplicationName, WithAnEmptyPortTakesTheApplicationForThePort) {
  EXPECT_EQ(Parse("host:/app"), (Pieces{"host", 0, NONE}));
  EXPECT_EQ(Parse("host:/77"), (Pieces{"host", 77, NONE}));
  EXPECT_EQ(Parse("host:/77/app"), (Pieces{"host", 77, "app"}));
}

TEST(ApplicationName, WithSeveralSlashesKeepsTheApplicationUpToTheNext) {
  EXPECT_EQ(Parse("host:1/app/more"), (Pieces{"host", 1, "app"}));
  EXPECT_EQ(Parse("host:1/app/"), (Pieces{"host", 1, "app"}));
  EXPECT_EQ(Parse("host:1//app"), (Pieces{"host", 1, "app"}));
}

TEST(ApplicationName, SkipsLeadingDelimiters) {
  EXPECT_EQ(Parse(":host:1/app"), (Pieces{"host", 1, "app"}));
  EXPECT_EQ(Parse(":::host:1/app"), (Pieces{"host", 1, "app"}));
}

TEST(ApplicationName, WithNothingBetweenItsDelimitersHasNoPieces) {
  EXPECT_EQ(Parse(""), (Pieces{NONE, 0, NONE}));
  EXPECT_EQ(Parse(":"), (Pieces{NONE, 0, NONE}));
  EXPECT_EQ(Parse(":::"), (Pieces{NONE, 0, NONE}));
  EXPECT_EQ(Parse("/"), (Pieces{"/", 0, NONE}));
}

TEST(ApplicationName, OfNullIsAnEmptyOne) { EXPECT_EQ(Parse(nullptr), (Pieces{NONE, 0, NONE})); }

TEST(ApplicationName, ReadsThePortAsAtoiDoes) {
  EXPECT_EQ(Parse("h:12ab/x").port, 12);
  EXPECT_EQ(Parse("h: 12/x").port, 12);
  EXPECT_EQ(Parse("h:-1/x").port, -1);
  EXPECT_EQ(Parse("h:+7/x").port, 7);
  EXPECT_EQ(Parse("h:007/x").port, 7);
  EXPECT_EQ(Parse("h:0x10/x").port, 0);
  EXPECT_EQ(Parse("h:port/x").port, 0);
  EXPECT_EQ(Parse("h:70000/x").port, 70000);
  EXPECT_EQ(Parse("h:2147483647/x").port, 2147483647);
  EXPECT_EQ(Parse("h:1:2/x"), (Pieces{"h", 1, "x"}));
}

TEST(ApplicationName, MayBeOfAnyLength) {
  for (const size_t length : {255u, 256u, 257u, 5000u}) {
    const std::string host(length, 'h');
    const std::string application(length, 'a');
    EXPECT_EQ(Parse((host + ":9/" + application).c_str()), (Pieces{host, 9, application}));
  }
}

TEST(ApplicationName, LeavesTheGivenTextAsItIs) {
  char text[] = "host:5000/app/x";
  const ParsedApplicationName parsed(text);
  EXPECT_STREQ(text, "host:5000/app/x");
  std::memset(text, 'z', sizeof text - 1);
  EXPECT_STREQ(parsed.Host(), "host");
  EXPECT_STREQ(parsed.Application(), "app");
}

// What the C library's own tokenizer makes of the text.
Pieces ParseWithStrtok(const std::string& name) {
  std::vector<char> copy(name.begin(), name.end());
  copy.push_back('\0');
  Pieces pieces;
  pieces.host = TextOf(std::strtok(copy.data(), ":"));
  const char* port = std::strtok(nullptr, "/");
  pieces.port = port != nullptr ? std::atoi(port) : 0;
  pieces.application = TextOf(std::strtok(nullptr, "/"));
  return pieces;
}

TEST(ApplicationName, ComesApartAsTheStandardTokenizerDoesIt) {
  constexpr char ALPHABET[] = {'a', '7', ':', '/'};
  constexpr size_t MAX_LENGTH = 7;
  std::vector<std::string> texts{""};
  for (size_t first = 0, length = 0; length < MAX_LENGTH; ++length) {
    const size_t end = texts.size();
    for (; first < end; ++first) {
      for (const char letter : ALPHABET) {
        texts.push_back(texts[first] + letter);
      }
    }
  }
  ASSERT_EQ(texts.size(), 21845u);
  for (const std::string& text : texts) {
    ASSERT_EQ(Parse(text.c_str()), ParseWithStrtok(text)) << '"' << text << '"';
  }
}

}  // namespace
}  // namespace TQ::test

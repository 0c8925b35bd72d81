// Runs every exported function of lists over a list as a peer can have sent it, and checks what
// each of them gives: a defined answer, or one of the two exceptions where a function may throw
// one.
//
//   const OwnedList received = ReceivedList(damaged);
//   const QuietErrorStream quiet;         // for the dumps
//   RunEveryListFunction(received);
//
// The list is as it was afterwards: what changes lists runs on clones. The functions are left out
// where they are undefined: copies of lists that name lists which are not there, and reading what
// an array's offset points at outside the block.
#pragma once

#include <tq/tq.h>

#include <cstdint>
#include <iostream>
#include <sstream>
#include <streambuf>

namespace TQ::test {

struct FunctionResults {
  uint32_t answers = 0;   ///< runs that came to their end
  uint32_t refusals = 0;  ///< runs that threw
};

/// Failures are failures of the running test. The list must have been accepted by a reader.
FunctionResults RunEveryListFunction(_tag_HTQPARAMLIST list);

/// Swallows what is written to the standard error stream, for as long as it lives.
class QuietErrorStream final {
 public:
  QuietErrorStream() : before(std::cerr.rdbuf(&nowhere)) {}
  ~QuietErrorStream() { std::cerr.rdbuf(before); }
  QuietErrorStream(const QuietErrorStream&) = delete;
  QuietErrorStream& operator=(const QuietErrorStream&) = delete;

 private:
  class Nowhere final : public std::streambuf {
    int_type overflow(int_type character) override { return traits_type::not_eof(character); }
  };
  Nowhere nowhere;
  std::streambuf* before;
};

}  // namespace TQ::test

// The second process of a benchmark: this same program in another role.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace TQ::bench {

/// Starts this program with `arguments`, and ends it when the object goes.
///
/// The child prints one line when it is ready and reads its standard input, whose end tells it to
/// finish; so it does not outlive its parent.
class Child {
 public:
  explicit Child(const std::vector<std::string>& arguments);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  /// The line that the child printed.
  const std::string& Greeting() const { return greeting; }

 private:
  pid_t pid = -1;
  int input = -1;
  std::string greeting;
};

/// For the child: prints the greeting and waits for the end of standard input.
void GreetAndWait(const std::string& greeting);

}  // namespace TQ::bench

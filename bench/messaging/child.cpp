#include "child.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <stdexcept>

extern char** environ;

namespace TQ::bench {

Child::Child(const std::vector<std::string>& arguments) {
  int toChild[2];
  int fromChild[2];
  if (pipe2(toChild, O_CLOEXEC) != 0 || pipe2(fromChild, O_CLOEXEC) != 0) {
    throw std::runtime_error("cannot make pipes");
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, toChild[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, fromChild[1], STDOUT_FILENO);

  std::vector<std::string> words = {"messaging_bench"};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  const int failure = posix_spawn(&pid, "/proc/self/exe", &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(toChild[0]);
  close(fromChild[1]);
  if (failure != 0) throw std::runtime_error("cannot start the second process");

  input = toChild[1];
  for (char c = 0; read(fromChild[0], &c, 1) == 1 && c != '\n';) greeting += c;
  close(fromChild[0]);
}

Child::~Child() {
  close(input);
  waitpid(pid, nullptr, 0);
}

void GreetAndWait(const std::string& greeting) {
  std::cout << greeting << std::endl;
  while (std::cin.get() != std::char_traits<char>::eof()) {
  }
}

}  // namespace TQ::bench

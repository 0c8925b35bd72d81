// The options that the three programs share.
#pragma once

#include <string>

#include <CLI/CLI.hpp>

namespace inventory {

struct Options {
  int port = 0;
  std::string authFile;
  bool log = false;
  bool progress = false;
};

inline void AddOptions(CLI::App& app, Options& options) {
  app.add_option("--port", options.port, "the catalog's port on 127.0.0.1")
      ->required()
      ->check(CLI::Range(1, 65535));
  app.add_option("--auth", options.authFile, "file of 256 bytes that the three programs share")
      ->required()
      ->check(CLI::ExistingFile);
  app.add_flag("--log", options.log, "print the library's log lines");
  app.add_flag("--progress", options.progress, "show progress even if this is no terminal");
}

}  // namespace inventory

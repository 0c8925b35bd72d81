// The options that the three programs share.
#pragma once

#include <string>

#include <CLI/CLI.hpp>

#include "host.h"

namespace inventory {

struct Options {
  Place place;
  std::string authFile;
  bool log = false;
  bool progress = false;
};

inline void AddOptions(CLI::App& app, Options& options) {
  auto* place = app.add_option_group("place", "one of them says where the catalog listens");
  place->add_option("--port", options.place.port, "the catalog's port on 127.0.0.1")
      ->check(CLI::Range(1, 65535));
  place
      ->add_option_function<std::string>(
          "--pipe", [&options](const std::string& name) { options.place.host = '\\' + name; },
          "the name of the catalog's pipe")
      ->check([](const std::string& name) { return name.empty() ? "no name" : ""; });
  place->require_option(1);
  app.add_option("--auth", options.authFile, "file of 256 bytes that the three programs share")
      ->required()
      ->check(CLI::ExistingFile);
  app.add_flag("--log", options.log, "print the library's log lines");
  app.add_flag("--progress", options.progress, "show progress even if this is no terminal");
}

}  // namespace inventory

// Entry of the command-line driver, callable in-process by tests.
#pragma once

#include <string>
#include <vector>

namespace kv {

struct DriverOptions {
  bool list = false;
  bool listParams = false;
  bool listEvents = false;
  bool info = false;
  bool count = false;  // the "Item count..." lines
  bool demo = false;
  bool printSettings = false;
  bool saveSettings = false;
  bool formatsRequested = false;
  std::string formatsFilter;
  std::vector<std::string> settings;
  std::vector<int> commands;
};

// Runs the driver on argv-style arguments (args[0] is the program).
// Exit codes: 0 success, 1 a failed file or command, 2 bad usage.
int RunDriver(std::vector<std::string> args);

}  // namespace kv

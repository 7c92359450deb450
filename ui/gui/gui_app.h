// The window program's side of the process-wide hooks: boxes, file dialogs
// and the status bar, installed once the main window stands.
#pragma once

#include <filesystem>
#include <span>
#include <string>
#include <vector>

namespace kv::gui {

class MainWindow;

void InstallPresenters(MainWindow& window);
void RemovePresenters();

// What the command line asks of the window program: the files to open, in
// order, and the two switches. "-X" is a switch, "/BATCH" and "/NOMSG" too,
// any other "/..." a path; "--" ends switches; anything containing ".exe" is
// skipped. `args` starts with the program's own path.
struct ProgramArguments {
  std::vector<std::filesystem::path> files;
  bool noMessages = false;
  bool batch = false;
};
ProgramArguments ScanProgramArguments(std::span<const std::string> args);

}  // namespace kv::gui

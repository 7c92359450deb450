// kelvo-studio: the window program over the same command layer as `kelvo`.
#include <QApplication>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "core/app.h"
#include "core/error.h"
#include "core/settings.h"
#include "ui/gui/gui_app.h"
#include "ui/gui/main_window.h"

namespace {

// Qt aborts without a display; a desktop user without one wants a sentence.
bool HaveDisplay() {
  const char* platform = std::getenv("QT_QPA_PLATFORM");
  if (platform && *platform) return true;
  const char* x = std::getenv("DISPLAY");
  const char* wayland = std::getenv("WAYLAND_DISPLAY");
  return (x && *x) || (wayland && *wayland);
}

}  // namespace

int main(int argc, char** argv) {
  if (!HaveDisplay()) {
    std::fprintf(stderr,
                 "kelvo-studio: no display (neither DISPLAY nor WAYLAND_DISPLAY is set); use kelvo on the command "
                 "line instead\n");
    return 1;
  }
  const std::vector<std::string> args(argv, argv + argc);
  const kv::gui::ProgramArguments scan = kv::gui::ScanProgramArguments(args);
  kv::LoadSettings();
  QApplication app(argc, argv);
  // Qt sets the user's locale; numbers in files and settings stay "0.5".
  std::setlocale(LC_NUMERIC, "C");
  if (scan.noMessages) kv::MessageBoxesEnabled = 0;
  if (scan.batch) {
    kv::Fail("Batch conversion", "Batch conversion is not available in this build.");
    kv::ShowErrorBox();
    return 0;
  }
  kv::gui::MainWindow window;
  kv::gui::InstallPresenters(window);
  window.show();
  window.OpenArguments(scan.files);
  const int code = app.exec();
  kv::gui::RemovePresenters();
  kv::SaveSettings();
  return code;
}

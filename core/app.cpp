#include "core/app.h"

#include <cstdarg>
#include <cstdio>

#include "core/error.h"
#include "core/items.h"

#ifndef KELVO_GIT_VERSION
#define KELVO_GIT_VERSION "unknown"
#endif

namespace kv {

uint8_t MessageBoxesEnabled = 1;

namespace {
BoxPresenter g_presenter = nullptr;
FilePresenter g_filePresenter = nullptr;
bool g_quietSkipped = false;
StatusSink g_statusSink = nullptr;
std::string g_lastStatus;
CancelPoll g_cancelPoll = nullptr;
}  // namespace

void SetCancelPoll(CancelPoll poll) { g_cancelPoll = poll; }
bool CancelRequested() { return g_cancelPoll && g_cancelPoll(); }

void SetBoxPresenter(BoxPresenter presenter) { g_presenter = presenter; }
void SetSkippedBoxesQuiet(bool quiet) { g_quietSkipped = quiet; }
void SetFilePresenter(FilePresenter presenter) { g_filePresenter = presenter; }

std::filesystem::path AskForOpenFile(const std::string& title, const std::string& filter) {
  if (MessageBoxesEnabled && g_filePresenter) return g_filePresenter(title, filter);
  return {};
}

int MessageBox(const std::string& text, const std::string& title, BoxButtons buttons) {
  if (MessageBoxesEnabled && g_presenter) return g_presenter(text, title, buttons);
  if (!g_quietSkipped && MessageBoxesEnabled) {
    std::fprintf(stderr, "%s: %s\n", title.empty() ? kProgramName : title.c_str(), text.c_str());
  }
  return kBoxOk;
}

void ShowErrorBox() {
  const char* title = ErrorContext[0] ? ErrorContext : kProgramName;
  if (MessageBoxesEnabled && g_presenter) {
    g_presenter(ErrorMessage, title, BoxButtons::Ok);
    return;
  }
  // Boxes off stops questions and warnings, not the reason a command failed:
  // without a box it goes to stderr.
  std::fprintf(stderr, "%s: %s\n", title, ErrorMessage);
}

void StatusText(const char* format, ...) {
  char buffer[1024];
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(buffer, sizeof buffer, format, ap);
  va_end(ap);
  g_lastStatus = buffer;
  if (g_statusSink) g_statusSink(g_lastStatus);
}

void SetStatusSink(StatusSink sink) { g_statusSink = sink; }
const std::string& LastStatusText() { return g_lastStatus; }

AppState& App() {
  static AppState state;
  return state;
}

Collection& MainCollection() {
  static Collection main;
  return main;
}

const char* BuildVersion() { return KELVO_GIT_VERSION; }

}  // namespace kv

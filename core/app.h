// Process-wide state of the application's command flow: message boxes, the
// status text, and the flags that commands raise while they run.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "core/types.h"

namespace kv {

class Collection;

// Cleared by -NOMSG, and for a run without a display. While it is 0 every box
// returns 1 at once, which no caller reads as "Yes".
extern uint8_t MessageBoxesEnabled;

// Return values of a box, as the buttons number them.
inline constexpr int kBoxOk = 1;
inline constexpr int kBoxYes = 6;
inline constexpr int kBoxNo = 7;
inline constexpr int kBoxFirst = 3;
inline constexpr int kBoxSecond = 11;
inline constexpr int kBoxThird = 5;

enum class BoxButtons {
  Ok,
  YesNo,
  // Three choices ("Abort", "Continue", "Don't ask again" and the like): a
  // presenter returns kBoxFirst, kBoxSecond or kBoxThird; the silent 1 is
  // none of them.
  ThreeWay,
  // OK, "Allways OK", Cancel, "Allways Cancel": a presenter returns 6, 1, 2
  // and 7 for them, so that the silent 1 means "Allways OK".
  OkAlwaysCancelAlways,
};

// Shows a box through the installed presenter (the GUI's, or the command
// line's, which prints "Title: text" to stderr when boxes are off). Returns
// the button pressed, or 1 when boxes are off.
int MessageBox(const std::string& text, const std::string& title, BoxButtons buttons = BoxButtons::Ok);

// Presenter hook: the GUI installs a real dialog; null means no display.
using BoxPresenter = int (*)(const std::string& text, const std::string& title, BoxButtons buttons);
void SetBoxPresenter(BoxPresenter presenter);
// Where skipped boxes are reported when there is no presenter (stderr by
// default; -NOMSG turns it off).
void SetSkippedBoxesQuiet(bool quiet);

// Asks for a file to open, as an open dialog with `title` and a filter such
// as "*.sf2". Returns an empty path when the user cancels, when boxes are off
// or when no presenter is installed: a command-line run never waits on one.
std::filesystem::path AskForOpenFile(const std::string& title, const std::string& filter);
using FilePresenter = std::filesystem::path (*)(const std::string& title, const std::string& filter);
void SetFilePresenter(FilePresenter presenter);

// The standard reaction to a false result: ErrorMessage under the title
// ErrorContext ("Kelvo Studio" when empty), in a box where one can be shown,
// else as "Title: message" on stderr, with boxes off (-NOMSG) too.
void ShowErrorBox();

// Status text: progress and results, with the words "Done:" and "Failed:".
void StatusText(const char* format, ...) __attribute__((format(printf, 1, 2)));
using StatusSink = void (*)(const std::string& text);
void SetStatusSink(StatusSink sink);
const std::string& LastStatusText();

// Whether the user asked a long job to stop: the Esc key in the window,
// Ctrl+C on the command line. Long searches poll it; false without a poll.
using CancelPoll = bool (*)();
void SetCancelPoll(CancelPoll poll);
bool CancelRequested();

struct AppState {
  bool busy = false;               // a multi-file open or conversion runs
  bool savingOrConverting = false; // close requests are ignored while set
  bool refresh = false;            // trees and lists must be rebuilt
  ItemId currentItem = kNoItem;    // item to select after the command, kNoItem keeps
};
AppState& App();

// The main collection, one per process.
Collection& MainCollection();

inline constexpr const char* kProgramName = "Kelvo Studio";
inline constexpr const char* kProgramTitle = "Kelvo Studio v12.5";
const char* BuildVersion();

}  // namespace kv

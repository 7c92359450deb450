// The processing wizard: the one frame through which every edit of
// audio, instruments and songs runs, and its operation tables.
//
// The frame knows nothing of any algorithm: an operation is a row of a table,
// with a page handler called in three phases. This file has no window in it:
// the list page, the range rules, the preview and the closing texts are plain
// functions, so that a window program only adds widgets around them and the
// command line (`kelvo --op`) runs the very same path as the window's Finish.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "core/items.h"
#include "core/wave_edit.h"

namespace kv {

class ProcessingWizard;

// The phases of a page handler:
//   Init, once when the page is created: fill the controls from the settings;
//   Command, for each control event (`control` is its index): keep the page
//     consistent;
//   Run: read the controls back into the settings and apply the operation to
//     every item, incrementing `modified` per item changed.
// The Run phase returns false when the page refuses to run at all (nothing
// changed, ErrorContext/ErrorMessage say why); per-item failures are
// reported through ProcessingWizard::ForEachWave and don't stop the run.
enum class WizardPhase : uint8_t { Init, Command, Run };
using OperationCallback = bool (*)(ProcessingWizard& wizard, WizardPhase phase, int control);
// Whether the operation is offered for the wizard's present selection.
using AvailabilityTest = bool (*)(const ProcessingWizard& wizard);

// Flags of a row.
inline constexpr uint8_t kOpRange = 1;   // bit 0: honours a sample range
inline constexpr uint8_t kOpNoPage = 2;  // bit 1: no options, may run without showing its page

// A control of an operation page. Its value is a process-wide setting (see
// OperationSetting); `key` names it on the command line.
enum class ControlType : uint8_t { Number, Integer, Choice, Flag, Text };
struct PageControl {
  const char* key;
  const char* label;         // the page's text
  ControlType type;
  double minimum;            // Number, Integer
  double maximum;            // Number, Integer; Text: the field's length
  const char* const* choices;  // Choice: the labels, value 0 first
  int choiceCount;
  double defaultValue;       // Number, Integer, Choice, Flag
  const char* defaultText;   // Text
  const char* const* choiceKeys;  // Choice, optional: a short command-line word per choice
  // Text, optional: null when the page can use `text`, else the form it
  // wants ("LOW:HIGH in percent"), which a command line reports.
  const char* (*check)(const std::string& text);
};

struct SettingValue;

// A row of an operation table; a table ends at a row whose name is null.
struct WizardOperation {
  const char* name;           // shown in the list, the undo label and the key of a direct start
  uint32_t page;              // id of the page resource
  OperationCallback run;
  AvailabilityTest available;
  uint8_t flags;              // kOpRange, kOpNoPage
  // Beyond the row of the window program: the short command-line key and
  // the page's controls.
  const char* key;
  const PageControl* controls;
  int controlCount;
  // Optional: null when the page can run with these control values (one per
  // control), else why not; the command line refuses such a run up front.
  const char* (*refusal)(const SettingValue* values);
};

// ---- the tables ----

// The rows of the table of a kind (0 audio, 4 instrument, 6 song), ending at
// a null name; `size` (optional) takes the number of rows.
const WizardOperation* OperationTable(int kind, uint32_t* size = nullptr);

// The handler of rows whose operation isn't written yet: its Run phase
// fails with ("Processing", "\"%s\" is not available in this build").
bool OperationNotInBuild(ProcessingWizard& wizard, WizardPhase phase, int control);
inline bool OperationInBuild(const WizardOperation& row) { return row.run && row.run != OperationNotInBuild; }

// The six tests of the `available` column.
bool AlwaysAvailable(const ProcessingWizard& wizard);
bool AnyLooped(const ProcessingWizard& wizard);    // an item's loop mode is not 0
bool RangeActive(const ProcessingWizard& wizard);  // useRange is set
bool OneWave(const ProcessingWizard& wizard);      // one item, no batch conversion running
bool AnyMono(const ProcessingWizard& wizard);
bool AnyStereo(const ProcessingWizard& wizard);
// The song table's: "song or collection with songs" and "track, song or
// collection with songs" (processing/song_table.cpp).
bool AnySongs(const ProcessingWizard& wizard);
bool AnySongsOrTracks(const ProcessingWizard& wizard);
// "always", "any looped", "range active", "one wave", "any mono", "any stereo".
const char* AvailabilityName(AvailabilityTest test);

// ---- operation settings ----

// A control's value: `number` for all types but Text.
struct SettingValue {
  double number = 0.0;
  std::string text;
};
// The process-wide setting behind a control, starting at its default. Pages
// read it in Init and write it back in Run; it outlives every wizard.
SettingValue& OperationSetting(const PageControl& control);
// Every setting back to its default, and the last used rows forgotten.
void ResetOperationSettings();
// Brings a value into the control's range: numbers clamped (integers, choices
// and flags rounded), texts cut to the field's length.
SettingValue ClampToControl(const PageControl& control, SettingValue value);

// ---- the frame ----

// The selection: item pointers, 128 in place, doubling on the heap past that.
class ItemPointerList {
 public:
  ItemPointerList() = default;
  ItemPointerList(const ItemPointerList& other) { *this = other; }
  ItemPointerList& operator=(const ItemPointerList& other);

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  Item* operator[](std::size_t i) const { return data()[i]; }
  Item* const* begin() const { return data(); }
  Item* const* end() const { return data() + size_; }
  void push_back(Item* item);
  void clear() { size_ = 0; }

 private:
  static constexpr std::size_t kInline = 128;
  Item** data() { return heap_ ? heap_.get() : inline_; }
  Item* const* data() const { return heap_ ? heap_.get() : inline_; }

  Item* inline_[kInline] = {};
  std::unique_ptr<Item*[]> heap_;
  std::size_t size_ = 0;
  std::size_t capacity_ = kInline;
};

// What the preview shows: the source wave at `index`, or the copy Update made.
struct WizardPreview {
  bool playing = false;         // the player of subsystem 7 plays what is shown
  Waveform* source = nullptr;   // the wave at `index` of the items
  ItemId copy = kNoItem;        // the clone of the last Update, found again by id
  int index = 0;
  bool showSource = false;      // Restore shows the source
};

// A window program presents the pages: called by run() when not direct,
// after opening; it returns true when the user pressed Finish (having called
// Next on the list page), false on Cancel.
using WizardPresenter = bool (*)(ProcessingWizard& wizard);
void SetWizardPresenter(WizardPresenter presenter);

class ProcessingWizard {
 public:
  // `kind` 8 decides from the first item.
  explicit ProcessingWizard(Collection& owner, uint8_t kind = 8);
  ~ProcessingWizard();
  ProcessingWizard(const ProcessingWizard&) = delete;
  ProcessingWizard& operator=(const ProcessingWizard&) = delete;

  // Runs the wizard modally: opening, the pages (the presenter's, or none
  // when `direct`: Finish is pressed on the operation's page at once),
  // closing. True when `modified` is not 0. An empty selection does nothing.
  bool run(const char* operationName, bool direct);

  // Row lookup of the context menus: the name of row `index` of the table
  // of the selection's kind, null past its end.
  const char* operationInfo(int index, bool* available, uint8_t* flags);
  // "Process %s%s..." with the first item's type word, "s" for several.
  std::string MenuTitle();
  // A row's menu entry: the name, with "..." for a row that has a page.
  std::string MenuEntry(int index);

  // ---- the frame's steps, as a window drives them ----

  // Opening: loads every wave (audio kind), chooses the table, starts on the
  // page of `operationName` when a row matches (else clears `direct`), clears
  // a stale range. False when a wave can't be loaded (the loader's message
  // shown) or the selection is empty.
  bool Open();
  // The row indexes the list page lists, and the one it preselects (-1: none).
  std::vector<int> ListedRows();
  int PreselectedRow();
  // "Working on %s%s" and the window's title.
  std::string WorkingOnText();
  std::string Title() const;
  // Selecting a row on the list page: the range logic.
  void SelectRow(int row);
  bool RangeCheckEnabled() const { return rangeCheckEnabled_; }
  // Next on the list page: the selected row becomes the operation, its page
  // is created (Init). Back returns to the list when `canGoBack`.
  bool Next();
  void Back();
  // A control of the page changed (Command phase).
  void SetControl(int control, const SettingValue& value);
  // Finish: playback stops, the undo state (none until subsystem 9), the
  // page's Run phase. Cancel marks the run cancelled.
  void Finish();
  void Cancel();
  // Closing: the status text and the refresh request; true when modified.
  bool Close();

  // The row of the page shown, null on the list page.
  const WizardOperation* CurrentRow() const { return pageRow_ >= 0 ? &table[pageRow_] : nullptr; }
  int SelectedRow() const { return selectedRow_; }

  // ---- preview (audio kind, not direct) ----

  // Update: the wave at the preview index is cloned with its data as
  // "<preview>", the page's Run phase runs on the clone alone, `modified` is
  // restored. Returns the wave now shown.
  Waveform* PreviewUpdate();
  // Restore: the source is shown again.
  Waveform* PreviewRestore();
  // ">>" (+1) and "<<" (-1): playback stops, the clone goes, the index steps
  // with wrap-around.
  void PreviewStep(int direction);
  // What the display shows: the clone (found by id), or the source.
  Waveform* PreviewShown() const;
  void PreviewDrop();

  // ---- for page handlers ----

  // Applies `fn` (Waveform& -> EditResult) to every Waveform of the items:
  // a changed wave counts in `modified`, a failed one is reported (its
  // ErrorContext/ErrorMessage shown) and counted in `failed`; the rest go on.
  template <typename Fn>
  void ForEachWave(Fn&& fn);
  // The range to work on, in frames, end exclusive: -1 for both when
  // `useRange` is off (the whole wave).
  int64_t RangeFirst() const { return useRange ? rangeStart : -1; }
  int64_t RangeEnd() const { return useRange ? rangeEnd : -1; }
  // Init and Run helpers: settings into the page's controls and back.
  void LoadPage();
  void StorePage();
  const SettingValue& Control(int control) const { return pageValues[control]; }
  // A failed item: its error shown, counted.
  void ItemFailed();
  // Tests and special frames may bring their own table of rows.
  void UseTable(const WizardOperation* rows) { tableOverride_ = rows; }

  // ---- state, in the order the frame has always declared it ----
  Collection* owner;
  ItemPointerList items;
  uint32_t modified = 0;
  uint8_t kind = 8;
  const char* operationName = nullptr;
  OperationCallback runFn = nullptr;
  const WizardOperation* table = nullptr;
  uint32_t tableSize = 0;
  bool direct = false;
  bool canGoBack = true;
  bool silent = false;
  bool cancelled = false;
  bool undoPushed = false;
  WizardPreview preview;
  float levelMarker[2] = {-1.0f, -1.0f};
  uint32_t levelColour[2] = {0, 0};
  bool useRange = false;
  int32_t rangeStart = 0;
  int32_t rangeEnd = 0;

  // ---- added for pages without a window ----
  uint32_t failed = 0;                 // items that failed in the Run phase
  std::vector<SettingValue> pageValues;  // the controls of the page shown
  std::vector<std::string> pageTexts;    // texts the page displays (Statistics)

 private:
  void ResolveKind();
  void ChooseTable();
  int FindRow(const char* name) const;
  void EnterPage(int row);
  void Remember();
  bool SingleWave() const;

  const WizardOperation* tableOverride_ = nullptr;
  int pageRow_ = -1;
  int selectedRow_ = -1;
  bool rangeCheckEnabled_ = false;
  bool opened_ = false;
};

template <typename Fn>
void ProcessingWizard::ForEachWave(Fn&& fn) {
  // Items are walked by position: an operation may add waves, never items.
  for (std::size_t i = 0; i < items.size(); ++i) {
    Item* item = items[i];
    if (!item || item->Type() != ItemType::Waveform) continue;
    switch (fn(*static_cast<Waveform*>(item))) {
      case EditResult::Changed: ++modified; break;
      case EditResult::Failed: ItemFailed(); break;
      case EditResult::Unchanged: break;
    }
  }
}

}  // namespace kv

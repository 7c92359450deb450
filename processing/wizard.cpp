#include "processing/wizard.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>

#include "core/app.h"
#include "core/error.h"
#include "core/text.h"

namespace kv {

namespace {

WizardPresenter g_presenter = nullptr;

// The last used operation per table: audio, instrument, song.
std::string g_lastOperation[3];

int KindSlot(int kind) { return kind == 4 ? 1 : kind == 6 ? 2 : 0; }

// Settings live in nodes that never move, so a page may keep a reference.
std::map<const PageControl*, SettingValue>& OperationSettings() {
  static std::map<const PageControl*, SettingValue> settings;
  return settings;
}

const char* TypeWord(ItemType type) {
  static const char* const kWords[kItemTypeCount] = {"waveform", "synthesis model", "region", "layer",
                                                     "instrument", "track", "song", "collection"};
  return kWords[static_cast<int>(type)];
}

const WizardOperation kEmptyTable[] = {{nullptr, 0, nullptr, nullptr, 0, nullptr, nullptr, 0}};

}  // namespace

// Defined with the audio pages (processing/audio_table.cpp).
const WizardOperation* AudioOperationTable();
// And with the song pages (processing/song_table.cpp).
const WizardOperation* SongOperationTable();

const WizardOperation* OperationTable(int kind, uint32_t* size) {
  // The instrument table fills when its operations are written.
  const WizardOperation* rows = kind == 0 ? AudioOperationTable() : kind == 6 ? SongOperationTable() : kEmptyTable;
  if (size) {
    uint32_t n = 0;
    while (rows[n].name) ++n;
    *size = n;
  }
  return rows;
}

bool OperationNotInBuild(ProcessingWizard& wizard, WizardPhase phase, int) {
  if (phase != WizardPhase::Run) return true;
  return Fail("Processing", "\"%s\" is not available in this build",
              wizard.operationName ? wizard.operationName : "");
}

// ---- availability ----

bool AlwaysAvailable(const ProcessingWizard&) { return true; }

bool AnyLooped(const ProcessingWizard& w) {
  for (Item* item : w.items)
    if (item->Type() == ItemType::Waveform && static_cast<Waveform*>(item)->loopType != 0) return true;
  return false;
}

bool RangeActive(const ProcessingWizard& w) { return w.useRange; }

// Batch conversion runs the wizard silently.
bool OneWave(const ProcessingWizard& w) { return w.items.size() == 1 && !w.silent; }

bool AnyMono(const ProcessingWizard& w) {
  for (Item* item : w.items)
    if (item->Type() == ItemType::Waveform && static_cast<Waveform*>(item)->channels == 1) return true;
  return false;
}

bool AnyStereo(const ProcessingWizard& w) {
  for (Item* item : w.items)
    if (item->Type() == ItemType::Waveform && static_cast<Waveform*>(item)->channels == 2) return true;
  return false;
}

const char* AvailabilityName(AvailabilityTest test) {
  if (test == AlwaysAvailable) return "always";
  if (test == AnyLooped) return "any looped";
  if (test == RangeActive) return "range active";
  if (test == OneWave) return "one wave";
  if (test == AnyMono) return "any mono";
  if (test == AnyStereo) return "any stereo";
  if (test == AnySongs) return "song or collection with songs";
  if (test == AnySongsOrTracks) return "track, song or collection with songs";
  return "?";
}

// ---- settings ----

SettingValue ClampToControl(const PageControl& control, SettingValue value) {
  switch (control.type) {
    case ControlType::Text:
      value.text = std::string(Utf8Prefix(value.text, static_cast<std::size_t>(control.maximum)));
      break;
    case ControlType::Number:
      if (std::isnan(value.number)) value.number = control.defaultValue;
      value.number = std::clamp(value.number, control.minimum, control.maximum);
      break;
    case ControlType::Integer:
      // A default below the minimum is an empty field, which the page fills.
      if (control.defaultValue < control.minimum && (std::isnan(value.number) || value.number == control.defaultValue)) {
        value.number = control.defaultValue;
        break;
      }
      if (std::isnan(value.number)) value.number = control.defaultValue;
      value.number = std::round(std::clamp(value.number, control.minimum, control.maximum));
      break;
    case ControlType::Choice:
      if (std::isnan(value.number)) value.number = control.defaultValue;
      value.number = std::round(std::clamp(value.number, 0.0, static_cast<double>(control.choiceCount - 1)));
      break;
    case ControlType::Flag:
      value.number = value.number != 0.0 && !std::isnan(value.number) ? 1.0 : 0.0;
      break;
  }
  return value;
}

SettingValue& OperationSetting(const PageControl& control) {
  auto [it, added] = OperationSettings().try_emplace(&control);
  if (added) {
    it->second.number = control.defaultValue;
    it->second.text = control.defaultText ? control.defaultText : "";
  }
  return it->second;
}

void ResetOperationSettings() {
  OperationSettings().clear();
  for (std::string& name : g_lastOperation) name.clear();
}

void SetWizardPresenter(WizardPresenter presenter) { g_presenter = presenter; }

// ---- the selection list ----

ItemPointerList& ItemPointerList::operator=(const ItemPointerList& other) {
  if (this == &other) return *this;
  clear();
  for (Item* item : other) push_back(item);
  return *this;
}

void ItemPointerList::push_back(Item* item) {
  if (size_ == capacity_) {
    const std::size_t capacity = capacity_ * 2;
    auto grown = std::make_unique<Item*[]>(capacity);
    std::copy_n(data(), size_, grown.get());
    heap_ = std::move(grown);
    capacity_ = capacity;
  }
  data()[size_++] = item;
}

// ---- the frame ----

ProcessingWizard::ProcessingWizard(Collection& c, uint8_t k) : owner(&c), kind(k) {}

ProcessingWizard::~ProcessingWizard() { PreviewDrop(); }

namespace {

// Kind 8 decides by the first item: waveforms the audio table, tracks and
// songs the song table, anything else the instrument table.
uint8_t KindOf(uint8_t kind, const ItemPointerList& items) {
  if (kind != 8 || items.empty()) return kind;
  const ItemType type = items[0]->Type();
  if (type == ItemType::Waveform) return 0;
  if (type == ItemType::Track || type == ItemType::Song) return 6;
  return 4;
}

}  // namespace

void ProcessingWizard::ResolveKind() { kind = KindOf(kind, items); }

void ProcessingWizard::ChooseTable() {
  ResolveKind();
  if (tableOverride_) {
    table = tableOverride_;
    tableSize = 0;
    while (table[tableSize].name) ++tableSize;
    return;
  }
  table = OperationTable(kind == 8 ? 0 : kind, &tableSize);
}

int ProcessingWizard::FindRow(const char* name) const {
  if (!name) return -1;
  for (uint32_t i = 0; i < tableSize; ++i)
    if (std::strcmp(table[i].name, name) == 0) return static_cast<int>(i);
  return -1;
}

bool ProcessingWizard::SingleWave() const { return items.size() == 1 && items[0]->Type() == ItemType::Waveform; }

bool ProcessingWizard::Open() {
  cancelled = false;
  undoPushed = false;
  modified = 0;
  failed = 0;
  pageRow_ = selectedRow_ = -1;
  pageTexts.clear();
  if (items.empty()) return false;
  ResolveKind();
  if (kind == 0) {
    for (Item* item : items) {
      if (item->Type() != ItemType::Waveform) continue;
      auto* wave = static_cast<Waveform*>(item);
      if (wave->HasData() || wave->SampleCount() == 0 || wave->EnsureData()) continue;
      ItemFailed();  // the loader's message
      return false;
    }
  }
  ChooseTable();
  opened_ = true;
  canGoBack = true;
  runFn = nullptr;
  // A range kept from an earlier run that selects nothing is stale.
  if (useRange && (rangeStart == rangeEnd || rangeStart < 0 || rangeEnd < 0)) useRange = false;
  const int row = FindRow(operationName);
  if (row < 0) {
    direct = false;
    operationName = nullptr;
    SelectRow(PreselectedRow());
    return true;
  }
  // A direct start: the row's page comes first, as if chosen on the list.
  SelectRow(row);
  canGoBack = false;
  Next();
  return true;
}

std::vector<int> ProcessingWizard::ListedRows() {
  if (!table) ChooseTable();
  std::vector<int> rows;
  for (uint32_t i = 0; i < tableSize; ++i)
    if (silent || table[i].available(*this)) rows.push_back(static_cast<int>(i));
  return rows;
}

int ProcessingWizard::PreselectedRow() {
  const std::vector<int> rows = ListedRows();
  if (rows.empty()) return -1;
  const std::string& last = g_lastOperation[KindSlot(kind)];
  for (int row : rows)
    if (last == table[row].name) return row;
  return rows.front();
}

std::string ProcessingWizard::WorkingOnText() {
  ResolveKind();
  if (items.size() == 1) {
    const char* word = TypeWord(items[0]->Type());
    return std::string("Working on ") + (word[0] == 'i' ? "an " : "a ") + word;
  }
  return std::string("Working on ") + (kind == 0 ? "waveforms" : "multiple items");
}

std::string ProcessingWizard::Title() const {
  const int k = KindOf(kind, items);
  std::string title = k == 0 ? "Audio" : k == 6 ? "Song" : "Instrument";
  title += " processing wizard - ";
  if (operationName) title += std::string(operationName) + " - ";
  if (items.size() == 1) return title + std::string(items[0]->Name());
  std::size_t waves = 0;
  for (Item* item : items) waves += item->Type() == ItemType::Waveform;
  char count[48];
  if (k == 0 && waves == items.size() && owner && waves == owner->Count(ItemType::Waveform)) {
    title += "All waveforms";
  } else {
    std::snprintf(count, sizeof count, k == 0 ? "%d waveforms" : "%d items", static_cast<int>(items.size()));
    title += count;
  }
  return title;
}

void ProcessingWizard::SelectRow(int row) {
  selectedRow_ = row;
  rangeCheckEnabled_ = false;
  if (row < 0 || row >= static_cast<int>(tableSize) || kind != 0) return;  // non-audio kinds hide the range
  const WizardOperation& op = table[row];
  if (!(op.flags & kOpRange)) return;  // the check is off and useRange ignored
  if (op.available == RangeActive) useRange = true;  // forced on, the check disabled
  else rangeCheckEnabled_ = true;
  if (!useRange) return;
  if (rangeStart < 0) rangeStart = 0;
  if (rangeEnd <= rangeStart) {
    rangeEnd = SingleWave() ? static_cast<int32_t>(std::min<uint32_t>(static_cast<Waveform*>(items[0])->length,
                                                                          INT32_MAX))
                            : rangeStart + 1;
  }
}

bool ProcessingWizard::Next() {
  if (selectedRow_ < 0 || selectedRow_ >= static_cast<int>(tableSize)) return false;
  const WizardOperation& op = table[selectedRow_];
  operationName = op.name;
  runFn = op.run;
  if (!(op.flags & kOpRange)) useRange = false;
  EnterPage(selectedRow_);
  return true;
}

void ProcessingWizard::EnterPage(int row) {
  PreviewDrop();
  preview.index = 0;
  pageRow_ = row;
  pageValues.clear();
  pageTexts.clear();
  preview.source = !items.empty() && items[0]->Type() == ItemType::Waveform ? static_cast<Waveform*>(items[0]) : nullptr;
  if (runFn) runFn(*this, WizardPhase::Init, -1);
}

void ProcessingWizard::Back() {
  PreviewDrop();
  if (!canGoBack || pageRow_ < 0) return;
  operationName = nullptr;
  runFn = nullptr;
  pageRow_ = -1;
  pageValues.clear();
  pageTexts.clear();
}

void ProcessingWizard::SetControl(int control, const SettingValue& value) {
  const WizardOperation* row = CurrentRow();
  if (!row || control < 0 || control >= row->controlCount) return;
  if (pageValues.size() < static_cast<std::size_t>(row->controlCount)) LoadPage();
  pageValues[control] = ClampToControl(row->controls[control], value);
  if (runFn) runFn(*this, WizardPhase::Command, control);
}

void ProcessingWizard::LoadPage() {
  const WizardOperation* row = CurrentRow();
  pageValues.clear();
  if (!row) return;
  for (int i = 0; i < row->controlCount; ++i) pageValues.push_back(OperationSetting(row->controls[i]));
}

void ProcessingWizard::StorePage() {
  const WizardOperation* row = CurrentRow();
  if (!row) return;
  if (pageValues.size() < static_cast<std::size_t>(row->controlCount)) LoadPage();
  for (int i = 0; i < row->controlCount; ++i) {
    pageValues[i] = ClampToControl(row->controls[i], pageValues[i]);
    OperationSetting(row->controls[i]) = pageValues[i];
  }
}

void ProcessingWizard::ItemFailed() {
  ShowErrorBox();
  ClearError();
  ++failed;
}

void ProcessingWizard::Remember() {
  if (operationName) g_lastOperation[KindSlot(kind)] = operationName;
}

void ProcessingWizard::Finish() {
  preview.playing = false;
  PreviewDrop();
  // The undo state of subsystem 9 comes with the undo store; until then
  // there is none to push, and `undoPushed` stays false.
  if (!runFn) {
    cancelled = true;
    return;
  }
  Remember();
  ClearError();
  if (!runFn(*this, WizardPhase::Run, -1)) ItemFailed();
}

void ProcessingWizard::Cancel() {
  preview.playing = false;
  PreviewDrop();
  cancelled = true;
}

bool ProcessingWizard::Close() {
  if (cancelled) modified = 0;  // (an undo state pushed would be rolled back here)
  opened_ = false;
  if (silent) return modified != 0;
  char text[256];
  if (cancelled) std::snprintf(text, sizeof text, "Processing was cancelled");
  else if (modified) std::snprintf(text, sizeof text, "Processed %d item%s", static_cast<int>(modified), modified == 1 ? "" : "s");
  else std::snprintf(text, sizeof text, "No items were modified");
  if (operationName) StatusText("%s %s %s", text, modified ? "with" : "by", operationName);
  else StatusText("%s", text);
  if (kind != 0) App().refresh = true;
  return modified != 0;
}

bool ProcessingWizard::run(const char* name, bool directStart) {
  operationName = name;
  direct = directStart;
  if (items.empty()) return false;
  if (!Open()) return false;
  bool finish = false;
  if (direct) finish = runFn != nullptr;
  else if (g_presenter) finish = g_presenter(*this);
  if (finish) Finish();
  else Cancel();
  return Close();
}

const char* ProcessingWizard::operationInfo(int index, bool* available, uint8_t* flags) {
  if (!table) ChooseTable();
  if (index < 0 || index >= static_cast<int>(tableSize)) return nullptr;
  const WizardOperation& row = table[index];
  if (available) *available = silent || row.available(*this);
  if (flags) *flags = row.flags;
  return row.name;
}

std::string ProcessingWizard::MenuTitle() {
  if (items.empty()) return "Process...";
  return std::string("Process ") + TypeWord(items[0]->Type()) + (items.size() > 1 ? "s" : "") + "...";
}

std::string ProcessingWizard::MenuEntry(int index) {
  uint8_t flags = 0;
  const char* name = operationInfo(index, nullptr, &flags);
  if (!name) return {};
  return (flags & kOpNoPage) ? std::string(name) : std::string(name) + "...";
}

// ---- preview ----

void ProcessingWizard::PreviewDrop() {
  if (preview.copy != kNoItem && owner) {
    if (Item* copy = owner->Find(preview.copy)) DeleteItem(copy);
  }
  preview.copy = kNoItem;
  preview.showSource = false;
}

Waveform* ProcessingWizard::PreviewShown() const {
  if (!preview.showSource && preview.copy != kNoItem && owner)
    if (Waveform* copy = owner->FindWave(preview.copy)) return copy;
  return preview.source;
}

Waveform* ProcessingWizard::PreviewUpdate() {
  if (kind != 0 || direct || !runFn || items.empty()) return PreviewShown();
  PreviewDrop();
  const int n = static_cast<int>(items.size());
  preview.index = ((preview.index % n) + n) % n;
  Item* item = items[preview.index];
  if (item->Type() != ItemType::Waveform) return nullptr;
  auto* source = static_cast<Waveform*>(item);
  preview.source = source;
  Collection& into = source->collection ? *source->collection : *owner;
  auto* copy = static_cast<Waveform*>(CloneItem(*source, into, "<preview>", true));
  if (!copy) return source;
  preview.copy = copy->id;

  // The very same Run phase, on the clone alone.
  ItemPointerList saved = items;
  const uint32_t savedModified = modified, savedFailed = failed;
  items.clear();
  items.push_back(copy);
  ClearError();
  if (!runFn(*this, WizardPhase::Run, -1)) {
    ShowErrorBox();
    ClearError();
  }
  items = saved;
  modified = savedModified;
  failed = savedFailed;

  // A splitting operation leaves its other pieces as "<preview..." waves.
  if (operationName && std::strstr(operationName, "Split")) {
    for (Waveform* w : into.All<Waveform>())
      if (w->id != preview.copy && std::string_view(w->name).starts_with("<preview")) DeleteItem(w);
  }
  if (!into.FindWave(preview.copy)) preview.copy = kNoItem;
  return PreviewShown();
}

Waveform* ProcessingWizard::PreviewRestore() {
  if (!items.empty() && items[preview.index % items.size()]->Type() == ItemType::Waveform)
    preview.source = static_cast<Waveform*>(items[preview.index % items.size()]);
  preview.showSource = true;
  return preview.source;
}

void ProcessingWizard::PreviewStep(int direction) {
  preview.playing = false;
  PreviewDrop();
  const int n = static_cast<int>(items.size());
  if (n == 0) return;
  preview.index = (((preview.index + direction) % n) + n) % n;
  Item* item = items[preview.index];
  preview.source = item->Type() == ItemType::Waveform ? static_cast<Waveform*>(item) : nullptr;
}

}  // namespace kv

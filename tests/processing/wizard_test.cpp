// The wizard's frame without a window: the audio table row by row, opening,
// the list page and its range rules, titles, closing texts and the preview.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/app.h"
#include "core/error.h"
#include "core/items.h"
#include "processing/wizard.h"

namespace kv {
namespace {

Waveform* Wave(Collection& c, const char* name, uint32_t frames, int channels = 1) {
  auto* w = Create<Waveform>(c, name);
  w->length = frames;
  w->channels = static_cast<uint8_t>(channels);
  w->sampleRate = 44100;
  w->samples16 = std::make_unique<int16_t[]>(uint64_t{frames} * channels + 1);
  for (uint64_t i = 0; i < uint64_t{frames} * channels; ++i) w->samples16[i] = static_cast<int16_t>(100 * i + 100);
  return w;
}

struct Row {
  const char* name;
  uint32_t page;
  const char* available;
  bool range;
  bool noPage;
};

// The audio table as the program has always had it, in its own order.
const Row kTable[] = {
    {"Adjust volume", 334, "always", true, false},
    {"Append/combine waveforms", 323, "one wave", false, false},
    {"Auto loop finder", 335, "always", false, false},
    {"Auto tune", 326, "always", false, false},
    {"Calculate tuning", 325, "always", false, false},
    {"Convert to mono", 306, "any stereo", false, false},
    {"Convert to stereo", 305, "any mono", false, false},
    {"Cross-fade loop", 309, "any looped", false, false},
    {"Cut away selection", 311, "range active", true, false},
    {"Enable/disable loops", 332, "always", false, false},
    {"Fade in/out selection", 310, "range active", true, false},
    {"Find volume", 321, "always", false, false},
    {"Insert silence", 316, "always", true, false},
    {"Insert another waveform", 317, "always", true, false},
    {"Invert sign throughout selection", 319, "range active", true, true},
    {"Loop sanitizer/converter", 302, "any looped", false, false},
    {"Maximize amplitude", 307, "always", false, true},
    {"Mix out = a*wave1 + b*wave2 + c", 320, "one wave", false, false},
    {"Move loop points to zero-crossing", 339, "any looped", false, true},
    {"Normalize volume", 337, "always", false, false},
    {"Parse root key from waveform name", 333, "always", false, true},
    {"Pitch scale", 336, "always", false, false},
    {"Remove DC offset", 331, "always", false, true},
    {"Remove silent sections", 304, "always", false, false},
    {"Resample", 303, "always", false, false},
    {"Reverse audio within selection", 312, "range active", true, true},
    {"Search and replace text in names", 329, "always", false, false},
    {"Set loop points to selection", 313, "range active", true, true},
    {"Set waveform names from file names", 338, "always", false, true},
    {"Set waveform names from root keys", 328, "always", false, false},
    {"Smooth within the selection", 314, "range active", true, false},
    {"Split waveform at silent sections", 318, "always", false, false},
    {"Statistics", 315, "always", false, false},
    {"Swap left and right channels", 301, "any stereo", false, true},
    {"Time stretch", 324, "always", false, false},
    {"Trim waveform after loop", 330, "any looped", false, false},
    {"Trim waveform to selection", 308, "range active", true, true},
    {"VST plug-in effects", 327, "always", true, false},
};

// The rows this build runs; every other row refuses to run.
const char* const kInBuild[] = {"Adjust volume",
                                "Resample",
                                "Fade in/out selection",
                                "Invert sign throughout selection",
                                "Maximize amplitude",
                                "Remove DC offset",
                                "Reverse audio within selection",
                                "Search and replace text in names",
                                "Set loop points to selection",
                                "Set waveform names from file names",
                                "Smooth within the selection",
                                "Statistics",
                                "Swap left and right channels",
                                "Append/combine waveforms",
                                "Convert to mono",
                                "Convert to stereo",
                                "Cut away selection",
                                "Insert silence",
                                "Insert another waveform",
                                "Mix out = a*wave1 + b*wave2 + c",
                                "Trim waveform to selection",
                                "Auto loop finder",
                                "Cross-fade loop",
                                "Enable/disable loops",
                                "Loop sanitizer/converter",
                                "Move loop points to zero-crossing",
                                "Trim waveform after loop"};

struct Frame : ::testing::Test {
  void SetUp() override {
    ResetOperationSettings();
    SetStatusSink(nullptr);
    MessageBoxesEnabled = 0;
    SetSkippedBoxesQuiet(true);
  }
  Collection c;
};

TEST_F(Frame, TheAudioTableHasItsRowsInOrder) {
  uint32_t size = 0;
  const WizardOperation* rows = OperationTable(0, &size);
  ASSERT_EQ(size, 38u);
  ASSERT_EQ(std::size(kTable), 38u);
  for (uint32_t i = 0; i < size; ++i) {
    SCOPED_TRACE(kTable[i].name);
    EXPECT_STREQ(rows[i].name, kTable[i].name);
    EXPECT_EQ(rows[i].page, kTable[i].page);
    EXPECT_STREQ(AvailabilityName(rows[i].available), kTable[i].available);
    EXPECT_EQ((rows[i].flags & kOpRange) != 0, kTable[i].range);
    EXPECT_EQ((rows[i].flags & kOpNoPage) != 0, kTable[i].noPage);
    EXPECT_EQ(rows[i].flags & ~3, 0);
    bool built = false;
    for (const char* name : kInBuild) built |= std::strcmp(name, rows[i].name) == 0;
    EXPECT_EQ(OperationInBuild(rows[i]), built);
    ASSERT_NE(rows[i].key, nullptr);
    for (uint32_t j = 0; j < i; ++j) EXPECT_STRNE(rows[i].key, rows[j].key);
  }
  EXPECT_EQ(rows[size].name, nullptr);
  // The instrument table is empty for now; the song table's eight rows are
  // tested with the song operations.
  uint32_t other = 1;
  OperationTable(4, &other);
  EXPECT_EQ(other, 0u);
  OperationTable(6, &other);
  EXPECT_EQ(other, 8u);
}

TEST_F(Frame, KindMenuAndAvailabilityFollowTheSelection) {
  Waveform* mono = Wave(c, "Mono", 10);
  Waveform* stereo = Wave(c, "Stereo", 10, 2);
  ProcessingWizard empty(c);
  EXPECT_FALSE(empty.run("Adjust volume", true));  // an empty selection does nothing
  EXPECT_EQ(empty.modified, 0u);

  ProcessingWizard w(c);
  w.items.push_back(mono);
  EXPECT_EQ(w.MenuTitle(), "Process waveform...");
  bool available = false;
  uint8_t flags = 0;
  EXPECT_STREQ(w.operationInfo(33, &available, &flags), "Swap left and right channels");
  EXPECT_FALSE(available);
  EXPECT_EQ(flags, kOpNoPage);
  EXPECT_EQ(w.kind, 0);
  EXPECT_EQ(w.MenuEntry(0), "Adjust volume...");
  EXPECT_EQ(w.MenuEntry(16), "Maximize amplitude");
  EXPECT_EQ(w.operationInfo(38, nullptr, nullptr), nullptr);
  EXPECT_EQ(w.WorkingOnText(), "Working on a waveform");
  // One mono wave: no stereo rows, no looped rows, no range rows; one wave rows yes.
  std::vector<std::string> listed;
  for (int row : w.ListedRows()) listed.push_back(w.table[row].name);
  EXPECT_EQ(std::count(listed.begin(), listed.end(), "Convert to stereo"), 1);
  EXPECT_EQ(std::count(listed.begin(), listed.end(), "Convert to mono"), 0);
  EXPECT_EQ(std::count(listed.begin(), listed.end(), "Reverse audio within selection"), 0);
  EXPECT_EQ(std::count(listed.begin(), listed.end(), "Mix out = a*wave1 + b*wave2 + c"), 1);
  w.items.push_back(stereo);
  EXPECT_EQ(w.MenuTitle(), "Process waveforms...");
  EXPECT_EQ(w.WorkingOnText(), "Working on waveforms");
  w.operationInfo(33, &available, nullptr);
  EXPECT_TRUE(available);
  w.operationInfo(1, &available, nullptr);
  EXPECT_FALSE(available);  // one wave only
  w.silent = true;          // batch conversion lists every row
  EXPECT_EQ(w.ListedRows().size(), 38u);

  auto* inst = Create<Instrument>(c, "Piano");
  ProcessingWizard wi(c);
  wi.items.push_back(inst);
  EXPECT_EQ(wi.WorkingOnText(), "Working on an instrument");
  EXPECT_EQ(wi.kind, 4);
  EXPECT_EQ(wi.operationInfo(0, nullptr, nullptr), nullptr);
  App().refresh = false;
  EXPECT_FALSE(wi.run("Adjust volume", true));
  EXPECT_TRUE(App().refresh);  // non-audio kinds rebuild the tree
  EXPECT_EQ(LastStatusText(), "Processing was cancelled");
  auto* song = Create<Song>(c, "Tune");
  ProcessingWizard ws(c);
  ws.items.push_back(song);
  ws.items.push_back(inst);
  EXPECT_EQ(ws.WorkingOnText(), "Working on multiple items");
  EXPECT_EQ(ws.kind, 6);
}

TEST_F(Frame, SelectionListGrowsPastItsInlineRoom) {
  std::vector<Waveform*> waves;
  for (int i = 0; i < 300; ++i) waves.push_back(Wave(c, "w", 1));
  ProcessingWizard w(c);
  for (Waveform* wave : waves) w.items.push_back(wave);
  ASSERT_EQ(w.items.size(), 300u);
  for (std::size_t i = 0; i < waves.size(); ++i) ASSERT_EQ(w.items[i], waves[i]);
  ItemPointerList copy = w.items;
  EXPECT_EQ(copy.size(), 300u);
  EXPECT_EQ(copy[299], waves[299]);
  EXPECT_EQ(w.Title(), "Audio processing wizard - All waveforms");
  w.useRange = true;
  w.rangeStart = 0;
  w.rangeEnd = 1;
  EXPECT_TRUE(w.run("Invert sign throughout selection", true));
  EXPECT_EQ(LastStatusText(), "Processed 300 items with Invert sign throughout selection");
}

TEST_F(Frame, TitlesNameTheOperationAndTheSelection) {
  Waveform* a = Wave(c, "Kick", 10);
  Waveform* b = Wave(c, "Snare", 10);
  Wave(c, "Hat", 10);
  ProcessingWizard w(c);
  w.items.push_back(a);
  EXPECT_EQ(w.Title(), "Audio processing wizard - Kick");
  w.items.push_back(b);
  EXPECT_EQ(w.Title(), "Audio processing wizard - 2 waveforms");
  w.items.clear();
  for (Waveform* wave : c.All<Waveform>()) w.items.push_back(wave);
  ASSERT_TRUE(w.Open());
  w.SelectRow(16);
  w.Next();
  EXPECT_EQ(w.Title(), "Audio processing wizard - Maximize amplitude - All waveforms");
  auto* inst = Create<Instrument>(c, "Organ");
  auto* layer = AddLayer(*inst);
  ProcessingWizard wi(c);
  wi.items.push_back(inst);
  wi.items.push_back(layer);
  EXPECT_EQ(wi.Title(), "Instrument processing wizard - 2 items");
  ProcessingWizard song(c);
  song.items.push_back(Create<Song>(c, "Tune"));
  EXPECT_EQ(song.Title(), "Song processing wizard - Tune");
}

TEST_F(Frame, RangeRulesOnTheListPage) {
  Waveform* w1 = Wave(c, "One", 50);
  ProcessingWizard w(c);
  w.items.push_back(w1);
  // A stale range from an earlier run: cleared on opening, then the trim row
  // forces it on with the wave's length as the default end.
  w.useRange = true;
  w.rangeStart = 7;
  w.rangeEnd = 7;
  ASSERT_TRUE(w.Open());
  EXPECT_FALSE(w.useRange);
  w.SelectRow(36);  // "Trim waveform to selection"
  EXPECT_TRUE(w.useRange);
  EXPECT_FALSE(w.RangeCheckEnabled());
  EXPECT_EQ(w.rangeStart, 7);
  EXPECT_EQ(w.rangeEnd, 50);

  // A row with bit 0 that isn't range-active: the check is enabled.
  w.useRange = true;
  w.rangeStart = -4;
  w.rangeEnd = -9;
  w.SelectRow(0);
  EXPECT_TRUE(w.RangeCheckEnabled());
  EXPECT_EQ(w.rangeStart, 0);
  EXPECT_EQ(w.rangeEnd, 50);
  // A row without bit 0 ignores the range; Next clears it.
  w.SelectRow(22);
  EXPECT_FALSE(w.RangeCheckEnabled());
  EXPECT_TRUE(w.useRange);
  ASSERT_TRUE(w.Next());
  EXPECT_FALSE(w.useRange);
  EXPECT_STREQ(w.operationName, "Remove DC offset");
  w.Back();
  EXPECT_EQ(w.operationName, nullptr);

  // Several waves: an end not above the start becomes start + 1.
  ProcessingWizard several(c);
  several.items.push_back(w1);
  several.items.push_back(Wave(c, "Two", 80));
  several.rangeStart = 5;
  several.rangeEnd = 3;
  ASSERT_TRUE(several.Open());
  several.SelectRow(10);  // fade: range-active
  EXPECT_TRUE(several.useRange);
  EXPECT_EQ(several.rangeEnd, 6);
}

TEST_F(Frame, DirectStartsAndClosingTexts) {
  Waveform* wave = Wave(c, "Lead", 20);
  ProcessingWizard w(c);
  w.items.push_back(wave);
  SettingValue zero;
  OperationSetting(OperationTable(0)[0].controls[0]) = zero;  // 0 dB: counted, nothing changes
  EXPECT_TRUE(w.run("Adjust volume", true));
  EXPECT_EQ(LastStatusText(), "Processed 1 item with Adjust volume");
  EXPECT_FALSE(w.canGoBack);
  EXPECT_FALSE(w.undoPushed);
  EXPECT_EQ(wave->samples16[3], 400);

  // Maximize on a wave already at full scale changes nothing.
  for (uint32_t i = 0; i < 20; ++i) wave->samples16[i] = i % 2 ? 32767 : -32768;
  ProcessingWizard m(c);
  m.items.push_back(wave);
  EXPECT_FALSE(m.run("Maximize amplitude", true));
  EXPECT_EQ(LastStatusText(), "No items were modified by Maximize amplitude");

  // A name that matches no row: not direct, and with no window to show the
  // list the run is cancelled.
  ProcessingWizard n(c);
  n.items.push_back(wave);
  EXPECT_FALSE(n.run("No such operation", true));
  EXPECT_FALSE(n.direct);
  EXPECT_EQ(LastStatusText(), "Processing was cancelled");

  // Several items changed.
  Waveform* other = Wave(c, "Pad", 20);
  ProcessingWizard two(c);
  two.items.push_back(wave);
  two.items.push_back(other);
  EXPECT_FALSE(two.run("Swap left and right channels", true));  // both mono
  EXPECT_EQ(LastStatusText(), "No items were modified by Swap left and right channels");
  ProcessingWizard inv(c);
  inv.items.push_back(wave);
  inv.items.push_back(other);
  inv.useRange = true;
  inv.rangeStart = 0;
  inv.rangeEnd = 4;
  EXPECT_TRUE(inv.run("Invert sign throughout selection", true));
  EXPECT_EQ(LastStatusText(), "Processed 2 items with Invert sign throughout selection");
  EXPECT_EQ(other->samples16[0], static_cast<int16_t>(~100));
  EXPECT_EQ(other->samples16[4], 500);
}

TEST_F(Frame, RowsOfLaterWorkRefuseAndChangeNothing) {
  Waveform* wave = Wave(c, "Stereo", 30, 2);
  wave->loopType = 1;
  wave->loopStart = 2;
  wave->loopEnd = 20;
  const std::vector<int16_t> before(wave->samples16.get(), wave->samples16.get() + 60);
  uint32_t size = 0;
  const WizardOperation* rows = OperationTable(0, &size);
  for (uint32_t i = 0; i < size; ++i) {
    if (OperationInBuild(rows[i])) continue;
    SCOPED_TRACE(rows[i].name);
    ProcessingWizard w(c);
    w.items.push_back(wave);
    w.useRange = true;
    w.rangeEnd = 10;
    EXPECT_FALSE(w.run(rows[i].name, true));
    EXPECT_EQ(w.failed, 1u);
    EXPECT_EQ(LastStatusText(), std::string("No items were modified by ") + rows[i].name);
  }
  EXPECT_EQ(std::vector<int16_t>(wave->samples16.get(), wave->samples16.get() + 60), before);
  EXPECT_EQ(wave->length, 30u);
  EXPECT_EQ(c.Count(ItemType::Waveform), 1u);
}

TEST_F(Frame, LoadingFailureEndsTheRun) {
  Waveform* good = Wave(c, "Good", 10);
  auto* lazy = Create<Waveform>(c, "Lazy");
  lazy->length = 10;
  lazy->readCallback = [](Waveform&, FileRef&) { return Fail("Read wave-data from disk", "Could not open file"); };
  lazy->sourcePath = "<virtual>";
  ProcessingWizard w(c);
  w.items.push_back(good);
  w.items.push_back(lazy);
  StatusText("before");
  EXPECT_FALSE(w.run("Remove DC offset", true));
  EXPECT_EQ(w.failed, 1u);
  // The run ended before any closing text.
  EXPECT_EQ(LastStatusText().find("modified"), std::string::npos);
  EXPECT_EQ(LastStatusText().find("Processed"), std::string::npos);
  EXPECT_EQ(good->samples16[0], 100);
}

TEST_F(Frame, SettingsAndTheLastRowOutliveTheWizard) {
  Waveform* wave = Wave(c, "Any", 10);
  const WizardOperation& fade = OperationTable(0)[10];
  EXPECT_EQ(OperationSetting(fade.controls[0]).number, 1.0);  // the exponential fade in
  {
    ProcessingWizard w(c);
    w.items.push_back(wave);
    w.useRange = true;
    w.rangeEnd = 10;
    ASSERT_TRUE(w.Open());
    w.SelectRow(10);
    ASSERT_TRUE(w.Next());
    EXPECT_EQ(w.Control(0).number, 1.0);
    SettingValue two;
    two.number = 2;
    w.SetControl(0, two);
    two.number = 9;  // out of range: clamped to the last choice
    w.SetControl(0, two);
    w.Finish();
    w.Close();
  }
  EXPECT_EQ(OperationSetting(fade.controls[0]).number, 3.0);
  ProcessingWizard again(c);
  again.items.push_back(wave);
  again.useRange = true;
  again.rangeEnd = 5;
  ASSERT_TRUE(again.Open());
  EXPECT_EQ(again.PreselectedRow(), 10);  // the last used row of the audio kind
}

// A table of its own for the preview: a "Split" row that leaves pieces.
bool SplitTestPage(ProcessingWizard& w, WizardPhase phase, int) {
  if (phase != WizardPhase::Run) return true;
  w.ForEachWave([&](Waveform& wave) {
    auto* piece = static_cast<Waveform*>(CloneItem(wave, *wave.collection, "<preview> - 2", true));
    piece->length = 1;
    wave.samples16[0] = 1;
    return EditResult::Changed;
  });
  return true;
}

const WizardOperation kSplitTable[] = {
    {"Split test", 1, SplitTestPage, AlwaysAvailable, 0, "split-test", nullptr, 0},
    {nullptr, 0, nullptr, nullptr, 0, nullptr, nullptr, 0},
};

TEST_F(Frame, PreviewWorksOnAClone) {
  Waveform* a = Wave(c, "A", 10);
  Waveform* b = Wave(c, "B", 10);
  Waveform* d = Wave(c, "C", 10);
  ProcessingWizard w(c);
  w.UseTable(kSplitTable);
  for (Waveform* wave : {a, b, d}) w.items.push_back(wave);
  ASSERT_TRUE(w.Open());
  w.SelectRow(0);
  ASSERT_TRUE(w.Next());
  Waveform* shown = w.PreviewUpdate();
  ASSERT_NE(shown, nullptr);
  EXPECT_NE(shown, a);
  EXPECT_EQ(shown->Name(), "<preview>");
  EXPECT_EQ(shown->samples16[0], 1);
  EXPECT_EQ(a->samples16[0], 100);  // the source is untouched
  EXPECT_EQ(w.modified, 0u);
  // The Split row's other pieces are gone; only the clone remains.
  int previews = 0;
  for (Waveform* wave : c.All<Waveform>()) previews += wave->Name().starts_with("<preview");
  EXPECT_EQ(previews, 1);
  EXPECT_EQ(w.PreviewRestore(), a);
  // ">>" on the last of three shows the first; the clone goes.
  w.PreviewStep(1);
  w.PreviewStep(1);
  EXPECT_EQ(w.PreviewShown(), d);
  w.PreviewStep(1);
  EXPECT_EQ(w.PreviewShown(), a);
  w.PreviewStep(-1);
  EXPECT_EQ(w.PreviewShown(), d);
  EXPECT_EQ(c.Count(ItemType::Waveform), 3u);
  w.PreviewUpdate();
  EXPECT_EQ(c.Count(ItemType::Waveform), 4u);
  w.Back();  // a change of page drops the clone
  EXPECT_EQ(c.Count(ItemType::Waveform), 3u);
  ASSERT_TRUE(w.Next());
  w.Finish();
  w.Close();
  EXPECT_EQ(LastStatusText(), "Processed 3 items with Split test");
  EXPECT_EQ(c.Count(ItemType::Waveform), 6u);
}

}  // namespace
}  // namespace kv

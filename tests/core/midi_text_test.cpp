// The event list texts where they are easy to get subtly wrong: rounding,
// signed and space-padded numbers, the SysEx rows' order of checks, short
// payloads, and the 256 KB cap of the window's listing.
#include <gtest/gtest.h>

#include <cstdio>

#include <string>
#include <vector>

#include "core/error.h"
#include "core/midi_text.h"

namespace kv {
namespace {

std::string Params(const MidiEvent& e, const ParamDisplay& display = {}) {
  char text[160];
  return std::string(text, MidiParameterText(text, sizeof text, e, display));
}

MidiEvent Channel(uint8_t status, uint8_t data1, uint8_t data2 = 0) {
  MidiEvent e;
  e.status = status;
  e.data1 = data1;
  e.data2 = data2;
  return e;
}

// `data` sized exactly, so a read past it is an over-read the sanitizers see.
std::string Meta(uint8_t type, const std::vector<uint8_t>& data) {
  MidiEvent e;
  e.status = 0xFF;
  e.metaType = type;
  e.payload = data.data();
  e.length = static_cast<uint32_t>(data.size());
  return Params(e);
}

std::string SysEx(const std::vector<uint8_t>& data) {
  char text[160];
  return std::string(text, MidiSysExText(text, sizeof text, data.data(), static_cast<uint32_t>(data.size())));
}

TEST(MidiText, MetaEvents) {
  EXPECT_EQ(Meta(0x51, {0x07, 0xA1, 0x20}), "Tempo: 500.00000 ms/4th (120 bpm)");
  EXPECT_EQ(Meta(0x51, {0x09, 0x27, 0xC0}), "Tempo: 600.00000 ms/4th (100 bpm)");
  EXPECT_EQ(Meta(0x51, {0x00, 0x00, 0x00}), "Tempo: 0.00000 ms/4th");
  EXPECT_EQ(Meta(0x59, {0xFD, 0}), "Key signature: 3 flats major");
  EXPECT_EQ(Meta(0x59, {2, 1}), "Key signature: 2 sharps minor");
  EXPECT_EQ(Meta(0x59, {0, 255}), "Key signature: C minor");
  EXPECT_EQ(Meta(0x58, {6, 3, 24, 8}), "Time signature: 6/8, 24 ticks/click, 8");
  EXPECT_EQ(Meta(0x00, {0x01, 0x02}), "Sequence no: 258");
  EXPECT_EQ(Meta(0x2F, {}), "End of Track");
  EXPECT_EQ(Meta(0x0A, {1, 2, 3}), "<id 10>: <3 Bytes>");
  EXPECT_EQ(Meta(0x7F, {0, 0, 0x41, 1}), "Seq. specific: <4 Bytes>");
  EXPECT_EQ(Meta(0x03, {'P', 'i', 0, 'x'}), "Track name: Pi");
  EXPECT_EQ(Meta(0x01, std::vector<uint8_t>(150, 'a')), "Text: " + std::string(99, 'a'));

  // Short payloads: the missing bytes read as 0, none past the end.
  EXPECT_EQ(Meta(0x51, {0x07}), "Tempo: 458.75200 ms/4th (131 bpm)");
  EXPECT_EQ(Meta(0x00, {0x01}), "Sequence no: 256");
  EXPECT_EQ(Meta(0x58, {4}), "Time signature: 4/1, 0 ticks/click, 0");
  EXPECT_EQ(Meta(0x59, {}), "Key signature: C major");
  EXPECT_EQ(Meta(0x54, {1, 2}), "SMPTE Offset: 1:2:0:0:0");
  EXPECT_EQ(Meta(0x05, {}), "Lyric: ");
}

TEST(MidiText, ChannelAndSystemMessages) {
  const ParamDisplay names{true, 4};
  const ParamDisplay numbers{false, 4};
  EXPECT_EQ(Params(Channel(0x90, 60, 100), names), "C4, 100");
  EXPECT_EQ(Params(Channel(0x90, 60, 100), ParamDisplay{true, 3}), "C3, 100");
  EXPECT_EQ(Params(Channel(0x80, 61, 0), numbers), "61, 0");
  EXPECT_EQ(Params(Channel(0xA0, 0, 5), names), "C-1, 5");

  EXPECT_EQ(Params(Channel(0xB0, 8, 64)), "Balance, 64");
  EXPECT_EQ(Params(Channel(0xB0, 40, 1)), "CC40, 1");
  EXPECT_EQ(Params(Channel(0xB0, 91, 40)), "Effect 1 (reverb) depth, 40");

  EXPECT_EQ(Params(Channel(0xE0, 0, 64)), "0.00000");
  EXPECT_EQ(Params(Channel(0xE0, 127, 127)), "0.99988");
  EXPECT_EQ(Params(Channel(0xE0, 0, 0)), "-1.00000");

  EXPECT_EQ(Params(Channel(0xF1, 0x35)), "msg: 3, value: 5");
  EXPECT_EQ(Params(Channel(0xF2, 1, 2)), "130");
  EXPECT_EQ(Params(Channel(0xF6, 0)), "");

  MidiEventRow row;
  MidiEvent e = Channel(0xB0, 7, 90);
  e.channel = 9;
  FillMidiEventRow(row, 12345678901ull, e, names);
  EXPECT_STREQ(row.ticks, "12345678901");
  EXPECT_STREQ(row.channel, "10");
  EXPECT_STREQ(row.event, "Control Chg");
  EXPECT_STREQ(row.parameters, "Volume, 90");
  FillMidiEventRow(row, 0, Channel(0xF8, 0), names);
  EXPECT_STREQ(row.channel, "");
  EXPECT_STREQ(row.event, "");
  EXPECT_STREQ(row.parameters, "");
}

TEST(MidiText, SysExRows) {
  EXPECT_EQ(SysEx({0x7E, 0x7F, 0x09, 0x01, 0xF7}), "<GM Reset: GM1>");
  EXPECT_EQ(SysEx({0x7E, 0x7F, 0x09, 0x07, 0xF7}), "<GM Reset: >");
  EXPECT_EQ(SysEx({0x7E, 0x7F, 0x06, 0x01, 0xF7}), "<GM message  6,  1>");
  EXPECT_EQ(SysEx({0x7E, 0x7F, 0x06, 0x02, 0x00, 0xF7}), "<GM message  6, 6 Bytes>");
  EXPECT_EQ(SysEx({0x7E, 0x7F, 0x09, 0xF7}), "<Mfid: 7E  9, 4 Bytes>");
  EXPECT_EQ(SysEx({0x7F, 0x7F}), "<GM realtime, 2 Bytes>");
  EXPECT_EQ(SysEx({0x43, 0x10, 76, 0, 0, 0x7E, 0, 0xF7}), "<Yamaha XG, 8 Bytes>");
  EXPECT_EQ(SysEx({0x43, 0x10, 76, 0, 0xF7}), "<Yamaha 4C, 5 Bytes>");
  EXPECT_EQ(SysEx({0x41, 0x10, 66, 0x12, 0x40, 0x03, 21, 0x02, 0x66, 0xF7}), "<Roland GS, Part 3 mode=2>");
  EXPECT_EQ(SysEx({0x41, 0x10, 66, 0x12, 0x40, 0x03, 21, 0x01}), "<Roland GS, Part 3 mode=1>");
  EXPECT_EQ(SysEx({0x41, 0x10, 66, 0x12, 0x40, 0x10, 21, 0x02}), "<Roland GS, 8 Bytes>");
  EXPECT_EQ(SysEx({0x41, 0x10, 66, 0x12, 0x40, 0x03, 21}), "<Roland 42, 7 Bytes>");
  EXPECT_EQ(SysEx({0x7D, 0x00, 0x0A}), "<Mfid: 7D  A, 3 Bytes>");
  EXPECT_EQ(SysEx({}), "<Mfid:  0  0, 0 Bytes>");

  const std::vector<uint8_t> data = {0x7F, 0x7F, 0x04, 0x01, 0x00, 0x40, 0xF7};
  MidiEvent e;
  e.status = 0xF7;
  e.payload = data.data();
  e.length = static_cast<uint32_t>(data.size());
  EXPECT_EQ(Params(e), "<GM realtime, 7 Bytes>");
}

struct Listing {
  std::vector<MidiEventRow> rows;
  bool cut = false;
};

Listing List(const std::vector<uint8_t>& track, bool capped) {
  Listing l;
  l.cut = ListMidiTrack(track, ParamDisplay{}, capped, [&](const MidiEventRow& r) { l.rows.push_back(r); });
  return l;
}

TEST(MidiText, ListingStopsAtTheCap) {
  // One text event fills [0, 0x40000); the note after it begins right at the cap.
  std::vector<uint8_t> track;
  MidiEventWriter w(track);
  w.Meta(5, 0x01, std::vector<uint8_t>(kMidiListCap - 6, 'x'));
  ASSERT_EQ(track.size(), kMidiListCap);
  w.Channel(7, 0x90, 0, 60, 1);
  w.EndOfTrack(0);

  const Listing capped = List(track, true);
  EXPECT_TRUE(capped.cut);
  ASSERT_EQ(capped.rows.size(), 2u);
  EXPECT_STREQ(capped.rows[0].ticks, "5");
  EXPECT_STREQ(capped.rows[1].ticks, "<more>");
  EXPECT_STREQ(capped.rows[1].parameters, "Only the first 256 KB of data are shown!");

  const Listing whole = List(track, false);
  EXPECT_FALSE(whole.cut);
  ASSERT_EQ(whole.rows.size(), 3u);
  EXPECT_STREQ(whole.rows[1].ticks, "12");
  EXPECT_STREQ(whole.rows[1].parameters, "C4, 1");
  EXPECT_STREQ(whole.rows[2].parameters, "End of Track");

  // A track whose End of Track ends exactly at the cap is shown whole.
  track.clear();
  MidiEventWriter exact(track);
  exact.Meta(0, 0x01, std::vector<uint8_t>(kMidiListCap - 10, 'x'));
  exact.EndOfTrack(0);
  ASSERT_EQ(track.size(), kMidiListCap);
  const Listing ends = List(track, true);
  EXPECT_FALSE(ends.cut);
  ASSERT_EQ(ends.rows.size(), 2u);
  EXPECT_STREQ(ends.rows[1].event, "Meta event");
}

TEST(MidiText, EditorAndPaneTexts) {
  std::vector<uint8_t> bytes;
  EXPECT_TRUE(ParseMidiHex("F0 7e\t7F 09 01\nf7", bytes));
  EXPECT_EQ(bytes, (std::vector<uint8_t>{0xF0, 0x7E, 0x7F, 0x09, 0x01, 0xF7}));
  EXPECT_TRUE(ParseMidiHex("0a0B", bytes));
  EXPECT_EQ(bytes, (std::vector<uint8_t>{0x0A, 0x0B}));
  for (const char* bad : {"F", "F0 7", "F 0", "G0", "0x10", "10,20"}) {
    ClearError();
    EXPECT_FALSE(ParseMidiHex(bad, bytes)) << bad;
    EXPECT_STREQ(ErrorContext, "Edit event");
    EXPECT_STREQ(ErrorMessage, "Malformed Hex data!");
  }

  EXPECT_TRUE(CheckEventEdit(0x90, 0x2F));
  EXPECT_FALSE(CheckEventEdit(0xFF, 0x2F));
  EXPECT_STREQ(ErrorMessage, "Sorry, you can't set an 'End of Track' manually!");

  EXPECT_EQ(MidiSongInfoText(1, 96), "Format 1 (multi track), 96 ticks/4th");
  EXPECT_EQ(MidiSongInfoText(0, 0x8000 | (25 << 8) | 40), "Format 0 (single track), 40 ticks/frame, 25 frames/s");
  EXPECT_EQ(MidiTrackInfoText(12, 345, 1, 2), "12 events\n345 Bytes\n\nCh-group: 1\nSeq-no: 2");
}

TEST(MidiTextBend, EveryValueReadsAsPrintfWouldWriteIt) {
  MidiEvent e;
  e.status = 0xE0;
  char ours[64], theirs[64];
  for (int v = 0; v < 16384; ++v) {
    e.data1 = static_cast<uint8_t>(v & 0x7F);
    e.data2 = static_cast<uint8_t>(v >> 7);
    MidiParameterText(ours, sizeof ours, e, ParamDisplay{});
    std::snprintf(theirs, sizeof theirs, "%.5f", (v - 8192) / 8192.0);
    ASSERT_STREQ(ours, theirs) << v;
  }
}

}  // namespace
}  // namespace kv

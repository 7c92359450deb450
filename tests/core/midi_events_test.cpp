// The track walk against mido on real files, and the stream forms where
// walkers have gone wrong before: running status after meta and SysEx,
// five-byte quantities, system common messages, lengths past the buffer.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "alloc_counter.h"
#include "core/midi_events.h"
#include "support/testsupport.h"

namespace kv {
namespace {

namespace fs = std::filesystem;

std::vector<MidiEvent> Walk(const std::vector<uint8_t>& track) {
  std::vector<MidiEvent> out;
  MidiEventCursor cursor(track);
  MidiEvent e;
  while (cursor.Next(e)) out.push_back(e);
  return out;
}

TEST(MidiWalk, RunningStatusOutlivesMetaAndSysEx) {
  // Note on, a marker, then a data byte: it runs on the marker's status, so it
  // is a meta event of type 0x40 with one byte, not a note.
  const std::vector<uint8_t> t = {0x00, 0x91, 0x3C, 0x40, 0x00, 0xFF, 0x06, 0x01, 'A',
                                  0x00, 0x40, 0x01, 'B', 0x00, 0xFF, 0x2F, 0x00};
  const auto events = Walk(t);
  ASSERT_EQ(events.size(), 4u);
  EXPECT_EQ(events[0].status, 0x90);
  EXPECT_EQ(events[0].channel, 1);
  EXPECT_EQ(events[2].status, 0xFF);
  EXPECT_TRUE(events[2].runningStatus);
  EXPECT_EQ(events[2].metaType, 0x40);
  ASSERT_EQ(events[2].length, 1u);
  EXPECT_EQ(events[2].payload[0], 'B');
  EXPECT_TRUE(events[3].IsEndOfTrack());
  EXPECT_EQ(CountTrackEvents(t), 4u);
}

TEST(MidiWalk, QuantitiesStopAfterFourBytesAndSystemMessagesKeepTheirSizes) {
  // A delta whose fourth byte still has its high bit: the fifth byte is the
  // status. Then song position (2 bytes), song select (1), tune request (0).
  const std::vector<uint8_t> t = {0x81, 0x80, 0x80, 0x80, 0xF2, 0x01, 0x02, 0x00, 0xF3, 0x05,
                                  0x00, 0xF6, 0x00, 0xC2, 0x07, 0x00, 0xFF, 0x2F, 0x00, 0x90};
  const auto events = Walk(t);
  ASSERT_EQ(events.size(), 5u);
  EXPECT_EQ(events[0].delta, 0x200000u);
  EXPECT_EQ(events[0].status, 0xF2);
  EXPECT_EQ(events[0].data2, 0x02);
  EXPECT_EQ(events[1].data1, 0x05);
  EXPECT_EQ(events[2].status, 0xF6);
  EXPECT_EQ(events[3].status, 0xC0);
  EXPECT_EQ(events[3].data1, 0x07);
  EXPECT_TRUE(events[4].IsEndOfTrack());  // nothing after End of Track is read
  EXPECT_EQ(CountTrackEvents(t), 5u);
}

TEST(MidiWalk, LengthsPastTheBufferEndTheWalkThere) {
  // A SysEx that claims 0x7F bytes of a buffer with three left.
  const std::vector<uint8_t> t = {0x00, 0x90, 0x3C, 0x40, 0x00, 0xF0, 0x7F, 0x43, 0x10, 0xF7};
  const auto events = Walk(t);
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[1].status, 0xF0);
  EXPECT_EQ(events[1].length, 3u);
  // Truncated channel data and a data byte before any status end it too.
  EXPECT_EQ(Walk({0x00, 0x90, 0x3C}).size(), 0u);
  EXPECT_EQ(Walk({0x00, 0x3C, 0x40}).size(), 0u);
  // The count takes a whole short event at the end, not a cut one.
  EXPECT_EQ(CountTrackEvents(std::vector<uint8_t>{0x00, 0x90, 0x3C, 0x40, 0x00, 0xC0, 0x05}), 2u);
  EXPECT_EQ(CountTrackEvents(std::vector<uint8_t>{0x00, 0x90, 0x3C, 0x40, 0x00, 0xC0}), 1u);
  EXPECT_EQ(CountTrackEvents(std::vector<uint8_t>{}), 0u);
}

// Track bodies of an SMF, by its chunks.
std::vector<std::vector<uint8_t>> Tracks(const std::string& file) {
  std::vector<std::vector<uint8_t>> out;
  auto u32 = [&](std::size_t at) {
    return uint32_t(uint8_t(file[at])) << 24 | uint32_t(uint8_t(file[at + 1])) << 16 |
           uint32_t(uint8_t(file[at + 2])) << 8 | uint8_t(file[at + 3]);
  };
  for (std::size_t at = 0; at + 8 <= file.size();) {
    const std::size_t size = u32(at + 4), body = at + 8;
    if (file.compare(at, 4, "MTrk") == 0 && size <= file.size() - body)
      out.emplace_back(file.begin() + body, file.begin() + body + size);
    at = body + size;
  }
  return out;
}

// One line per event as mido gives it: track, absolute tick, bytes in hex.
std::string OurLines(const std::vector<std::vector<uint8_t>>& tracks) {
  std::string text;
  char buf[32];
  for (std::size_t n = 0; n < tracks.size(); ++n) {
    MidiEventCursor cursor(tracks[n]);
    MidiEvent e;
    uint64_t tick = 0;
    while (cursor.Next(e)) {
      tick += e.delta;
      std::vector<uint8_t> bytes;
      if (e.status == 0xFF) {
        bytes = {0xFF, e.metaType};
        uint32_t v = e.length;
        uint8_t var[4];
        int k = 0;
        do var[k++] = v & 0x7F; while ((v >>= 7) && k < 4);
        while (k-- > 0) bytes.push_back(static_cast<uint8_t>(var[k] | (k ? 0x80 : 0)));
        bytes.insert(bytes.end(), e.payload, e.payload + e.length);
      } else if (e.status == 0xF0) {
        bytes = {0xF0};
        bytes.insert(bytes.end(), e.payload, e.payload + e.length);
      } else {
        bytes = {static_cast<uint8_t>(e.status < 0xF0 ? e.status | e.channel : e.status)};
        const int n2 = MidiDataBytes(e.status);
        if (n2 > 0) bytes.push_back(e.data1);
        if (n2 > 1) bytes.push_back(e.data2);
      }
      std::snprintf(buf, sizeof buf, "%zu %llu", n, static_cast<unsigned long long>(tick));
      text += buf;
      for (uint8_t b : bytes) {
        std::snprintf(buf, sizeof buf, " %02x", b);
        text += buf;
      }
      text += '\n';
    }
  }
  return text;
}

// mido's reading of a file in OurLines' form.
std::string MidoLines(const std::string& python, const fs::path& script, const fs::path& file) {
  test::WriteFile(script,
                  "import mido, sys\n"
                  "m = mido.MidiFile(sys.argv[1], clip=True)\n"
                  "for n, t in enumerate(m.tracks):\n"
                  "    tick = 0\n"
                  "    for msg in t:\n"
                  "        tick += msg.time\n"
                  "        print(n, tick, ' '.join('%02x' % b for b in msg.bytes()))\n");
  std::string out;
  EXPECT_EQ(test::RunCommand(python + " '" + script.string() + "' '" + file.string() + "' 2>&1", &out), 0)
      << file << ": " << out;
  return out;
}

// The corpus's Standard MIDI files (.kar ones included), in name order.
std::vector<fs::path> CorpusMidiFiles() {
  std::vector<fs::path> files;
  for (const auto& entry : fs::directory_iterator(test::CorpusDir() / "midi"))
    if (entry.path().extension() == ".mid" || entry.path().extension() == ".kar") files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  return files;
}

TEST(MidiWalk, CorpusTracksWalkAsMidoReadsThem) {
  if (!test::NeedCorpus()) return;
  const std::string python = test::MidoPython();
  if (python.empty()) return;
  test::TempDir dir;
  int files = 0;
  for (const fs::path& file : CorpusMidiFiles()) {
    const std::string theirs = MidoLines(python, dir / "walk.py", file);
    const auto tracks = Tracks(test::ReadFile(file));
    EXPECT_EQ(OurLines(tracks), theirs) << file;
    uint32_t ours = 0;
    for (const auto& t : tracks) ours += CountTrackEvents(t);
    EXPECT_EQ(ours, static_cast<uint32_t>(std::count(theirs.begin(), theirs.end(), '\n'))) << file;
    ++files;
  }
  EXPECT_GE(files, 6);
}

TEST(MidiWalk, AWholeWalkAllocatesNothing) {
  if (test::AllocationCount() < 0) GTEST_SKIP() << "allocations are counted in the plain build only";
  if (!test::NeedCorpus()) return;
  std::vector<std::vector<uint8_t>> tracks;
  for (const fs::path& file : CorpusMidiFiles())
    for (auto& t : Tracks(test::ReadFile(file))) tracks.push_back(std::move(t));
  ASSERT_FALSE(tracks.empty());
  uint64_t events = 0;
  const long before = test::AllocationCount();
  for (const auto& t : tracks) {
    MidiEventCursor cursor(t);
    MidiEvent e;
    while (cursor.Next(e)) events += e.length + 1;
    events += CountTrackEvents(t);
  }
  EXPECT_EQ(test::AllocationCount() - before, 0);
  EXPECT_GT(events, 1000u);
  // The counter does see allocations.
  const long probe = test::AllocationCount();
  std::vector<uint8_t> some(16);
  EXPECT_GT(test::AllocationCount(), probe);
}

TEST(MidiWrite, RunningStatusOnlyBetweenChannelMessagesOfOneStatus) {
  std::vector<uint8_t> t;
  MidiEventWriter w(t);
  w.Channel(0, 0x90, 1, 60, 100);
  w.Channel(0x80, 0x90, 1, 62, 100);  // same status byte: left out
  w.Channel(0, 0x90, 2, 64, 100);     // another channel: written
  w.Meta(0, 0x06, std::vector<uint8_t>{'A'});
  w.Channel(0, 0x90, 2, 65, 0);       // after a meta: written again
  w.Channel(0, 0xC0, 2, 5);           // one data byte
  w.SysEx(0x0FFFFFFF, 0xF0, std::vector<uint8_t>{0x7E, 0xF7});
  w.System(0x10000000, 0xF2, 1, 2);   // a delta past four bytes is limited
  w.EndOfTrack(0);
  const std::vector<uint8_t> want = {0x00, 0x91, 60, 100, 0x81, 0x00, 62, 100, 0x00, 0x92, 64, 100,
                                     0x00, 0xFF, 0x06, 0x01, 'A', 0x00, 0x92, 65, 0, 0x00, 0xC2, 5,
                                     0xFF, 0xFF, 0xFF, 0x7F, 0xF0, 0x02, 0x7E, 0xF7,
                                     0xFF, 0xFF, 0xFF, 0x7F, 0xF2, 1, 2, 0x00, 0xFF, 0x2F, 0x00};
  EXPECT_EQ(t, want);
  EXPECT_EQ(CountTrackEvents(t), 9u);
}

TEST(MidiWrite, CorpusTracksWrittenAgainReadTheSameInMido) {
  if (!test::NeedCorpus()) return;
  const std::string python = test::MidoPython();
  if (python.empty()) return;
  test::TempDir dir;
  int files = 0;
  for (const fs::path& file : CorpusMidiFiles()) {
    const std::string original = test::ReadFile(file);
    ASSERT_EQ(original.compare(0, 8, std::string("MThd\0\0\0\6", 8)), 0) << file;
    std::string copy = original.substr(0, 14);
    for (const auto& track : Tracks(original)) {
      std::vector<uint8_t> body;
      MidiEventWriter w(body);
      MidiEventCursor cursor(track);
      MidiEvent e;
      while (cursor.Next(e)) w.Write(e);
      const uint32_t n = static_cast<uint32_t>(body.size());
      copy += "MTrk";
      for (int shift : {24, 16, 8, 0}) copy += static_cast<char>(n >> shift);
      copy.append(body.begin(), body.end());
    }
    const fs::path written = dir / file.filename();
    test::WriteFile(written, copy);
    EXPECT_EQ(MidoLines(python, dir / "walk.py", written), MidoLines(python, dir / "walk.py", file))
        << file;
    EXPECT_EQ(OurLines(Tracks(copy)), OurLines(Tracks(original))) << file;
    ++files;
  }
  EXPECT_GE(files, 6);
}

}  // namespace
}  // namespace kv

// The track walk against mido on real files, and the stream forms where
// walkers have gone wrong before: running status after meta and SysEx,
// five-byte quantities, system common messages, lengths past the buffer.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

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

TEST(MidiWalk, CorpusTracksWalkAsMidoReadsThem) {
  if (!test::NeedCorpus()) return;
  std::string python;
  for (const char* py : {"/usr/bin/python3", "python3"})
    if (test::RunCommand(std::string(py) + " -c 'import mido' 2>/dev/null") == 0) {
      python = py;
      break;
    }
  if (!test::Need(!python.empty(), "python3-mido")) return;
  const std::string script =
      "import mido, sys\n"
      "m = mido.MidiFile(sys.argv[1], clip=True)\n"
      "for n, t in enumerate(m.tracks):\n"
      "    tick = 0\n"
      "    for msg in t:\n"
      "        tick += msg.time\n"
      "        print(n, tick, ' '.join('%02x' % b for b in msg.bytes()))\n";
  test::TempDir dir;
  test::WriteFile(dir / "walk.py", script);
  int files = 0;
  for (const auto& entry : fs::directory_iterator(test::CorpusDir() / "midi")) {
    const auto ext = entry.path().extension();
    if (ext != ".mid" && ext != ".kar") continue;
    std::string theirs;
    ASSERT_EQ(test::RunCommand(python + " '" + (dir / "walk.py").string() + "' '" + entry.path().string() + "'",
                               &theirs),
              0)
        << entry.path() << ": " << theirs;
    const auto tracks = Tracks(test::ReadFile(entry.path()));
    EXPECT_EQ(OurLines(tracks), theirs) << entry.path();
    uint32_t ours = 0;
    for (const auto& t : tracks) ours += CountTrackEvents(t);
    EXPECT_EQ(ours, static_cast<uint32_t>(std::count(theirs.begin(), theirs.end(), '\n'))) << entry.path();
    ++files;
  }
  EXPECT_GE(files, 6);
}

}  // namespace
}  // namespace kv

// GigaStudio reader and writer: the corpus against gigdump and gigextract,
// dimension regions built byte by byte, bad files, and our own files read
// back by gigtools.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "core/app.h"
#include "core/articulation.h"
#include "core/error.h"
#include "core/fileref.h"
#include "core/items.h"
#include "core/resolved.h"
#include "core/wavestore.h"
#include "formats/export.h"
#include "formats/import.h"
#include "formats/modules/dls.h"
#include "support/testsupport.h"

namespace kv {
namespace {

namespace fs = std::filesystem;
using test::TempDir;

std::string U16(uint32_t v) { return std::string{static_cast<char>(v & 0xFF), static_cast<char>((v >> 8) & 0xFF)}; }
std::string U32(uint32_t v) { return U16(v & 0xFFFF) + U16(v >> 16); }
std::string Chunk(const std::string& id, const std::string& body) {
  std::string s = id + U32(static_cast<uint32_t>(body.size())) + body;
  if (body.size() & 1) s += '\0';
  return s;
}
std::string List(const std::string& type, const std::string& body) { return Chunk("LIST", type + body); }

std::vector<Region*> Regions(Collection& c) {
  std::vector<Region*> r = c.All<Region>();
  std::sort(r.begin(), r.end(), [](const Region* a, const Region* b) { return a->id < b->id; });
  return r;
}

bool Load(Collection& c, const fs::path& path) {
  ClearError();
  return ImportFile(c, path, false);
}

// Boxes shown during a load, captured.
std::vector<std::string>* g_boxes = nullptr;
class BoxCapture {
 public:
  BoxCapture() : enabled_(MessageBoxesEnabled) {
    g_boxes = &texts;
    MessageBoxesEnabled = 1;
    SetBoxPresenter([](const std::string& text, const std::string&, BoxButtons) {
      g_boxes->push_back(text);
      return static_cast<int>(kBoxOk);
    });
  }
  ~BoxCapture() {
    SetBoxPresenter(nullptr);
    MessageBoxesEnabled = enabled_;
    g_boxes = nullptr;
  }
  std::vector<std::string> texts;

 private:
  uint8_t enabled_;
};

TEST(GigCorpus, LoadsAsGigdumpSaysAndDecodesAsGigextract) {
  if (!test::NeedCorpus()) return;
  const fs::path path = test::CorpusDir() / "gig/corpus-shared-libgig.gig";
  Collection c;
  ASSERT_TRUE(Load(c, path)) << ErrorMessage;
  EXPECT_EQ(std::string(c.Name()), "Corpus shared GIG");
  const auto instruments = c.All<Instrument>();
  ASSERT_EQ(instruments.size(), 2u);
  EXPECT_EQ(LocationProgram(instruments[0]->location), 73);
  EXPECT_EQ(LocationProgram(instruments[1]->location), 113);
  const auto regions = Regions(c);
  ASSERT_EQ(regions.size(), 3u);
  std::string loops;
  for (Region* r : regions) {
    const ResolvedRegion rr = ResolveRegion(*r);
    loops += rr.loop.type ? "1" : "0";
    EXPECT_NEAR(rr.art.value[kRowVEnvR1Rate], 0.3, 0.003);
  }
  EXPECT_EQ(loops, "110");
  EXPECT_EQ(ResolveRegion(*regions[0]).pitch.rootKey, 62);
  EXPECT_EQ(ResolveRegion(*regions[1]).pitch.rootKey, 67);
  const auto waves = c.All<Waveform>();
  ASSERT_EQ(waves.size(), 3u);
  EXPECT_EQ(waves[2]->channels, 2);
  EXPECT_EQ(waves[2]->length, 24000u);
  EXPECT_EQ(waves[0]->loopStart, 5266.0f);
  EXPECT_EQ(waves[0]->loopEnd, 9504.0f);

  if (!test::NeedTool("gigextract")) return;
  TempDir dir;
  ASSERT_EQ(test::RunCommand("gigextract '" + path.string() + "' '" + dir.path().string() + "' >/dev/null 2>&1"), 0);
  for (std::size_t i = 0; i < waves.size(); ++i) {
    Waveform* w = waves[i];
    Collection x;
    ASSERT_TRUE(Load(x, dir / (std::to_string(i + 1) + "_" + std::string(w->Name()) + ".wav"))) << w->Name();
    Waveform* ref = x.All<Waveform>().front();
    ASSERT_EQ(ref->length, w->length);
    const int16_t* a = Samples16(*w);
    const int16_t* b = Samples16(*ref);
    ASSERT_TRUE(a && b);
    EXPECT_TRUE(std::equal(a, a + w->SampleCount(), b)) << w->Name();
  }
}

// A version 3 file: one instrument, one region whose dimensions are given
// as (type, bits, zones), a 3ewl per dimension region, all playing wave 0.
std::string GigFile(const std::vector<std::array<int, 3>>& dims, int dimensionRegions, bool pool = true) {
  std::string lnk = U32(static_cast<uint32_t>(dimensionRegions));
  int pos = 0;
  for (std::size_t i = 0; i < 8; ++i) {
    if (i < dims.size()) {
      const auto& d = dims[i];
      lnk += std::string{static_cast<char>(d[0]), static_cast<char>(d[1]), static_cast<char>(pos), 0,
                         static_cast<char>(d[2]), 0, 0, 0};
      pos += d[1];
    } else {
      lnk += std::string(8, '\0');
    }
  }
  for (int i = 0; i < dimensionRegions; ++i) lnk += U32(0);
  std::string prg;
  for (int i = 0; i < dimensionRegions; ++i) {
    std::string ewa(148, '\0');
    ewa[0] = static_cast<char>(148);
    ewa[38] = static_cast<char>(0xE8);  // sustain 1000 permille
    ewa[39] = 0x03;
    prg += List("3ewl", Chunk("3ewa", ewa));
  }
  const std::string rgn = List("rgn ", Chunk("rgnh", U16(0) + U16(127) + U16(0) + U16(127) + U16(0) + U16(0)) +
                                           Chunk("3lnk", lnk) + List("3prg", prg));
  const std::string ins = List("ins ", Chunk("insh", U32(1) + U32(0) + U32(5)) + List("lrgn", rgn));
  std::string data;
  for (int i = 0; i < 100; ++i) data += U16(static_cast<uint16_t>(i * 100));
  const std::string fmt = U16(1) + U16(1) + U32(44100) + U32(88200) + U16(2) + U16(16);
  const std::string wave = List("wave", Chunk("fmt ", fmt) + Chunk("data", data));
  std::string body = "DLS " + Chunk("vers", U32(3 << 16) + U32(0)) + Chunk("colh", U32(1)) + List("lins", ins);
  if (pool) body += Chunk("ptbl", U32(8) + U32(1) + U32(0)) + List("wvpl", wave);
  return Chunk("RIFF", body);
}

bool ReadGig(const TempDir& dir, const std::string& bytes, Collection& c) {
  test::WriteFile(dir / "t.gig", bytes);
  FileRef file;
  EXPECT_TRUE(file.OpenRead(dir / "t.gig"));
  ClearError();
  return gig_Imp(c, file, 0);
}

TEST(GigRead, DimensionsBecomeLayersTriggersAndNotes) {
  TempDir dir;
  // Velocity (2 zones) x release trigger x keyswitch (2 zones).
  Collection c;
  BoxCapture boxes;
  ASSERT_TRUE(ReadGig(dir, GigFile({{0x82, 1, 2}, {0x84, 1, 2}, {0x85, 1, 2}}, 8), c)) << ErrorMessage;
  const auto regions = Regions(c);
  ASSERT_EQ(regions.size(), 4u);  // the keyswitch keeps its first zone
  int releases = 0;
  for (Region* r : regions) {
    const ResolvedRegion rr = ResolveRegion(*r);
    releases += r->GetParam(kRowTriggerType) == 1.0f;
    EXPECT_TRUE((rr.trigger.loVel == 0 && rr.trigger.hiVel == 63) || (rr.trigger.loVel == 64 && rr.trigger.hiVel == 127));
  }
  EXPECT_EQ(releases, 2);
  ASSERT_EQ(boxes.texts.size(), 1u);
  EXPECT_NE(boxes.texts[0].find("Note: the keyswitch dimension"), std::string::npos) << boxes.texts[0];

  // Round robin zones are alternate groups; more dimension bits than 8 are
  // cut with a note; a zone count of 0 means all the bits allow.
  Collection rr;
  boxes.texts.clear();
  ASSERT_TRUE(ReadGig(dir, GigFile({{0x86, 2, 0}, {0x82, 7, 2}}, 4), rr)) << ErrorMessage;
  std::vector<int> triggers;
  for (Region* r : Regions(rr)) triggers.push_back(static_cast<int>(r->GetParam(kRowTriggerType)));
  EXPECT_EQ(triggers, (std::vector<int>{2, 3, 4, 5}));
  ASSERT_EQ(boxes.texts.size(), 1u);
  EXPECT_NE(boxes.texts[0].find("more than 8 bits"), std::string::npos);
}

TEST(GigRead, BadFilesFailWithTheirTexts) {
  TempDir dir;
  Collection c;
  EXPECT_FALSE(ReadGig(dir, GigFile({}, 1, false), c));
  EXPECT_STREQ(ErrorContext, "gig_Parse");
  EXPECT_STREQ(ErrorMessage, "No waveforms!");
  EXPECT_FALSE(ReadGig(dir, Chunk("RIFF", "WAVE" + Chunk("data", "")), c));
  EXPECT_STREQ(ErrorMessage, "Not a RIFF DLS file");
  // A table of dimension regions that claims more than the file holds.
  Collection big;
  EXPECT_TRUE(ReadGig(dir, GigFile({{0x82, 8, 0}}, 2), big));
  EXPECT_EQ(Regions(big).size(), 2u);
}

}  // namespace
}  // namespace kv

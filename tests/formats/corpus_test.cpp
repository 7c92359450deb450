#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>

#include "core/fileref.h"
#include "formats/registry.h"
#include "support/testsupport.h"

namespace kv {
namespace {

std::string Lower(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return s;
}

// Rows for corpus files whose family has a scorer, by folder and extension.
// -1 marks files whose family has none here: they must come out as the raw
// row or as a row of their own extension, never as one of these families.
int ExpectedRow(const std::string& path) {
  const std::string lower = Lower(path);
  const std::string folder = lower.substr(0, lower.find('/'));
  const std::size_t dot = lower.rfind('.');
  const std::string ext = dot == std::string::npos ? "" : lower.substr(dot + 1);

  // Files named against their content: content decides.
  if (lower.find("misnamed-aiff") != std::string::npos) return 15;  // AIFF in .wav
  if (lower.find("is-xm.mod") != std::string::npos) return 519;    // XM in .mod
  // A Broadcast wave named .wav ties rows 476 and 477; the earlier wins.
  static const std::map<std::string, int> byExtension = {
      {"wav", 476}, {"w64", 475},  {"aif", 15},  {"aiff", 16}, {"aifc", 17}, {"8svx", 175}, {"akp", 20},
      {"s1", 350},  {"s9", 352},   {"s", 349},   {"p", 288},   {"dls", 62},  {"gig", 160},  {"mid", 231},
      {"kar", 231}, {"rmi", 339},  {"sf2", 377}, {"sf3", 379}, {"sfz", 384}, {"mod", 237},  {"xm", 519},
      {"s3m", 359}, {"it", 191},   {"669", 6},   {"far", 105}, {"gdm", 159}, {"mdl", 229},  {"med", 230},
      {"mtm", 254}, {"okt", 279},  {"psm", 330}, {"ptm", 331}, {"stm", 408}, {"ult", 443},
  };
  if (folder == "compressed" || folder == "other") return -1;
  // The old MED form (not MMDx) isn't read; the S900 compressed sample has
  // no row of its own; AKAI images named .img are known by their directory
  // and FAT (a hard disk by its partition size, for the reader to refuse).
  if (lower.find("song.med") != std::string::npos) return 0;
  if (ext == "s9c") return 0;
  if (folder == "akai" && ext == "img") return 19;
  // AIFC content in a file named .aiff: the compressed AIFF rows take it.
  if (lower.find("supercollider-sinedpink") != std::string::npos) return 14;
  const auto it = byExtension.find(ext);
  return it == byExtension.end() ? -1 : it->second;
}

TEST(Corpus, EveryFileDetectsAsItsFamily) {
  if (!test::NeedCorpus()) return;
  int checked = 0;
  for (const test::ManifestEntry& entry : test::Manifest()) {
    const std::filesystem::path path = test::CorpusDir() / entry.path;
    SCOPED_TRACE(entry.path + " (" + entry.format + ")");
    FileRef file;
    ASSERT_TRUE(file.OpenRead(path));
    int confidence = -1;
    const int row = DetectFormat(path, file, confidence);
    const int expected = ExpectedRow(entry.path);
    ASSERT_GE(row, 0);
    if (expected >= 0) {
      EXPECT_EQ(row, expected) << "detected as " << FormatName(row);
    } else {
      const std::string ext = Lower(std::string(PathExtension(path.native())));
      EXPECT_TRUE(row == 0 || ext == FormatExtension(row)) << "detected as " << FormatName(row);
    }
    if (row == 0) EXPECT_EQ(confidence, 0);
    else EXPECT_GE(confidence, 55);
    ++checked;
  }
  EXPECT_GT(checked, 250);
}

TEST(Corpus, SignatureWithExtensionIsCertain) {
  if (!test::NeedCorpus()) return;
  for (const char* name : {"wav/gen-s16-stereo.wav", "sf2/calf-Hum.sf2", "midi/freedink-dance-format0.mid",
                           "mod/bomberclone-zb-tnt.xm", "gig/corpus-shared-libgig.gig"}) {
    std::string text;
    int confidence = 0;
    DescribeFile(test::CorpusDir() / name, text, confidence);
    EXPECT_EQ(confidence, 100) << name << ": " << text;
  }
}

}  // namespace
}  // namespace kv

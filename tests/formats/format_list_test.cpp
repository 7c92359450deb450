#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "formats/registry.h"
#include "support/testsupport.h"

namespace kv {
namespace {

// Captures what a printer writes to a FILE*.
template <typename Fn>
std::string Capture(Fn&& print) {
  char* buffer = nullptr;
  std::size_t size = 0;
  std::FILE* out = open_memstream(&buffer, &size);
  print(out);
  std::fclose(out);
  std::string text(buffer, size);
  std::free(buffer);
  return text;
}

int Lines(const std::string& text) { return static_cast<int>(std::count(text.begin(), text.end(), '\n')); }

TEST(FormatList, FilterMatchesExtensionOrNameCaseBlind) {
  const std::string all = Capture([](std::FILE* f) { PrintFormatList(f, ""); });
  const int header = Lines(Capture([](std::FILE* f) { PrintFormatList(f, "no-such-format-anywhere"); }));
  EXPECT_EQ(Lines(all) - header, kFormatCount);

  const std::string sf = Capture([](std::FILE* f) { PrintFormatList(f, "SOUNDFONT"); });
  EXPECT_NE(sf.find(" 377  sf2 "), std::string::npos);
  EXPECT_NE(sf.find(" 363  sbk "), std::string::npos);
  EXPECT_EQ(sf.find(" 476 "), std::string::npos);

  const std::string w64 = Capture([](std::FILE* f) { PrintFormatList(f, "W64"); });
  EXPECT_EQ(Lines(w64) - header, 1);
}

TEST(FormatList, LettersTellBuiltFromPlanned) {
  const std::string text = Capture([](std::FILE* f) { PrintFormatList(f, "Audio interchange"); });
  const FormatEntry& aif = FormatTable()[15];
  std::string letters;
  letters += aif.read ? 'R' : 'r';
  letters += aif.write ? 'W' : 'w';
  letters += 'D';  // the scorer is built
  EXPECT_NE(text.find(" 15  aif         " + letters + "  W.......  Audio interchange"), std::string::npos) << text;
  const std::string krz = Capture([](std::FILE* f) { PrintFormatList(f, "krz"); });
  EXPECT_NE(krz.find("W...I.GC"), std::string::npos) << krz;  // flags D1
  EXPECT_NE(krz.find("-w-"), std::string::npos) << krz;      // writer only, not built
}

TEST(FileInfo, StableLinePerFile) {
  test::TempDir dir;
  const std::string riff("RIFF\x04\0\0\0WAVE", 12);
  test::WriteFile(dir / "a.wav", riff);
  const std::string line = Capture([&](std::FILE* f) { EXPECT_TRUE(PrintFileInfo(f, dir / "a.wav")); });
  EXPECT_EQ(line, (dir / "a.wav").string() + "\t476\twav\tMicrosoft wave\t100%\n");

  test::WriteFile(dir / "empty.wav", "");
  const std::string none = Capture([&](std::FILE* f) {
    EXPECT_FALSE(PrintFileInfo(f, dir / "empty.wav"));
    EXPECT_FALSE(PrintFileInfo(f, dir / "missing.wav"));
    EXPECT_FALSE(PrintFileInfo(f, dir.path()));  // a folder
  });
  EXPECT_EQ(none, "");
}

}  // namespace
}  // namespace kv

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "codecs/addon.h"
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

TEST(FormatList, RowsOfAMissingAddOnNameThePackage) {
  // A bound add-on stays bound for the process: the listing runs in a fresh
  // one where every soname of libFLAC leads nowhere.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        SetAddOnNameMap([](const char* file) {
          return std::string_view(file).starts_with("libFLAC") ? "kvtest-absent-flac.so" : file;
        });
        const std::string flac = Capture([](std::FILE* f) { PrintFormatList(f, "flac"); });
        const std::string opus = Capture([](std::FILE* f) { PrintFormatList(f, "opus"); });
        const bool marked =
            flac.find("Free lossless audio codec (max comp)  (add-on missing: install libflac12)\n") !=
            std::string::npos;
        std::exit(marked && opus.find("add-on missing") == std::string::npos ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace kv

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/fileref.h"
#include "core/items.h"
#include "formats/registry.h"
#include "support/testsupport.h"

namespace kv {
namespace {

// What each row has by design, one letter per row: r = read and detect,
// b = read, write and detect, w = write only.
constexpr const char* kDesignLetters =
    "rrbbbbrrrwwwwrrbbrrrbbbbrrbrrrrbbrrrrrrrrrbrrrrbrrrrrrrrrrrr"
    "rrrwwwwrrrwwrrrbrbrrrrrrrrrrbrrrrrrrbwrrbrbrbrrrwwrbrrrbbbrr"
    "wwrwwrwwrwwrwwbrwwrwwrwwrwwrwwrwwrwwrwwrrwwwwrrbbbwbrrrbrrrw"
    "wbrrrbbbwrrrbbbrrrrbrrwwwwwbrwrwwwwwrwwwwwbbrwwbrrrbrrrrrrbr"
    "rwrwwwbrrrrbrbrrrrrrrrrwwrrrwwrrrwwbbrbrrwwbrrrbbrrbbrbbrrrr"
    "rrrrwwwwwwwwwwwwwrrbrwwbrrrrrrrrrrrrrrrrwwwbbbbrbbrrbrbrwwbr"
    "brbbrbrbbrrbrrbrbbrbrrrrrwwwwbrrrrrrwwwwrrrrrbrrrbrrrrrrrrbw"
    "brrrrrrrrbbbbwbbbbrrbrbrbrrbbbwrrbbbrbwbbbrrbbrbbrbrbbrbbrbr"
    "rrrrwwwwwwwwwrbrrbwwrbbrbbbbrwwwrwwrwwbrbb";

const FormatEntry& Row(int i) { return FormatTable()[i]; }

TEST(RegistryTable, DesignLettersMatchTheList) {
  ASSERT_EQ(std::strlen(kDesignLetters), static_cast<std::size_t>(kFormatCount));
  int readable = 0;
  for (int i = 0; i < kFormatCount; ++i) {
    const uint8_t expected = kDesignLetters[i] == 'r'   ? (kDesignRead | kDesignDetect)
                             : kDesignLetters[i] == 'b' ? (kDesignRead | kDesignWrite | kDesignDetect)
                                                        : kDesignWrite;
    EXPECT_EQ(Row(i).design, expected) << "row " << i << " " << Row(i).name;
    readable += (Row(i).design & kDesignRead) != 0;
  }
  EXPECT_EQ(readable, 395);  // the scoring functions run on every file
}

TEST(RegistryTable, BuiltFunctionsStayWithinTheDesign) {
  for (int i = 0; i < kFormatCount; ++i) {
    const FormatEntry& row = Row(i);
    SCOPED_TRACE(testing::Message() << "row " << i << " " << row.name);
    EXPECT_TRUE(!row.read || row.detect) << "a reader needs its scorer";
    EXPECT_TRUE(!row.read || (row.design & kDesignRead));
    EXPECT_TRUE(!row.write || (row.design & kDesignWrite));
    EXPECT_TRUE(!row.detect || (row.design & kDesignDetect));
    EXPECT_TRUE((row.design & kDesignWrite) || row.capabilities == 0);
    EXPECT_TRUE(!row.rate || (row.capabilities & kCapCompressed));
    EXPECT_EQ(row.capabilities & 0xFFC00000u, 0u);
  }
}

TEST(RegistryTable, ExtensionsAreLowerCaseAndNamed) {
  EXPECT_STREQ(Row(0).extension, "*");
  EXPECT_STREQ(Row(0).name, "Unrecognized");
  for (int i = 1; i < kFormatCount; ++i) {
    const std::string ext = Row(i).extension;
    EXPECT_FALSE(ext.empty()) << i;
    EXPECT_EQ(ext.find('.'), std::string::npos) << i;
    for (char c : ext) EXPECT_FALSE(c >= 'A' && c <= 'Z') << i;
    EXPECT_GT(std::strlen(Row(i).name), 0u) << i;
  }
}

TEST(RegistryTable, ExtensionGroupsKeepTheirOrder) {
  // Reader row first, then its writer variants; look-ups take the first match.
  for (int i = 483; i <= 492; ++i) EXPECT_STREQ(Row(i).extension, "wma") << i;
  EXPECT_STREQ(Row(476).name, "Microsoft wave");
  EXPECT_STREQ(Row(477).name, "Broadcast wave");
  EXPECT_STREQ(Row(478).extension, "wa!");
  EXPECT_STREQ(Row(242).extension, "mp3");
  EXPECT_STREQ(Row(245).name, "MPEG layer III - VBR");
  // Same extension, not adjacent: the list's order, not a sort.
  EXPECT_STREQ(Row(248).extension, "mpg");
  EXPECT_STREQ(Row(249).extension, "mpeg");
  EXPECT_STREQ(Row(250).extension, "mpg");
  EXPECT_STREQ(Row(506).extension, "xpm");
  EXPECT_STREQ(Row(507).extension, "wv");
  EXPECT_STREQ(Row(521).extension, "yadpcm");
}

TEST(RegistryTable, TellingRows) {
  struct Telling {
    int row;
    const char* ext;
    uint8_t flags;
    uint32_t caps;
    uint32_t parameter;
  };
  const Telling rows[] = {
      {0, "*", 0x01, 0, 0},           {15, "aif", 0x01, 0x00300035, 0},  {209, "krz", 0xD1, 0x00300004, 0},
      {231, "mid", 0x60, 0x00080000, 0}, {243, "mp3", 0x01, 0x00320000, 0}, {244, "mp3", 0x01, 0x00320000, 1},
      {245, "mp3", 0x01, 0x00320000, 2}, {3, "3gp", 0x01, 0x00120000, 1408}, {377, "sf2", 0x91, 0x00100014, 0},
      {433, "txt", 0xF3, 0x00040000, 0}, {476, "wav", 0x01, 0x00327F75, 0}, {477, "wav", 0x01, 0, 0},
      {483, "wma", 0x01, 0, 0},       {484, "wma", 0x01, 0x00320000, 0},
  };
  for (const Telling& t : rows) {
    SCOPED_TRACE(t.row);
    EXPECT_STREQ(Row(t.row).extension, t.ext);
    EXPECT_EQ(Row(t.row).typeFlags, t.flags);
    EXPECT_EQ(Row(t.row).capabilities, t.caps);
    EXPECT_EQ(Row(t.row).parameter, t.parameter);
  }
}

TEST(RegistryLookup, NamesAndExtensionsOutOfRange) {
  EXPECT_STREQ(FormatName(-1), "<none>");
  EXPECT_STREQ(FormatName(kFormatCount), "<none>");
  EXPECT_STREQ(FormatExtension(522), "");
  EXPECT_STREQ(FormatName(231), "Standard MIDI");
  EXPECT_EQ(FormatAt(-1), nullptr);
}

TEST(RegistryLookup, CapabilitiesOfReaderRowsComeFromTheNextWriterOfTheExtension) {
  uint32_t parameter = 99;
  EXPECT_EQ(FormatCapabilities(483, parameter), 0x00320000u);  // from 484
  EXPECT_EQ(parameter, 0u);
  EXPECT_EQ(FormatCapabilities(477, parameter), 0u);  // 478 is "wa!"
  EXPECT_EQ(FormatCapabilities(242, parameter), 0x00320000u);  // mp3 reader -> CBR
  EXPECT_EQ(FormatCapabilities(62, parameter), 0x00100005u);   // dls reader -> level 1
  EXPECT_EQ(parameter, 1u);
  EXPECT_EQ(FormatCapabilities(244, parameter), 0x00320000u);
  EXPECT_EQ(parameter, 1u);
  EXPECT_EQ(FormatCapabilities(521, parameter), 0x00302000u);  // the last row
  EXPECT_EQ(FormatCapabilities(0, parameter), 0u);
  EXPECT_EQ(FormatCapabilities(-1, parameter), 0u);
  EXPECT_EQ(FormatCapabilities(kFormatCount, parameter), 0u);
  EXPECT_EQ(parameter, 0u);
}

TEST(RegistryLookup, WalksVisitOnlyBuiltRows) {
  int seen = 0;
  const char* ext = nullptr;
  const char* name = nullptr;
  uint8_t flags = 0;
  uint32_t caps = 0;
  for (int i = -5; NextWriter(i, ext, name, flags, caps); ++i, ++seen) {
    ASSERT_TRUE(Row(i).write);
    EXPECT_EQ(caps, Row(i).capabilities);
  }
  int readers = 0;
  for (int i = 0; NextReader(i, ext, name, flags); ++i, ++readers) ASSERT_TRUE(Row(i).read);
  int built = 0, builtReaders = 0;
  for (int i = 0; i < kFormatCount; ++i) {
    built += Row(i).write != nullptr;
    builtReaders += Row(i).read != nullptr;
    EXPECT_EQ(FormatHoldsType(i, 0), Row(i).write && (Row(i).typeFlags & 1));
  }
  EXPECT_EQ(seen, built);
  EXPECT_EQ(readers, builtReaders);
  EXPECT_FALSE(FormatHoldsType(522, 0));
  EXPECT_FALSE(FormatHoldsType(476, 8));
}

TEST(RegistryLookup, FindWriterByExtensionForms) {
  EXPECT_EQ(FindWriterByExtension(".WAV", 0xFF), FindWriterByExtension("wav", 0xFF));
  EXPECT_EQ(FindWriterByExtension(u".Wav", 0xFF), FindWriterByExtension("wav", 0xFF));
  EXPECT_EQ(FindWriterByExtension(u"w\u00e4v", 0xFF), -1);
  EXPECT_EQ(FindWriterByExtension(std::u16string(100, u'w'), 0xFF), -1);
  EXPECT_EQ(FindWriterByExtension("wav", 0), -1);  // no type in common
  EXPECT_EQ(FindWriterByExtension("nosuch", 0xFF), -1);
  EXPECT_EQ(FindReaderByPath("/no/such/file.xyz"), -1);
}

TEST(RegistryLookup, PathExtensionTakesTheLastDotOfTheWholePath) {
  EXPECT_EQ(PathExtension("/music/take.one.WAV"), "WAV");
  EXPECT_EQ(PathExtension("/tmp/my.dir/file"), "dir/file");
  EXPECT_EQ(PathExtension("README"), "README");
  EXPECT_EQ(PathExtension("x."), "");
  EXPECT_EQ(PathExtension("a." + std::string(100, 'z')).size(), kExtensionLength);
}

TEST(RegistryLookup, PatternMatching) {
  EXPECT_TRUE(MatchExtension("ab?", "AB"));  // "?" also matches the end
  EXPECT_TRUE(MatchExtension("ab?", "abc"));
  EXPECT_FALSE(MatchExtension("ab?", "abcd"));
  EXPECT_TRUE(MatchExtension("a?c", "A"));  // the end completes the match
  EXPECT_TRUE(MatchExtension("*", ""));
  EXPECT_TRUE(MatchExtension("*", "anything/at.all"));
  EXPECT_TRUE(MatchExtension("wa*", "WAVEFORM"));
  EXPECT_TRUE(MatchExtension("wa!", "WA!"));
  EXPECT_FALSE(MatchExtension("wav", "wa"));
  EXPECT_FALSE(MatchExtension("wav", "wavx"));
  EXPECT_FALSE(MatchExtension("s", ""));
}

// ---- detection ----

std::vector<uint8_t> RiffWave(bool bext = false) {
  std::vector<uint8_t> b = {'R', 'I', 'F', 'F', 60, 0, 0, 0, 'W', 'A', 'V', 'E'};
  auto chunk = [&](const char* id, uint32_t size) {
    b.insert(b.end(), id, id + 4);
    for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>(size >> (8 * i)));
    b.resize(b.size() + size);
  };
  if (bext) chunk("bext", 4);
  chunk("fmt ", 16);
  b[20 + (bext ? 12 : 0)] = 1;
  chunk("data", 8);
  return b;
}

const std::vector<uint8_t> kAiff = {'F', 'O', 'R', 'M', 0, 0, 0, 4, 'A', 'I', 'F', 'F', 0, 0, 0, 0};

int Detect(std::string_view ext, const std::vector<uint8_t>& bytes, int& confidence) {
  return DetectFormatInMemory(ext, bytes.data(), static_cast<uint32_t>(bytes.size()), bytes.size(), confidence);
}

TEST(Detection, SignatureAndExtensionScores) {
  int confidence = -1;
  EXPECT_EQ(Detect("wav", RiffWave(), confidence), 476);
  EXPECT_EQ(confidence, 100);
  EXPECT_EQ(Detect("xyz", RiffWave(), confidence), 476);  // 6 alone beats the raw row
  EXPECT_EQ(confidence, 66);
  EXPECT_EQ(Detect("bwf", RiffWave(true), confidence), 40);
  EXPECT_EQ(confidence, 100);
  // A .wav with an AIFF signature: 6 beats the wave row's 3 + 0.
  EXPECT_EQ(Detect("wav", kAiff, confidence), 15);
  EXPECT_EQ(confidence, 66);
}

TEST(Detection, TiesGoToTheEarlierRow) {
  int confidence = 0;
  // Broadcast wave in .wav: rows 476 and 477 both score 9.
  EXPECT_EQ(Detect("wav", RiffWave(true), confidence), 476);
  // AIFF scores 6 on rows 15 and 16; with no extension the first wins.
  EXPECT_EQ(Detect("bin", kAiff, confidence), 15);
}

TEST(Detection, WeakScoresNeedTheExtension) {
  int confidence = -1;
  const std::vector<uint8_t> sds = {'S', 'D', 'S', 'S', 0, 0, 0, 0, 'W', 'A', 'V', 'E'};
  EXPECT_EQ(Detect("sds", sds, confidence), 372);  // 3 + 4
  EXPECT_EQ(confidence, 77);
  EXPECT_EQ(Detect("dat", sds, confidence), 0);  // 4 ties the raw row and loses
  EXPECT_EQ(confidence, 0);
  const std::string text = "sample=kick.wav\n";
  const std::vector<uint8_t> sfz(text.begin(), text.end());
  EXPECT_EQ(Detect("sfz", sfz, confidence), 384);  // 3 + 2
  EXPECT_EQ(confidence, 55);
}

TEST(Detection, UnknownFileIsTheRawRowWithoutConfidence) {
  int confidence = -1;
  const std::vector<uint8_t> noise = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  EXPECT_EQ(Detect("qqq", noise, confidence), 0);
  EXPECT_EQ(confidence, 0);
  EXPECT_EQ(Detect("", noise, confidence), 0);
}

class DetectionFile : public ::testing::Test {
 protected:
  int DetectPath(const std::filesystem::path& path, int& confidence) {
    FileRef file;
    EXPECT_TRUE(file.OpenRead(path));
    return DetectFormat(path, file, confidence);
  }
  test::TempDir dir;
};

TEST_F(DetectionFile, EmptyFileIsNothing) {
  test::WriteFile(dir / "empty.wav", "");
  int confidence = -1;
  EXPECT_EQ(DetectPath(dir / "empty.wav", confidence), -1);
  EXPECT_EQ(confidence, 0);
}

TEST_F(DetectionFile, TenByteFileAndPositionRestored) {
  test::WriteFile(dir / "ten.mid", std::string("MThd\0\0\0\6\0\1", 10));
  FileRef file;
  ASSERT_TRUE(file.OpenRead(dir / "ten.mid"));
  ASSERT_TRUE(file.Seek(3));
  int confidence = -1;
  // The header promises 14 bytes: not a MIDI file, only the raw row.
  EXPECT_EQ(DetectFormat(dir / "ten.mid", file, confidence), 0);
  EXPECT_EQ(file.Tell(), 3u);
}

TEST_F(DetectionFile, ExtensionComesFromTheWholePath) {
  const std::vector<uint8_t> wave = RiffWave();
  std::filesystem::create_directory(dir / "kit.sfz");
  test::WriteFile(dir / "kit.sfz" / "snare", std::string(wave.begin(), wave.end()));
  int confidence = 0;
  // The subject is "sfz/snare": no row's extension, so content alone decides.
  EXPECT_EQ(DetectPath(dir / "kit.sfz" / "snare", confidence), 476);
  EXPECT_EQ(confidence, 66);
}

TEST_F(DetectionFile, DescribeFile) {
  std::string name = "x";
  int confidence = -1;
  DescribeFile(dir / "missing.wav", name, confidence);
  EXPECT_EQ(name, "");
  EXPECT_EQ(confidence, 0);

  const std::vector<uint8_t> wave = RiffWave();
  test::WriteFile(dir / "a.wav", std::string(wave.begin(), wave.end()));
  DescribeFile(dir / "a.wav", name, confidence);
  EXPECT_EQ(name, "Microsoft wave");
  EXPECT_EQ(confidence, 100);

  // Not detected: the desktop's name for the extension, else the row's.
  test::WriteFile(dir / "noise.wav", "0123456789");
  DescribeFile(dir / "noise.wav", name, confidence);
  EXPECT_EQ(confidence, 0);
  std::string system;
  EXPECT_EQ(name, SystemFileTypeName(".wav", system) ? system : std::string("Unrecognized"));
}

TEST(SystemFileType, UnknownExtensionHasNoName) {
  std::string name = "kept";
  EXPECT_FALSE(SystemFileTypeName(".no-such-extension-kelvo", name));
  EXPECT_EQ(name, "kept");
}

// ---- encoding choice ----

float g_rates[8] = {};
float ListedRate(int index, uint32_t, char*) { return index < 8 ? g_rates[index] : -1.0f; }

TEST(ChooseDataFormat, OwnFormatWhenAllowed) {
  float rate = -1;
  EXPECT_EQ(ChooseDataFormat({.own = 4, .request = 0x00327F75}, rate), 4);
  EXPECT_EQ(rate, 0.0f);
  // A compressed wave keeps its own rate unless another one is wanted.
  EXPECT_EQ(ChooseDataFormat({.own = 17, .ownRate = 128, .request = 0x20000}, rate), 17);
  EXPECT_EQ(rate, 128.0f);
}

TEST(ChooseDataFormat, FallbacksInOrder) {
  float rate = 0;
  EXPECT_EQ(ChooseDataFormat({.own = 4, .request = 1u << 9}, rate), 9);  // the single allowed bit
  // Next better PCM or float above the own one.
  EXPECT_EQ(ChooseDataFormat({.own = 2, .request = 0x51}, rate), 4);
  // Default preference (20) and nothing above: PCM 16-bit if allowed.
  EXPECT_EQ(ChooseDataFormat({.own = 20, .request = 0x15}, rate), 2);
  EXPECT_EQ(ChooseDataFormat({.own = 6, .request = 0x11}, rate), 20);
  EXPECT_EQ(ChooseDataFormat({.own = 2, .request = (1u << 16) | (1u << 15)}, rate), 16);
  EXPECT_EQ(ChooseDataFormat({.own = 0, .request = (1u << 16) | (1u << 15)}, rate), 15);
  EXPECT_EQ(ChooseDataFormat({.own = 8, .request = (1u << 17) | (1u << 9)}, rate), 17);
  EXPECT_EQ(rate, 256.0f);
  EXPECT_EQ(ChooseDataFormat({.own = 8, .request = (1u << 13) | (1u << 11)}, rate), 11);
  EXPECT_EQ(ChooseDataFormat({.own = 8, .request = 0}, rate), 20);
}

TEST(ChooseDataFormat, CompressedRateSnapsToTheRowsList) {
  const float list[8] = {32, 64, 128, 320, 0};
  std::copy(list, list + 8, g_rates);
  float rate = 0;
  DataFormatChoice c{.own = 2, .request = 1u << 17, .wantedRate = 100, .rateFn = ListedRate};
  EXPECT_EQ(ChooseDataFormat(c, rate), 17);
  EXPECT_EQ(rate, 128.0f);
  c.wantedRate = 500;  // past the list: its last rate
  ChooseDataFormat(c, rate);
  EXPECT_EQ(rate, 320.0f);
  c.wantedRate = 0;  // not set means 256
  ChooseDataFormat(c, rate);
  EXPECT_EQ(rate, 320.0f);
  g_rates[0] = 0;  // a list that starts with 0 takes any rate
  c.wantedRate = 100;
  ChooseDataFormat(c, rate);
  EXPECT_EQ(rate, 100.0f);
}

TEST(RateText, RowsWithoutRateFunction) {
  char text[64] = "x";
  EXPECT_FALSE(RateText(-1, 0, text));
  EXPECT_FALSE(RateText(0, 0, text));
  EXPECT_STREQ(text, "");
}

}  // namespace
}  // namespace kv

namespace kv {
namespace {

TEST(DefaultChoices, DataFormatFromThePreferredFormat) {
  Collection c;
  Waveform* wave = Create<Waveform>(c, "a");
  std::string text;
  wave->preferredFormat = 2;  // PCM 24-bit
  EXPECT_EQ(DefaultDataFormat(476, *wave, text), 4);
  EXPECT_EQ(text, "PCM 24-bit");
  wave->preferredFormat = 21;  // default: PCM 16-bit where allowed
  EXPECT_EQ(DefaultDataFormat(476, *wave, text), 2);
  EXPECT_EQ(text, "PCM 16-bit");
  wave->preferredFormat = 4;  // float, on a row that only writes PCM 16-bit
  EXPECT_EQ(DefaultDataFormat(348, *wave, text), 2);
  EXPECT_EQ(DefaultDataFormat(-1, *wave, text), 20);
  EXPECT_EQ(text, "");

  Instrument* inst = Create<Instrument>(c, "i");
  Layer* layer = AddLayer(*inst);
  Waveform* other = Create<Waveform>(c, "b");
  other->preferredFormat = 0;  // PCM 8-bit
  AddRegion(*layer, wave->id, MakeRange(0, 60), kNoRange, 255);
  AddRegion(*layer, other->id, MakeRange(61, 127), kNoRange, 255);
  EXPECT_EQ(DefaultDataFormat(476, *inst, text), 20);
  EXPECT_EQ(text, "Mixed");
  EXPECT_EQ(DefaultDataFormat(231, *inst, text), 19);  // one bit: whatever the item
  EXPECT_EQ(text, "MIDI");
  // No writer is built on these rows yet: channels stay on automatic.
  EXPECT_EQ(DefaultChannels(476, *inst), FormatTable()[476].write ? 1 : 0);
  EXPECT_EQ(DefaultChannels(600, *wave), 0);
}

}  // namespace
}  // namespace kv

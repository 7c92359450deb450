#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <set>
#include <string>

#include "core/error.h"
#include "core/settings.h"
#include "support/testsupport.h"

namespace kv {
namespace {

namespace fs = std::filesystem;

// Points the store at a scratch file and puts the environment back after.
struct SettingsTest : ::testing::Test {
  test::TempDir dir;
  fs::path file;
  std::string savedSettings, savedXdg;
  bool hadSettings = false, hadXdg = false;

  void SetUp() override {
    if (const char* v = std::getenv("KELVO_SETTINGS")) hadSettings = true, savedSettings = v;
    if (const char* v = std::getenv("XDG_CONFIG_HOME")) hadXdg = true, savedXdg = v;
    file = dir / "settings.ini";
    ::setenv("KELVO_SETTINGS", file.c_str(), 1);
    ResetSettings();
  }
  void TearDown() override {
    if (hadSettings) ::setenv("KELVO_SETTINGS", savedSettings.c_str(), 1);
    else ::unsetenv("KELVO_SETTINGS");
    if (hadXdg) ::setenv("XDG_CONFIG_HOME", savedXdg.c_str(), 1);
    else ::unsetenv("XDG_CONFIG_HOME");
    ResetSettings();
  }
};

SettingKind KindByPrefix(std::string_view name) {
  const std::string_view last = name.substr(name.rfind('.') + 1);
  auto starts = [&](std::string_view p) { return last.substr(0, p.size()) == p; };
  if (starts("wsz") || starts("sz")) return SettingKind::Text;
  if (starts("dw")) return SettingKind::UInt32;
  if (starts("ai")) return SettingKind::Int32Array;
  if (starts("aw")) return SettingKind::UInt16Array;
  if (starts("ac")) return SettingKind::Text;  // the key rows are texts of bytes
  if (starts("pt")) return SettingKind::Point;
  if (starts("b") || starts("c")) return SettingKind::Byte;
  if (starts("i") || starts("n")) return SettingKind::Int32;
  if (starts("f")) return last == "features" ? SettingKind::UInt64 : SettingKind::Float;
  return SettingKind::PathList;
}

TEST_F(SettingsTest, TableNamesAreUniqueAndTypedByPrefix) {
  std::set<std::string> names;
  for (const SettingRow& row : SettingRows()) {
    EXPECT_TRUE(names.insert(row.name).second) << row.name;
    std::string_view name = row.name;
    // Sample rates named sz are numbers.
    const SettingKind expect = name.ends_with("SampleRate") && name.find(".sz") != std::string_view::npos
                                   ? SettingKind::UInt32
                                   : KindByPrefix(name);
    EXPECT_EQ(row.kind, expect) << row.name;
  }
  EXPECT_EQ(names.size(), 95u);
  EXPECT_STREQ(SettingRows().front().name, "app.LastFilesA");
  EXPECT_STREQ(SettingRows().back().name, "fmt.sd2.iBits");
}

TEST_F(SettingsTest, DefaultsAndFirstRun) {
  EXPECT_FALSE(LoadSettings());  // no file yet
  EXPECT_TRUE(IsFirstRun());
  const SettingsStore& s = Settings();
  EXPECT_EQ(s.VersionNumber, "12.5");
  EXPECT_EQ(s.app.iPaneSplitL, 221);
  EXPECT_EQ(s.app.awColWidths, (std::array<uint16_t, 5>{160, 62, 50, 40, 40}));
  EXPECT_EQ(s.app.bCheckForUpdates, 0xFF);
  EXPECT_EQ(s.app.cOctMidC, 4);
  EXPECT_FALSE(s.app.ptLastPos.present);
  EXPECT_EQ(s.ap.ptLastPos, (SettingsPoint{64, 48, true}));
  EXPECT_EQ(s.aio.szAudioOutDev, "System default");
  EXPECT_EQ(s.aio.nLatency, -1);
  EXPECT_EQ(s.aio.acVKlo, "ZSXDCVGBHNJM,L.");
  EXPECT_EQ(s.features, ~uint64_t{0});
  EXPECT_EQ(s.sall.iMode, 213);
  EXPECT_EQ(s.fmt.vox.dwDataFormat, 0x8002000u);
  EXPECT_EQ(s.fmt.mp3.bWriteID3, 1);
  const std::set<std::string> banks{"/usr/share/sounds/sf2/default-GM.sf2", "/usr/share/sounds/sf3/default-GM.sf3",
                                    "/usr/share/sounds/sf2/FluidR3_GM.sf2", "/usr/share/sounds/sf2/TimGM6mb.sf2"};
  EXPECT_TRUE(banks.count(s.mid2wav.wszGMBank)) << s.mid2wav.wszGMBank;
}

TEST_F(SettingsTest, EveryKindRoundTripsThroughTheFile) {
  SettingsStore& s = Settings();
  s.app.LastFilesA = {"/music/a,b=c.sf2", "/music/ünïcode dir/x.wav", "C:\\old\\path.wav"};
  s.app.LastPathsA = {"/music"};
  s.app.aiLastExp = {-1, 2147483647, -2147483647 - 1, 0, 42};
  s.app.ptLastPos = {-20, 30, true};
  s.app.awColWidths = {0, 65535, 1, 2, 3};
  s.app.bDispLoBank = 255;
  s.app.wszWave = "audacity --flag=\"x\" \\ end\nsecond line";
  s.aio.fdbMixGain = 0.1f;
  s.aio.nLatency = -2147483647 - 1;
  s.aio.szAudioInSampleRate = 4294967295u;
  s.aio.acVKhi = "=;#, ";
  s.features = 0x00000ABCDEF01234ull;
  s.sy2wt.dwmsMaxLength = 7;
  s.fmt.sd2.iBits = 24;
  s.VersionNumber = "12.5";
  const std::string before = FormatSettings(s);
  ASSERT_TRUE(SaveSettings()) << ErrorMessage;

  ResetSettings();
  ASSERT_NE(FormatSettings(Settings()), before);
  ASSERT_TRUE(LoadSettings());
  EXPECT_FALSE(IsFirstRun());
  EXPECT_EQ(FormatSettings(Settings()), before);
  EXPECT_EQ(Settings().app.LastFilesA[1], "/music/ünïcode dir/x.wav");
  EXPECT_EQ(Settings().app.wszWave, "audacity --flag=\"x\" \\ end\nsecond line");
  EXPECT_EQ(Settings().aio.fdbMixGain, 0.1f);
  EXPECT_EQ(Settings().aio.acVKhi, "=;#, ");
  EXPECT_EQ(Settings().features, 0x00000ABCDEF01234ull);

  // Written atomically: nothing but the file is left in its folder.
  int entries = 0;
  for ([[maybe_unused]] auto& e : fs::directory_iterator(dir.path())) ++entries;
  EXPECT_EQ(entries, 1);
}

TEST_F(SettingsTest, FloatsRoundTripExactly) {
  for (float f : {0.1f, -96.0f, 1.17549435e-38f, 1e-45f, 3.4028235e38f, -0.0f, 6.0206003f}) {
    ResetSettings();
    Settings().aio.fdbMixGain = f;
    ASSERT_TRUE(SaveSettings());
    ResetSettings();
    LoadSettings();
    EXPECT_EQ(std::memcmp(&Settings().aio.fdbMixGain, &f, sizeof f), 0) << f;
  }
}

TEST_F(SettingsTest, EmptyRecentListsAreNotWritten) {
  ASSERT_TRUE(SaveSettings());
  const std::string text = test::ReadFile(file);
  EXPECT_EQ(text.find("LastFilesA"), std::string::npos);
  EXPECT_NE(text.find("\napp.iPaneSplitL=221\n"), std::string::npos);
  EXPECT_NE(text.find("\nVersionNumber=12.5\n"), std::string::npos);
}

TEST_F(SettingsTest, CorruptFileGivesDefaultsForWhatCannotBeRead) {
  std::string junk = "app.cOctMidC=5\n";                      // good
  junk += "app.bShowNoteNames=300\n";                        // out of range
  junk += "aio.nLatency=12abc\n";                            // trailing junk
  junk += "app.awColWidths=1,2,3\n";                         // too few
  junk += "app.aiLastExp=1,2,3,4,5,6\n";                     // too many
  junk += "app.ptLastSize=5\n";                              // half a point
  junk += "aio.fdbMixGain=0,5\n";                            // a locale's comma
  junk += "features=-1\n";                                   // no sign on a mask
  junk += "no equals sign here\n=\nunknown.setting=1\n";
  static constexpr char kBinary[] = "\0\xFF\xFE binary \x01=\x02\n";
  junk += std::string(kBinary, sizeof kBinary - 1);
  junk += "app.wszWave=trailing backslash\\\n";              // bad escape
  junk += "app.LastFilesA.x=/a\napp.LastFilesA.0=/b\n";
  junk += std::string(100000, 'z');                          // no newline at the end
  test::WriteFile(file, junk);
  LoadSettings();
  const SettingsStore& s = Settings();
  EXPECT_EQ(s.app.cOctMidC, 5);
  EXPECT_EQ(s.app.bShowNoteNames, 1);
  EXPECT_EQ(s.aio.nLatency, -1);
  EXPECT_EQ(s.app.awColWidths[0], 160);
  EXPECT_EQ(s.app.aiLastExp[0], 0);
  EXPECT_FALSE(s.app.ptLastSize.present);
  EXPECT_EQ(s.aio.fdbMixGain, 0.0f);
  EXPECT_EQ(s.features, ~uint64_t{0});
  EXPECT_EQ(s.app.wszWave, "");
  EXPECT_TRUE(s.app.LastFilesA.empty());
  EXPECT_TRUE(IsFirstRun());  // no version in it
}

TEST_F(SettingsTest, LoadFallbacks) {
  test::WriteFile(file,
                  "app.iPaneSplitL=10\r\n"  // CRLF from a hand edit
                  "aio.szAudioOutDev=Windows default\n"
                  "aio.szAudioInDev=USB Audio\n"
                  "mid2wav.wszGMBank=\n"
                  "VersionNumber=9.10\n");
  LoadSettings();
  EXPECT_EQ(Settings().app.iPaneSplitL, 221);
  EXPECT_EQ(Settings().aio.szAudioOutDev, "System default");
  EXPECT_EQ(Settings().aio.szAudioInDev, "USB Audio");
  EXPECT_FALSE(Settings().mid2wav.wszGMBank.empty());
  EXPECT_FALSE(IsFirstRun());
  EXPECT_EQ(Settings().VersionNumber, "12.5");  // 9.10 is older

  test::WriteFile(file, "app.iPaneSplitL=16\nVersionNumber=12.10\n");
  LoadSettings();
  EXPECT_EQ(Settings().app.iPaneSplitL, 221);
  EXPECT_EQ(Settings().VersionNumber, "12.10");  // a newer version's stays
  test::WriteFile(file, "app.iPaneSplitL=17\n");
  LoadSettings();
  EXPECT_EQ(Settings().app.iPaneSplitL, 17);
}

TEST_F(SettingsTest, TextsAndListsKeepTheirWidths) {
  // 31 bytes fit a 32-byte field; the two-byte letter at the end does not.
  ASSERT_TRUE(SetSettingText("aio.szMidiInDev", std::string(30, 'm') + "é"));
  EXPECT_EQ(Settings().aio.szMidiInDev, std::string(30, 'm'));
  // The recent list keeps whole entries within its 1024 bytes.
  std::string lines;
  for (int i = 1; i <= 12; ++i) lines += "app.LastPathsA." + std::to_string(i) + "=/" + std::string(99, 'p') + "\n";
  test::WriteFile(file, lines);
  LoadSettings();
  EXPECT_EQ(Settings().app.LastPathsA.size(), 10u);  // 10 x 101 + 1 bytes
}

TEST_F(SettingsTest, SetByNameAndPrint) {
  EXPECT_TRUE(SetSettingText("load.bAutoSortColl", "0"));
  EXPECT_EQ(Settings().load.bAutoSortColl, 0);
  EXPECT_TRUE(SetSettingText("fmt.vox.dwDataFormat", "0x100"));
  EXPECT_EQ(Settings().fmt.vox.dwDataFormat, 256u);
  EXPECT_TRUE(SetSettingText("app.ptLastSize", "800, 600"));
  EXPECT_EQ(Settings().app.ptLastSize, (SettingsPoint{800, 600, true}));
  EXPECT_TRUE(SetSettingText("app.LastFilesA.1", "/one"));
  EXPECT_TRUE(SetSettingText("app.LastFilesA.2", "/two"));
  EXPECT_FALSE(SetSettingText("app.LastFilesA.4", "/gap"));
  EXPECT_EQ(Settings().app.LastFilesA, (std::vector<std::string>{"/one", "/two"}));

  EXPECT_FALSE(SetSettingText("app.bNoSuchThing", "1"));
  EXPECT_STREQ(ErrorMessage, "Unknown setting: app.bNoSuchThing");
  EXPECT_FALSE(SetSettingText("app.cOctMidC", "-1"));
  EXPECT_STREQ(ErrorMessage, "Invalid value for app.cOctMidC: '-1'");
  EXPECT_EQ(Settings().app.cOctMidC, 4);

  std::string value;
  ASSERT_TRUE(GetSettingText("app.ptLastSize", value));
  EXPECT_EQ(value, "800,600");

  char* text = nullptr;
  std::size_t size = 0;
  std::FILE* out = open_memstream(&text, &size);
  PrintSettings(out);
  std::fclose(out);
  const std::string printed(text, size);
  std::free(text);
  EXPECT_EQ(printed, FormatSettings(Settings()));
  EXPECT_EQ(printed.rfind("app.LastFilesA.1=/one\napp.LastFilesA.2=/two\napp.aiLastExp=0,0,0,0,0\n", 0), 0u);
  EXPECT_NE(printed.find("\nfeatures=0xFFFFFFFFFFFFFFFF\n"), std::string::npos);
}

TEST_F(SettingsTest, PathFromEnvironment) {
  EXPECT_EQ(SettingsPath(), file);
  ::unsetenv("KELVO_SETTINGS");
  ::setenv("XDG_CONFIG_HOME", dir.path().c_str(), 1);
  EXPECT_EQ(SettingsPath(), dir / "kelvo-studio" / "settings.ini");
  // The folder is made on the first save.
  ASSERT_TRUE(SaveSettings());
  EXPECT_TRUE(fs::is_regular_file(dir / "kelvo-studio" / "settings.ini"));
  ::setenv("XDG_CONFIG_HOME", "relative/dir", 1);  // not absolute: ignored
  EXPECT_EQ(SettingsPath().filename(), "settings.ini");
  EXPECT_TRUE(SettingsPath().is_absolute() || std::getenv("HOME") == nullptr);
  EXPECT_NE(SettingsPath().string().find("/.config/kelvo-studio/"), std::string::npos);
}

}  // namespace
}  // namespace kv

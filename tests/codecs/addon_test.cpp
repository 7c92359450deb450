// The add-on binding: a library lacking required entry points gives the
// install message, installing the real one in the add-on folder works in the
// same process, and an empty optional slot is no failure.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <vector>

#include "codecs/addon.h"
#include "codecs/flac.h"
#include "core/error.h"
#include "core/fileref.h"
#include "support/testsupport.h"

namespace kv {
namespace {

namespace fs = std::filesystem;

const fs::path kSystemFlac = "/usr/lib/x86_64-linux-gnu/libFLAC.so.12";

// The newest soname stands for the stub, the older one for the real library
// once the test has put it in the folder.
const char* MapFlac(const char* file) {
  const std::string_view name(file);
  if (name == "libFLAC.so.14") return "kvtest-stub-flac.so";
  if (name == "libFLAC.so.12") return "kvtest-real-flac.so";
  return file;
}

bool Ramp(void*, uint64_t first, uint32_t frames, int32_t* block) {
  for (uint32_t i = 0; i < frames; ++i) block[i] = static_cast<int32_t>((first + i) * 37 % 65536) - 32768;
  return true;
}

struct Collected {
  std::vector<int32_t> samples;
};
bool Collect(void* user, const int32_t* const* planes, uint32_t frames) {
  auto* c = static_cast<Collected*>(user);
  c->samples.insert(c->samples.end(), planes[0], planes[0] + frames);
  return true;
}

TEST(AddOn, StubGivesTheInstallMessageAndInstallingNeedsNoRestart) {
  if (!test::Need(fs::exists(kSystemFlac), "libflac12")) return;
  test::TempDir data;
  ASSERT_EQ(setenv("XDG_DATA_HOME", data.path().c_str(), 1), 0);
  const fs::path folder = AddOnFolder();
  ASSERT_EQ(folder, data.path() / "kelvo-studio" / "addons");
  fs::create_directories(folder);
  fs::copy_file(KELVO_ADDON_STUB, folder / "kvtest-stub-flac.so");
  SetAddOnNameMap(MapFlac);
  struct Restore {
    ~Restore() {
      SetAddOnNameMap(nullptr);
      unsetenv("XDG_DATA_HOME");
    }
  } restore;

  FlacEncodeSetup setup;
  setup.frames = 5000;
  FileRef out;
  ASSERT_TRUE(out.OpenWrite(data / "ramp.flac"));
  EXPECT_FALSE(kvFlacAvailable());
  EXPECT_FALSE(kvFlacEncHelper(out, "flac_Exp", setup, Ramp, nullptr));
  EXPECT_STREQ(ErrorContext, "flac_Exp");
  EXPECT_STREQ(ErrorMessage,
               "You need to install the libFLAC codec add-on (Debian package libflac12) if you wish to write FLAC files.");

  fs::copy_file(kSystemFlac, folder / "kvtest-real-flac.so");
  ASSERT_TRUE(kvFlacEncHelper(out, "flac_Exp", setup, Ramp, nullptr)) << ErrorMessage;
  out.Close();
  FileRef in;
  ASSERT_TRUE(in.OpenRead(data / "ramp.flac"));
  Collected got;
  bool md5Mismatch = true;
  ASSERT_TRUE(kvFlacDecHelper(in, "flac_ImpWave", 1, 16, Collect, &got, md5Mismatch)) << ErrorMessage;
  EXPECT_FALSE(md5Mismatch);
  ASSERT_EQ(got.samples.size(), 5000u);
  std::vector<int32_t> want(5000);
  Ramp(nullptr, 0, 5000, want.data());
  EXPECT_EQ(got.samples, want);
}

TEST(AddOn, EmptyOptionalSlotBindsAndMissingRequiredFails) {
  if (!test::Need(fs::exists(kSystemFlac), "libflac12")) return;
  constexpr const char* kFiles[] = {"libFLAC.so.12"};
  constexpr const char* kOptional[] = {"FLAC__stream_decoder_new", "\nkv_no_such_entry"};
  void* slots[2] = {};
  EXPECT_TRUE(bindAddOn(kFiles, slots, kOptional));
  EXPECT_NE(slots[0], nullptr);
  EXPECT_EQ(slots[1], nullptr);
  constexpr const char* kRequired[] = {"FLAC__stream_decoder_new", "kv_no_such_entry"};
  void* more[2] = {};
  EXPECT_FALSE(bindAddOn(kFiles, more, kRequired));
  // The slots found so far stay filled.
  EXPECT_NE(more[0], nullptr);
}

}  // namespace
}  // namespace kv

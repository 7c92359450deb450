// Placing a file without copying its data: whatever the file system offers,
// the target ends up with the source's content or stays as it was.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "core/fileref.h"
#include "support/testsupport.h"

namespace kv {
namespace {

namespace fs = std::filesystem;

ino_t Inode(const fs::path& p) {
  struct stat info {};
  return ::stat(p.c_str(), &info) == 0 ? info.st_ino : 0;
}

TEST(PlaceFileWithoutCopy, CloneOrLinkReplacesTheTargetAndLeavesNothingBehind) {
  test::TempDir dir;
  const fs::path from = dir / "from.wav", to = dir / "to.wav";
  test::WriteFile(from, "new content");
  test::WriteFile(to, "old content");
  // Without hard links only a clone may stand in; this file system may not
  // offer one, and then nothing changes.
  const bool cloned = PlaceFileWithoutCopy(from, to, false);
  EXPECT_EQ(test::ReadFile(to), cloned ? "new content" : "old content");
  if (cloned) {
    EXPECT_NE(Inode(from), Inode(to));  // a clone is a file of its own
  }

  test::WriteFile(to, "old content");
  ASSERT_TRUE(PlaceFileWithoutCopy(from, to, true));
  EXPECT_EQ(test::ReadFile(to), "new content");
  if (!cloned) {
    EXPECT_EQ(Inode(from), Inode(to));
  }
  // Placing it again over what is already the same file is no error and
  // leaves no hidden temporary beside it.
  EXPECT_TRUE(PlaceFileWithoutCopy(from, to, true));
  int entries = 0;
  for (const auto& entry : fs::directory_iterator(dir.path())) {
    (void)entry;
    ++entries;
  }
  EXPECT_EQ(entries, 2);
}

TEST(PlaceFileWithoutCopy, AMissingSourceChangesNothing) {
  test::TempDir dir;
  test::WriteFile(dir / "to.wav", "kept");
  EXPECT_FALSE(PlaceFileWithoutCopy(dir / "gone.wav", dir / "to.wav", true));
  EXPECT_EQ(test::ReadFile(dir / "to.wav"), "kept");
}

}  // namespace
}  // namespace kv

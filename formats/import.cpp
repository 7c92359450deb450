// The import route: one way from a path to a consistent Collection (open,
// detect, clear, the row's read function, the fix-up), merging a file into
// what is loaded, and the row functions with the tests' overlay.
#include "formats/import.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <string>
#include <system_error>

#include "core/app.h"
#include "core/error.h"
#include "core/fileref.h"
#include "core/fixup.h"
#include "core/instrument_ops.h"
#include "core/settings.h"
#include "formats/modules/raw.h"

namespace kv {

namespace fs = std::filesystem;

namespace {

constexpr const char* kImportContext = "File Import";

// ---- row functions with the test overlay ----

struct RowOverride {
  FormatReadFn read = nullptr;
  FormatWriteFn write = nullptr;
};
std::array<RowOverride, kFormatCount>& Overrides() {
  static std::array<RowOverride, kFormatCount> overrides{};
  return overrides;
}

fs::path AbsolutePath(const fs::path& path) {
  std::error_code ec;
  fs::path absolute = fs::absolute(path, ec);
  return ec ? path : absolute.lexically_normal();
}

void ForgetRecentFile(const fs::path& path) {
  auto& list = Settings().app.LastFilesA;
  const std::string absolute = AbsolutePath(path).string();
  std::erase_if(list, [&](const std::string& entry) { return entry == absolute || entry == path.string(); });
}

}  // namespace

// ---------------------------------------------------------------- row functions

FormatReadFn RowReadFunction(int row) {
  const FormatEntry* entry = FormatAt(row);
  if (!entry) return nullptr;
  if (FormatReadFn read = Overrides()[row].read) return read;
  if (entry->read) return entry->read;
  return row == 0 ? raw_Imp : nullptr;
}

FormatWriteFn RowWriteFunction(int row) {
  const FormatEntry* entry = FormatAt(row);
  if (!entry) return nullptr;
  if (FormatWriteFn write = Overrides()[row].write) return write;
  return entry->write;
}

void OverrideRowFunctions(int row, FormatReadFn read, FormatWriteFn write) {
  if (row < 0 || row >= kFormatCount) return;
  Overrides()[row] = {read, write};
}

void ClearRowOverrides() { Overrides().fill({}); }

// ---------------------------------------------------------------- sample files

SampleReader RegistrySampleReader(const fs::path& path) {
  const int row = FindReaderByPath(path);
  const FormatEntry* entry = FormatAt(row);
  return entry ? SampleReader{RowReadFunction(row), entry->parameter} : SampleReader{};
}

namespace {
// Installed before main, so that a module's reader finds sample files through
// the registry whether the import route or a test called it.
const bool kSampleReaderInstalled = (SetSampleReaderLookup(&RegistrySampleReader), true);
}  // namespace

// ---------------------------------------------------------------- detection

bool CanImport(const fs::path& path) {
  FileRef file;
  if (!file.OpenRead(AbsolutePath(path))) return false;
  int confidence = 0;
  return DetectFormat(AbsolutePath(path), file, confidence) >= 0;
}

// ---------------------------------------------------------------- merge

bool MergeFile(Collection& collection, const fs::path& path) {
  Collection scratch;
  if (!ImportFile(scratch, path, true)) return false;
  const bool singleWave = scratch.Count(ItemType::Instrument) == 0 && scratch.Count(ItemType::Waveform) == 1;
  MergeCollections(collection, scratch);
  App().refresh = true;
  App().currentItem = collection.id;
  // A lone wave file added to a bank is the user's choice, never a duplicate to drop.
  if (Settings().load.bAutoRemoveDupWaves && !singleWave) RemoveDuplicateWaves(collection);
  return true;
}

// ---------------------------------------------------------------- ImportFile

bool ImportFile(Collection& collection, const fs::path& path, bool strict) {
  // Referenced files resolve against the file's folder. The process's
  // working directory stays as it is: relative command-line paths given
  // after this one must keep their meaning.
  const fs::path absolute = AbsolutePath(path);

  FileRef file;
  struct stat info {};
  if (!file.OpenRead(absolute) || ::fstat(file.Fd(), &info) != 0 || !S_ISREG(info.st_mode)) {
    ForgetRecentFile(path);
    return Fail(kImportContext, "Could not open file");
  }
  if (file.Size() == 0) return Fail(kImportContext, "File is of zero size");

  int confidence = 0;
  const int row = DetectFormat(absolute, file, confidence);
  if (row < 0) return Fail(kImportContext, "Not a supported import file type");
  if (!strict && confidence == 0) return Fail(kImportContext, "Not detected as any supported file type");
  const FormatReadFn read = RowReadFunction(row);
  // Rows are detected before their readers are built; say which one is missing.
  if (!read) return Fail(kImportContext, "Reading \"%s\" files is not available yet", FormatName(row));

  collection.Clear();
  collection.sourcePath = absolute;
  collection.formatIndex = row;
  collection.SetName(absolute.stem().string());

  bool ok;
  ReadSession session(collection);
  {
    ImportFolderScope folder(absolute.parent_path());
    const bool wasBusy = App().busy;
    App().busy = true;  // instrument constructors report their names
    ok = read(collection, file, FormatAt(row)->parameter);
    App().busy = wasBusy;
  }
  session.ReadDone(ok);
  file.Close();

  if (!ok) {
    collection.Clear();
    collection.SetName("Empty collection");
    return false;
  }
  uint32_t parameter = 0;
  session.FixUp((FormatCapabilities(row, parameter) & kCapStereo) != 0);
  return true;
}

}  // namespace kv

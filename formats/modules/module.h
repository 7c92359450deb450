// What a format module sees of the framework: the function types of a row,
// what an export asks (ExportRequest and the capability bits), the choice of
// an encoding, and the context of the import or export under way (the folder
// of the file being read, a reader for the sample files an instrument refers
// to, the save batch). Modules include this, never the registry table or the
// pipelines, which sit above them.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

namespace kv {

class Collection;
class Item;
class FileRef;

// What an export asks of a writer. `request` has the layout of the capability
// word (0: "Auto", each item keeps what suits it); `parameter` is the row's;
// `rate` is kbit/s for compressed data, 0 for "not set".
struct ExportRequest {
  uint32_t request = 0;
  uint32_t parameter = 0;
  float rate = 0.0f;
};

using FormatReadFn = bool (*)(Collection&, FileRef&, uint32_t parameter);
using FormatWriteFn = bool (*)(Item&, FileRef&, ExportRequest&);
// Scores the first `size` bytes (at most 32768) of a file of `fileSize` bytes:
// 0 not this format, 2 nothing against it, 4 a good signature, 6 certain.
// Pure: no allocation, no file access, never reads past `size`.
using FormatDetectFn = int (*)(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
// Entry `index` of the row's rate list in kbit/s, filling `text` (64 bytes
// or more) when not null; 0: no list; negative: the end of the list.
using FormatRateFn = float (*)(int index, uint32_t parameter, char* text);

// Capability word: bit n = can write DataFormat n (0-19), then channels.
inline constexpr uint32_t kCapFormatMask = 0x000FFFFFu;
inline constexpr uint32_t kCapCompressed = 1u << 17;
inline constexpr uint32_t kCapText = 1u << 18;
inline constexpr uint32_t kCapMidi = 1u << 19;
inline constexpr uint32_t kCapMono = 1u << 20;
inline constexpr uint32_t kCapStereo = 1u << 21;

inline constexpr int kDataFormatCompressed = 17;
inline constexpr int kDataFormatNone = 20;  // "none" or "mixed"

// ---- choice of encoding ----

// What ChooseDataFormat needs of a wave and a request, without the items.
struct DataFormatChoice {
  int own = kDataFormatNone;  // DataFormat of the wave's preferred format
  float ownRate = 0.0f;       // kbit/s when own is compressed
  uint32_t request = 0;       // allowed DataFormat bits (0-19 used)
  uint32_t parameter = 0;     // handed to the rate function
  float wantedRate = 0.0f;    // kbit/s, 0: not set
  FormatRateFn rateFn = nullptr;
};
// The DataFormat a wave goes out in, with its rate (kbit/s) for compressed
// results and 0 otherwise. 20 when nothing fits.
int ChooseDataFormat(const DataFormatChoice& choice, float& rate);

// The lowest DataFormat bit of `bits` (0-19), 20 when none is set.
int LowestDataFormat(uint32_t bits);

// ---- the import under way ----

// The folder of the file being imported, while a read function runs; empty
// otherwise. Modules resolve referenced files (sample files of a text
// instrument format) against it instead of the process's working directory.
const std::filesystem::path& CurrentImportFolder();
// `name` as stored in a file, resolved against CurrentImportFolder() unless
// it is absolute.
std::filesystem::path ResolveImportPath(const std::filesystem::path& name);
// A file name as stored in an instrument file, resolved against `folder`
// (or the root for an absolute one): backslashes are separators, a drive
// letter is dropped, and a component that isn't there by exact name is
// found without regard to case. The one resolver of referenced files.
std::filesystem::path ResolvePath(const std::filesystem::path& folder, std::string_view stored);

// Sets the import folder for the length of a read; reads nest when a module
// imports a referenced file.
class ImportFolderScope {
 public:
  explicit ImportFolderScope(std::filesystem::path folder);
  ~ImportFolderScope();
  ImportFolderScope(const ImportFolderScope&) = delete;
  ImportFolderScope& operator=(const ImportFolderScope&) = delete;

 private:
  std::filesystem::path saved_;
};

// The read function and parameter that would read a sample file, chosen by
// its name as the import route would; read is null when no built reader
// takes that kind of file. The import route provides the look-up.
struct SampleReader {
  FormatReadFn read = nullptr;
  uint32_t parameter = 0;
};
SampleReader FindSampleReader(const std::filesystem::path& path);
void SetSampleReaderLookup(SampleReader (*lookup)(const std::filesystem::path& path));

// ---- the export under way ----

// Saves that belong together: a SaveAll and everything it writes, or one
// SaveFile on its own. Writers of external files use the number to skip a
// file that the same batch has already written with the same content.
class ExportBatch {
 public:
  ExportBatch();
  ~ExportBatch();
  ExportBatch(const ExportBatch&) = delete;
  ExportBatch& operator=(const ExportBatch&) = delete;
  // The batch under way, or 0 outside any.
  static uint64_t Current();
};

// Whether a file that several outputs of one batch share (a wave that each
// SFZ keeps in its own folder) may become hard links to one file where the
// file system can't clone it. Off by default: a linked file edited in place
// changes in every folder.
void SetHardLinkSharedFiles(bool allow);
bool HardLinkSharedFiles();

// The item's name as a file name: '"' becomes "'", * . / : < > ? \ and DEL
// are dropped at the start and become "_" elsewhere; 255 bytes at most.
std::string SafeFileName(std::string_view name);

}  // namespace kv

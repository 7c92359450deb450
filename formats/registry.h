// The format registry: one constant table of every file type the program
// knows, the look-ups over it and scored detection. A format module is the
// functions its rows point to; modules tell their rows apart by the row's
// parameter word.
#pragma once

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <string_view>

#include "formats/modules/module.h"

namespace kv {

class Collection;
class Item;
class FileRef;
class Waveform;

// What a format has by design, whether or not its module is built yet.
enum : uint8_t {
  kDesignRead = 1,
  kDesignWrite = 2,
  kDesignDetect = 4,
};

struct FormatEntry {
  const char* extension;  // lower case, no dot; may hold "?" and "*"
  FormatReadFn read;      // null: not readable (or its module isn't built)
  FormatWriteFn write;    // null: not writable (or its module isn't built)
  FormatDetectFn detect;
  const char* name;
  uint8_t typeFlags;      // bit ItemType: the row can hold items of that type
  uint32_t capabilities;  // 0 on rows without a writer
  uint32_t parameter;     // the variant within the module
  FormatRateFn rate;      // only on rows that write compressed data
  uint8_t design;         // kDesign* bits
};

inline constexpr int kFormatCount = 522;
// Detection reads at most this many bytes from the start of a file.
inline constexpr uint32_t kDetectBytes = 32768;
// Extensions are compared on at most this many characters.
inline constexpr std::size_t kExtensionLength = 64;

// The table, kFormatCount rows; a row number is an index into it.
const FormatEntry* FormatTable();
const FormatEntry* FormatAt(int index);  // null out of range

// ---- look-ups; a failed search or a bad index gives -1, "" or 0 ----

const char* FormatName(int index);       // "<none>" out of range
const char* FormatExtension(int index);  // "" out of range
// A reader row answers with the word and parameter of the nearest following
// writer row of the same extension; 0 and parameter 0 if there is none.
uint32_t FormatCapabilities(int index, uint32_t& parameter);
bool FormatHoldsType(int index, int itemType);
// From `index` (inclusive) upward to the first row with a write function;
// false past the end. Callers step on with ++index.
bool NextWriter(int& index, const char*& extension, const char*& name, uint8_t& flags, uint32_t& capabilities);
bool NextReader(int& index, const char*& extension, const char*& name, uint8_t& flags);
// Case-blind, a leading "." skipped, text cut to 64 characters.
int FindWriterByExtension(std::string_view text, uint32_t typeMask);
int FindWriterByExtension(std::u16string_view text, uint32_t typeMask);
int FindWriterByPath(const std::filesystem::path& path);
int FindReaderByPath(const std::filesystem::path& path);

// The subject extension of a path: what follows the last "." of the whole
// path (the whole path without one), cut to 64 characters.
std::string_view PathExtension(std::string_view path);
// "*" matches the rest, "?" one character or the subject's end; case-blind.
bool MatchExtension(std::string_view pattern, std::string_view subject);

// ---- detection ----

// Reads at most 32768 bytes from the start of `file` (its position is
// restored) and scores every readable row. Returns the row, or -1 for an
// empty file or when nothing scores; confidence 0-100, 0 for the raw row.
int DetectFormat(const std::filesystem::path& path, FileRef& file, int& confidence);
// The in-memory part of DetectFormat: `extension` as PathExtension gives it.
int DetectFormatInMemory(std::string_view extension, const uint8_t* data, uint32_t size, uint64_t fileSize,
                         int& confidence);
// The type text for file lists: the row's name, or for undetected files the
// desktop's name of the file type when it knows one.
void DescribeFile(const std::filesystem::path& path, std::string& name, int& confidence);
// The desktop's display name of a file type by its extension (".wav"), from
// the shared MIME database; false when it has none.
bool SystemFileTypeName(std::string_view dotExtension, std::string& name);

// Calls the row's rate function; true if the rate is above 0. `out` takes the
// display text (64 bytes or more).
bool RateText(int index, int rateIndex, char* out);

// What an export on automatic would use for `item` on row `index`.
// Channels: 1 or 2, 0 when the waves disagree, there are none, or the row
// has no writer.
int DefaultChannels(int index, Item& item);
// The DataFormat (20: "Mixed") and its display text.
int DefaultDataFormat(int index, Item& item, std::string& text);

// ---- command-line listings ----

// One line per row whose extension or name contains `filter` (case-blind).
void PrintFormatList(std::FILE* out, std::string_view filter);
// "<path>\t<row>\t<extension>\t<name>\t<confidence>%", then, for a file of
// a sound row whose head reads, "\t<coding>" of its first wave ("PCM
// 16-bit", "IMA ADPCM 4-bit" ...); false when the file can't be opened or
// detects as nothing.
bool PrintFileInfo(std::FILE* out, const std::filesystem::path& path);
// How a wave's samples are stored, for listings: the generic reader's
// DataFormat name, or the coding a module names with its width; empty when
// unknown.
std::string WaveCodingText(const Waveform& wave);

}  // namespace kv

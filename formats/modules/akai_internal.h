// What the parts of the AKAI module share: the sample header both ways, a
// sample read from memory (files inside a disk image), the program reader
// over bytes with its sample look-up, and the guard of the files a save puts
// beside its main file.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace kv {

class Collection;
class FileRef;
class Waveform;

namespace akai {

inline constexpr uint32_t kS1000 = 1;
inline constexpr uint32_t kS3000 = 3;
inline constexpr uint32_t kS900 = 9;
inline constexpr std::size_t kS1000Header = 150;
inline constexpr std::size_t kS3000Header = 192;
inline constexpr std::size_t kNameLength = 12;

// Which header an S1000/S3000 sample has: kS3000, kS1000, or 0 for none.
uint32_t SampleForm(const uint8_t* data, uint32_t size, uint64_t fileSize);

// The header fields a program needs besides the wave.
struct SampleMarkers {
  uint32_t count = 0;
  uint32_t start = 0;
  uint32_t end = 0;
};

// Fills the wave's fields from a sample header (at least 192 bytes of
// `head`) of a file of `fileSize` bytes; returns the header size, 0 with the
// failure set when it isn't a sample. The wave's length is what the file
// holds of the count.
std::size_t ParseSampleHeader(std::span<const uint8_t> head, uint64_t fileSize, Waveform& wave,
                              SampleMarkers* markers, const char* context);

// A sample file held in memory, its samples read at once. Null with the
// failure set.
Waveform* SampleFromMemory(Collection& collection, std::span<const uint8_t> bytes, const char* context,
                           SampleMarkers* markers = nullptr);

// A sample file: one Waveform, samples left on disk. Null with the failure set.
Waveform* ReadSampleFile(Collection& collection, FileRef& file, SampleMarkers* markers, const char* context);

// The header of `wave` (mono) as sample form `form`, named `name` (12 codes);
// `start` and `end` are the markers, end -1 for the last frame.
std::vector<uint8_t> BuildSampleHeader(const Waveform& wave, uint32_t form, const uint8_t (&name)[12], uint32_t start,
                                       int64_t end);
// Header and 16-bit samples of mono `wave` into a new file at `path`.
bool WriteSampleFile(Waveform& wave, const std::filesystem::path& path, uint32_t form, const uint8_t (&name)[12],
                     uint32_t start, int64_t end, const char* context);
// The same into an open file.
bool WriteSample(Waveform& wave, FileRef& file, uint32_t form, const uint8_t (&name)[12], uint32_t start, int64_t end,
                 const char* context);

// Finds a program's sample by its 12-character name (trailing blanks cut);
// null when it isn't there.
using SampleLookup = std::function<Waveform*(const std::string& name, SampleMarkers& markers)>;

// A program's bytes into an instrument; samples through `lookup`, each
// missing one named in a warning. Failure texts under `context`.
bool ReadProgram(Collection& collection, std::span<const uint8_t> bytes, const SampleLookup& lookup,
                 const std::filesystem::path& source, const char* context);

// The files a save writes beside its main file. A file about to be written
// is claimed first: one that exists is moved aside. Unless committed, the
// guard removes what was written and puts the old files back.
class SideFiles {
 public:
  SideFiles() = default;
  ~SideFiles();
  SideFiles(const SideFiles&) = delete;
  SideFiles& operator=(const SideFiles&) = delete;
  bool Claim(const std::filesystem::path& path);
  void Commit();

 private:
  struct Entry {
    std::filesystem::path path;
    std::filesystem::path backup;  // empty: there was no file
  };
  std::vector<Entry> entries_;
  bool committed_ = false;
};

// Upper-case ASCII fold for name matching.
std::string Folded(std::string_view text);
// The name without its trailing blanks.
std::string Trimmed(std::string text);

}  // namespace akai
}  // namespace kv

// Command-line listings of the registry (--formats) and of files (--info).
#include <cstring>
#include <string>
#include <vector>

#include "codecs/flac.h"
#include "codecs/ogg.h"
#include "codecs/opus.h"
#include "codecs/wavpack.h"
#include "core/app.h"
#include "core/error.h"
#include "core/fileref.h"
#include "core/items.h"
#include "core/wavestore.h"
#include "formats/modules/akai.h"
#include "formats/modules/flac.h"
#include "formats/modules/ogg.h"
#include "formats/modules/raw.h"
#include "formats/modules/wav.h"
#include "formats/modules/wv.h"
#include "formats/registry.h"

namespace kv {

namespace {

bool ContainsNoCase(std::string_view text, std::string_view part) {
  if (part.empty()) return true;
  auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
  for (std::size_t i = 0; i + part.size() <= text.size(); ++i) {
    std::size_t k = 0;
    while (k < part.size() && lower(text[i + k]) == lower(part[k])) ++k;
    if (k == part.size()) return true;
  }
  return false;
}

// Upper case: built; lower case: the format has it, its module isn't built
// yet; "-": the format doesn't have it.
char Letter(bool built, bool designed, char upper) {
  if (built) return upper;
  return designed ? static_cast<char>(upper - 'A' + 'a') : '-';
}

// The Debian packages a row's codec add-ons come in, when one of them can't
// be bound now; null when the row needs none or all are there.
const char* MissingAddOn(const FormatEntry& row) {
  if ((row.read == flac_Imp || row.write == flac_Exp) && !kvFlacAvailable()) return "libflac12";
  if (row.read == ogg_Imp && !kvOggDecoderAvailable()) return "libvorbisfile3";
  if (row.write == ogg_Exp && !kvOggEncoderAvailable()) return "libvorbisenc2, libvorbis0a, libogg0";
  if (row.read == opus_Imp && !kvOpusDecoderAvailable()) return "libopusfile0";
  if (row.write == opus_Exp && !kvOpusEncoderAvailable()) return "libopusenc0";
  if ((row.read == wv_Imp || row.write == wv_Exp) && !kvWavPackAvailable()) return "libwavpack1";
  return nullptr;
}

}  // namespace

void PrintFormatList(std::FILE* out, std::string_view filter) {
  static constexpr char kTypeLetters[] = "WSRLITGC";
  std::fprintf(out,
               "Formats:\n"
               " R = read, W = write, D = detect; lower case: planned, not built yet\n"
               " Items: W waveform, S synth model, R region, L layer, I instrument,\n"
               "        T track, G song, C collection\n"
               " Row  Extension   RWD  Items     Name\n");
  const FormatEntry* table = FormatTable();
  for (int i = 0; i < kFormatCount; ++i) {
    const FormatEntry& row = table[i];
    if (!ContainsNoCase(row.extension, filter) && !ContainsNoCase(row.name, filter)) continue;
    char types[9] = {};
    for (int b = 0; b < 8; ++b) types[b] = (row.typeFlags >> b) & 1u ? kTypeLetters[b] : '.';
    const char* package = MissingAddOn(row);
    std::fprintf(out, " %3d  %-10s  %c%c%c  %s  %s%s%s%s\n", i, row.extension,
                 Letter(row.read != nullptr, row.design & kDesignRead, 'R'),
                 Letter(row.write != nullptr, row.design & kDesignWrite, 'W'),
                 Letter(row.detect != nullptr, row.design & kDesignDetect, 'D'), types, row.name,
                 package ? "  (add-on missing: install " : "", package ? package : "", package ? ")" : "");
  }
}

std::string WaveCodingText(const Waveform& wave) {
  if (IsGeneric(wave)) return DataFormatName(SourceDataFormat(wave.sourceFormat));
  std::string text = wav_CodingName(wave);
  if (text.empty()) text = raw_CodingName(wave);
  return text;
}

namespace {

// The coding of a file of a sound row: its head read into a scratch
// collection (samples stay on disk), quietly.
std::string FileCoding(int row, FileRef& file) {
  const FormatEntry* entry = FormatAt(row);
  if (row == 0 || !entry || !entry->read || entry->typeFlags != TypeBit(ItemType::Waveform)) return {};
  const uint8_t boxes = MessageBoxesEnabled;
  MessageBoxesEnabled = 0;
  Collection scratch;
  const bool ok = file.Seek(0) && entry->read(scratch, file, entry->parameter);
  MessageBoxesEnabled = boxes;
  ClearError();
  const auto waves = scratch.All<Waveform>();
  return ok && !waves.empty() ? WaveCodingText(*waves.front()) : std::string();
}

}  // namespace

bool PrintFileInfo(std::FILE* out, const std::filesystem::path& path) {
  FileRef file;
  if (!file.OpenRead(path)) return false;
  int confidence = 0;
  const int row = DetectFormat(path, file, confidence);
  if (row < 0) return Fail("File Import", "Not a supported import file type");
  const std::string coding = FileCoding(row, file);
  std::fprintf(out, "%s\t%d\t%s\t%s\t%d%%%s%s\n", path.c_str(), row, FormatExtension(row), FormatName(row), confidence,
               coding.empty() ? "" : "\t", coding.c_str());
  // A disk image lists its files under it.
  if (const FormatEntry* entry = FormatAt(row); entry && entry->read == akafd_Imp) {
    std::vector<std::string> names;
    if (!akafd_List(file, entry->parameter, names)) return false;
    for (const std::string& name : names) std::fprintf(out, "\t%s\n", name.c_str());
  }
  return true;
}

}  // namespace kv

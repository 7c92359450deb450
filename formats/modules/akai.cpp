// AKAI S-series module: S900/S950, S1000 and S3000 samples and programs, floppy
// images and S5000 programs. Little-endian throughout. This part: detection,
// the character code and the S1000/S3000 sample both ways.
#include "formats/modules/akai.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "core/error.h"
#include "core/fileref.h"
#include "core/items.h"
#include "core/wavestore.h"
#include "formats/detect_bytes.h"
#include "formats/modules/akai_internal.h"
#include "formats/modules/module.h"
#include "formats/modules/wav_cursor.h"

namespace kv {

using namespace detect;
using akai::kS1000;
using akai::kS3000;
using akai::kS900;

namespace {

constexpr uint64_t kS1000SampleHeader = akai::kS1000Header;
constexpr uint64_t kS3000SampleHeader = akai::kS3000Header;
constexpr uint64_t kS900SampleHeader = 60;

constexpr char kCodes[] = "0123456789 ABCDEFGHIJKLMNOPQRSTUVWXYZ#+-.";
constexpr int kLastCode = 40;

constexpr const char* kImp = "akais_Imp";
constexpr const char* kExp = "akais_Exp";
constexpr const char* kNotSample = "Not an AKAI S1000-series or S3000-series sample";

// Machine names use codes 0-40 of "0123456789 ABC...#+-.".
bool AkaiName(const uint8_t* data, uint32_t size, uint64_t offset) {
  if (!Has(size, offset, 12)) return false;
  for (int i = 0; i < 12; ++i)
    if (data[offset + i] > kLastCode) return false;
  return true;
}

bool S900SampleShape(const uint8_t* data, uint32_t size, uint64_t fileSize) {
  if (fileSize < kS900SampleHeader || !Has(size, 0, kS900SampleHeader)) return false;
  for (int i = 0; i < 10; ++i)  // plain-text name, blank or nul padded
    if (data[i] != 0 && (data[i] < 0x20 || data[i] > 0x7E)) return false;
  const uint32_t count = U32le(data + 16);
  const uint32_t end = U32le(data + 28);
  const uint32_t start = U32le(data + 32);
  const uint32_t loopLength = U32le(data + 36);
  return U16le(data + 20) != 0 && count >= start && count >= loopLength && start <= end;
}

bool S1000ProgramShape(const uint8_t* data, uint32_t size, uint64_t fileSize, uint64_t minimum) {
  return fileSize >= minimum && Has(size, 0, 15) && data[0] == 1 && AkaiName(data, size, 3);
}

}  // namespace

namespace akai {

// Which header an S1000/S3000 sample file has: 3, 1 or 0 for none. A file
// whose size is exactly one header plus its frames settles it (S3000 files
// from the machines carry non-zero fields in the 42 extra bytes). Otherwise
// the 42 bytes from 150 decide: all zero is the S3000 header, unless its
// data wouldn't fit while the S1000 size would.
uint32_t SampleForm(const uint8_t* data, uint32_t size, uint64_t fileSize) {
  if (fileSize < kS3000SampleHeader || !Has(size, 0, kS3000SampleHeader) || data[0] != 3) return 0;
  const uint64_t bytes = uint64_t{U32le(data + 26)} * 2;
  if (kS3000SampleHeader + bytes == fileSize) return kS3000;
  if (kS1000SampleHeader + bytes == fileSize) return kS1000;
  bool zeros = true;
  for (uint64_t i = kS1000SampleHeader; i < kS3000SampleHeader; ++i) zeros = zeros && data[i] == 0;
  if (!zeros) return kS1000;
  if (kS3000SampleHeader + bytes > fileSize && kS1000SampleHeader + bytes <= fileSize) return kS1000;
  return kS3000;
}

std::string Folded(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(c >= 'a' && c <= 'z' ? c - 32 : c);
  return out;
}

std::string Trimmed(std::string text) {
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return text;
}

}  // namespace akai

int akai_SampleDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize) {
  if (parameter == kS900) return S900SampleShape(data, size, fileSize) ? 2 : 0;
  const uint32_t form = akai::SampleForm(data, size, fileSize);
  if (form == 0) return 0;
  const uint64_t header = form == kS3000 ? kS3000SampleHeader : kS1000SampleHeader;
  const bool dataFits = header + uint64_t{U32le(data + 26)} * 2 <= fileSize;
  return form == parameter && dataFits ? 4 : 2;
}

int akai_ProgramDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize) {
  if (parameter == kS900) {
    // The S900 program layout isn't known here: no objection, unless the
    // file is plainly an S1000/S3000 program.
    return size > 0 && !S1000ProgramShape(data, size, fileSize, 72) ? 2 : 0;
  }
  const uint64_t minimum = parameter == kS3000 ? 113 : 72;
  const uint64_t keygroup = parameter == kS3000 ? 192 : 150;
  if (!S1000ProgramShape(data, size, fileSize, minimum)) return 0;
  // The first keygroup starts with the block type 2.
  return Has(size, keygroup, 1) && data[keygroup] == 2 ? 4 : 2;
}

int akai_DiskDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize) {
  // Floppies are 800 or 1600 KiB; the ChkSys form has a 24576-byte head.
  const uint64_t head = parameter == 1 ? 24576 : 0;
  if (size == 0 || fileSize < head) return 0;
  const uint64_t kib = (fileSize - head) / 1024;
  if (kib != 800 && kib != 1600) {
    // A hard disk of one partition starts with its size in 8 KiB blocks:
    // claimed so that the reader can say what it is not.
    const uint64_t blocks = Has(size, 0, 2) ? U16le(data) : 0;
    return parameter == 0 && blocks > 0 && blocks * 8192 == fileSize && kib > 1600 ? 5 : 0;
  }
  // The directory's type bytes: empty, a letter, an S3000 letter, or the
  // mark of the large directory in the first entry; the FAT's links stay
  // inside the disk.
  const uint8_t* d = data + head;
  if (!Has(size, head, 1536 + 2 * 8)) return 2;
  for (int i = 0; i < 64; ++i) {
    const uint8_t t = d[i * 24 + 16];
    const uint8_t letter = t & 0x7F;
    const bool ok = t == 0 || (i == 0 && t == 0xFF) || (letter >= 'A' && letter <= 'Z') ||
                    (letter >= 'a' && letter <= 'z');
    if (!ok) return 2;
  }
  bool system = true, files = false;
  for (int b = 0; b < 8; ++b) {
    const uint16_t link = U16le(d + 1536 + 2 * b);
    if (!(link & 0xC000) && link >= kib) return 2;
    system = system && (b >= 5 || link == 0x4000);
  }
  for (int i = 0; i < 64; ++i) files = files || (d[i * 24 + 16] != 0 && d[i * 24 + 16] != 0xFF);
  // The S1000/S3000 format marks its system blocks in the FAT.
  return system || files ? 6 : 4;
}

int akai_AkpDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  // RIFF-like: the size field is not reliable in S5000 files, the form is.
  return fileSize >= 12 && FourCC(data, size, 0, "RIFF") && FourCC(data, size, 8, "APRG") ? 6 : 0;
}

// ---------------------------------------------------------------- names

std::string akai_DecodeName(std::span<const uint8_t> codes) {
  std::string out;
  out.reserve(codes.size());
  for (uint8_t c : codes) out += c <= kLastCode ? kCodes[c] : ' ';
  return out;
}

void akai_EncodeName(std::string_view text, uint8_t (&out)[12]) {
  std::fill(std::begin(out), std::end(out), uint8_t{10});  // blank
  for (std::size_t i = 0; i < text.size() && i < 12; ++i) {
    char c = text[i];
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 32);
    const char* at = c ? std::strchr(kCodes, c) : nullptr;
    out[i] = at ? static_cast<uint8_t>(at - kCodes) : 10;
  }
}

// ---------------------------------------------------------------- sample read

namespace akai {

std::size_t ParseSampleHeader(std::span<const uint8_t> head, uint64_t fileSize, Waveform& w, SampleMarkers* markers,
                              const char* context) {
  const uint8_t* h = head.data();
  const uint32_t available = static_cast<uint32_t>(std::min<std::size_t>(head.size(), kS3000SampleHeader));
  const uint32_t form = SampleForm(h, available, fileSize);
  if (form == 0) {
    Fail(context, "%s", kNotSample);
    return 0;
  }
  const std::size_t header = form == kS3000 ? kS3000SampleHeader : kS1000SampleHeader;

  w.sampleRate = h[1] == 1 ? 44100 : 22050;
  if ((h[15] & 0x80) && GetU16le(h + 138) != 0) w.sampleRate = GetU16le(h + 138);
  const std::string name = Trimmed(akai_DecodeName({h + 3, kNameLength}));
  if (!name.empty()) w.SetName(name);

  // Tune in 1/256 semitone; whole semitones go into the root key so that the
  // fine tune stays within the model's cents.
  int root = std::min<int>(h[2], 127);
  int cents = static_cast<int>(std::lround(static_cast<int16_t>(GetU16le(h + 20)) * 100.0 / 256.0));
  if (cents > 100 || cents < -100) {
    const int steps = static_cast<int>(std::lround(cents / 100.0));
    cents -= steps * 100;
    root -= steps;
  }
  w.rootKey = static_cast<uint8_t>(std::clamp(root, 0, 127));
  w.fineTune = static_cast<int8_t>(cents);

  const uint32_t count = GetU32le(h + 26);
  const uint64_t frames = (fileSize - std::min<uint64_t>(fileSize, header)) / 2;
  w.length = static_cast<uint32_t>(std::min<uint64_t>(count, frames));
  w.channels = 1;
  w.bits = 16;

  if (h[16] > 0 && h[19] != 2 && h[19] != 3) {
    const double at = GetU32le(h + 38);
    const double length = GetU32le(h + 44) + GetU16le(h + 42) / 65536.0;
    w.loopType = 1;
    w.loopRelease = h[19] == 1 ? 1 : 0;
    w.loopEnd = static_cast<float>(at);
    w.loopStart = static_cast<float>(std::max(0.0, at - length));
  }
  w.loopPitch = static_cast<int8_t>(h[140]) * 0.01f;
  if (markers) {
    markers->count = count;
    markers->start = GetU32le(h + 30);
    markers->end = GetU32le(h + 34);
  }
  return header;
}

Waveform* SampleFromMemory(Collection& collection, std::span<const uint8_t> bytes, const char* context,
                           SampleMarkers* markers) {
  auto* w = Create<Waveform>(collection);
  const std::size_t header = ParseSampleHeader(bytes, bytes.size(), *w, markers, context);
  if (header == 0) {
    DeleteItem(w);
    return nullptr;
  }
  if (w->length > 0) {
    int16_t* s = AllocSamples16(*w);
    if (!s) {
      Fail(context, "Out of memory");
      DeleteItem(w);
      return nullptr;
    }
    const uint8_t* p = bytes.data() + header;
    for (uint32_t i = 0; i < w->length; ++i) s[i] = static_cast<int16_t>(GetU16le(p + 2 * i));
  }
  w->preferredFormat = static_cast<uint8_t>(PreferredFormatFor(kPcm16));
  return w;
}

}  // namespace akai

namespace akai {

Waveform* ReadSampleFile(Collection& collection, FileRef& file, SampleMarkers* markers, const char* context) {
  ByteCursor cur(file);
  uint8_t head[kS3000SampleHeader] = {};
  if (cur.FileSize() < kS3000SampleHeader || !cur.Seek(0) || !cur.Bytes(head, sizeof head)) {
    Fail(context, "%s", kNotSample);
    return nullptr;
  }
  auto* w = Create<Waveform>(collection);
  const std::string stem = file.Path().stem().string();
  w->SetName(stem.data(), stem.size(), TextEncoding::Foreign);
  const std::size_t header = ParseSampleHeader(head, cur.FileSize(), *w, markers, context);
  if (header == 0) {
    DeleteItem(w);
    return nullptr;
  }
  w->fileOffset = header;
  w->sourcePath = file.Path();
  SetGenericFormat(*w, kPcm16, 0);
  return w;
}

}  // namespace akai

bool akais_Imp(Collection& collection, FileRef& file, uint32_t) {
  return akai::ReadSampleFile(collection, file, nullptr, kImp) != nullptr;
}

// ---------------------------------------------------------------- sample write

namespace akai {

std::vector<uint8_t> BuildSampleHeader(const Waveform& w, uint32_t form, const uint8_t (&name)[12], uint32_t start,
                                       int64_t end) {
  std::vector<uint8_t> h(form == kS3000 ? kS3000Header : kS1000Header, 0);
  auto put16 = [&](std::size_t at, uint32_t v) {
    h[at] = static_cast<uint8_t>(v);
    h[at + 1] = static_cast<uint8_t>(v >> 8);
  };
  auto put32 = [&](std::size_t at, uint32_t v) {
    put16(at, v & 0xFFFF);
    put16(at + 2, v >> 16);
  };
  h[0] = 3;
  h[1] = w.sampleRate > 22050 ? 1 : 0;
  h[2] = w.rootKey;
  std::memcpy(h.data() + 3, name, kNameLength);
  h[15] = 0x80;  // the rate at 138 holds
  const bool looped = w.loopType != 0 && w.loopEnd > w.loopStart;
  h[16] = looped ? 1 : 0;
  h[19] = looped ? (w.loopRelease ? 1 : 0) : 2;
  put16(20, static_cast<uint16_t>(static_cast<int16_t>(std::lround(w.fineTune * 256.0 / 100.0))));
  put32(26, w.length);
  put32(30, start);
  const int64_t last = w.length ? int64_t{w.length} - 1 : 0;
  put32(34, static_cast<uint32_t>(end < 0 ? last : std::min<int64_t>(end, 0xFFFFFFFF)));
  if (looped) {
    const double at = std::round(std::min<double>(w.loopEnd, w.length));
    double span = std::max(0.0, at - w.loopStart);
    uint32_t whole = static_cast<uint32_t>(std::floor(span));
    uint32_t fraction = static_cast<uint32_t>(std::lround((span - whole) * 65536.0));
    if (fraction >= 65536) ++whole, fraction = 0;
    put32(38, static_cast<uint32_t>(at));
    put16(42, fraction);
    put32(44, whole);
    put16(48, 9999);  // hold: the loop plays until release
  }
  put16(136, 0xFFFF);  // no stereo partner
  put16(138, std::min<uint32_t>(w.sampleRate, 0xFFFF));
  h[140] = static_cast<uint8_t>(static_cast<int8_t>(std::clamp<long>(std::lround(w.loopPitch * 100.0), -128, 127)));
  return h;
}

bool WriteSample(Waveform& w, FileRef& file, uint32_t form, const uint8_t (&name)[12], uint32_t start, int64_t end,
                 const char* context) {
  if (w.channels != 1) return Fail(context, "The file format can not save this item");
  if (w.sampleRate > 0xFFFF) return Fail(context, "The sample rate is too high for an AKAI sample");
  const std::vector<uint8_t> header = BuildSampleHeader(w, form, name, start, end);
  if (!file.Write(header.data(), header.size())) return Fail(context, "Writing to file failed");
  if (w.length == 0) return true;
  const int16_t* s = Samples16(w);
  if (!s) {
    if (ErrorMessage[0] == 0) Fail(context, "Could not read the wave data");
    std::snprintf(ErrorContext, sizeof ErrorContext, "%s", context);
    return false;
  }
  constexpr std::size_t kChunk = 32768;
  uint8_t buffer[2 * kChunk];
  for (uint32_t done = 0; done < w.length;) {
    const uint32_t n = static_cast<uint32_t>(std::min<std::size_t>(kChunk, w.length - done));
    for (uint32_t i = 0; i < n; ++i) {
      const uint16_t v = static_cast<uint16_t>(s[done + i]);
      buffer[2 * i] = static_cast<uint8_t>(v);
      buffer[2 * i + 1] = static_cast<uint8_t>(v >> 8);
    }
    if (!file.Write(buffer, 2 * n)) return Fail(context, "Writing to file failed");
    done += n;
  }
  return true;
}

bool WriteSampleFile(Waveform& w, const std::filesystem::path& path, uint32_t form, const uint8_t (&name)[12],
                     uint32_t start, int64_t end, const char* context) {
  FileRef file;
  if (!file.OpenWrite(path)) return Fail(context, "Could not create file");
  const bool ok = WriteSample(w, file, form, name, start, end, context);
  file.Close();
  if (!ok) {
    std::error_code ec;
    std::filesystem::remove(path, ec);
  }
  return ok;
}

// ---------------------------------------------------------------- side files

SideFiles::~SideFiles() {
  if (committed_) return;
  for (auto it = entries_.rbegin(); it != entries_.rend(); ++it) {
    std::error_code ec;
    std::filesystem::remove(it->path, ec);
    if (!it->backup.empty()) std::filesystem::rename(it->backup, it->path, ec);
  }
}

bool SideFiles::Claim(const std::filesystem::path& path) {
  for (const Entry& e : entries_)
    if (e.path == path) return true;
  Entry entry{path, {}};
  std::error_code ec;
  if (std::filesystem::exists(std::filesystem::symlink_status(path, ec))) {
    const std::filesystem::path folder = path.parent_path().empty() ? "." : path.parent_path();
    for (int n = 0; n < 1000 && entry.backup.empty(); ++n) {
      std::filesystem::path candidate =
          folder / ("." + path.filename().string() + ".kvside" + std::to_string(::getpid()) + "-" + std::to_string(n));
      if (!std::filesystem::exists(std::filesystem::symlink_status(candidate, ec))) entry.backup = candidate;
    }
    if (entry.backup.empty()) return false;
    std::filesystem::rename(path, entry.backup, ec);
    if (ec) return false;
  }
  entries_.push_back(std::move(entry));
  return true;
}

void SideFiles::Commit() {
  committed_ = true;
  for (const Entry& e : entries_) {
    std::error_code ec;
    if (!e.backup.empty()) std::filesystem::remove(e.backup, ec);
  }
}

}  // namespace akai

bool akais_Exp(Item& item, FileRef& file, ExportRequest& request) {
  auto* wave = dynamic_cast<Waveform*>(&item);
  if (!wave || wave->channels < 1 || wave->channels > 2) return Fail(kExp, "The file format can not save this item");
  const uint32_t form = request.parameter == kS3000 ? kS3000 : kS1000;
  std::string base = akai::Folded(wave->Name());
  uint8_t name[12];
  if (wave->channels == 1) {
    akai_EncodeName(base, name);
    return akai::WriteSample(*wave, file, form, name, 0, -1, kExp);
  }

  // Stereo: the left half here, the right beside it.
  Waveform* halves[2] = {};
  struct Release {
    Waveform* (&h)[2];
    ~Release() {
      for (Waveform* w : h)
        if (w) DeleteItem(w);
    }
  } release{halves};
  const int16_t* s = Samples16(*wave);
  if (!s) return Fail(kExp, "Could not read the wave data");
  for (int c = 0; c < 2; ++c) {
    halves[c] = static_cast<Waveform*>(CloneItem(*wave, *wave->collection, wave->name, false));
    if (!halves[c]) return Fail(kExp, "Out of memory");
    halves[c]->samplesF.reset();
    halves[c]->samples16.reset();
    halves[c]->readCallback = nullptr;
    halves[c]->channels = 1;
    int16_t* out = AllocSamples16(*halves[c]);
    if (!out && wave->length) return Fail(kExp, "Out of memory");
    for (uint32_t i = 0; i < wave->length; ++i) out[i] = s[2 * i + c];
  }
  base = base.substr(0, 10);
  const std::filesystem::path right = file.Path().parent_path() /
                                      (file.Path().stem().string() + "-R" + file.Path().extension().string());
  akai::SideFiles side;
  if (!side.Claim(right)) return Fail(kExp, "Could not create file");
  akai_EncodeName(base + "-R", name);
  if (!akai::WriteSampleFile(*halves[1], right, form, name, 0, -1, kExp)) return false;
  akai_EncodeName(base + "-L", name);
  if (!akai::WriteSample(*halves[0], file, form, name, 0, -1, kExp)) return false;
  side.Commit();
  return true;
}

}  // namespace kv

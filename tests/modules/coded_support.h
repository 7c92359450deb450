// Shared pieces of the coded-sample tests (ADPCM in WAV and the raw rows):
// files built byte by byte, a file loaded through a row's reader, our samples
// as 16-bit values, and the comparisons with peers.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "codecs/codepack.h"
#include "codecs/g72x.h"
#include "core/app.h"
#include "core/error.h"
#include "core/fileref.h"
#include "core/items.h"
#include "core/wavestore.h"
#include "formats/modules/module.h"
#include "support/testsupport.h"

namespace kv::coded {

namespace fs = std::filesystem;

inline std::string Le16(uint32_t v) { return {static_cast<char>(v), static_cast<char>(v >> 8)}; }
inline std::string Le32(uint32_t v) { return Le16(v & 0xFFFF) + Le16(v >> 16); }
inline std::string Be32(uint32_t v) {
  return {static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8), static_cast<char>(v)};
}
inline uint32_t GetU32leOf(const std::string& s, std::size_t at) {
  uint32_t v = 0;
  for (int i = 3; i >= 0; --i) v = (v << 8) | static_cast<uint8_t>(s[at + i]);
  return v;
}
inline std::string Chunk(const std::string& id, const std::string& body) {
  std::string s = id + Le32(static_cast<uint32_t>(body.size())) + body;
  if (body.size() & 1) s += '\0';
  return s;
}
inline std::string Riff(const std::string& body) {
  return "RIFF" + Le32(static_cast<uint32_t>(4 + body.size())) + "WAVE" + body;
}
// A `fmt ` of a coded tag: the 14-byte head, then `extra` (bits first).
inline std::string CodedFmt(uint32_t tag, uint32_t channels, uint32_t rate, uint32_t blockAlign,
                            const std::string& extra) {
  return Chunk("fmt ", Le16(tag) + Le16(channels) + Le32(rate) + Le32(rate * blockAlign / 512 + 1) + Le16(blockAlign) +
                           extra);
}
inline std::string ImaFmt(uint32_t channels, uint32_t rate, uint32_t blockAlign, uint32_t bits, uint32_t perBlock) {
  return CodedFmt(17, channels, rate, blockAlign, Le16(bits) + Le16(2) + Le16(perBlock));
}
inline std::string MsFmt(uint32_t channels, uint32_t rate, uint32_t blockAlign, uint32_t perBlock,
                         uint32_t count = 7) {
  static const int16_t kCoefficients[7][2] = {{256, 0}, {512, -256}, {0, 0}, {192, 64}, {240, 0}, {460, -208}, {392, -232}};
  std::string extra = Le16(4) + Le16(32) + Le16(perBlock) + Le16(count);
  for (const auto& c : kCoefficients) extra += Le16(static_cast<uint16_t>(c[0])) + Le16(static_cast<uint16_t>(c[1]));
  return CodedFmt(2, channels, rate, blockAlign, extra);
}
inline std::string Fact(uint32_t frames) { return Chunk("fact", Le32(frames)); }

// Warnings land here instead of stderr.
inline std::vector<std::string>& Boxes() {
  static std::vector<std::string> boxes;
  return boxes;
}
inline int RecordBox(const std::string& text, const std::string&, BoxButtons) {
  Boxes().push_back(text);
  return kBoxOk;
}
struct BoxCapture {
  const uint8_t enabled = MessageBoxesEnabled;
  BoxCapture() {
    Boxes().clear();
    MessageBoxesEnabled = 1;
    SetBoxPresenter(RecordBox);
  }
  ~BoxCapture() {
    SetBoxPresenter(nullptr);
    MessageBoxesEnabled = enabled;
  }
};

// A fresh collection with a file read into it.
struct Loaded {
  std::unique_ptr<Collection> collection = std::make_unique<Collection>();
  Waveform* wave = nullptr;
  bool ok = false;
};
inline Loaded LoadWith(const fs::path& path, FormatReadFn read, uint32_t parameter = 0) {
  Loaded l;
  FileRef file;
  if (!file.OpenRead(path)) return l;
  ClearError();
  l.ok = read(*l.collection, file, parameter);
  const auto waves = l.collection->All<Waveform>();
  if (l.ok && waves.size() == 1) l.wave = waves[0];
  return l;
}

// Our decoding, interleaved; empty (with the failure added) when the read fails.
inline std::vector<int16_t> Ours(Waveform& w) {
  const int16_t* s = Samples16(w);
  if (!s) {
    ADD_FAILURE() << ErrorContext << ": " << ErrorMessage;
    return {};
  }
  return {s, s + w.SampleCount()};
}

// The index of the first sample where `a` and `b` differ over their common
// length, -1 where they agree; and how many differ.
struct Difference {
  long first = -1;
  std::size_t count = 0;
  int largest = 0;
};
inline Difference Compare(const std::vector<int16_t>& a, const std::vector<int16_t>& b, std::size_t limit = SIZE_MAX) {
  Difference d;
  const std::size_t n = std::min({a.size(), b.size(), limit});
  for (std::size_t i = 0; i < n; ++i)
    if (a[i] != b[i]) {
      if (d.first < 0) d.first = static_cast<long>(i);
      ++d.count;
      d.largest = std::max(d.largest, std::abs(a[i] - b[i]));
    }
  return d;
}
// Equal over the common length, which must be at least `least`.
#define EXPECT_SAMPLES_EQ(ours, theirs, least)                                                             \
  do {                                                                                                     \
    const auto& o_ = (ours);                                                                               \
    const auto& t_ = (theirs);                                                                             \
    EXPECT_GE(std::min(o_.size(), t_.size()), static_cast<std::size_t>(least));                            \
    const ::kv::coded::Difference d_ = ::kv::coded::Compare(o_, t_);                                       \
    EXPECT_EQ(d_.first, -1) << d_.count << " samples differ, the first at " << d_.first << ": "           \
                            << (d_.first >= 0 ? o_[d_.first] : 0) << " against "                           \
                            << (d_.first >= 0 ? t_[d_.first] : 0);                                         \
  } while (0)

// CCITT codes from packed bytes, and their decoding in a dialect.
inline std::vector<unsigned> Unpack(const std::string& bytes, int bits, bool msbFirst, std::size_t count) {
  const std::vector<uint8_t> b(bytes.begin(), bytes.end());
  CodeReader r(b, bits, msbFirst);
  std::vector<unsigned> codes(count);
  for (unsigned& c : codes) c = r.Next();
  return codes;
}
inline std::string Pack(const std::vector<unsigned>& codes, int bits, bool msbFirst) {
  std::vector<uint8_t> b(kvPackedCodeBytes(codes.size(), bits));
  CodeWriter w(b, bits, msbFirst);
  for (unsigned c : codes) w.Put(c);
  w.Flush();
  return {b.begin(), b.end()};
}
inline std::vector<int16_t> DecodeCodes(const std::vector<unsigned>& codes, int bits, G72xDialect dialect) {
  G72xState s;
  kvG72xInit(s, bits, dialect);
  std::vector<int16_t> out;
  out.reserve(codes.size());
  for (unsigned c : codes) out.push_back(kvG72xDecode(s, c));
  return out;
}

inline double Snr(const std::vector<int16_t>& ref, const std::vector<int16_t>& got) {
  double s = 0, e = 0;
  const std::size_t n = std::min(ref.size(), got.size());
  for (std::size_t i = 0; i < n; ++i) {
    const double r = ref[i], d = r - got[i];
    s += r * r;
    e += d * d;
  }
  return 10.0 * std::log10(s / std::max(e, 1e-9));
}

// A recording of the corpus brought to mono at `rate` by sox, as 16-bit WAV.
inline bool Recording(const fs::path& out, uint32_t rate, int channels = 1,
                      const char* source = "wav/hydrogen-trimo-c3-smpl.wav") {
  if (!test::NeedCorpus()) return false;
  return test::RunPeer("sox", "-D '" + (test::CorpusDir() / source).string() + "' -r " + std::to_string(rate) + " -c " +
                                  std::to_string(channels) + " -b 16 '" + out.string() + "'");
}
inline std::vector<int16_t> PcmOf(const fs::path& wav) {
  std::vector<int16_t> v;
  test::SoxSamples16(wav, "", v);
  return v;
}

}  // namespace kv::coded

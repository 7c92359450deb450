#include "render.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "testsupport.h"

namespace kv::test {

void SmfTrack::Event(uint32_t deltaTicks, std::initializer_list<int> bytes) {
  uint8_t buf[5];
  int n = 0;
  buf[n++] = deltaTicks & 0x7F;
  while (deltaTicks >>= 7) buf[n++] = 0x80 | (deltaTicks & 0x7F);
  while (n) track_ += static_cast<char>(buf[--n]);
  for (int b : bytes) track_ += static_cast<char>(b);
}

std::string SmfTrack::File(uint32_t finalDelta) const {
  SmfTrack whole = *this;
  whole.Event(finalDelta, {0xFF, 0x2F, 0});
  std::string s = "MThd";
  s += std::string("\0\0\0\x06\0\0\0\x01\x01\xE0", 10);
  s += "MTrk";
  const uint32_t size = static_cast<uint32_t>(whole.track_.size());
  for (int i = 3; i >= 0; --i) s += static_cast<char>(size >> (8 * i));
  return s + whole.track_;
}

std::vector<double> ReadWavSamples(const std::filesystem::path& path) {
  const std::string bytes = ReadFile(path);
  auto u8 = [&](std::size_t i) { return static_cast<uint32_t>(static_cast<uint8_t>(bytes[i])); };
  auto u32 = [&](std::size_t i) { return u8(i) | u8(i + 1) << 8 | u8(i + 2) << 16 | u8(i + 3) << 24; };
  std::vector<double> out;
  bool isFloat = false;
  for (std::size_t pos = 12; pos + 8 <= bytes.size();) {
    const uint32_t size = u32(pos + 4);
    if (bytes.compare(pos, 4, "fmt ") == 0 && pos + 24 <= bytes.size()) {
      const uint32_t tag = u8(pos + 8) | u8(pos + 9) << 8, bits = u8(pos + 22) | u8(pos + 23) << 8;
      isFloat = (tag == 3 || tag == 0xFFFE) && bits == 32;
    } else if (bytes.compare(pos, 4, "data") == 0) {
      const std::size_t end = std::min<std::size_t>(bytes.size(), pos + 8 + std::size_t{size});
      if (isFloat) {
        for (std::size_t i = pos + 8; i + 3 < end; i += 4) {
          const uint32_t bits = u32(i);
          float f;
          std::memcpy(&f, &bits, 4);
          out.push_back(f);
        }
      } else {
        for (std::size_t i = pos + 8; i + 1 < end; i += 2)
          out.push_back(static_cast<int16_t>(u8(i) | (u8(i + 1) << 8)) / 32768.0);
      }
      break;
    }
    pos += 8 + std::size_t{size} + (size & 1);
  }
  return out;
}

int RenderWithFluidSynth(const std::filesystem::path& bank, const std::filesystem::path& midi,
                         const std::filesystem::path& wav, std::string& log) {
  return RunCommand("fluidsynth -ni -F '" + wav.string() + "' -r 44100 '" + bank.string() + "' '" + midi.string() +
                        "' 2>&1",
                    &log);
}

RenderMatch CompareRenders(const std::vector<double>& a, const std::vector<double>& b) {
  const std::size_t n = std::min(a.size(), b.size());
  double dot = 0, aa = 0, bb = 0, diff = 0;
  for (std::size_t i = 0; i < n; ++i) {
    dot += a[i] * b[i];
    aa += a[i] * a[i];
    bb += b[i] * b[i];
    diff += (a[i] - b[i]) * (a[i] - b[i]);
  }
  RenderMatch m;
  m.correlation = aa > 0 && bb > 0 ? dot / std::sqrt(aa * bb) : 0;
  m.differenceDb = aa > 0 ? 10 * std::log10(std::max(diff, 1e-30) / aa) : 0;
  return m;
}

}  // namespace kv::test

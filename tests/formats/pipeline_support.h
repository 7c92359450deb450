// Shared by the import and export tests: a scripted reader and writer put on
// real rows through the row overlay, and small model builders.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "core/app.h"
#include "core/error.h"
#include "core/fileref.h"
#include "core/items.h"
#include "core/settings.h"
#include "core/wavestore.h"
#include "formats/import.h"
#include "formats/registry.h"
#include "support/testsupport.h"

namespace kv::test {

inline constexpr int kWavRow = 476;   // "Microsoft wave": holds stereo
inline constexpr int kSf2Row = 377;   // "SoundFont v2 bank": mono only, banks and instruments
inline constexpr int kSfzRow = 385;   // SFZ writer: instruments, stereo
inline constexpr int kAifRow = 15;    // "Audio interchange"
inline constexpr int kMidRow = 231;   // "Standard MIDI"

// What the scripted reader builds, and what the scripted writer does.
inline std::function<bool(Collection&, FileRef&)>& ScriptedRead() {
  static std::function<bool(Collection&, FileRef&)> fn;
  return fn;
}
inline std::function<bool(Item&, FileRef&, ExportRequest&)>& ScriptedWrite() {
  static std::function<bool(Item&, FileRef&, ExportRequest&)> fn;
  return fn;
}
inline bool ScriptedReadFn(Collection& c, FileRef& f, uint32_t) { return ScriptedRead()(c, f); }
inline bool ScriptedWriteFn(Item& i, FileRef& f, ExportRequest& r) { return ScriptedWrite()(i, f, r); }

// A RIFF WAVE header that the wave row's detector claims, then `extra` bytes.
inline std::string WaveFileBytes(std::size_t extra = 16) {
  std::string b = "RIFF";
  auto u32 = [&](uint32_t v) { for (int i = 0; i < 4; ++i) b += static_cast<char>((v >> (8 * i)) & 0xFF); };
  auto u16 = [&](uint16_t v) { for (int i = 0; i < 2; ++i) b += static_cast<char>((v >> (8 * i)) & 0xFF); };
  u32(static_cast<uint32_t>(36 + extra));
  b += "WAVEfmt ";
  u32(16);
  u16(1);
  u16(1);
  u32(44100);
  u32(88200);
  u16(2);
  u16(16);
  b += "data";
  u32(static_cast<uint32_t>(extra));
  b += std::string(extra, '\0');
  return b;
}

// A wave with its own 16-bit samples: value i * step + offset per sample.
inline Waveform* MakeWave(Collection& c, const char* name, uint32_t frames, int channels = 1, int offset = 0,
                          int step = 7) {
  auto* w = Create<Waveform>(c, name);
  w->length = frames;
  w->channels = static_cast<uint8_t>(channels);
  w->sampleRate = 44100;
  w->samples16 = std::make_unique<int16_t[]>(uint64_t{frames} * channels + 1);
  for (uint64_t i = 0; i < uint64_t{frames} * channels; ++i)
    w->samples16[i] = static_cast<int16_t>(static_cast<int>(i) * step + offset);
  return w;
}

inline Instrument* MakeInstrument(Collection& c, const char* name, std::initializer_list<Waveform*> waves,
                                  uint32_t program = 0) {
  auto* inst = Create<Instrument>(c, name);
  inst->location = MakeLocation(0, 0, program, false);
  Layer* layer = AddLayer(*inst);
  int key = 0;
  const int width = waves.size() ? 128 / static_cast<int>(waves.size()) : 128;
  for (Waveform* w : waves) {
    AddRegion(*layer, w->id, MakeRange(static_cast<uint8_t>(key), static_cast<uint8_t>(key + width - 1)),
              MakeRange(0, 127), 255);
    key += width;
  }
  return inst;
}

// Every item's flat record in list order: equal before and after means the
// model is as it was.
inline std::vector<uint8_t> Snapshot(const Collection& c) {
  std::vector<uint8_t> out;
  c.Map().ForEach([&](Item* item) { item->Serialize(out); });
  return out;
}

// Fresh settings, silent boxes, the overlay cleared, per test.
class PipelineTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetSettings();
    MessageBoxesEnabled = 0;
    SetSkippedBoxesQuiet(true);
    ClearRowOverrides();
    ResetRawImportQuestion();
    ScriptedRead() = nullptr;
    ScriptedWrite() = nullptr;
    ClearError();
  }
  void TearDown() override {
    ClearRowOverrides();
    MessageBoxesEnabled = 1;
  }
  TempDir dir_;
};

}  // namespace kv::test

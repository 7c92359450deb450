// The processing wizard's rows on arbitrary waves, through the --op entry of
// the command line: the bytes choose a small wave (16-bit or float, mono or
// stereo, looped or not), up to three operations with their keys (values in
// and out of range) and a range. Oracle: no crash or hang, a loop that stays
// within the wave, and a wave that never grows.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "core/items.h"
#include "fuzz/fuzz_support.h"
#include "processing/wizard.h"
#include "ui/processing_cli.h"

namespace {

struct Bytes {
  const uint8_t* data;
  std::size_t size;
  std::size_t at = 0;
  uint8_t Next() { return at < size ? data[at++] : 0; }
};

std::string ValueFor(const kv::PageControl& control, Bytes& in) {
  const uint8_t b = in.Next();
  switch (control.type) {
    case kv::ControlType::Text: {
      std::string text;
      for (int i = 0, n = b % 6; i < n; ++i) text.push_back(static_cast<char>('a' + in.Next() % 4));
      return text;
    }
    case kv::ControlType::Flag: return b & 1 ? "on" : "off";
    case kv::ControlType::Choice: return std::to_string(b % (control.choiceCount + 2));
    default: return std::to_string(static_cast<int>(b) - 128);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  kv::fuzz::QuietBoxes();
  kv::SetStatusSink(nullptr);
  kv::ResetOperationSettings();
  Bytes in{data, size};
  const uint8_t shape = in.Next();
  const bool isFloat = shape & 1, stereo = shape & 2, looped = shape & 4;
  const uint32_t length = (in.Next() | (uint32_t{in.Next()} << 8)) % 1024;

  kv::Collection c;
  auto* wave = kv::Create<kv::Waveform>(c, "fuzz");
  wave->channels = stereo ? 2 : 1;
  wave->length = length;
  wave->sampleRate = 44100;
  const uint64_t count = wave->SampleCount();
  if (isFloat) wave->samplesF = std::make_unique<float[]>(count + 1);
  else wave->samples16 = std::make_unique<int16_t[]>(count + 1);
  if (looped) {
    wave->loopType = 1;
    wave->loopStart = static_cast<float>(in.Next() % (length + 1));
    wave->loopEnd = static_cast<float>(length);
  }

  uint32_t rowCount = 0;
  const kv::WizardOperation* rows = kv::OperationTable(0, &rowCount);
  std::vector<kv::OperationRequest> requests;
  for (int n = 0, ops = 1 + in.Next() % 3; n < ops; ++n) {
    const kv::WizardOperation& row = rows[in.Next() % rowCount];
    kv::OperationRequest request{row.key, {}};
    for (int i = 0; i < row.controlCount; ++i)
      if (in.Next() & 1) request.assignments.push_back(std::string(row.controls[i].key) + "=" + ValueFor(row.controls[i], in));
    if (in.Next() & 1) {
      const int a = in.Next() % (length + 8), b = in.Next() % (length + 8);
      request.assignments.push_back("range=" + std::to_string(a) + ":" + std::to_string(b));
    }
    requests.push_back(std::move(request));
  }
  // The rest of the input is the samples, repeated.
  const std::size_t start = in.at;
  for (uint64_t i = 0; i < count; ++i) {
    const std::size_t at = size > start + 1 ? start + (2 * i) % (size - start - 1) : 0;
    const int16_t v = size > start + 1 ? static_cast<int16_t>(data[at] | (data[at + 1] << 8)) : 0;
    if (isFloat) wave->samplesF[i] = v * (1.0f / 32768.0f) * ((shape & 8) ? 1.5f : 1.0f);
    else wave->samples16[i] = v;
  }

  FILE* sink = std::fopen("/dev/null", "w");
  kv::RunOperationRequests(c, {}, requests, sink ? sink : stdout);
  if (sink) std::fclose(sink);

  for (kv::Waveform* w : c.All<kv::Waveform>()) {
    if (w->length > length || w->channels != (stereo ? 2 : 1)) __builtin_trap();
    if (w->loopType != 0 && (w->loopEnd > static_cast<float>(w->length) || w->loopStart > w->loopEnd)) __builtin_trap();
  }
  if (c.Count(kv::ItemType::Waveform) != 1) __builtin_trap();
  return 0;
}

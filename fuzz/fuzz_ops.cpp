// The processing wizard's rows on arbitrary waves, through the --op entry of
// the command line: the bytes choose a small wave (16-bit or float, mono or
// stereo, looped or not) and a second one the two-wave rows may pick, up to
// three operations with their keys (values in and out of range) and a range.
// Oracle: no crash or hang, waves of one or two channels whose length stays
// within what the inserts and appends can add, a loop that ends at most one
// frame past the wave (where a cut at the end leaves it), and no waves but
// those a split makes.
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
      // Wave pickers and the mix's numbers need words that mean something.
      static const char* const kWords[] = {"", "<none>", "fuzz", "second", "0,5", "-1.5", "2"};
      if (static_cast<std::size_t>(b % 10) < std::size(kWords)) return kWords[b % 10];
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
  if (looped && length > 0) {
    wave->loopType = 1;
    wave->loopStart = static_cast<float>(in.Next() % length);
    wave->loopEnd = static_cast<float>(length);
  }

  // The second wave: its own shape and length, sometimes at another rate.
  const uint8_t other = in.Next();
  auto* second = kv::Create<kv::Waveform>(c, "second");
  second->channels = other & 2 ? 2 : 1;
  second->length = in.Next() % 64;
  second->sampleRate = other & 4 ? 22050 : 44100;
  if (other & 1) second->samplesF = std::make_unique<float[]>(second->SampleCount() + 1);
  else second->samples16 = std::make_unique<int16_t[]>(second->SampleCount() + 1);
  for (uint64_t i = 0; i < second->SampleCount(); ++i) {
    if (other & 1) second->samplesF[i] = static_cast<float>(in.Next()) / 128.0f - 1.0f;
    else second->samples16[i] = static_cast<int16_t>(in.Next() * 257 - 32768);
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
  kv::RunOperationRequests(c, {wave}, requests, sink ? sink : stdout);
  if (sink) std::fclose(sink);

  // Each of three operations at most: an append of four waves, an insert of
  // up to 10000 frames (the default) or of the second wave, padding to a
  // range end below length + 8.
  uint64_t bound = length;
  for (std::size_t n = 0; n < requests.size(); ++n) bound = 4 * bound + 10000 + 64 + 8;
  bool mixed = false;  // a mix keeps the target's loop over new data
  for (const kv::OperationRequest& r : requests) mixed |= r.name == "mix";
  for (kv::Waveform* w : c.All<kv::Waveform>()) {
    if (w->length > bound || w->channels < 1 || w->channels > 2) __builtin_trap();
    if (w->loopType != 0 && w->loopStart >= w->loopEnd) __builtin_trap();  // a loop of frames
    if (w->loopType != 0 && !mixed && w->loopEnd > static_cast<float>(w->length) + 1.0f) __builtin_trap();
  }
  if (c.Count(kv::ItemType::Waveform) > 2 + requests.size()) __builtin_trap();
  return 0;
}

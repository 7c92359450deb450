// Raw fallback of row 0.
#include "formats/modules/raw.h"

#include <algorithm>

#include "core/app.h"
#include "core/fileref.h"
#include "core/items.h"
#include "core/wavestore.h"

namespace kv {

namespace {

// ---- the raw row's answers, for the process ----

bool g_rawAsk = true;
bool g_rawCancelAlways = false;

// Buttons of the raw-data question. A box that isn't shown returns 1, which
// must read as "Allways OK" so silent runs load raw data.
enum RawAnswer : int {
  kRawAlwaysOk = kBoxOk,
  kRawCancel = 2,
  kRawOk = kBoxYes,
  kRawAlwaysCancel = kBoxNo,
};

}  // namespace

// Nothing speaks against reading any bytes as raw samples; the registry's
// extension bonus for row 0 makes this the score every other row must beat.
int raw_Detect(const uint8_t*, uint32_t, uint32_t, uint64_t) { return 2; }

bool raw_Imp(Collection& collection, FileRef& file, uint32_t) {
  if (g_rawCancelAlways) return true;
  if (g_rawAsk) {
    const int answer = MessageBox(
        "The selected file can not be detected as any of the supported import types. Select OK to read it as raw "
        "data...\n\nYou'll need to adjust the data format on the 'Source' tab of the waveform properties.",
        file.Path().filename().string(), BoxButtons::OkAlwaysCancelAlways);
    switch (answer) {
      case kRawAlwaysOk: g_rawAsk = false; break;
      case kRawOk: break;
      case kRawAlwaysCancel: g_rawCancelAlways = true; return true;
      default: return true;  // Cancel
    }
  }
  auto* wave = Create<Waveform>(collection);
  SetGenericFormat(*wave, kPcm8, 0);
  wave->sampleRate = 44100;
  wave->channels = 1;
  wave->fileOffset = 0;
  wave->sourcePath = file.Path();
  const uint64_t frames = file.Size() * 8 / (DataFormatBits(kPcm8) * wave->channels);
  wave->length = static_cast<uint32_t>(std::min<uint64_t>(frames, UINT32_MAX));
  return true;
}

void ResetRawImportQuestion() {
  g_rawAsk = true;
  g_rawCancelAlways = false;
}

}  // namespace kv

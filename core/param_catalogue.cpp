// The catalogue as constant data. The LFO and envelope blocks repeat one
// pattern with a changed prefix; the macros below spell the pattern once and
// let the compiler join the prefix to each name, so the whole table is
// constant-initialised and no text is built at run time.
#include "core/param_catalogue.h"

#include <array>

namespace kv {
namespace {

constexpr uint8_t FlagsFor(uint8_t kind, uint8_t unit, float min, const char* name) {
  uint8_t f = 0;
  if (name[0] == 0) f |= kRowHidden;
  if (min < 0) f |= kRowBipolar;
  switch (kind) {
    case kKindFlag:
      f |= kRowCheck | kRowWhole;
      break;
    case kKindInteger:
    case kKindGroup:
    case kKindKey:
      f |= kRowWhole;
      break;
    case kKindTriggerType:
    case kKindPedalSwitch:
    case kKindLfoShape:
    case kKindReleaseMode:
    case kKindFilterType:
    case kKindEqMode:
    case kKindLoopType:
    case kKindLoopRelease:
    case kKindFxType:
    case kKindExclusion:
    case kKindFadeFormula:
    case kKindDataFormat:
      f |= kRowList | kRowWhole;
      break;
    default:
      if ((unit == kUnitHz || unit == kUnitSeconds || unit == kUnitMs || unit == kUnitRatio) &&
          min >= 0)
        f |= kRowLogScale;
      break;
  }
  return f;
}

constexpr uint16_t ControlFor(uint8_t kind, uint8_t flags) {
  if (kind == kKindText) return kControlText;
  if (kind == kKindKey) return kControlKey;
  if (flags & kRowCheck) return kControlCheck;
  if (flags & kRowList) return kControlList;
  if (kind == kKindInteger || kind == kKindGroup) return kControlNumber;
  return kControlSlider;
}

constexpr ParameterRow R(int index, uint8_t kind, uint8_t unit, float def, float min, float max,
                         const char* name, const char* help = "") {
  const uint8_t flags = FlagsFor(kind, unit, min, name);
  return ParameterRow{static_cast<uint16_t>(index), kind, unit, flags, ControlFor(kind, flags),
                      def, min, max, name, help};
}

constexpr ParameterRow Renamed(ParameterRow r, const char* name, const char* help) {
  r.name = name;
  r.help = help;
  return r;
}

// An empty place of an effect slot.
constexpr ParameterRow Empty(int index = 0) { return R(index, kKindReal3, kUnitNone, 0, 0, 0, ""); }

constexpr const char kBipolar[] = "Bipolar source";
constexpr const char kVelHelp[] = "Time-quotient max/min velocity";
constexpr const char kKeyHelp[] = "Time-multiplier per octave";

#define KV_LFO_ROWS(base, P)                                                    \
  R((base) + 0, kKindLfoShape, kUnitNone, 0, 0, 255, P "-LFO Wave Shape"),      \
  R((base) + 1, kKindTime, kUnitHz, 5, 0.01f, 20, P "-LFO Frequency"),          \
  R((base) + 2, kKindTime, kUnitSeconds, 0, 0, 10, P "-LFO Delay Time"),        \
  R((base) + 3, kKindTime, kUnitSeconds, 0, 0, 100, P "-LFO Ramp/fade-in Time")

// One envelope block. LMIN/LUNIT: the level rows' lowest value and unit.
// R3L/R3H: text and help of offset 22; LAST/LASTH: of offset 26.
#define KV_ENV_ROWS(base, P, LMIN, LUNIT, R3L, R3H, LAST, LASTH)                                   \
  R((base) + 0, kKindLevel, LUNIT, 0, LMIN, 1, P "-ENV Initial Level"),                            \
  R((base) + 1, kKindTime, kUnitSeconds, 0, 0, 100, P "-ENV Attack 1 Time"),                       \
  R((base) + 2, kKindTime, kUnitRatio, 1, 0.015625f, 64, P "-ENV Velocity to Attack 1 Time", kVelHelp), \
  R((base) + 3, kKindTime, kUnitRatio, 1, 0.25f, 4, P "-ENV Key number to Attack 1 Time", kKeyHelp),   \
  R((base) + 4, kKindLevel, LUNIT, 0, LMIN, 1, P "-ENV Attack 1 Level"),                           \
  R((base) + 5, kKindTime, kUnitSeconds, 0, 0, 100, P "-ENV Attack 2 Time"),                       \
  R((base) + 6, kKindTime, kUnitRatio, 1, 0.015625f, 64, P "-ENV Velocity to Attack 2 Time", kVelHelp), \
  R((base) + 7, kKindTime, kUnitRatio, 1, 0.25f, 4, P "-ENV Key number to Attack 2 Time", kKeyHelp),   \
  R((base) + 8, kKindLevel, LUNIT, 1, LMIN, 1, P "-ENV Attack 2 Level"),                           \
  R((base) + 9, kKindTime, kUnitSeconds, 0, 0, 100, P "-ENV Decay 1 Time"),                        \
  R((base) + 10, kKindTime, kUnitRatio, 1, 0.015625f, 64, P "-ENV Velocity to Decay 1 Time", kVelHelp), \
  R((base) + 11, kKindTime, kUnitRatio, 1, 0.25f, 4, P "-ENV Key number to Decay 1 Time", kKeyHelp),   \
  R((base) + 12, kKindLevel, LUNIT, 1, LMIN, 1, P "-ENV Decay 1 Level"),                           \
  R((base) + 13, kKindTime, kUnitSeconds, 0, 0, 100, P "-ENV Decay 2 Time"),                       \
  R((base) + 14, kKindTime, kUnitRatio, 1, 0.015625f, 64, P "-ENV Velocity to Decay 2 Time", kVelHelp), \
  R((base) + 15, kKindTime, kUnitRatio, 1, 0.25f, 4, P "-ENV Key number to Decay 2 Time", kKeyHelp),   \
  R((base) + 16, kKindLevel, LUNIT, 1, LMIN, 1, P "-ENV Sustain", "Decay 2 Level"),                \
  R((base) + 17, kKindTime, kUnitSeconds, 0, 0, 100, P "-ENV Release 1 Rate",                      \
    "Note: Time = Rate * Delta-Level"),                                                            \
  R((base) + 18, kKindLevel, LUNIT, 0, LMIN, 1, P "-ENV Release 1 Level"),                         \
  R((base) + 19, kKindTime, kUnitSeconds, 0, 0, 100, P "-ENV Release 2 Time"),                     \
  R((base) + 20, kKindLevel, LUNIT, 0, LMIN, 1, P "-ENV Release 2 Level"),                         \
  R((base) + 21, kKindTime, kUnitSeconds, 0, 0, 100, P "-ENV Release 3 Time"),                     \
  R((base) + 22, kKindLevel, LUNIT, 0, LMIN, 1, R3L, R3H),                                         \
  R((base) + 23, kKindTime, kUnitRatio, 1, 0.015625f, 64, P "-ENV Velocity to total Release Time", kVelHelp), \
  R((base) + 24, kKindTime, kUnitRatio, 1, 0.25f, 4, P "-ENV Key number to total Release Time", kKeyHelp),   \
  R((base) + 25, kKindReleaseMode, kUnitNone, 0, 0, 1, P "-ENV Release Mode",                      \
    "Ignore note-off | One-shot mode"),                                                            \
  R((base) + 26, kKindTime, kUnitMs, 0.015f, 0, 100, LAST, LASTH)

#define KV_ENV_BLOCK(base, P)                                                                      \
  KV_ENV_ROWS(base, P, -1, kUnitPercent, P "-ENV Release 3 Level", "", "", "")

constexpr ParameterRow kRows[] = {
#define KV_ROW(id, ...) R(kRow##id, __VA_ARGS__),
#define KV_LFO(id, prefix) KV_LFO_ROWS(kRow##id##LfoShape, prefix),
#define KV_ENV(id, prefix, ...) KV_ENV_ROWS(kRow##id##EnvInitial, prefix, __VA_ARGS__),
#include "core/param_rows.inc"
#undef KV_ROW
#undef KV_LFO
#undef KV_ENV
};
static_assert(std::size(kRows) == kFirstFxParam, "one row per parameter up to the effect slots");

constexpr bool RowsNumbered() {
  for (std::size_t i = 0; i < std::size(kRows); ++i)
    if (kRows[i].index != i) return false;
  return true;
}
static_assert(RowsNumbered(), "catalogue rows must stand at their own number");

// Rows 2-8 of an effect slot by the slot's type, numbered from 0 here; the
// real numbers are filled per slot below.
constexpr ParameterRow kFxTemplate[kFxTypeCount][kFxRowsPerSlot - 1] = {
    {Empty(), Empty(), Empty(), Empty(), Empty(), Empty(), Empty()},
    {R(0, kKindReal2, kUnitHz, 0.3f, 0.01f, 32, "Rate"),
     R(0, kKindShortTime, kUnitMs, 0.008f, 0, 0.02f, "Depth"),
     R(0, kKindInteger, kUnitNone, 5, 1, 8, "Voice count"),
     R(0, kKindReal3, kUnitNone, 0, 0, 1, "Feedback"),
     Empty(),
     R(0, kKindFlag, kUnitNone, 0, 0, 1, "Octave doubling mode"),
     R(0, kKindFlag, kUnitNone, 0, 0, 1, "Flanger mode")},
    {R(0, kKindReal3, kUnitNone, 0.5f, 0, 1, "Room size"),
     R(0, kKindReal3, kUnitNone, 0.5f, 0, 1, "Dampening"),
     R(0, kKindTime, kUnitSeconds, 0.1f, 0, 1, "Gate attack rt"),
     R(0, kKindTime, kUnitSeconds, 0.2f, 0, 10, "Gate hold time"),
     R(0, kKindTime, kUnitNone, 0.1f, 0, 10, "Gate decay rt"),
     R(0, kKindFlag, kUnitNone, 0, 0, 1, "Gate reverb"),
     Empty()},
    {R(0, kKindTime, kUnitSeconds, 0.8f, 0.001f, 4, "Delay time"),
     R(0, kKindReal3, kUnitNone, 0.5f, 0, 1, "Feedback"),
     R(0, kKindReal3, kUnitNone, 0.5f, 0, 1, "Tap distance"),
     R(0, kKindReal3, kUnitNone, 1, 0, 1, "Tap panning"),
     R(0, kKindFrequency, kUnitHz, 0, 0, 24000, "Filter cutoff"),
     R(0, kKindFlag, kUnitNone, 0, 0, 1, "Use LPF instead of than HPF"),
     Empty()},
    {R(0, kKindInteger, kUnitNone, 0, 0, 7, "Shape"),
     R(0, kKindReal2, kUnitHz, 5, 0.01f, 12, "Rate"),
     Empty(), Empty(), Empty(), Empty(), Empty()},
    {R(0, kKindReal2, kUnitDb, -24, -48, 0, "Threshold", "Note: not a send effect - but sends are the control signal"),
     R(0, kKindReal2, kUnitNone, 4, 1, 8, "Ratio"),
     R(0, kKindShortTime, kUnitMs, 0.025f, 0.001f, 0.5f, "Attack time"),
     R(0, kKindTime, kUnitSeconds, 0.125f, 0.01f, 2, "Release time"),
     R(0, kKindReal2, kUnitDb, 0, 0, 48, "Input gain"),
     Empty(), Empty()},
    {R(0, kKindReal2, kUnitDb, 24, 0, 48, "Overdrive"),
     Empty(), Empty(), Empty(), Empty(),
     R(0, kKindFlag, kUnitNone, 0, 0, 1, "Soft clip"),
     Empty()},
    {R(0, kKindInteger, kUnitNone, 1, 0, 7, "Shape"),
     R(0, kKindReal2, kUnitHz, 0.5f, 0.01f, 12, "Rate"),
     R(0, kKindReal3, kUnitNone, 0.5f, 0, 1, "Depth"),
     R(0, kKindShortTime, kUnitMs, 0.0005f, 0, 0.001f, "Delay"),
     R(0, kKindReal3, kUnitNone, 0.75f, 0.01f, 0.97f, "Feedback"),
     R(0, kKindFlag, kUnitNone, 1, 0, 1, "Stereo mode"),
     Empty()},
    {R(0, kKindReal3, kUnitNone, 0.5f, -1, 1, "Attack"),
     R(0, kKindReal3, kUnitNone, 0, -1, 1, "Decay"),
     R(0, kKindFrequency, kUnitHz, 0, 0, 20000, "Focus freq"),
     Empty(), Empty(), Empty(), Empty()},
};

constexpr int kFxPlaces = kFxRowsPerSlot - 1;
using FxTable = std::array<ParameterRow, kFxSlots * kFxTypeCount * kFxPlaces>;
using FxTypeRows = std::array<ParameterRow, kFxSlots>;

constexpr FxTable MakeFxRows() {
  FxTable t{};
  for (int s = 0; s < kFxSlots; ++s)
    for (int type = 0; type < kFxTypeCount; ++type)
      for (int p = 0; p < kFxPlaces; ++p) {
        ParameterRow r = kFxTemplate[type][p];
        r.index = static_cast<uint16_t>(kFirstFxParam + s * kFxRowsPerSlot + 1 + p);
        t[(s * kFxTypeCount + type) * kFxPlaces + p] = r;
      }
  return t;
}
constexpr FxTable kFxRows = MakeFxRows();

constexpr FxTypeRows MakeFxTypeRows() {
  FxTypeRows t{};
  for (int s = 0; s < kFxSlots; ++s)
    t[s] = R(kFirstFxParam + s * kFxRowsPerSlot, kKindFxType, kUnitNone, 0, 0, 8, "Channel FX type");
  return t;
}
constexpr FxTypeRows kFxTypeRows = MakeFxTypeRows();

// Texts of shared LFOs and envelopes: the same rows with "M-LFO"/"M-ENV" in
// place of their own prefix.
constexpr ParameterRow kLfoM[] = {KV_LFO_ROWS(0, "M")};
constexpr ParameterRow kEnvM[] = {KV_ENV_BLOCK(0, "M")};

// Articulation rows: everything before the trigger block.
constexpr int kArtRowCount = kRowTriggerType;

constexpr bool IsLfoDepthRow(int i) {
  return (i >= kRowPLfoToPitch && i <= kRowVelToXLfoPitch) || (i >= kRowVLfoToVolume && i <= kRowVelToVLfoVolume) ||
         (i >= kRowFLfoToCutoff && i <= kRowVelToFLfoCutoff) || i == kRowXLfoToPan;
}
constexpr bool IsEnvDepthRow(int i) {
  return i == kRowPEnvToPitch || i == kRowVelToPEnvPitch || i == kRowFEnvToCutoff || i == kRowVelToFEnvCutoff ||
         i == kRowXEnvToPan;
}
constexpr bool IsLfoBlockRow(int i) { return i >= kRowPLfoShape && i <= kRowXLfoRamp; }
// The envelopes that share one timing: P, F and X (the V-ENV stays its own).
constexpr bool IsModEnvRow(int i) { return i >= kRowPEnvInitial && i < kArtRowCount; }

constexpr const char* LfoDepthMName(int i) {
  switch (i) {
    case kRowPLfoToPitch: case kRowXLfoToPitch: return "M-LFO to Pitch";
    case kRowModWheelToPLfoPitch: case kRowModWheelToXLfoPitch: return "Mod wheel to M-LFO to Pitch";
    case kRowAftertouchToPLfoPitch: case kRowAftertouchToXLfoPitch: return "Aftertouch to M-LFO to Pitch";
    case kRowVelToPLfoPitch: case kRowVelToXLfoPitch: return "Velocity to M-LFO to Pitch";
    case kRowVLfoToVolume: return "M-LFO to Volume";
    case kRowModWheelToVLfoVolume: return "Mod wheel to M-LFO to Volume";
    case kRowAftertouchToVLfoVolume: return "Aftertrouch to M-LFO to Volume";
    case kRowVelToVLfoVolume: return "Velocity to M-LFO to Volume";
    case kRowFLfoToCutoff: return "M-LFO to Filter Cutoff";
    case kRowModWheelToFLfoCutoff: return "Mod wheel to M-LFO to Filter Cutoff";
    case kRowAftertouchToFLfoCutoff: return "Aftertouch to M-LFO to Filter Cutoff";
    case kRowVelToFLfoCutoff: return "Velocity to M-LFO to Filter Cutoff";
    case kRowXLfoToPan: return "M-LFO to Pan position";
    case kRowPEnvToPitch: return "M-ENV to Pitch";
    case kRowVelToPEnvPitch: return "Velocity to M-ENV to Pitch";
    case kRowFEnvToCutoff: return "M-ENV to Filter Cutoff";
    case kRowVelToFEnvCutoff: return "Velocity to M-ENV to Filter Cutoff";
    case kRowXEnvToPan: return "M-ENV to Pan position";
    default: return nullptr;
  }
}

using ArtRows = std::array<ParameterRow, kArtRowCount>;
constexpr ArtRows MakeMRows() {
  ArtRows t{};
  for (int i = 0; i < kArtRowCount; ++i) {
    t[i] = kRows[i];
    if (const char* n = LfoDepthMName(i)) {
      t[i] = Renamed(kRows[i], n, kRows[i].help);
    } else if (IsLfoBlockRow(i)) {
      const ParameterRow& m = kLfoM[(i - kRowPLfoShape) % std::size(kLfoM)];
      t[i] = Renamed(kRows[i], m.name, m.help);
    } else if (IsModEnvRow(i)) {
      const ParameterRow& m = kEnvM[(i - kRowPEnvInitial) % std::size(kEnvM)];
      t[i] = Renamed(kRows[i], m.name, m.help);
    }
  }
  return t;
}
constexpr ArtRows kMRows = MakeMRows();

constexpr ParameterRow WholeNumbers(ParameterRow r) {
  r.kind = kKindInteger;
  r.flags = static_cast<uint8_t>(r.flags | kRowWhole);
  r.control = kControlNumber;
  return r;
}
constexpr ParameterRow kWholeLoopRows[2] = {WholeNumbers(kRows[kRowLoopStart]),
                                            WholeNumbers(kRows[kRowLoopEnd])};

constexpr const char* kFeatureNames[kFeatureCount] = {
    "Trigger: X-fade between regions",
    "Architecture: Articulation on Instrument level",
    "Architecture: Articulation on Layer level",
    "Architecture: Articulation on Region level",
    "",
    "Waves: Compressed data formats",
    "Waves: DLS waveform flags",
    "Waves: Fractional loop-points",
    "Waves: Reverse and bi-directional loops",
    "Waves: Sampled release (key-up breaks loop)",
    "Waves: Region level start/end offsets",
    "Waves: Tuning of loop pitch",
    "Trigger: Delay time",
    "Trigger: Trigger type",
    "LFOs: Pitch/Modulation LFOs (2+ LFOs)",
    "LFOs: Separate P/V/F/X LFOs (3+ LFOs)",
    "LFOs: Shapes",
    "LFOs: Ramp time",
    "LFOs: MW/AT/Velocity to LFO",
    "Envs: Modulation/Volume envelopes (2+ envs)",
    "Envs: Separate P/V/F/X envelopes (3+ envs)",
    "Envs: Six-stages (DAHDSR)",
    "Envs: More levels + bi-directional (AADDSR)",
    "Envs: Three Release segments",
    "Envs: Key to Attack/Release",
    "Envs: Velocity to Attack 1 time (Delay)",
    "Envs: Velocity to Attack 2 time (Attack)",
    "Envs: Velocity to Decay 1/2 time (Hold/Dcy)",
    "Envs: Velocity to Release rate",
    "Envs: Velocity to M-EG to Pitch/Cutoff",
    "Filter: Low Pass Filter",
    "Filter: Additional filter types",
    "Filter: Mod wheel/Aftertouch to Cutoff",
    "Filter: Key/Velocity to Cutoff",
    "Filter: Velocity/MW/AT to Resonance",
    "Effects: Effect send levels",
    "Effects: EQ",
    "Mixer: Channel command depths",
    "Mixer: Key to Volume/Pan",
    "Mixer: Random to Pan",
    "Pitch: Pitch bend to Pitch",
    "Pitch: Key to Pitch",
    "Pitch: Random to Pitch",
    "Volume: Mod wheel/Aftertouch to Volume",
};

constexpr ParameterSetPreset kPresets[] = {
    {"All parameters supported by Kelvo Studio", 0xFFFFFFFFFFFFFFFFull},
    {"Akai S1000-series (.P)", 0xB42740C4E88ull},
    {"Akai S3000-series (.P)", 0xB43740D4E88ull},
    {"DLS level 1 melodic (.DLS)", 0x40C0002ull},
    {"DLS level 2 (.DLS)", 0x22A442C424Aull},
    {"DLS level 2+ (.DLS)", 0x22A442C426Aull},
    {"DLS level 2++ (.DLS)", 0xA6F5F2C426Aull},
    {"GigaStudio (.GIG)", 0x300400C6608ull},
    {"Gravis UltraSound GF1 (.PAT)", 0x20000C04388ull},
    {"Kontakt (.NKI)", 0xB5FFD2D6F2Dull},
    {"Korg Trinity (.PCG)", 0xB4EFF6F3004ull},
    {"Korg Triton (.PCG)", 0xB4FFF6F7804ull},
    {"Korg Kronos/M3 (.PCG)", 0xB5FFF6F7805ull},
    {"Kurzweil K2000-series (.KRZ)", 0x353DFEC4304ull},
    {"SFZ v1 (.SFZ)", 0xF5BFF2E772Dull},
    {"SFZ v2 (.SFZ)", 0xF5FFFEF7F2Full},
    {"SoundFont 2.0 (.SF2)", 0x2084428460Cull},
    {"SoundFont 2.01 (.SF2)", 0xB6F7F2C460Cull},
    {"Yamaha Motif/Motif ES (.W2V/.W7V)", 0xB5FE46F5004ull},
    {"Yamaha Motif XS/Motif XF (.X0V/.X3V)", 0xB5FE46F7004ull},
    {"Yamaha Tyros 2/3 normal voice (.TVN/.UVN)", 0xA1FE66F5004ull},
    {"Minimal for portability", 0x0ull},
};

constexpr const char* kFilterNames[] = {
    "Pass-thru",
    "Low-Pass 6 dB/oct",   "Low-Pass 12 dB/oct",   "Low-Pass 18 dB/oct",   "Low-Pass 24 dB/oct",
    "High-Pass 6 dB/oct",  "High-Pass 12 dB/oct",  "High-Pass 18 dB/oct",  "High-Pass 24 dB/oct",
    "Band-Pass 6 dB/oct",  "Band-Pass 12 dB/oct",
    "Band-Reject 6 dB/oct", "Band-Reject 12 dB/oct",
};
constexpr const char* kLfoShapeNames[] = {"Sine", "Triangle", "Square", "Noise", "Saw-Up", "Saw-Down"};
constexpr const char* kLfoShapeUniNames[] = {"Sine+", "Triangle+", "Square+", "Noise+", "Saw-Up+", "Saw-Down+"};
constexpr const char* kEqModeNames[] = {"Peaking", "Lo-shelf", "Hi-shelf"};
constexpr const char* kTriggerNames[] = {
    "Key Press",        "Key Release",      "Alternate Gr.1",  "Alternate Gr.2",  "Alternate Gr.3",
    "Alternate Gr.4",   "Alternate Gr.5",   "Alternate Gr.6",  "Alternate Gr.7",  "Alternate Gr.8",
    "Alternate Gr.9",   "Alternate Gr.10",  "Alternate Gr.11", "Alternate Gr.12", "Alternate Gr.13",
    "Alternate Gr.14",  "Alternate Gr.15",  "Alternate Gr.16",
};
constexpr const char* kPedalNames[] = {"Don't switch", "Play on Down", "Play on Up"};
constexpr const char* kReleaseModeNames[] = {"Key Release", "No Release"};
constexpr const char* kLoopTypeNames[] = {"Off", "Forward", "Reverse", "Alternating"};
constexpr const char* kLoopReleaseNames[] = {"Infinite", "Break on Release"};
constexpr const char* kExclusionNames[] = {"Self exclusive", "Non-exclusive"};
constexpr const char* kFadeNames[] = {"Equal-Power", "Linear Gain"};
constexpr const char* kFxTypeNames[] = {"None",       "Chorus",    "Reverb", "Delay",           "Tremolo",
                                        "Compressor", "Overdrive", "Phaser", "Transient shaper"};
constexpr const char* kDataFormatNames[] = {
    "PCM 8-bit",             "PCM 16-bit",            "PCM 24-bit",            "PCM 32-bit",
    "Float 32-bit",          "Mu-law 8-bit",          "A-law 8-bit",           "ADPCM 4-bit",
    "Compressed 32 kbit/s",  "Compressed 48 kbit/s",  "Compressed 64 kbit/s",  "Compressed 80 kbit/s",
    "Compressed 96 kbit/s",  "Compressed 112 kbit/s", "Compressed 128 kbit/s", "Compressed 144 kbit/s",
    "Compressed 160 kbit/s", "Compressed 192 kbit/s", "Compressed 224 kbit/s", "Compressed 256 kbit/s",
    "Compressed 320 kbit/s", "Default",
};

template <std::size_t N>
const char* Pick(const char* const (&names)[N], int value) {
  return value >= 0 && value < static_cast<int>(N) ? names[value] : nullptr;
}

}  // namespace

const char* FeatureName(int bit) {
  return bit >= 0 && bit < kFeatureCount ? kFeatureNames[bit] : "";
}

std::span<const ParameterSetPreset> ParameterSetPresets() { return kPresets; }

const ParameterSetPreset* FindPreset(uint64_t mask) {
  for (const ParameterSetPreset& p : kPresets)
    if (p.mask == mask) return &p;
  return nullptr;
}

const ParameterRow* CatalogueRow(int index, int fxType) {
  if (index < 0 || index >= kParamCount) return nullptr;
  if (index < kFirstFxParam) return &kRows[index];
  const int slot = (index - kFirstFxParam) / kFxRowsPerSlot;
  const int place = (index - kFirstFxParam) % kFxRowsPerSlot;
  if (place == 0) return &kFxTypeRows[slot];
  if (fxType <= 0 || fxType >= kFxTypeCount) return nullptr;
  const ParameterRow& r = kFxRows[(slot * kFxTypeCount + fxType) * kFxPlaces + place - 1];
  return (r.flags & kRowHidden) ? nullptr : &r;
}

const ParameterRow* LookupRow(int index, uint64_t features, int fxType) {
  if (index >= 0 && index < kArtRowCount) {
    if (!HasFeature(features, kFeatSeparateLfos) && (IsLfoDepthRow(index) || IsLfoBlockRow(index))) {
      // With a pitch LFO of its own, the P-LFO keeps its name.
      const bool pitchLfo = (index >= kRowPLfoToPitch && index <= kRowVelToPLfoPitch) ||
                            (index >= kRowPLfoShape && index <= kRowPLfoRamp);
      if (!(pitchLfo && HasFeature(features, kFeatPitchModLfos))) return &kMRows[index];
    }
    if (!HasFeature(features, kFeatSeparateEnvs) && (IsEnvDepthRow(index) || IsModEnvRow(index)))
      return &kMRows[index];
    return &kRows[index];
  }
  if (!HasFeature(features, kFeatFractionalLoops) && (index == kRowLoopStart || index == kRowLoopEnd))
    return &kWholeLoopRows[index - kRowLoopStart];
  return CatalogueRow(index, fxType);
}

const char* EnumValueName(int kind, int value) {
  switch (kind) {
    case kKindFilterType: return Pick(kFilterNames, value);
    case kKindLfoShape:
      // Inverted shapes (top bits 2) have no name of their own.
      if (value < 0 || value > 255 || (value >> 6) >= 2) return nullptr;
      return (value & 0x40) ? Pick(kLfoShapeUniNames, value & 0x3F) : Pick(kLfoShapeNames, value & 0x3F);
    case kKindEqMode: return Pick(kEqModeNames, value);
    case kKindTriggerType: return Pick(kTriggerNames, value);
    case kKindPedalSwitch: return Pick(kPedalNames, value);
    case kKindReleaseMode: return Pick(kReleaseModeNames, value);
    case kKindLoopType: return Pick(kLoopTypeNames, value);
    case kKindLoopRelease: return Pick(kLoopReleaseNames, value);
    case kKindExclusion: return Pick(kExclusionNames, value);
    case kKindFadeFormula: return Pick(kFadeNames, value);
    case kKindFxType: return Pick(kFxTypeNames, value);
    case kKindDataFormat: return Pick(kDataFormatNames, value);
    default: return nullptr;
  }
}

bool EnumValueOffered(int kind, int value, uint64_t features) {
  if (EnumValueName(kind, value) == nullptr) return false;
  if (kind == kKindFilterType && !HasFeature(features, kFeatMoreFilterTypes)) return value == 0 || value == 2;
  return true;
}

}  // namespace kv

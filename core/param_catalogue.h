// The parameter catalogue: one numbered row per parameter of the model, with
// its unit, range, default and texts, and the parameter-set feature mask.
//
// Numbers: 0-188 articulation, 189-203 trigger, 204-208 loop, 209-214 text,
// 215-219 wave, 220-224 region wave override, 225-228 MIDI location,
// 229-260 the four channel effect slots of eight rows each.
#pragma once

#include <cstdint>
#include <span>

#include "core/param_ids.h"

namespace kv {

struct ParameterRow {
  uint16_t index;
  uint8_t kind;
  uint8_t unit;
  uint8_t flags;
  uint16_t control;
  float def;
  float min;  // inclusive
  float max;  // inclusive
  const char* name;
  const char* help;  // "" when there is none
};

inline constexpr int kParamCount = 261;
inline constexpr int kFirstTriggerParam = kRowTriggerType;
inline constexpr int kLastTriggerParam = kRowNoteExclusion;
inline constexpr int kFirstLoopParam = kRowLoopType;
inline constexpr int kLastLoopParam = kRowLoopPitch;
inline constexpr int kFirstTextParam = kRowName;
inline constexpr int kLastTextParam = kRowProduct;
inline constexpr int kFirstWaveParam = kRowSampleRate;
inline constexpr int kLastWaveParam = kRowPreferredFormat;
inline constexpr int kFirstOverrideParam = kRowRootKeyOverride;
inline constexpr int kLastOverrideParam = kRowPhaseMaster;
inline constexpr int kFirstLocationParam = kRowDrumKit;
inline constexpr int kLastLocationParam = kRowProgram;
inline constexpr int kFirstFxParam = kRowFxSlots;
inline constexpr int kFxSlots = 4;
inline constexpr int kFxRowsPerSlot = 8;
inline constexpr int kFxTypeCount = 9;
static_assert(FxTypeParam(kFxSlots) == kParamCount, "the effect slots end the numbering");

// Units of a row.
enum ParamUnit : uint8_t {
  kUnitNone = 0,
  kUnitDb = 1,
  kUnitSemitones = 2,
  kUnitRatio = 3,
  kUnitPercent = 4,  // values kept in -1..1 or 0..1 are shown times 100
  kUnitHz = 5,
  kUnitSeconds = 6,
  kUnitMs = 7,       // kept in seconds, shown in ms
};

// Value kinds; they decide the setter's rounding and the edit control.
enum ParamKind : uint8_t {
  kKindText = 0,         // text rows 209-214, no number
  kKindReal3 = 1,        // to 0.001
  kKindReal2 = 2,        // to 0.01
  kKindFrequency = 3,    // to 0.1
  kKindInteger = 4,
  kKindTime = 5,         // to 0.001 below 10, to 0.01 from 10 up
  kKindFraction = 6,     // to 0.001, shown as percent
  kKindShortTime = 7,
  kKindLevel = 8,        // to 0.0001
  kKindGroup = 9,        // 16-bit group number
  kKindFlag = 10,
  kKindKey = 12,         // MIDI key, shown by the note-name setting
  kKindTriggerType = 13,
  kKindPedalSwitch = 14,
  kKindLfoShape = 15,
  kKindReleaseMode = 16,
  kKindFilterType = 17,
  kKindEqMode = 18,
  kKindLoopType = 19,
  kKindLoopRelease = 20,
  kKindFxType = 21,
  kKindExclusion = 22,
  kKindFadeFormula = 23,
  kKindDataFormat = 24,
};

// Property pane hints.
enum ParamRowFlag : uint8_t {
  kRowHidden = 1,      // an empty place: no parameter to show
  kRowList = 2,        // choose from named values
  kRowCheck = 4,       // on/off
  kRowLogScale = 8,    // slider on a logarithmic scale (frequencies, times, ratios)
  kRowBipolar = 16,    // range below and above 0
  kRowWhole = 32,      // whole numbers only
};
enum ParamControl : uint16_t {
  kControlNone = 0,
  kControlSlider = 1,
  kControlList = 2,
  kControlCheck = 3,
  kControlNumber = 4,
  kControlKey = 5,
  kControlText = 6,
};

// Parameter-set feature bits (bit 4 is an empty separator of the dialog).
enum Feature : int {
  kFeatTriggerXfade = 0,
  kFeatArtInstrument = 1,
  kFeatArtLayer = 2,
  kFeatArtRegion = 3,
  kFeatCompressedWaves = 5,
  kFeatDlsWaveFlags = 6,
  kFeatFractionalLoops = 7,
  kFeatReverseLoops = 8,
  kFeatSampledRelease = 9,
  kFeatRegionOffsets = 10,
  kFeatLoopTuning = 11,
  kFeatTriggerDelay = 12,
  kFeatTriggerType = 13,
  kFeatPitchModLfos = 14,
  kFeatSeparateLfos = 15,
  kFeatLfoShapes = 16,
  kFeatLfoRamp = 17,
  kFeatLfoModulators = 18,
  kFeatModVolEnvs = 19,
  kFeatSeparateEnvs = 20,
  kFeatSixStages = 21,
  kFeatMoreLevels = 22,
  kFeatThreeReleases = 23,
  kFeatKeyToEnvTimes = 24,
  kFeatVelToAttack1 = 25,
  kFeatVelToAttack2 = 26,
  kFeatVelToDecay = 27,
  kFeatVelToRelease = 28,
  kFeatVelToModEnvDepth = 29,
  kFeatLowPassFilter = 30,
  kFeatMoreFilterTypes = 31,
  kFeatModToCutoff = 32,
  kFeatKeyVelToCutoff = 33,
  kFeatModToResonance = 34,
  kFeatSendLevels = 35,
  kFeatEq = 36,
  kFeatChannelDepths = 37,
  kFeatKeyToVolumePan = 38,
  kFeatRandomPan = 39,
  kFeatBendToPitch = 40,
  kFeatKeyToPitch = 41,
  kFeatRandomPitch = 42,
  kFeatModToVolume = 43,
};
inline constexpr int kFeatureCount = 44;
inline constexpr uint64_t kAllFeatures = ~uint64_t{0};
constexpr bool HasFeature(uint64_t features, int bit) { return (features >> bit) & 1u; }

// The dialog's text of feature bit `bit`; "" for the separator and for bits
// past the list.
const char* FeatureName(int bit);

struct ParameterSetPreset {
  const char* name;
  uint64_t mask;
};
std::span<const ParameterSetPreset> ParameterSetPresets();
// The preset whose mask is `mask`, or null.
const ParameterSetPreset* FindPreset(uint64_t mask);

// The catalogue row of parameter `index` as plain data (no feature
// adjustment). For an effect slot's rows 2-8 this is the row of the slot's
// type `fxType`; null when that place has no parameter, for type 0 and for an
// index out of range.
const ParameterRow* CatalogueRow(int index, int fxType = 0);

// The row as the parameter set `features` shows it: M-LFO and M-ENV texts
// where LFOs or envelopes are shared, whole-number loop points without
// fractional loops. The pointer is to constant data and stays valid.
const ParameterRow* LookupRow(int index, uint64_t features = kAllFeatures, int fxType = 0);

// Names of enumerated values: filter types, LFO shapes (with "+" for the
// unipolar bit; inverted shapes are not named), EQ modes, trigger types,
// pedal switch, release mode, loop type and release, exclusion mode, fade
// formula, effect types, preferred data formats. Null when `value` has no
// name for `kind`.
const char* EnumValueName(int kind, int value);
// Whether a value of an enumerated kind is offered under `features`: only
// "Pass-thru" and "Low-Pass 12 dB/oct" without additional filter types.
bool EnumValueOffered(int kind, int value, uint64_t features);

}  // namespace kv

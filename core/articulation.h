// The articulation record: 189 values in the model's units with a presence
// set. A clear bit means inherited or default.
//
// Values are always held in the model's units (seconds, semitones, dB, Hz,
// fractions); format modules convert on the way in and out and write only
// through Set(), which rounds by the row's kind and limits to its range.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "core/param_catalogue.h"

namespace kv {

inline constexpr int kArticulationCount = kRowTriggerType;

// Block layouts used by the operations below; each block's first row is named
// in core/param_ids.h.
inline constexpr int kRowEqBase = kRowEq1Mode;  // band b: mode, frequency, gain, Q at kRowEqBase + 4b
inline constexpr int kEqBands = 3;

// LFOs in block order P, V, F, X; LFO n has its four rows at kLfoBase + 4n.
enum LfoId : int { kLfoP = 0, kLfoV = 1, kLfoF = 2, kLfoX = 3 };
inline constexpr int kLfoBase = kRowPLfoShape;
inline constexpr int kLfoCount = 4;
inline constexpr int LfoRow(int n, int offset) { return kLfoBase + 4 * n + offset; }
enum LfoOffset : int { kLfoShape = 0, kLfoFrequency = 1, kLfoDelay = 2, kLfoRamp = 3 };
// LFO shape byte: low 6 bits the wave, bit 6 unipolar, top bits == 2 inverted.
inline constexpr int kLfoShapeMask = 0x3F;
inline constexpr int kLfoUnipolar = 0x40;
inline constexpr bool LfoInverted(int shapeByte) { return (shapeByte >> 6) == 2; }

// Envelopes in block order V, P, F, X; envelope k has 27 rows at kEnvBase + 27k.
enum EnvId : int { kEnvV = 0, kEnvP = 1, kEnvF = 2, kEnvX = 3 };
inline constexpr int kEnvBase = kRowVEnvInitial;
inline constexpr int kEnvRows = 27;
inline constexpr int kEnvCount = 4;
inline constexpr int EnvRow(int k, int offset) { return kEnvBase + kEnvRows * k + offset; }
enum EnvOffset : int {
  kEnvInitial = 0,
  kEnvA1Time = 1, kEnvA1Vel = 2, kEnvA1Key = 3, kEnvA1Level = 4,
  kEnvA2Time = 5, kEnvA2Vel = 6, kEnvA2Key = 7, kEnvA2Level = 8,
  kEnvD1Time = 9, kEnvD1Vel = 10, kEnvD1Key = 11, kEnvD1Level = 12,
  kEnvD2Time = 13, kEnvD2Vel = 14, kEnvD2Key = 15, kEnvSustain = 16,
  kEnvR1Rate = 17, kEnvR1Level = 18, kEnvR2Time = 19, kEnvR2Level = 20,
  kEnvR3Time = 21, kEnvR3Level = 22, kEnvRelVel = 23, kEnvRelKey = 24,
  kEnvReleaseMode = 25, kEnvShutdown = 26,
};
static_assert(LfoRow(kLfoX, kLfoRamp) == kRowXLfoRamp && EnvRow(kEnvP, kEnvInitial) == kRowPEnvInitial &&
                  EnvRow(kEnvX, kEnvShutdown) == kRowXEnvShutdown && kArticulationCount == 189,
              "block layouts agree with the named rows");


// An LFO with the shape byte split up and the depth rows that it drives.
struct LfoGroup {
  int shape = 0;          // 0-63
  bool unipolar = false;
  bool inverted = false;
  float frequency = 5.0f;
  float delay = 0.0f;
  float ramp = 0.0f;
  int depthCount = 0;
  float depth[5] = {};    // in the order of LfoDepthRows()
};

// An envelope's 27 rows and the depth rows of its target.
struct EnvGroup {
  float row[kEnvRows] = {};
  int depthCount = 0;
  float depth[2] = {};    // in the order of EnvDepthRows()
};

struct EqBand {
  int mode = 0;  // 0 peaking, 1 low shelf, 2 high shelf
  float frequency = 0.0f;
  float gain = 0.0f;
  float q = 0.71f;
};

// Depth rows of LFO n: P 3-6, V 19-22, F 29-32, X 7-10 and 54.
std::span<const int> LfoDepthRows(int n);
// Depth rows of envelope k: none for V, P 11-12, F 33-34, X 55.
std::span<const int> EnvDepthRows(int k);

struct Articulation {
  float value[kArticulationCount];
  uint64_t set[3];

  Articulation() { Reset(); }
  // Catalogue defaults, all presence bits clear.
  void Reset();

  bool IsSet(int i) const { return (set[i >> 6] >> (i & 63)) & 1u; }
  void MarkSet(int i) { set[i >> 6] |= uint64_t{1} << (i & 63); }
  void MarkUnset(int i) { set[i >> 6] &= ~(uint64_t{1} << (i & 63)); }
  bool AnySet() const { return (set[0] | set[1] | set[2]) != 0; }

  // Rounds by the row's kind (half away from zero), limits to the row's
  // range, stores and marks the value present. Returns what was stored.
  float Set(int i, float v);
  // Stores v as it is with the presence bit off ("cleared" to a value).
  void Clear(int i, float v) {
    value[i] = v;
    MarkUnset(i);
  }
  // Back to the catalogue default, bit off.
  void ResetValue(int i);

  // The catalogue row as the parameter set `features` shows it.
  static const ParameterRow& Row(int i, uint64_t features = kAllFeatures);

  // Whether a presence bit lies in [first, end).
  bool AnyInRange(int first, int end) const;
  // Whether one of envelope k's level or time rows from Attack 1 Time to
  // Release 3 Level is present.
  bool AnyOfEnvelope(int k) const;

  // Copies the parent's value into every row whose bit is clear; true if a
  // value changed.
  bool Inherit(const Articulation& parent);
  // Clears the bit of every present row equal to the parent's; true if a bit
  // was cleared.
  bool Prune(const Articulation& parent);

  // Takes from a phase master what keeps a group pitch-locked to it: the
  // pitch rows 0-13 and the P-LFO always, the P-ENV when the master's envelope
  // reaches pitch, the X-LFO when it moves pitch and not pan. Levels, pan and
  // filter stay each member's own: the two sides of a stereo pair differ there.
  void MatchPitchOf(const Articulation& master);

  LfoGroup ReadLfo(int n) const;
  void WriteLfo(int n, const LfoGroup& g);
  EnvGroup ReadEnvelope(int k) const;
  void WriteEnvelope(int k, const EnvGroup& g);
  EqBand ReadEq(int b) const;
  void WriteEq(int b, const EqBand& e);

  bool operator==(const Articulation& o) const;
};

// A stored value of a discrete row as an integer (truncated); NaN and values
// beyond int give 0 rather than an undefined conversion.
inline int ValueAsInt(float v) { return v > -2.0e9f && v < 2.0e9f ? static_cast<int>(v) : 0; }

// Rounds v by a row kind's rule, half away from zero. Kinds without a rule
// return v unchanged.
float RoundForKind(int kind, float v);
// RoundForKind, then limited to the row's range. NaN passes through.
float NormaliseForRow(const ParameterRow& row, float v);

// --- Value text -----------------------------------------------------------

// The display settings the texts depend on; callers take them from the
// settings store.
struct ParamDisplay {
  bool showNoteNames = true;
  int octaveOfMiddleC = 4;
};

// "C4", "F#-1" or the plain number when note names are off.
std::string NoteName(int key, const ParamDisplay& display);
// The same into `out`, which must hold kNoteNameSize bytes; returns the length.
inline constexpr std::size_t kNoteNameSize = 16;
std::size_t NoteNameTo(char* out, int key, const ParamDisplay& display);
// Accepts "C4", "c#4", "Db3", "E-1" and plain numbers; false if the text is
// not a key 0-127.
bool ParseNoteName(std::string_view text, const ParamDisplay& display, int* key);

// The value as the property pane shows it, with its unit: percent rows with
// a range inside -1..1 times 100, "ms" rows times 1000, keys by the note-name
// setting, enumerations by name.
std::string ValueText(const ParameterRow& row, float value, const ParamDisplay& display);
// The reverse of ValueText; also takes a plain number in the stored unit's
// display form, enumeration names and a few unit suffixes ("ms", "s", "kHz",
// "dB" for levels, "%"). The result is not yet rounded or limited.
bool ParseValueText(const ParameterRow& row, std::string_view text, const ParamDisplay& display,
                    float* out);

// --- Averaging, envelope folding, reduce --------------------------------

// Averages `records` into `out` (see the rules in param_reduce.cpp): every
// value is set; discrete rows are decided by majority. Nothing happens for an
// empty list.
void AverageArticulations(std::span<const Articulation* const> records, Articulation& out);

// Folds envelope g into the plain delay-attack-hold-decay-sustain-release
// form with its peak at 1; levels are rescaled and a bipolar envelope's
// depths take the peak over. Returns the gain of the peak in dB (0 when the
// peak was 1), which the caller adds to the master volume for the V-ENV.
float FoldToDahdsr(EnvGroup& g, bool bipolar);
// Same release mode, total attack, decay and release time to 0.1 s, the
// other rows by their rounding steps.
bool SameEnvelopeShape(const EnvGroup& a, const EnvGroup& b);
// Whether envelope g is already in the plain DAHDSR form.
bool IsPlainEnvelope(const EnvGroup& g);

// Folds everything the parameter set cannot express into what it can.
// Idempotent for a given mask.
void ReduceArticulation(Articulation& art, uint64_t features);

// --- Conversions between levels ------------------------------------------

// Moves the parent's present values down: each child that lacks one gets it,
// then the parent is reset.
void MoveArticulationDown(Articulation& parent, std::span<Articulation* const> children);
// Replaces the parent's block by the average of the children's effective
// records and resets the children. Nothing happens without children.
void MoveArticulationUp(Articulation& parent, std::span<Articulation* const> children);
// Moves a parameter to the parent when every child has the same effective
// value for it. With `perParameter` false either every parameter present in a
// child moves or none. True if anything moved.
bool MoveUpIfAllEqual(Articulation& parent, std::span<Articulation* const> children,
                      bool perParameter);
// An edit of row i by `delta` at the parent, carried to every child that has
// the row present.
void PropagateDelta(int i, float delta, std::span<Articulation* const> children);

// The record a region plays: its own values over the layer's over the
// instrument's over the defaults.
Articulation MergedArticulation(const Articulation& region, const Articulation& layer,
                                const Articulation& instrument);

}  // namespace kv

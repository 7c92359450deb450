#include "core/articulation.h"

#include <array>
#include <bit>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <charconv>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace kv {
namespace {

constexpr int kLfoDepthP[] = {kRowPLfoToPitch, kRowModWheelToPLfoPitch, kRowAftertouchToPLfoPitch,
                              kRowVelToPLfoPitch};
constexpr int kLfoDepthV[] = {kRowVLfoToVolume, kRowModWheelToVLfoVolume, kRowAftertouchToVLfoVolume,
                              kRowVelToVLfoVolume};
constexpr int kLfoDepthF[] = {kRowFLfoToCutoff, kRowModWheelToFLfoCutoff, kRowAftertouchToFLfoCutoff,
                              kRowVelToFLfoCutoff};
constexpr int kLfoDepthX[] = {kRowXLfoToPitch, kRowModWheelToXLfoPitch, kRowAftertouchToXLfoPitch,
                              kRowVelToXLfoPitch, kRowXLfoToPan};
constexpr int kEnvDepthP[] = {kRowPEnvToPitch, kRowVelToPEnvPitch};
constexpr int kEnvDepthF[] = {kRowFEnvToCutoff, kRowVelToFEnvCutoff};
constexpr int kEnvDepthX[] = {kRowXEnvToPan};

// Catalogue defaults of the 189 record rows, gathered once.
const std::array<float, kArticulationCount>& Defaults() {
  static const std::array<float, kArticulationCount> defaults = [] {
    std::array<float, kArticulationCount> d{};
    for (int i = 0; i < kArticulationCount; ++i) d[i] = CatalogueRow(i)->def;
    return d;
  }();
  return defaults;
}

// Half away from zero at 1/scale steps; scale is an exact power of ten so the
// product, not a division by 0.001, carries the rounding.
double RoundAt(double v, double scale) {
  const double y = v * scale;
  const double r = y < 0 ? -std::floor(-y + 0.5) : std::floor(y + 0.5);
  return r / scale;
}


}  // namespace

std::span<const int> LfoDepthRows(int n) {
  switch (n) {
    case kLfoP: return kLfoDepthP;
    case kLfoV: return kLfoDepthV;
    case kLfoF: return kLfoDepthF;
    case kLfoX: return kLfoDepthX;
    default: return {};
  }
}

std::span<const int> EnvDepthRows(int k) {
  switch (k) {
    case kEnvP: return kEnvDepthP;
    case kEnvF: return kEnvDepthF;
    case kEnvX: return kEnvDepthX;
    default: return {};
  }
}

float RoundForKind(int kind, float v) {
  switch (kind) {
    case kKindReal3:
    case kKindFraction: return static_cast<float>(RoundAt(v, 1000.0));
    case kKindReal2: return static_cast<float>(RoundAt(v, 100.0));
    case kKindFrequency: return static_cast<float>(RoundAt(v, 10.0));
    case kKindTime: return static_cast<float>(RoundAt(v, std::fabs(v) < 10.0f ? 1000.0 : 100.0));
    case kKindLevel: return static_cast<float>(RoundAt(v, 10000.0));
    default: return v;
  }
}

float NormaliseForRow(const ParameterRow& row, float v) {
  v = RoundForKind(row.kind, v);
  // Written so that NaN falls through both tests and is stored as it is.
  if (v < row.min) return row.min;
  if (v > row.max) return row.max;
  return v;
}

void Articulation::Reset() {
  std::memcpy(value, Defaults().data(), sizeof value);
  set[0] = set[1] = set[2] = 0;
}

float Articulation::Set(int i, float v) {
  value[i] = NormaliseForRow(*CatalogueRow(i), v);
  MarkSet(i);
  return value[i];
}

void Articulation::ResetValue(int i) { Clear(i, Defaults()[i]); }

const ParameterRow& Articulation::Row(int i, uint64_t features) { return *LookupRow(i, features); }

bool Articulation::AnyInRange(int first, int end) const {
  for (int i = first; i < end; ++i)
    if (IsSet(i)) return true;
  return false;
}

bool Articulation::AnyOfEnvelope(int k) const {
  static constexpr int kRowsOfShape[] = {kEnvA1Time, kEnvA1Level, kEnvA2Time, kEnvA2Level, kEnvD1Time,
                                         kEnvD1Level, kEnvD2Time, kEnvSustain, kEnvR1Rate, kEnvR1Level,
                                         kEnvR2Time, kEnvR2Level, kEnvR3Time, kEnvR3Level};
  for (int o : kRowsOfShape)
    if (IsSet(EnvRow(k, o))) return true;
  return false;
}

#if defined(__SSE2__)
namespace {
// Lane masks for four presence bits: lane k all ones when bit k is set.
struct LaneMasks {
  alignas(16) int32_t lanes[16][4];
  constexpr LaneMasks() : lanes{} {
    for (int bits = 0; bits < 16; ++bits)
      for (int k = 0; k < 4; ++k) lanes[bits][k] = (bits >> k) & 1 ? -1 : 0;
  }
  __m128i operator[](uint64_t bits) const { return _mm_load_si128(reinterpret_cast<const __m128i*>(lanes[bits])); }
};
constexpr LaneMasks kLaneMasks;
constexpr int kWholeGroups = kArticulationCount / 4;  // the last row is done on its own
}  // namespace
#endif

// Inherit and Prune run over every region at every load: four rows at a
// time, with the presence bits as lane masks.
bool Articulation::Inherit(const Articulation& parent) {
  bool changed = false;
  int i = 0;
#if defined(__SSE2__)
  for (int g = 0; g < kWholeGroups; ++g, i += 4) {
    const __m128i keep = kLaneMasks[(set[i >> 6] >> (i & 63)) & 0xF];
    const __m128i own = _mm_loadu_si128(reinterpret_cast<const __m128i*>(value + i));
    const __m128i from = _mm_loadu_si128(reinterpret_cast<const __m128i*>(parent.value + i));
    const __m128i merged = _mm_or_si128(_mm_and_si128(keep, own), _mm_andnot_si128(keep, from));
    changed |= _mm_movemask_epi8(_mm_cmpeq_epi32(merged, own)) != 0xFFFF;
    _mm_storeu_si128(reinterpret_cast<__m128i*>(value + i), merged);
  }
#endif
  for (; i < kArticulationCount; ++i) {
    if (IsSet(i) || std::memcmp(&value[i], &parent.value[i], sizeof(float)) == 0) continue;
    value[i] = parent.value[i];
    changed = true;
  }
  return changed;
}

void Articulation::MatchPitchOf(const Articulation& master) {
  auto take = [&](int first, int count) {
    for (int i = first; i < first + count; ++i) {
      value[i] = master.value[i];
      if (master.IsSet(i)) MarkSet(i);
      else MarkUnset(i);
    }
  };
  take(kRowMasterTune, kRowRandomPitch + 1 - kRowMasterTune);
  take(LfoRow(kLfoP, 0), 4);
  const float* m = master.value;
  if (m[kRowPEnvToPitch] != 0.0f || m[kRowVelToPEnvPitch] != 0.0f) take(EnvRow(kEnvP, 0), kEnvRows);
  const bool xMovesPitch = m[kRowXLfoToPitch] != 0.0f || m[kRowModWheelToXLfoPitch] != 0.0f ||
                           m[kRowAftertouchToXLfoPitch] != 0.0f || m[kRowVelToXLfoPitch] != 0.0f;
  if (m[kRowXLfoToPan] == 0.0f && xMovesPitch) take(LfoRow(kLfoX, 0), 4);
}

bool Articulation::Prune(const Articulation& parent) {
  bool cleared = false;
  int i = 0;
#if defined(__SSE2__)
  for (int g = 0; g < kWholeGroups; ++g, i += 4) {
    const uint64_t bits = (set[i >> 6] >> (i & 63)) & 0xF;
    if (!bits) continue;
    const __m128 equal = _mm_cmpeq_ps(_mm_loadu_ps(value + i), _mm_loadu_ps(parent.value + i));
    const uint64_t drop = bits & static_cast<uint64_t>(_mm_movemask_ps(equal));
    set[i >> 6] &= ~(drop << (i & 63));
    cleared |= drop != 0;
  }
#endif
  for (; i < kArticulationCount; ++i)
    if (IsSet(i) && value[i] == parent.value[i]) {
      MarkUnset(i);
      cleared = true;
    }
  return cleared;
}

LfoGroup Articulation::ReadLfo(int n) const {
  LfoGroup g;
  const int shape = ValueAsInt(value[LfoRow(n, kLfoShape)]);
  g.shape = shape & kLfoShapeMask;
  g.unipolar = (shape & kLfoUnipolar) != 0;
  g.inverted = LfoInverted(shape);
  g.frequency = value[LfoRow(n, kLfoFrequency)];
  g.delay = value[LfoRow(n, kLfoDelay)];
  g.ramp = value[LfoRow(n, kLfoRamp)];
  const std::span<const int> rows = LfoDepthRows(n);
  g.depthCount = static_cast<int>(rows.size());
  for (std::size_t j = 0; j < rows.size(); ++j) g.depth[j] = value[rows[j]];
  return g;
}

void Articulation::WriteLfo(int n, const LfoGroup& g) {
  const int shape = (g.shape & kLfoShapeMask) | (g.unipolar ? kLfoUnipolar : 0) | (g.inverted ? 0x80 : 0);
  Set(LfoRow(n, kLfoShape), static_cast<float>(shape));
  Set(LfoRow(n, kLfoFrequency), g.frequency);
  Set(LfoRow(n, kLfoDelay), g.delay);
  Set(LfoRow(n, kLfoRamp), g.ramp);
  const std::span<const int> rows = LfoDepthRows(n);
  for (std::size_t j = 0; j < rows.size() && static_cast<int>(j) < g.depthCount; ++j) Set(rows[j], g.depth[j]);
}

EnvGroup Articulation::ReadEnvelope(int k) const {
  EnvGroup g;
  for (int o = 0; o < kEnvRows; ++o) g.row[o] = value[EnvRow(k, o)];
  const std::span<const int> rows = EnvDepthRows(k);
  g.depthCount = static_cast<int>(rows.size());
  for (std::size_t j = 0; j < rows.size(); ++j) g.depth[j] = value[rows[j]];
  return g;
}

void Articulation::WriteEnvelope(int k, const EnvGroup& g) {
  for (int o = 0; o < kEnvRows; ++o) Set(EnvRow(k, o), g.row[o]);
  const std::span<const int> rows = EnvDepthRows(k);
  for (std::size_t j = 0; j < rows.size() && static_cast<int>(j) < g.depthCount; ++j) Set(rows[j], g.depth[j]);
}

EqBand Articulation::ReadEq(int b) const {
  const int r = kRowEqBase + 4 * b;
  return EqBand{ValueAsInt(value[r]), value[r + 1], value[r + 2], value[r + 3]};
}

void Articulation::WriteEq(int b, const EqBand& e) {
  const int r = kRowEqBase + 4 * b;
  Set(r, static_cast<float>(e.mode));
  Set(r + 1, e.frequency);
  Set(r + 2, e.gain);
  Set(r + 3, e.q);
}

bool Articulation::operator==(const Articulation& o) const {
  return std::memcmp(value, o.value, sizeof value) == 0 && set[0] == o.set[0] && set[1] == o.set[1] &&
         set[2] == o.set[2];
}

Articulation MergedArticulation(const Articulation& region, const Articulation& layer,
                                const Articulation& instrument) {
  Articulation upper = layer;
  upper.Inherit(instrument);
  Articulation merged = region;
  merged.Inherit(upper);
  return merged;
}

// --- Value text -------------------------------------------------------------

namespace {

constexpr const char* kNoteLetters[12] = {"C", "C#", "D", "D#", "E", "F", "F#", "G", "G#", "A", "A#", "B"};

// Fixed decimals, then trailing zeros and a bare point dropped: "12.35", "5".
std::string Number(double v, int decimals) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.*f", decimals, v);
  if (decimals > 0) {
    char* end = buf + std::strlen(buf);
    while (end > buf && end[-1] == '0') *--end = 0;
    if (end > buf && end[-1] == '.') *--end = 0;
  }
  if (std::strcmp(buf, "-0") == 0) return "0";
  return buf;
}

int DecimalsOf(int kind, float v) {
  switch (kind) {
    case kKindReal3:
    case kKindFraction: return 3;
    case kKindReal2: return 2;
    case kKindFrequency: return 1;
    case kKindTime: return std::fabs(v) < 10.0f ? 3 : 2;
    case kKindShortTime: return 6;
    case kKindLevel: return 4;
    default: return 0;
  }
}

bool ScaledPercent(const ParameterRow& row) {
  return row.unit == kUnitPercent && row.min >= -1.0f && row.max <= 1.0f;
}

bool IsEnumKind(int kind) { return kind >= kKindTriggerType && kind <= kKindDataFormat; }

std::string_view Trim(std::string_view s) {
  while (!s.empty() && std::isspace(static_cast<unsigned char>(s.front()))) s.remove_prefix(1);
  while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back()))) s.remove_suffix(1);
  return s;
}

bool EqualNoCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i)
    if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i])))
      return false;
  return true;
}

bool StartsNoCase(std::string_view s, std::string_view prefix) {
  return s.size() >= prefix.size() && EqualNoCase(s.substr(0, prefix.size()), prefix);
}

// Leading number of `text`; `rest` gets what follows it, trimmed.
bool LeadingNumber(std::string_view text, double* v, std::string_view* rest) {
  char buf[64];
  if (text.empty() || text.size() >= sizeof buf) return false;
  std::memcpy(buf, text.data(), text.size());
  buf[text.size()] = 0;
  char* end = nullptr;
  *v = std::strtod(buf, &end);
  if (end == buf) return false;
  *rest = Trim(text.substr(static_cast<std::size_t>(end - buf)));
  return true;
}

}  // namespace

std::size_t NoteNameTo(char* out, int key, const ParamDisplay& display) {
  char* end = out + kNoteNameSize;
  if (!display.showNoteNames) return static_cast<std::size_t>(std::to_chars(out, end, key).ptr - out);
  // Keys below 0 wrap into the table with the octave lowered.
  const int octaveSteps = key >= 0 ? key / 12 : -((-key + 11) / 12);
  const std::string_view letter = kNoteLetters[key - octaveSteps * 12];
  char* p = out + letter.copy(out, letter.size());
  return static_cast<std::size_t>(std::to_chars(p, end, display.octaveOfMiddleC - 5 + octaveSteps).ptr - out);
}

std::string NoteName(int key, const ParamDisplay& display) {
  char text[kNoteNameSize];
  return std::string(text, NoteNameTo(text, key, display));
}

bool ParseNoteName(std::string_view text, const ParamDisplay& display, int* key) {
  text = Trim(text);
  if (text.empty()) return false;
  double number = 0;
  std::string_view rest;
  if (std::isdigit(static_cast<unsigned char>(text.front()))) {
    if (!LeadingNumber(text, &number, &rest) || !rest.empty() || number != std::floor(number)) return false;
    if (number < 0 || number > 127) return false;
    *key = static_cast<int>(number);
    return true;
  }
  static constexpr int kLetterSemitone[7] = {9, 11, 0, 2, 4, 5, 7};  // A..G
  const char letter = static_cast<char>(std::toupper(static_cast<unsigned char>(text.front())));
  if (letter < 'A' || letter > 'G') return false;
  int semitone = kLetterSemitone[letter - 'A'];
  text.remove_prefix(1);
  if (!text.empty() && text.front() == '#') {
    ++semitone;
    text.remove_prefix(1);
  } else if (!text.empty() && (text.front() == 'b' || text.front() == 'B') && text.size() > 1) {
    --semitone;
    text.remove_prefix(1);
  }
  if (!LeadingNumber(text, &number, &rest) || !rest.empty() || number != std::floor(number)) return false;
  if (std::fabs(number) > 100) return false;
  const int middle = display.showNoteNames ? display.octaveOfMiddleC : 5;
  const int k = (static_cast<int>(number) - (middle - 5)) * 12 + semitone;
  if (k < 0 || k > 127) return false;
  *key = k;
  return true;
}

std::string ValueText(const ParameterRow& row, float value, const ParamDisplay& display) {
  if (row.kind == kKindText) return {};
  if (row.kind == kKindKey) return NoteName(static_cast<int>(std::lround(value)), display);
  if (row.kind == kKindFlag) return value != 0.0f ? "On" : "Off";
  if (IsEnumKind(row.kind)) {
    if (const char* n = EnumValueName(row.kind, ValueAsInt(value))) return n;
    return Number(value, 0);
  }
  const int decimals = DecimalsOf(row.kind, value);
  switch (row.unit) {
    case kUnitDb:
      if (row.kind == kKindLevel) {
        // Linear levels of the volume envelope, shown as the gain they make.
        if (value <= 0.0f) return "-inf dB";
        return Number(20.0 * std::log10(static_cast<double>(value)), 2) + " dB";
      }
      return Number(value, decimals) + " dB";
    case kUnitSemitones: return Number(value, decimals) + " st";
    case kUnitRatio: return Number(value, decimals);
    case kUnitPercent:
      if (ScaledPercent(row)) return Number(value * 100.0, decimals > 2 ? decimals - 2 : 0) + "%";
      return Number(value, decimals) + "%";
    case kUnitHz: return Number(value, decimals) + " Hz";
    case kUnitSeconds: return Number(value, decimals) + " s";
    case kUnitMs: return Number(value * 1000.0, 3) + " ms";
    default: return Number(value, decimals);
  }
}

bool ParseValueText(const ParameterRow& row, std::string_view text, const ParamDisplay& display,
                    float* out) {
  text = Trim(text);
  if (row.kind == kKindText || text.empty()) return false;
  if (row.kind == kKindKey) {
    int key = 0;
    if (!ParseNoteName(text, display, &key)) return false;
    *out = static_cast<float>(key);
    return true;
  }
  if (row.kind == kKindFlag) {
    for (const char* t : {"on", "yes", "true"})
      if (EqualNoCase(text, t)) return *out = 1.0f, true;
    for (const char* t : {"off", "no", "false"})
      if (EqualNoCase(text, t)) return *out = 0.0f, true;
  }
  if (IsEnumKind(row.kind)) {
    for (int v = 0; v <= 255; ++v) {
      const char* n = EnumValueName(row.kind, v);
      if (n && EqualNoCase(text, n)) return *out = static_cast<float>(v), true;
    }
  }
  if (row.kind == kKindLevel && row.unit == kUnitDb && StartsNoCase(text, "-inf")) return *out = 0.0f, true;

  double v = 0;
  std::string_view rest;
  if (!LeadingNumber(text, &v, &rest)) return false;
  switch (row.unit) {
    case kUnitDb:
      if (row.kind == kKindLevel) v = std::pow(10.0, v / 20.0);
      break;
    case kUnitPercent:
      if (ScaledPercent(row)) v /= 100.0;
      break;
    case kUnitHz:
      if (StartsNoCase(rest, "khz")) v *= 1000.0;
      break;
    case kUnitSeconds:
      if (StartsNoCase(rest, "ms")) v /= 1000.0;
      break;
    case kUnitMs:
      if (!(EqualNoCase(rest, "s") || EqualNoCase(rest, "sec"))) v /= 1000.0;
      break;
    default:
      break;
  }
  *out = static_cast<float>(v);
  return true;
}

}  // namespace kv

// SoundFont on-disk records and the generator/modulator slot model shared by
// the reader and the writer. Internal to the SoundFont module.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace kv {

struct Articulation;
class Instrument;

namespace sf2 {

// ---- little-endian fields; every record is a byte array, so no padding ----

struct Le16 {
  uint8_t b[2];
  uint16_t get() const { return static_cast<uint16_t>(b[0] | (b[1] << 8)); }
  int16_t sget() const { return static_cast<int16_t>(get()); }
  void set(uint32_t v) {
    b[0] = static_cast<uint8_t>(v);
    b[1] = static_cast<uint8_t>(v >> 8);
  }
};
struct Le32 {
  uint8_t b[4];
  uint32_t get() const { return b[0] | (b[1] << 8) | (b[2] << 16) | (uint32_t{b[3]} << 24); }
  void set(uint32_t v) {
    for (int i = 0; i < 4; ++i) b[i] = static_cast<uint8_t>(v >> (8 * i));
  }
};

struct PhdrRec {
  char name[20];
  Le16 preset, bank, bagIndex;
  Le32 library, genre, morphology;
};
struct BagRec {
  Le16 genIndex, modIndex;
};
struct ModRec {
  Le16 src, dest, amount, amountSrc, transform;
};
struct GenRec {
  Le16 oper, amount;
};
struct InstRec {
  char name[20];
  Le16 bagIndex;
};
struct ShdrRec {
  char name[20];
  Le32 start, end, loopStart, loopEnd, rate;
  uint8_t originalKey;
  int8_t correction;
  Le16 link, type;
};
static_assert(sizeof(PhdrRec) == 38);
static_assert(sizeof(BagRec) == 4);
static_assert(sizeof(ModRec) == 10);
static_assert(sizeof(GenRec) == 4);
static_assert(sizeof(InstRec) == 22);
static_assert(sizeof(ShdrRec) == 46);

// The nine record lists of a bank's pdta, as read or as to be written.
struct PdtaRecords {
  std::vector<PhdrRec> phdr;
  std::vector<BagRec> pbag, ibag;
  std::vector<ModRec> pmod, imod;
  std::vector<GenRec> pgen, igen;
  std::vector<InstRec> inst;
  std::vector<ShdrRec> shdr;
};

// Sample type bits of shdr.
inline constexpr uint16_t kMonoSample = 1;
inline constexpr uint16_t kRightSample = 2;
inline constexpr uint16_t kLeftSample = 4;
inline constexpr uint16_t kLinkedSample = 8;
inline constexpr uint16_t kOggSample = 16;  // compressed banks
inline constexpr uint16_t kRomSample = 0x8000;

// ---- generators ----

enum Gen : int {
  kStartAddrsOffset = 0, kEndAddrsOffset = 1, kStartloopAddrsOffset = 2, kEndloopAddrsOffset = 3,
  kStartAddrsCoarse = 4, kModLfoToPitch = 5, kVibLfoToPitch = 6, kModEnvToPitch = 7,
  kInitialFilterFc = 8, kInitialFilterQ = 9, kModLfoToFilterFc = 10, kModEnvToFilterFc = 11,
  kEndAddrsCoarse = 12, kModLfoToVolume = 13, kChorusSend = 15, kReverbSend = 16, kPan = 17,
  kDelayModLfo = 21, kFreqModLfo = 22, kDelayVibLfo = 23, kFreqVibLfo = 24,
  kDelayModEnv = 25, kAttackModEnv = 26, kHoldModEnv = 27, kDecayModEnv = 28, kSustainModEnv = 29,
  kReleaseModEnv = 30, kKeyToModEnvHold = 31, kKeyToModEnvDecay = 32,
  kDelayVolEnv = 33, kAttackVolEnv = 34, kHoldVolEnv = 35, kDecayVolEnv = 36, kSustainVolEnv = 37,
  kReleaseVolEnv = 38, kKeyToVolEnvHold = 39, kKeyToVolEnvDecay = 40,
  kInstrument = 41, kKeyRange = 43, kVelRange = 44, kStartloopAddrsCoarse = 45, kKeynum = 46,
  kVelocity = 47, kInitialAttenuation = 48, kEndloopAddrsCoarse = 50, kCoarseTune = 51,
  kFineTune = 52, kSampleId = 53, kSampleModes = 54, kScaleTuning = 56, kExclusiveClass = 57,
  kOverridingRootKey = 58,
};
inline constexpr int kGenCount = 60;

// The standard's default of each generator.
int GenDefault(int gen);
// The standard's bounds of each real-time generator (others: the i16 range).
void GenBounds(int gen, int& lo, int& hi);
// Generators that only mean something in an instrument zone.
bool InstrumentOnlyGen(int gen);

// ---- modulator slots ----

// The modulators the model has a row for, each in a fixed slot. "Uni" and
// "Bi" are the source's polarity; velocity to attenuation and to cutoff take
// the standard's negative velocity. ModWheel is CC 1, Pressure the channel
// pressure, Wheel the pitch wheel.
enum Slot : int {
  // Two blocks of kEnvSlotsPerBlock, laid out as below.
  kSlotVolEnv = 0,
  kSlotModEnv = 16,
  kSlotVelToAttenuation = 32,
  kSlotKeyUniToAttenuation = 33,
  kSlotKeyBiToAttenuation = 34,
  kSlotModWheelToAttenuation = 35,
  kSlotPressureToAttenuation = 36,
  kSlotModWheelToModLfoVolume = 37,
  kSlotPressureToModLfoVolume = 38,
  kSlotVelBiToModLfoVolume = 39,
  kSlotWheelToFineTune = 40,
  kSlotModWheelToModLfoPitch = 41,
  kSlotVelBiToModLfoPitch = 42,
  kSlotPressureToModLfoPitch = 43,
  kSlotModWheelToVibLfoPitch = 44,
  kSlotVelBiToVibLfoPitch = 45,
  kSlotPressureToVibLfoPitch = 46,
  kSlotVelUniToModEnvPitch = 47,
  kSlotVelBiToModEnvPitch = 48,
  kSlotVelToCutoff = 49,
  kSlotKeyUniToCutoff = 50,
  kSlotKeyBiToCutoff = 51,
  kSlotModWheelToCutoff = 52,
  kSlotPressureToCutoff = 53,
  kSlotModWheelToModLfoCutoff = 54,
  kSlotPressureToModLfoCutoff = 55,
  kSlotVelBiToModLfoCutoff = 56,
  kSlotVelUniToModEnvCutoff = 57,
  kSlotVelBiToModEnvCutoff = 58,
  kSlotKeyBiToPan = 59,
  kSlotCc10ToPan = 60,
  kSlotCc91ToReverb = 61,
  kSlotCc93ToChorus = 62,
  kSlotVelBiToFilterQ = 63,
  kSlotModWheelToFilterQ = 64,
  kSlotPressureToFilterQ = 65,
};
inline constexpr int kSlotCount = 66;

// An envelope's block of slots: velocity to each EnvSlotStage, key number to
// each EnvSlotKeyStage, unipolar sources first.
inline constexpr int kEnvSlotVelUni = 0;
inline constexpr int kEnvSlotKeyUni = 5;
inline constexpr int kEnvSlotVelBi = 8;
inline constexpr int kEnvSlotKeyBi = 13;
inline constexpr int kEnvSlotsPerBlock = 16;
enum EnvSlotStage : int { kSlotDelay, kSlotAttack, kSlotHold, kSlotDecay, kSlotRelease, kEnvSlotStages };
enum EnvSlotKeyStage : int { kSlotKeyDelay, kSlotKeyAttack, kSlotKeyRelease, kEnvSlotKeyStages };
static_assert(kSlotModEnv == kSlotVolEnv + kEnvSlotsPerBlock &&
                  kSlotVelToAttenuation == kSlotModEnv + kEnvSlotsPerBlock &&
                  kSlotPressureToFilterQ + 1 == kSlotCount && kEnvSlotKeyUni == kEnvSlotVelUni + kEnvSlotStages &&
                  kEnvSlotVelBi == kEnvSlotKeyUni + kEnvSlotKeyStages &&
                  kEnvSlotKeyBi == kEnvSlotVelBi + kEnvSlotStages &&
                  kEnvSlotsPerBlock == kEnvSlotKeyBi + kEnvSlotKeyStages,
              "the slot blocks follow each other");

struct SlotDef {
  uint16_t src;   // low 10 bits of the source: index, CC flag, direction, polarity
  uint16_t dest;  // destination generator
};
// The table: slot -> source and destination; {0, 0} for unused slots.
const std::array<SlotDef, kSlotCount>& SlotTable();
// Slot of a modulator, -1 when it fits none. `amount` is negated when the
// source's direction had to be flipped to match.
int FindSlot(uint16_t src, uint16_t dest, uint16_t amountSrc, int& amount);
// The standard's default value of a slot.
int SlotDefault(int slot);
// The full source word written for a slot (default modulators keep their curve).
uint16_t SlotSourceWord(int slot);

// ---- a zone's values ----

// Generators and modulator slots of one zone, with what was given there.
struct ZoneValues {
  std::array<int32_t, kGenCount> g{};
  std::array<int32_t, kSlotCount> m{};
  uint64_t genSet = 0;
  uint64_t slotSet[2] = {0, 0};

  bool HasGen(int n) const { return (genSet >> n) & 1u; }
  bool HasSlot(int s) const { return (slotSet[s >> 6] >> (s & 63)) & 1u; }
  void SetGen(int n, int32_t v) {
    g[n] = v;
    genSet |= uint64_t{1} << n;
  }
  void SetSlot(int s, int32_t v) {
    m[s] = v;
    slotSet[s >> 6] |= uint64_t{1} << (s & 63);
  }
};

// The standard's defaults: every generator and slot at its default, none set.
ZoneValues DefaultZone();

// Effect types of the instrument's slots that the send rows live in.
inline constexpr uint8_t kFxChorus = 1;
inline constexpr uint8_t kFxReverb = 2;
// Effect slot of the given type on the instrument, made in the first empty
// slot when there is none; -1 when all four are taken. Shared with the DLS
// reader.
int EffectSlot(Instrument& instrument, uint8_t type);

// Effect slots of the instrument that the send generators go into; -1: none.
struct SendSlots {
  int reverb = -1;
  int chorus = -1;
};

// Converts summed generator values into articulation rows. Rows that depend
// on something set in `touched` are stored through the setter; with
// `baseline` every row that differs from the model's default is stored.
void GensToArticulation(const ZoneValues& sum, const ZoneValues& touched, bool baseline,
                        const SendSlots& sends, Articulation& out);

// The inverse: the generator values and slots a merged articulation record
// needs. The record is folded and reduced to the SoundFont's abilities first
// (on a copy) by the SoundFont 2.01 parameter set within `features`.
ZoneValues ArticulationToGens(const Articulation& merged, const SendSlots& sends, uint64_t features);

// Timecents <-> seconds, with the reader's rounding and the writer's bounds.
double TimecentsToSeconds(int32_t t);
int32_t SecondsToTimecents(double seconds, int gen);
// Absolute cents <-> Hz.
double CentsToHz(int32_t cents);
int32_t HzToCents(double hz);

// Half away from zero.
int32_t RoundHalfAway(double v);

}  // namespace sf2
}  // namespace kv

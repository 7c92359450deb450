// A sounding voice: the head every kind shares, then the kind's own state,
// all in one record of the engine's voice array. Kinds are rows of a table
// (init, render, record size); the array is compacted by moving only the
// bytes a kind uses.
#pragma once

#include <cstddef>
#include <cstdint>

#include "synth/synth_types.h"

namespace kv {

inline constexpr std::size_t kVoiceRecordSize = 1280;
inline constexpr uint32_t kNoVoice = 0xFFFFFFFFu;

struct SynthVoice {
  VoiceKindId kind = VoiceKindId::Wave;
  uint16_t recordSize = 0;
  uint16_t channel = 0;
  ItemId zoneId = kNoItem;
  const SynthZone* zone = nullptr;
  uint32_t group = 0;        // NoteGroup index
  uint32_t nextInGroup = kNoVoice;
  float key = 60.0f;
  float velocity = 0.0f;     // velocity / 127
  float bendRange = 2.0f;    // semitones
  uint16_t exclusionGroup = 0;
  uint8_t exclusionMode = 0;
  float delay = 0.0f;        // seconds
  // What the channel drives, kept up to date by the engine.
  float pitchOffset = 0.0f;  // semitones
  float modulation = 0.0f;
  float bend = 0.0f;         // -1..1
  float pressure = 0.0f;
  bool keyReleased = false;
  bool shutdown = false;
  bool soft = false;
  bool held = false;
  float pan = 0.0f;
  float cc10ToPan = 1.0f;
  float sendLevel[4] = {};
  float sendDepth[4] = {};
  float livePan = 0.0f;      // the kind's pan movement (LFO, key)
  float amplitude = 1.0f;    // the kind's live amplitude
  float lastGain = 0.0f;     // amplitude * crossfade of the last block, for stealing
  bool stereo = false;
  float crossfade = 1.0f;
  float gainLeft = 0.0f, gainRight = 0.0f;  // of the block rendered last
  bool started = false;      // gains of a first block jump instead of ramping
};

struct alignas(16) VoiceRecord {
  SynthVoice head;
  alignas(16) unsigned char state[kVoiceRecordSize - ((sizeof(SynthVoice) + 15) / 16) * 16];
};
static_assert(sizeof(VoiceRecord) == kVoiceRecordSize, "a voice record is 1280 bytes");

// The kind's own state, in the record after the head.
template <typename State>
State& VoiceState(VoiceRecord& record) {
  static_assert(sizeof(State) <= sizeof(record.state), "kind state fits the record");
  return *reinterpret_cast<State*>(record.state);
}
inline constexpr uint16_t VoiceRecordBytes(std::size_t stateBytes) {
  return static_cast<uint16_t>(offsetof(VoiceRecord, state) + stateBytes);
}

struct VoiceKind {
  uint16_t recordSize = 0;  // head and state, at most kVoiceRecordSize
  // A new note, or (update) the same voice given the zone of a replaced
  // instrument, which keeps its position. Sets head.amplitude for the first
  // block, so a note does not fade in from silence.
  void (*init)(VoiceRecord& voice, const SynthZone& zone, float sampleRate, bool update) = nullptr;
  // 64 frames into `block` (128 floats, left and right interleaved); a mono
  // kind writes both sides alike. Sets head.amplitude and head.livePan.
  // False once the voice has died.
  bool (*render)(VoiceRecord& voice, float* block, float sampleRate) = nullptr;
};

// The kind table. Rows without init make no voice. Set a row only while no
// engine renders (tests put their own kinds in).
void SetVoiceKind(VoiceKindId id, const VoiceKind& kind);
const VoiceKind& GetVoiceKind(VoiceKindId id);
// Back to the built-in kinds: the sample voice for Wave zones, nothing else.
void ResetVoiceKinds();

}  // namespace kv

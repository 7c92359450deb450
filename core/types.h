// Ids, item types and the small shared vocabulary of the model.
#pragma once

#include <cstdint>

namespace kv {

// Bits 31-29 the ItemType, bits 28-0 a serial. Items refer to each other by id only.
using ItemId = uint32_t;

inline constexpr ItemId kNoItem = 0xFFFFFFFFu;
inline constexpr uint32_t kSerialMask = 0x1FFFFFFFu;
inline constexpr uint32_t kAllocateSerial = 0x1FFFFFFFu;  // in a create request
inline constexpr ItemId kNoWave = 0x1FFFFFFEu;             // AddRegion: no waveform

enum class ItemType : uint8_t {
  Waveform = 0,
  SynthModel = 1,
  Region = 2,
  Layer = 3,
  Instrument = 4,
  Track = 5,
  Song = 6,
  Collection = 7,
};
inline constexpr int kItemTypeCount = 8;

constexpr uint32_t TypeBit(ItemType t) { return 1u << static_cast<unsigned>(t); }
constexpr ItemType TypeOf(ItemId id) { return static_cast<ItemType>(id >> 29); }
constexpr uint32_t SerialOf(ItemId id) { return id & kSerialMask; }
constexpr ItemId MakeId(ItemType t, uint32_t serial) {
  return (static_cast<uint32_t>(t) << 29) | (serial & kSerialMask);
}

// Selection masks named by the commands that use them.
inline constexpr uint32_t kMaskLayerInstrument = 24;
inline constexpr uint32_t kMaskTrackSong = 96;
inline constexpr uint32_t kMaskSynthTargets = 156;

// Lengths of the text fields, in bytes, without the terminating nul.
inline constexpr int kNameLength = 128;
inline constexpr int kPathLength = 260;

}  // namespace kv

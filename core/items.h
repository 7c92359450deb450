// The collection item model: eight item types that refer to each other by id,
// owned by one Collection that maps ids to items.
//
// Ownership: an item joins its Collection's map in its constructor and leaves
// it in its destructor, so no item exists outside a Collection. Items are
// created with Create<T>() and deleted with DeleteItem(); the Collection frees
// what is left when it goes.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/articulation.h"
#include "core/item_arena.h"
#include "core/types.h"

namespace kv {

class Collection;
class FileRef;
class Waveform;
struct ParameterRow;

// Child list: 16 ids in place, doubling on the heap past that.
class ChildList {
 public:
  ChildList() = default;
  ChildList(const ChildList& other) { *this = other; }
  ChildList& operator=(const ChildList& other);

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  ItemId* begin() { return data(); }
  ItemId* end() { return data() + size_; }
  const ItemId* begin() const { return data(); }
  const ItemId* end() const { return data() + size_; }
  ItemId& operator[](std::size_t i) { return data()[i]; }
  ItemId operator[](std::size_t i) const { return data()[i]; }

  void push_back(ItemId id);
  void erase(std::size_t index);
  void insert(std::size_t index, ItemId id);
  // Removes every entry equal to id; true if one was there.
  bool remove(ItemId id);
  void clear() { size_ = 0; }
  std::vector<ItemId> snapshot() const { return {begin(), end()}; }

 private:
  static constexpr std::size_t kInline = 16;
  ItemId* data() { return heap_ ? heap_.get() : inline_; }
  const ItemId* data() const { return heap_ ? heap_.get() : inline_; }
  void grow();

  ItemId inline_[kInline] = {};
  std::unique_ptr<ItemId[]> heap_;
  std::size_t size_ = 0;
  std::size_t capacity_ = kInline;
};

// Text encodings of SetName.
enum class TextEncoding : int {
  Utf8 = 0,     // the program's own text
  Foreign = 1,  // 8-bit text from a file: UTF-8 when valid, else Windows-1252
  Utf16 = 2,    // UTF-16 little-endian code units
};

class Item {
 public:
  Item(const Item&) = delete;
  Item& operator=(const Item&) = delete;

  ItemType Type() const { return TypeOf(id); }

  // The 18 virtual operations, in slot order.
  virtual ~Item();                                                          // 0
  virtual std::size_t Serialize(std::vector<uint8_t>& out) const;           // 1
  virtual std::size_t Deserialize(std::span<const uint8_t> in);             // 2
  virtual std::size_t SerializedSize() const;                               // 3
  virtual void FixUp();                                                     // 4
  virtual bool EnsureData();                                                // 5
  virtual void SetName(const char* text, std::size_t length, TextEncoding encoding);  // 6
  virtual bool NeedsSynthesis() const;                                      // 7
  virtual bool HasContent() const;                                          // 8
  virtual bool IsParamSet(int parameter) const;                             // 9
  virtual float GetParam(int parameter) const;                              // 10
  virtual void SetParam(int parameter, float value);                        // 11
  virtual void ResetParam(int parameter);                                   // 12
  virtual float GetParamDefault(int parameter) const;                       // 13
  virtual const ParameterRow* GetParamDescriptor(int parameter) const;      // 14
  virtual void SetParamText(int parameter, std::string_view text);          // 15
  virtual std::string GetParamText(int parameter) const;                    // 16
  virtual std::filesystem::path GetSourcePath() const;                      // 17

  void SetName(std::string_view text) { SetName(text.data(), text.size(), TextEncoding::Utf8); }
  std::string_view Name() const { return name; }

  // Items are carved from the item arena (see item_arena.h).
  static void* operator new(std::size_t size) { return AllocateItemMemory(size); }
  static void operator delete(void* block, std::size_t size) noexcept { FreeItemMemory(block, size); }

  ItemId id = kNoItem;
  ItemId parentId = kNoItem;
  char name[kNameLength + 1] = {};
  Collection* collection = nullptr;
  ChildList children;

 protected:
  // Adds the type bits, allocates the serial if asked, names the item and
  // enters it in the collection's map.
  Item(Collection& owner, ItemType type, uint32_t serial, const char* name);
  // Field copy for clones; the new item gets its own id in `owner`.
  Item(Collection& owner, const Item& source, const char* name);

  void SerializeBase(std::vector<uint8_t>& out) const;
  std::size_t DeserializeBase(std::span<const uint8_t> in);
  // Default name when SetName is called with no text.
  std::string DefaultName() const;
};

// The trigger block shared by Layer and Region. Parameter numbers 189-203;
// bit (parameter - 189) of setMask marks a value set at this level.
struct TriggerRecord {
  uint8_t loKey = 0;          // 190
  uint8_t hiKey = 127;        // 191
  uint8_t loVel = 0;          // 192
  uint8_t hiVel = 127;        // 193
  uint8_t keyFadeIn = 0;      // 194
  uint8_t keyFadeOut = 0;     // 195
  uint8_t velFadeIn = 0;      // 197
  uint8_t velFadeOut = 0;     // 198
  uint8_t keyFadeFormula = 0; // 196
  uint8_t velFadeFormula = 0; // 199
  uint8_t triggerType = 0;    // 189
  uint8_t sustainSwitch = 0;  // 200
  uint16_t exclusionGroup = 0;// 202
  uint8_t noteExclusion = 0;  // 203
  uint8_t pad = 0;
  float delay = 0.0f;         // 201
  uint64_t setMask = 0;

  static constexpr int kFirst = kRowTriggerType;
  static constexpr int kLast = kRowNoteExclusion;
  bool IsSet(int parameter) const { return (setMask >> (parameter - kFirst)) & 1u; }
  void MarkSet(int parameter) { setMask |= uint64_t{1} << (parameter - kFirst); }
  void MarkUnset(int parameter) { setMask &= ~(uint64_t{1} << (parameter - kFirst)); }
  float Get(int parameter) const;
  // Stores without range checks; callers clamp.
  void Put(int parameter, float value);
  // Copies every field not set here from `parent`.
  void RefreshFrom(const TriggerRecord& parent);
  // Clears fields whose feature group is off in `features`.
  void ApplyFeatures(uint64_t features);
  bool SameRanges(const TriggerRecord& o) const;
};

// Region wave-override bits.
enum : uint8_t {
  kOverrideRootKey = 1,
  kOverrideLoopType = 2,
  kOverrideLoopRelease = 4,
  kOverrideLoopStart = 8,
  kOverrideLoopEnd = 16,
  kOverrideLoopPitch = 32,
};

inline constexpr float kLoopEndDefault = 4294967296.0f;

class SynthModel final : public Item {
 public:
  SynthModel(Collection& owner, uint32_t serial, const char* name);
  SynthModel(Collection& owner, const SynthModel& source, const char* name);

  std::size_t Serialize(std::vector<uint8_t>& out) const override;
  std::size_t Deserialize(std::span<const uint8_t> in) override;
  std::size_t SerializedSize() const override;
  bool HasContent() const override { return !children.empty(); }

  // Kind 0: FM-type record (824 bytes); 1: LA-type (760 bytes, two partials
  // that may reference waveforms); 2: no record.
  uint32_t kind = 2;
  std::vector<uint8_t> record;

  // An LA-type record holds two partials of 380 bytes; each starts with a u32
  // flag word (bit 0: uses a waveform) and a u32 waveform serial.
  static constexpr std::size_t kLaPartialSize = 380;
  template <typename Fn>
  void ForEachWaveRef(Fn&& fn);
};

class Region final : public Item {
 public:
  Region(Collection& owner, uint32_t serial, const char* name);
  Region(Collection& owner, const Region& source, const char* name);
  ~Region() override;

  std::size_t Serialize(std::vector<uint8_t>& out) const override;
  std::size_t Deserialize(std::span<const uint8_t> in) override;
  std::size_t SerializedSize() const override;
  void FixUp() override;
  bool NeedsSynthesis() const override;
  bool HasContent() const override;
  bool IsParamSet(int parameter) const override;
  float GetParam(int parameter) const override;
  void SetParam(int parameter, float value) override;
  void ResetParam(int parameter) override;

  // Rebuilds the name from ranges and the waveform's or model's name.
  void RebuildName();

  TriggerRecord trigger;
  uint16_t phaseGroup = 0;     // 223
  uint8_t phaseMaster = 0;     // 224
  uint8_t overrideMask = 0;
  uint8_t rootKey = 60;        // 220
  uint8_t loopType = 0;        // 204
  uint8_t loopRelease = 0;     // 205
  float loopStart = 0.0f;      // 206
  float loopEnd = kLoopEndDefault;  // 207
  float loopPitch = 0.0f;      // 208
  int32_t startOffset = 0;     // 221
  int32_t endOffset = 0;       // 222
  Articulation art;
};

class Layer final : public Item {
 public:
  Layer(Collection& owner, uint32_t serial, const char* name);
  Layer(Collection& owner, const Layer& source, const char* name);
  ~Layer() override;

  std::size_t Serialize(std::vector<uint8_t>& out) const override;
  std::size_t Deserialize(std::span<const uint8_t> in) override;
  std::size_t SerializedSize() const override;
  void FixUp() override { FixUpLevel(true); }
  // FixUp; without refreshRegions the regions' articulation is left for
  // their own FixUp, which a whole-tree fix-up runs next anyway. With
  // `deferredDeletes`, a region hidden by the one before it only leaves the
  // child list and its id goes there for the caller to delete: fix-ups that
  // run side by side must not change the collection's map.
  void FixUpLevel(bool refreshRegions, std::vector<ItemId>* deferredDeletes = nullptr);
  bool NeedsSynthesis() const override;
  bool HasContent() const override;
  bool IsParamSet(int parameter) const override;
  float GetParam(int parameter) const override;
  void SetParam(int parameter, float value) override;
  void ResetParam(int parameter) override;

  TriggerRecord trigger;
  Articulation art;
  uint8_t drum = 0;  // copy of the instrument's drum bit
};

// One channel effect unit: parameters 229 + 8 * unit (type) and the seven after.
struct ChannelFx {
  uint8_t type = 0;
  float param[7] = {};
};

// Location word: bits 0-6 program, 7-13 minor bank, 14-20 major bank, 21 drum.
constexpr uint32_t MakeLocation(uint32_t majorBank, uint32_t minorBank, uint32_t program, bool drum) {
  return (program & 0x7F) | ((minorBank & 0x7F) << 7) | ((majorBank & 0x7F) << 14) | (drum ? (1u << 21) : 0u);
}
constexpr uint32_t LocationProgram(uint32_t loc) { return loc & 0x7F; }
constexpr uint32_t LocationMinorBank(uint32_t loc) { return (loc >> 7) & 0x7F; }
constexpr uint32_t LocationMajorBank(uint32_t loc) { return (loc >> 14) & 0x7F; }
constexpr bool LocationIsDrum(uint32_t loc) { return (loc >> 21) & 1u; }
inline constexpr uint32_t kLocationMask = 0x3FFFFF;

class Instrument final : public Item {
 public:
  Instrument(Collection& owner, uint32_t serial, const char* name);
  Instrument(Collection& owner, const Instrument& source, const char* name);
  ~Instrument() override;

  std::size_t Serialize(std::vector<uint8_t>& out) const override;
  std::size_t Deserialize(std::span<const uint8_t> in) override;
  std::size_t SerializedSize() const override;
  void FixUp() override { FixUpLevel(true); }
  // FixUp; without refreshRegions only the layers inherit, as for Layer.
  void FixUpLevel(bool refreshRegions);
  bool NeedsSynthesis() const override;
  bool HasContent() const override;
  bool IsParamSet(int parameter) const override;
  float GetParam(int parameter) const override;
  void SetParam(int parameter, float value) override;
  void ResetParam(int parameter) override;
  void SetParamText(int parameter, std::string_view text) override;
  std::string GetParamText(int parameter) const override;
  std::filesystem::path GetSourcePath() const override;

  uint32_t location = 0;
  Articulation art;
  ChannelFx fx[4];
  char comment[256] = {};
  std::filesystem::path sourcePath;
  // Articulation entries of the source file (DLS connection blocks) that no
  // parameter of the model holds: what a reader could not keep, so that
  // listings can say so. Not part of the saved record.
  uint32_t unreadArticulation = 0;
};

// Decodes a wave's data from its source file. Entered with the file open and
// positioned at the wave's file offset (or not open for a "<" virtual source).
using WaveReadCallback = bool (*)(Waveform& wave, FileRef& file);

class Waveform final : public Item {
 public:
  Waveform(Collection& owner, uint32_t serial, const char* name);
  // Clone; with withData the sample buffer in use is duplicated, otherwise the
  // clone reads lazily from the same source.
  Waveform(Collection& owner, const Waveform& source, const char* name, bool withData);

  std::size_t Serialize(std::vector<uint8_t>& out) const override;
  std::size_t Deserialize(std::span<const uint8_t> in) override;
  std::size_t SerializedSize() const override;
  void FixUp() override;
  bool EnsureData() override;
  bool HasContent() const override;
  bool IsParamSet(int parameter) const override;
  float GetParam(int parameter) const override;
  void SetParam(int parameter, float value) override;
  void ResetParam(int parameter) override;
  void SetParamText(int parameter, std::string_view text) override;
  std::string GetParamText(int parameter) const override;
  std::filesystem::path GetSourcePath() const override { return sourcePath; }

  bool HasData() const { return samples16 || samplesF; }
  uint64_t SampleCount() const { return uint64_t{length} * channels; }

  char artist[129] = {};
  char engineer[129] = {};
  char comment[256] = {};
  char copyright[129] = {};
  char product[129] = {};
  uint32_t length = 0;          // frames
  uint32_t sampleRate = 22050;  // 215
  uint8_t bits = 0;
  uint8_t channels = 1;
  uint8_t rootKey = 60;         // 216
  int8_t fineTune = 0;          // 217, cents
  float volume = 0.0f;          // 218, dB
  uint8_t loopType = 0;         // 204
  uint8_t loopRelease = 0;      // 205
  float loopStart = 0.0f;       // 206
  float loopEnd = kLoopEndDefault;  // 207, first frame after the loop
  float loopPitch = 0.0f;       // 208
  uint8_t preferredFormat = 21; // 219, index into the preferred-format list
  uint64_t fileOffset = 0;
  // How the samples lie in the source: the generic reader's word (see
  // SetGenericFormat), and where the parts of a split source begin. Each
  // position is 0 when the source has no such part.
  uint32_t sourceFormat = 0;
  uint64_t secondChannelOffset = 0;  // sequential stereo: the right channel's first byte
  uint64_t codingChunkOffset = 0;    // compressed codings: the chunk that names the coding (WAV fmt, AIFC COMM type)
  uint64_t lowBytesOffset = 0;       // 24-bit SoundFont samples: their low bytes (sm24)
  uint64_t dataEnd = 0;              // compressed SoundFont samples: the end of the sample's block
  WaveReadCallback readCallback = nullptr;
  std::filesystem::path sourcePath;
  std::unique_ptr<int16_t[]> samples16;
  std::unique_ptr<float[]> samplesF;
};

class Track final : public Item {
 public:
  Track(Collection& owner, uint32_t serial, const char* name);
  Track(Collection& owner, const Track& source, const char* name);
  ~Track() override;

  std::size_t Serialize(std::vector<uint8_t>& out) const override;
  std::size_t Deserialize(std::span<const uint8_t> in) override;
  std::size_t SerializedSize() const override;

  // Sets the raw track bytes and recounts the events.
  void SetEvents(std::vector<uint8_t> data);
  const std::vector<uint8_t>& Events() const { return events_; }
  uint32_t EventCount() const { return eventCount_; }

  uint8_t channelGroup = 0;     // meta 0x21 at tick 0: which group of 16 channels plays the track
  uint16_t sequenceNumber = 0;  // meta 0x00 at tick 0, or the chunk's index in a format 2 file

 private:
  std::vector<uint8_t> events_;
  uint32_t eventCount_ = 0;
};


class Song final : public Item {
 public:
  Song(Collection& owner, uint32_t serial, const char* name);
  Song(Collection& owner, const Song& source, const char* name);
  ~Song() override;

  std::size_t Serialize(std::vector<uint8_t>& out) const override;
  std::size_t Deserialize(std::span<const uint8_t> in) override;
  std::size_t SerializedSize() const override;
  void FixUp() override;
  void SetParamText(int parameter, std::string_view text) override;
  std::string GetParamText(int parameter) const override;
  std::filesystem::path GetSourcePath() const override;

  uint16_t format = 1;
  uint16_t division = 24;
  char artist[129] = {};
  char comment[256] = {};
  char copyright[129] = {};
  char engineer[129] = {};
  char product[129] = {};
  std::filesystem::path sourcePath;
};

// A hash map from ItemId to item, FNV-1a over the id's four bytes (low byte
// first), 8 buckets at start, doubling at a load factor of 1. Nodes also form
// a list in insertion order, which is the "item list" order walks use.
// Nodes live in one array and link by index, so a look-up touches two small
// arrays instead of chasing heap pointers.
class ItemMap {
 public:
  ItemMap();
  ~ItemMap();
  ItemMap(const ItemMap&) = delete;
  ItemMap& operator=(const ItemMap&) = delete;

  static uint64_t Hash(ItemId id);

  // Bucket heads are read and published atomically: while a bank loads,
  // other threads look up finished instruments' items as the reader inserts.
  Item* Find(ItemId id) const {
    const Node* nodes = nodes_.data();
    uint32_t& head = const_cast<uint32_t&>(buckets_[Hash(id) & (buckets_.size() - 1)]);
    for (uint32_t n = std::atomic_ref<uint32_t>(head).load(std::memory_order_acquire); n != kNil;
         n = nodes[n].bucketNext)
      if (nodes[n].id == id) return nodes[n].item;
    return nullptr;
  }
  void Insert(ItemId id, Item* item);
  bool Erase(ItemId id);
  void Clear();
  // Room for `more` items beyond those held: inserting that many neither
  // moves the node array nor rehashes, so look-ups on other threads may go
  // on meanwhile. Anything else that would move or unlink nodes (growing
  // further, erasing, clearing) first calls the guard, once, which must see
  // to it that no other thread is looking up.
  void Reserve(std::size_t more);
  void SetGuard(void (*guard)(void* context), void* context) {
    guard_ = guard;
    guardContext_ = context;
  }
  std::size_t Size() const { return size_; }
  std::size_t BucketCount() const { return buckets_.size(); }
  // No id of the type with a higher serial than this was ever inserted
  // since the last Clear, so a higher one is certainly free.
  uint32_t TopSerial(ItemType type) const { return topSerial_[static_cast<int>(type)]; }
  // Items in list order; a copy, so callers may change the map as they go.
  std::vector<Item*> Snapshot() const;

  template <typename Fn>
  void ForEach(Fn&& fn) const {
    for (uint32_t n = head_; n != kNil; n = nodes_[n].next) fn(nodes_[n].item);
  }
  // The same walk with each id, which tells the type without touching the item.
  template <typename Fn>
  void ForEachEntry(Fn&& fn) const {
    for (uint32_t n = head_; n != kNil; n = nodes_[n].next) fn(nodes_[n].id, nodes_[n].item);
  }

 private:
  static constexpr uint32_t kNil = 0xFFFFFFFFu;
  struct Node {
    ItemId id;
    uint32_t bucketNext;  // next in the bucket's chain; on the free list, the next free node
    Item* item;
    uint32_t prev;
    uint32_t next;
  };
  void Rehash(std::size_t buckets);
  void Guard() {
    if (!guard_) return;
    auto* guard = guard_;
    guard_ = nullptr;
    guard(guardContext_);
  }

  std::vector<Node> nodes_;
  std::vector<uint32_t> buckets_;
  uint32_t head_ = kNil;
  uint32_t tail_ = kNil;
  uint32_t free_ = kNil;
  std::size_t size_ = 0;
  uint32_t topSerial_[kItemTypeCount] = {};
  void (*guard_)(void*) = nullptr;
  void* guardContext_ = nullptr;
};

class Collection final : public Item {
 public:
  Collection();
  ~Collection() override;

  std::size_t Serialize(std::vector<uint8_t>& out) const override;
  std::size_t Deserialize(std::span<const uint8_t> in) override;
  std::size_t SerializedSize() const override;
  void FixUp() override;
  bool EnsureData() override;
  bool NeedsSynthesis() const override;
  bool HasContent() const override;
  void SetParamText(int parameter, std::string_view text) override;
  std::string GetParamText(int parameter) const override;
  std::filesystem::path GetSourcePath() const override { return sourcePath; }

  // Any id; 0xFFFFFFFF gives null. Typed lookups go through the owner of the
  // type, so a scratch collection can borrow another one's waveforms.
  Item* Find(ItemId id) const;
  template <typename T>
  T* FindAs(ItemId id) const;
  Waveform* FindWave(ItemId id) const { return FindAs<Waveform>(id); }

  uint32_t Count(ItemType t) const { return counts[static_cast<int>(t)]; }
  // Items of one type in list order.
  std::vector<Item*> ItemsOf(ItemType t) const;
  template <typename T>
  std::vector<T*> All() const;

  // Deletes songs, instruments and waveforms (the rest go with their owners)
  // and resets the collection's own fields.
  void Clear();

  const ItemMap& Map() const { return map_; }
  // See ItemMap::Reserve and ItemMap::SetGuard.
  void ReserveItems(std::size_t more) { map_.Reserve(more); }
  void SetMapGuard(void (*guard)(void*), void* context) { map_.SetGuard(guard, context); }

  uint32_t counts[kItemTypeCount] = {};
  char engineer[129] = {};
  char copyright[129] = {};
  char comment[4096] = {};
  std::filesystem::path sourcePath;
  int32_t formatIndex = -1;
  // Where items of each type are looked up and created, by ItemType.
  Collection* owners[kItemTypeCount] = {};

 private:
  friend class Item;
  friend bool MergeCollections(Collection& destination, Collection& source);
  void DeleteRemaining();
  ItemMap map_;
};

// ---- creation and deletion ----

// Creates an item of type T in the owner collection of its type. serial
// kAllocateSerial allocates one; name null gives the default name.
template <typename T>
T* Create(Collection& c, const char* name = nullptr, uint32_t serial = kAllocateSerial);

// Deletes an item: unlinks it from its parent, deletes its children last to
// first, leaves the map. A deleted Waveform leaves stale ids in regions.
void DeleteItem(Item* item);

// The process-wide last serial per type (ids of a scratch collection and the
// main one don't collide).
uint32_t LastSerial(ItemType t);
void ResetNameCounters();

// ---- structure ----

void AddChild(Item& parent, ItemId child);
void MoveChild(Item& parent, std::size_t toIndex, std::size_t fromIndex);

// A key or velocity range packs low in the low byte, high in the high byte;
// 0xFF in either byte means "not given".
constexpr uint16_t MakeRange(uint8_t lo, uint8_t hi) { return static_cast<uint16_t>(lo | (hi << 8)); }
inline constexpr uint16_t kNoRange = 0xFFFF;

Layer* AddLayer(Instrument& instrument);
Region* AddRegion(Layer& layer, ItemId waveId, uint16_t keyRange, uint16_t velocityRange, uint8_t rootKey);

Waveform* RegionWaveform(const Region& region);
SynthModel* RegionSynth(const Region& region);
void SetRegionWaveform(Region& region, ItemId waveId);
Instrument* InstrumentOf(const Layer& layer);
Layer* LayerOf(const Region& region);

Region* RegionAt(const Layer& layer, int key, int velocity);
uint16_t FindFreeKeyRange(Layer& layer, int key, std::span<Region* const> newRegions = {});
void ClipRegions(Layer& layer, uint16_t keyRange, uint16_t velocityRange, Region* newRegion);

// ---- names ----

// "%d", or a note name with the octave of middle C from the settings. The
// result stays valid for three more calls.
const char* NoteName(int key);
void MakeUniqueName(Item& item);
// MakeUniqueName on every item of a type, in list order.
void MakeUniqueNames(Collection& c, ItemType type);

// ---- copies and merges ----

Item* CloneItem(const Item& source, Collection& into, const char* name = nullptr, bool withData = false);
bool MergeCollections(Collection& destination, Collection& source);

// The instruments (and optionally waveforms) a writer works on. Instruments
// made for a lone layer, region, model or waveform are temporary and deleted
// with the set.
class ItemSet {
 public:
  ItemSet(Item& source, bool withWaveforms);
  ~ItemSet();
  ItemSet(const ItemSet&) = delete;
  ItemSet& operator=(const ItemSet&) = delete;

  std::vector<Instrument*> instruments;
  std::vector<Waveform*> waveforms;

 private:
  Collection* collection_ = nullptr;
  std::vector<ItemId> temporary_;
};

// ---- templates ----

// The ItemType of each item class; the type bits of an id name its class, so
// a typed lookup needs no run-time type check beyond them.
template <typename T>
constexpr ItemType kTypeOf = [] {
  if constexpr (std::is_same_v<T, Waveform>) return ItemType::Waveform;
  else if constexpr (std::is_same_v<T, SynthModel>) return ItemType::SynthModel;
  else if constexpr (std::is_same_v<T, Region>) return ItemType::Region;
  else if constexpr (std::is_same_v<T, Layer>) return ItemType::Layer;
  else if constexpr (std::is_same_v<T, Instrument>) return ItemType::Instrument;
  else if constexpr (std::is_same_v<T, Track>) return ItemType::Track;
  else if constexpr (std::is_same_v<T, Song>) return ItemType::Song;
  else return ItemType::Collection;
}();

inline Item* Collection::Find(ItemId itemId) const {
  if (itemId == kNoItem) return nullptr;
  const Collection* owner = owners[static_cast<int>(TypeOf(itemId))];
  if (!owner) owner = this;
  return owner->map_.Find(itemId);
}

template <typename T>
T* Collection::FindAs(ItemId id) const {
  if (id == kNoItem || TypeOf(id) != kTypeOf<T>) return nullptr;
  Item* item = Find(id);
  return item && item->Type() == kTypeOf<T> ? static_cast<T*>(item) : nullptr;
}

template <typename T>
std::vector<T*> Collection::All() const {
  std::vector<T*> out;
  out.reserve(counts[static_cast<int>(kTypeOf<T>)]);
  map_.ForEachEntry([&](ItemId id, Item* item) {
    if (TypeOf(id) == kTypeOf<T>) out.push_back(static_cast<T*>(item));
  });
  return out;
}

template <typename T>
T* Create(Collection& c, const char* name, uint32_t serial) {
  constexpr ItemType type = kTypeOf<T>;
  Collection& owner = *c.owners[static_cast<int>(type)];
  return new T(owner, serial, name);  // owned by the collection's map
}

template <typename Fn>
void SynthModel::ForEachWaveRef(Fn&& fn) {
  if (kind != 1 || record.size() < 2 * kLaPartialSize) return;
  for (std::size_t p = 0; p < 2; ++p) {
    uint8_t* base = record.data() + p * kLaPartialSize;
    uint32_t flags = base[0] | (base[1] << 8) | (base[2] << 16) | (uint32_t{base[3]} << 24);
    if (!(flags & 1u)) continue;
    uint32_t serial = base[4] | (base[5] << 8) | (base[6] << 16) | (uint32_t{base[7]} << 24);
    serial = fn(serial);
    for (int b = 0; b < 4; ++b) base[4 + b] = static_cast<uint8_t>(serial >> (8 * b));
  }
}

}  // namespace kv

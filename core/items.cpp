// Item base, the id map, creation, deletion, flat records, clones and merges.
#include "core/items.h"

#include <algorithm>
#include <cstring>
#include <unordered_map>

#include "core/fileref.h"
#include "core/text.h"

namespace kv {

// ---------------------------------------------------------------- ChildList

ChildList& ChildList::operator=(const ChildList& other) {
  if (this == &other) return *this;
  size_ = 0;
  for (ItemId id : other) push_back(id);
  return *this;
}

void ChildList::grow() {
  std::size_t cap = capacity_ * 2;
  auto heap = std::make_unique<ItemId[]>(cap);
  std::copy(begin(), end(), heap.get());
  heap_ = std::move(heap);
  capacity_ = cap;
}

void ChildList::push_back(ItemId id) {
  if (size_ == capacity_) grow();
  data()[size_++] = id;
}

void ChildList::erase(std::size_t index) {
  if (index >= size_) return;
  ItemId* d = data();
  std::copy(d + index + 1, d + size_, d + index);
  --size_;
}

void ChildList::insert(std::size_t index, ItemId id) {
  if (index > size_) index = size_;
  if (size_ == capacity_) grow();
  ItemId* d = data();
  std::copy_backward(d + index, d + size_, d + size_ + 1);
  d[index] = id;
  ++size_;
}

bool ChildList::remove(ItemId id) {
  ItemId* d = data();
  std::size_t out = 0;
  for (std::size_t i = 0; i < size_; ++i)
    if (d[i] != id) d[out++] = d[i];
  bool removed = out != size_;
  size_ = out;
  return removed;
}

// ---------------------------------------------------------------- ItemMap

ItemMap::ItemMap() : buckets_(8, kNil) {}

ItemMap::~ItemMap() { Clear(); }

uint64_t ItemMap::Hash(ItemId id) {
  // Written out: every lookup hashes, and -O2 leaves the loop rolled.
  constexpr uint64_t kPrime = 0x100000001B3ull;
  uint64_t h = 0xCBF29CE484222325ull;
  h = (h ^ (id & 0xFFu)) * kPrime;
  h = (h ^ ((id >> 8) & 0xFFu)) * kPrime;
  h = (h ^ ((id >> 16) & 0xFFu)) * kPrime;
  h = (h ^ (id >> 24)) * kPrime;
  return h;
}

void ItemMap::Insert(ItemId id, Item* item) {
  const bool rehash = size_ + 1 > buckets_.size();
  if (rehash || (free_ == kNil && nodes_.size() == nodes_.capacity())) Guard();
  if (rehash) Rehash(buckets_.size() * 2);
  uint32_t n;
  if (free_ != kNil) {
    n = free_;
    free_ = nodes_[n].bucketNext;
  } else {
    n = static_cast<uint32_t>(nodes_.size());
    nodes_.emplace_back();
  }
  uint32_t& bucket = buckets_[Hash(id) & (buckets_.size() - 1)];
  nodes_[n] = Node{id, bucket, item, tail_, kNil};
  std::atomic_ref<uint32_t>(bucket).store(n, std::memory_order_release);
  uint32_t& top = topSerial_[static_cast<int>(TypeOf(id))];
  top = std::max(top, SerialOf(id));
  if (tail_ != kNil) nodes_[tail_].next = n; else head_ = n;
  tail_ = n;
  ++size_;
}

bool ItemMap::Erase(ItemId id) {
  Guard();
  uint32_t* link = &buckets_[Hash(id) & (buckets_.size() - 1)];
  while (*link != kNil && nodes_[*link].id != id) link = &nodes_[*link].bucketNext;
  const uint32_t n = *link;
  if (n == kNil) return false;
  Node& node = nodes_[n];
  *link = node.bucketNext;
  if (node.prev != kNil) nodes_[node.prev].next = node.next; else head_ = node.next;
  if (node.next != kNil) nodes_[node.next].prev = node.prev; else tail_ = node.prev;
  node = Node{kNoItem, free_, nullptr, kNil, kNil};
  free_ = n;
  if (--size_ == 0) Clear();  // start the node array afresh
  return true;
}

void ItemMap::Clear() {
  Guard();
  nodes_.clear();
  std::fill(std::begin(topSerial_), std::end(topSerial_), 0u);
  head_ = tail_ = free_ = kNil;
  size_ = 0;
  std::fill(buckets_.begin(), buckets_.end(), kNil);
}

void ItemMap::Reserve(std::size_t more) {
  const std::size_t want = size_ + more;
  if (want > buckets_.size() || want > nodes_.capacity()) Guard();
  std::size_t count = buckets_.size();
  while (count < want) count *= 2;
  if (count != buckets_.size()) Rehash(count);
  nodes_.reserve(want);
}

void ItemMap::Rehash(std::size_t count) {
  buckets_.assign(count, kNil);
  for (uint32_t n = head_; n != kNil; n = nodes_[n].next) {
    uint32_t& bucket = buckets_[Hash(nodes_[n].id) & (count - 1)];
    nodes_[n].bucketNext = bucket;
    bucket = n;
  }
}

std::vector<Item*> ItemMap::Snapshot() const {
  std::vector<Item*> out;
  out.reserve(size_);
  ForEach([&](Item* item) { out.push_back(item); });
  return out;
}

// ---------------------------------------------------------------- serials and names

namespace {

uint32_t g_lastSerial[kItemTypeCount] = {};
uint32_t g_waveNameCounter = 0;
uint32_t g_instrumentNameCounter = 0;

const char* const kTypeWords[kItemTypeCount] = {"waveform", "synth", "region", "layer",
                                                "instrument", "track", "song", "collection"};

uint32_t AllocateSerial(const ItemMap& map, ItemType type, bool checkMap) {
  uint32_t serial = g_lastSerial[static_cast<int>(type)];
  for (uint32_t tries = 0; tries <= kSerialMask; ++tries) {
    serial = (serial + 1) & kSerialMask;
    ItemId id = MakeId(type, serial);
    if (id == kNoItem) continue;
    if (!checkMap || serial > map.TopSerial(type) || !map.Find(id)) return serial;
  }
  return serial;
}

}  // namespace

uint32_t LastSerial(ItemType t) { return g_lastSerial[static_cast<int>(t)]; }

void ResetNameCounters() {
  g_waveNameCounter = 0;
  g_instrumentNameCounter = 0;
}

std::string Item::DefaultName() const {
  ItemType type = Type();
  if (type != ItemType::Waveform && type != ItemType::Instrument) return kTypeWords[static_cast<int>(type)];
  // The stem is the collection's name from behind its last path separator.
  std::string_view full = collection ? std::string_view(collection->name) : std::string_view();
  std::size_t cut = full.find_last_of("/:\\");
  std::string_view stem = cut == std::string_view::npos ? full : full.substr(cut + 1);
  bool first = !collection || collection->counts[static_cast<int>(type)] == 0;
  std::string out(Utf8Prefix(stem, first ? kNameLength : 118));
  if (type == ItemType::Waveform) {
    if (first) {
      g_waveNameCounter = 0;
      return out;
    }
    return out + " " + std::to_string(++g_waveNameCounter);
  }
  if (first) {
    g_instrumentNameCounter = 0;
    return out;
  }
  uint32_t n = ++g_instrumentNameCounter;
  uint32_t lastTwo = n % 100;
  const char* ending = "th";
  // Only the exact numbers 11, 12 and 13 take "th"; 111 is "111st".
  if (n != 11 && n != 12 && n != 13) {
    switch (n % 10) {
      case 1: ending = "st"; break;
      case 2: ending = "nd"; break;
      case 3: ending = "rd"; break;
      default: break;
    }
  }
  (void)lastTwo;
  return out + ": " + std::to_string(n) + ending + " instrument";
}

// ---------------------------------------------------------------- Item

Item::Item(Collection& owner, ItemType type, uint32_t serial, const char* text) : collection(&owner) {
  bool isCollection = type == ItemType::Collection;
  if (serial > kSerialMask - 1) serial = AllocateSerial(owner.map_, type, !isCollection);
  g_lastSerial[static_cast<int>(type)] = serial;
  id = MakeId(type, serial);
  if (text) {
    SetName(text, 0, TextEncoding::Utf8);
  } else {
    SetName(nullptr, 0, TextEncoding::Utf8);
  }
  // The collection enters its own map once the map exists.
  if (!isCollection) {
    owner.map_.Insert(id, this);
    ++owner.counts[static_cast<int>(type)];
  }
}

Item::Item(Collection& owner, const Item& source, const char* text)
    : Item(owner, source.Type(), kAllocateSerial, text ? text : source.name) {
  parentId = source.parentId;
}

Item::~Item() {
  if (collection && Type() != ItemType::Collection) {
    collection->map_.Erase(id);
    --collection->counts[static_cast<int>(Type())];
  }
}

void Item::SetName(const char* text, std::size_t length, TextEncoding encoding) {
  if (text && encoding == TextEncoding::Utf8) {
    // Our own text needs no decoding, and regions are renamed often.
    CopyText(name, sizeof name, TrimBlank(std::string_view(text, length ? strnlen(text, length) : std::strlen(text))));
    return;
  }
  std::string value = text ? DecodeText(text, length, encoding) : DefaultName();
  std::string_view trimmed = TrimBlank(value);
  CopyText(name, sizeof name, trimmed);
}

void Item::FixUp() {
  if (!collection) return;
  std::size_t out = 0;
  for (std::size_t i = 0; i < children.size(); ++i) {
    ItemId child = children[i];
    Collection* owner = collection->owners[static_cast<int>(TypeOf(child))];
    if (owner && owner->Map().Find(child)) children[out++] = child;
  }
  while (children.size() > out) children.erase(children.size() - 1);
}

bool Item::EnsureData() {
  if (!collection) return true;
  for (ItemId child : children.snapshot()) {
    Item* item = collection->Find(child);
    if (item && !item->EnsureData()) return false;
  }
  return true;
}

bool Item::NeedsSynthesis() const { return false; }
bool Item::HasContent() const { return false; }
bool Item::IsParamSet(int) const { return false; }
float Item::GetParam(int) const { return 0.0f; }
void Item::SetParam(int, float) {}
void Item::ResetParam(int) {}

std::filesystem::path Item::GetSourcePath() const {
  if (!collection) return {};
  if (parentId != kNoItem) {
    ItemType parentType;
    switch (Type()) {
      case ItemType::Region: parentType = ItemType::Layer; break;
      case ItemType::Layer: parentType = ItemType::Instrument; break;
      case ItemType::SynthModel: parentType = ItemType::Region; break;
      case ItemType::Track: parentType = ItemType::Song; break;
      default: parentType = ItemType::Collection; break;
    }
    if (parentType != ItemType::Collection)
      if (Item* parent = collection->Find(MakeId(parentType, SerialOf(parentId)))) return parent->GetSourcePath();
  }
  return collection->sourcePath;
}

// ---------------------------------------------------------------- Collection

Collection::Collection() : Item(*this, ItemType::Collection, kAllocateSerial, "New collection") {
  for (auto& owner : owners) owner = this;
  map_.Insert(id, this);
  ++counts[static_cast<int>(ItemType::Collection)];
}

Collection::~Collection() {
  Clear();
  DeleteRemaining();
  map_.Erase(id);
  collection = nullptr;  // the base destructor must not touch the map
}

std::vector<Item*> Collection::ItemsOf(ItemType t) const {
  std::vector<Item*> out;
  out.reserve(counts[static_cast<int>(t)]);
  map_.ForEachEntry([&](ItemId id, Item* item) {
    if (TypeOf(id) == t) out.push_back(item);
  });
  return out;
}

// Orphans a reader left without an owner. An orphan layer takes its regions
// along, so each id is looked up again at its turn.
void Collection::DeleteRemaining() {
  std::vector<ItemId> ids;
  ids.reserve(map_.Size());
  map_.ForEachEntry([&](ItemId other, Item*) {
    if (other != id) ids.push_back(other);
  });
  for (ItemId other : ids)
    if (Item* item = map_.Find(other); item && item->collection == this) DeleteItem(item);
}

void Collection::Clear() {
  // Each destructor changes the map, so delete from snapshots.
  for (ItemType t : {ItemType::Song, ItemType::Instrument, ItemType::Waveform})
    for (Item* item : ItemsOf(t)) DeleteItem(item);
  DeleteRemaining();
  engineer[0] = copyright[0] = comment[0] = 0;
  sourcePath.clear();
  formatIndex = -1;
  SetName("New collection");
}

bool Collection::EnsureData() {
  for (Item* wave : ItemsOf(ItemType::Waveform))
    if (!wave->EnsureData()) return false;
  return Item::EnsureData();
}

bool Collection::NeedsSynthesis() const { return Count(ItemType::SynthModel) > 0; }
bool Collection::HasContent() const { return Count(ItemType::Waveform) > 0; }

void Collection::SetParamText(int parameter, std::string_view text) {
  switch (parameter) {
    case kRowComment: CopyText(comment, sizeof comment, text); break;
    case kRowCopyright: CopyText(copyright, sizeof copyright, text); break;
    case kRowEngineer: CopyText(engineer, sizeof engineer, text); break;
    default: Item::SetParamText(parameter, text); break;
  }
}

std::string Collection::GetParamText(int parameter) const {
  switch (parameter) {
    case kRowComment: return comment;
    case kRowCopyright: return copyright;
    case kRowEngineer: return engineer;
    default: return Item::GetParamText(parameter);
  }
}

// ---------------------------------------------------------------- deletion

void DeleteItem(Item* item) {
  if (!item || item->Type() == ItemType::Collection) return;
  delete item;  // the destructors unlink it from its parent and the map
}

namespace {

// Removes the item's id from its parent's child list.
void UnlinkFromParent(Item& item, ItemType parentType) {
  if (item.parentId == kNoItem || !item.collection) return;
  if (Item* parent = item.collection->Find(MakeId(parentType, SerialOf(item.parentId))))
    parent->children.remove(item.id);
}

// Deletes the children of one type, last to first.
void DeleteChildren(Item& item, ItemType childType) {
  if (!item.collection) return;
  std::vector<ItemId> ids = item.children.snapshot();
  for (auto it = ids.rbegin(); it != ids.rend(); ++it) {
    if (TypeOf(*it) != childType) continue;
    Item* child = item.collection->Find(*it);
    if (child && SerialOf(child->parentId) == SerialOf(item.id)) DeleteItem(child);
  }
}

}  // namespace

Instrument::~Instrument() { DeleteChildren(*this, ItemType::Layer); }

Layer::~Layer() {
  UnlinkFromParent(*this, ItemType::Instrument);
  DeleteChildren(*this, ItemType::Region);
}

Region::~Region() {
  UnlinkFromParent(*this, ItemType::Layer);
  DeleteChildren(*this, ItemType::SynthModel);
}

Song::~Song() { DeleteChildren(*this, ItemType::Track); }

Track::~Track() { UnlinkFromParent(*this, ItemType::Song); }

// ---------------------------------------------------------------- structure

void AddChild(Item& parent, ItemId child) { parent.children.push_back(child); }

void MoveChild(Item& parent, std::size_t toIndex, std::size_t fromIndex) {
  if (fromIndex >= parent.children.size()) return;
  ItemId id = parent.children[fromIndex];
  parent.children.erase(fromIndex);
  parent.children.insert(std::min(toIndex, parent.children.size()), id);
}

// ---------------------------------------------------------------- merge

bool MergeCollections(Collection& destination, Collection& source) {
  if (source.map_.Size() <= 1) return true;
  source.map_.Erase(source.id);
  std::vector<Item*> items = source.map_.Snapshot();

  std::unordered_map<ItemId, ItemId> table;
  table[kNoItem] = kNoItem;
  for (Item* item : items) {
    ItemType type = item->Type();
    uint32_t serial = AllocateSerial(destination.map_, type, true);
    ItemId newId = MakeId(type, serial);
    // Reserve the id so that the next allocation of this type skips it.
    g_lastSerial[static_cast<int>(type)] = serial;
    table[item->id] = newId;
  }
  auto translate = [&](ItemId old) {
    auto it = table.find(old);
    return it == table.end() ? old : it->second;
  };
  // Parents store ids whose type follows from the child's own.
  auto translateParent = [&](Item& item) {
    if (item.parentId == kNoItem) return;
    ItemType parentType = ItemType::Collection;
    switch (item.Type()) {
      case ItemType::Region: parentType = ItemType::Layer; break;
      case ItemType::Layer: parentType = ItemType::Instrument; break;
      case ItemType::SynthModel: parentType = ItemType::Region; break;
      case ItemType::Track: parentType = ItemType::Song; break;
      default: return;
    }
    item.parentId = translate(MakeId(parentType, SerialOf(item.parentId)));
  };

  std::vector<uint32_t> usedLocations;
  for (Instrument* inst : destination.All<Instrument>()) usedLocations.push_back(inst->location);

  source.map_.Clear();
  for (Item* item : items) {
    item->id = table[item->id];
    item->collection = &destination;
    translateParent(*item);
    for (ItemId& child : item->children) child = translate(child);
    if (auto* model = dynamic_cast<SynthModel*>(item)) {
      model->ForEachWaveRef([&](uint32_t serial) {
        return SerialOf(translate(MakeId(ItemType::Waveform, serial)));
      });
    }
    if (auto* inst = dynamic_cast<Instrument*>(item)) {
      // The word as a whole moves on, carrying from program into the banks.
      while (std::find(usedLocations.begin(), usedLocations.end(), inst->location) != usedLocations.end())
        inst->location = (inst->location + 1) & kLocationMask;
      usedLocations.push_back(inst->location);
    }
    destination.map_.Insert(item->id, item);
    ++destination.counts[static_cast<int>(item->Type())];
  }
  for (int t = 0; t < kItemTypeCount; ++t) source.counts[t] = 0;
  source.map_.Insert(source.id, &source);
  source.counts[static_cast<int>(ItemType::Collection)] = 1;
  return true;
}

// ---------------------------------------------------------------- clone

Item* CloneItem(const Item& source, Collection& into, const char* newName, bool withData) {
  // Each copy joins its collection's map in its constructor; the map owns it.
  auto owner = [&](ItemType t) -> Collection& { return *into.owners[static_cast<int>(t)]; };
  switch (source.Type()) {
    case ItemType::Waveform:
      return new Waveform(owner(ItemType::Waveform), static_cast<const Waveform&>(source), newName, withData);
    case ItemType::SynthModel:
      return new SynthModel(owner(ItemType::SynthModel), static_cast<const SynthModel&>(source), newName);
    case ItemType::Track:
      return new Track(owner(ItemType::Track), static_cast<const Track&>(source), newName);
    case ItemType::Region: {
      const auto& src = static_cast<const Region&>(source);
      auto* copy = new Region(owner(ItemType::Region), src, newName);
      for (ItemId child : src.children) {
        if (TypeOf(child) == ItemType::Waveform) {
          copy->children.push_back(child);  // the copy shares the waveform
        } else if (Item* model = src.collection->Find(child)) {
          Item* modelCopy = CloneItem(*model, into, nullptr, withData);
          modelCopy->parentId = copy->id;
          copy->children.push_back(modelCopy->id);
        }
      }
      return copy;
    }
    case ItemType::Layer: {
      const auto& src = static_cast<const Layer&>(source);
      auto* copy = new Layer(owner(ItemType::Layer), src, newName);
      for (ItemId child : src.children)
        if (Item* region = src.collection->Find(child)) {
          Item* regionCopy = CloneItem(*region, into, nullptr, withData);
          regionCopy->parentId = copy->id;
          copy->children.push_back(regionCopy->id);
        }
      return copy;
    }
    case ItemType::Instrument: {
      const auto& src = static_cast<const Instrument&>(source);
      auto* copy = new Instrument(owner(ItemType::Instrument), src, newName);
      for (ItemId child : src.children)
        if (Item* layer = src.collection->Find(child)) {
          Item* layerCopy = CloneItem(*layer, into, nullptr, withData);
          layerCopy->parentId = copy->id;
          copy->children.push_back(layerCopy->id);
        }
      return copy;
    }
    case ItemType::Song: {
      const auto& src = static_cast<const Song&>(source);
      auto* copy = new Song(owner(ItemType::Song), src, newName);
      for (ItemId child : src.children)
        if (Item* track = src.collection->Find(child)) {
          Item* trackCopy = CloneItem(*track, into, nullptr, withData);
          trackCopy->parentId = copy->id;
          copy->children.push_back(trackCopy->id);
        }
      return copy;
    }
    case ItemType::Collection:
      break;
  }
  return nullptr;
}

// ---------------------------------------------------------------- item set

ItemSet::ItemSet(Item& source, bool withWaveforms) : collection_(source.collection) {
  Collection& c = *source.collection;
  auto temporaryInstrument = [&](const char* instName) {
    auto* inst = Create<Instrument>(c, instName);
    temporary_.push_back(inst->id);
    instruments.push_back(inst);
    return inst;
  };
  switch (source.Type()) {
    case ItemType::Collection: {
      auto& coll = static_cast<Collection&>(source);
      instruments = coll.All<Instrument>();
      std::stable_sort(instruments.begin(), instruments.end(),
                       [](const Instrument* a, const Instrument* b) { return a->location < b->location; });
      if (withWaveforms) waveforms = coll.All<Waveform>();
      return;
    }
    case ItemType::Instrument:
      instruments.push_back(static_cast<Instrument*>(&source));
      break;
    case ItemType::Layer: {
      auto& layer = static_cast<Layer&>(source);
      Instrument* inst = temporaryInstrument(layer.name);
      if (Instrument* owner = InstrumentOf(layer)) {
        inst->art = owner->art;
        std::copy(std::begin(owner->fx), std::end(owner->fx), std::begin(inst->fx));
      }
      Item* copy = CloneItem(layer, c);
      copy->parentId = inst->id;
      AddChild(*inst, copy->id);
      break;
    }
    case ItemType::Region: {
      auto& region = static_cast<Region&>(source);
      Instrument* inst = temporaryInstrument(region.name);
      Layer* newLayer = AddLayer(*inst);
      if (Layer* owner = LayerOf(region)) {
        newLayer->art = owner->art;
        newLayer->trigger = owner->trigger;
        if (Instrument* ownerInst = InstrumentOf(*owner)) {
          inst->art = ownerInst->art;
          std::copy(std::begin(ownerInst->fx), std::end(ownerInst->fx), std::begin(inst->fx));
        }
      }
      Item* copy = CloneItem(region, c);
      copy->parentId = newLayer->id;
      AddChild(*newLayer, copy->id);
      break;
    }
    case ItemType::Waveform:
    case ItemType::SynthModel: {
      Instrument* inst = temporaryInstrument(source.name);
      Layer* newLayer = AddLayer(*inst);
      bool isWave = source.Type() == ItemType::Waveform;
      Region* region = AddRegion(*newLayer, isWave ? source.id : kNoWave, MakeRange(0, 127), MakeRange(0, 127), 255);
      region->trigger.exclusionGroup = 1;
      region->trigger.MarkSet(kRowExclusionGroup);
      if (!isWave) {
        Item* model = CloneItem(source, c);
        model->parentId = region->id;
        AddChild(*region, model->id);
      }
      break;
    }
    default:
      break;
  }
  if (!withWaveforms) return;
  for (Instrument* inst : instruments)
    for (ItemId layerId : inst->children)
      if (auto* layer = c.FindAs<Layer>(layerId))
        for (ItemId regionId : layer->children)
          if (auto* region = c.FindAs<Region>(regionId))
            if (Waveform* wave = RegionWaveform(*region))
              if (std::find(waveforms.begin(), waveforms.end(), wave) == waveforms.end()) waveforms.push_back(wave);
}

ItemSet::~ItemSet() {
  for (ItemId id : temporary_)
    if (Item* item = collection_->Find(id)) DeleteItem(item);
}

}  // namespace kv

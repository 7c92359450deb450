// The fix-up pass that makes any reader's output consistent. Readers may
// leave items in any order, unnamed, overlapping or dangling: everything here
// repairs that, so readers stay small. Anything that edits items (the import
// route, a save, processing, the window) runs it through FixUpItems.
#include "core/fixup.h"

#include <pthread.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/app.h"
#include "core/articulation.h"
#include "core/error.h"
#include "core/instrument_ops.h"
#include "core/parallel.h"
#include "core/settings.h"
#include "core/wavestore.h"

namespace kv {

namespace {

// Bit 0 root key .. bit 5 loop pitch: a region override equal to the wave's
// own value says nothing and only hides later edits of the wave.
void DropRedundantOverrides(Region& region, const Waveform& wave) {
  auto drop = [&](uint8_t bit, bool equal) {
    if ((region.overrideMask & bit) && equal) region.overrideMask &= static_cast<uint8_t>(~bit);
  };
  drop(kOverrideRootKey, region.rootKey == wave.rootKey);
  drop(kOverrideLoopType, region.loopType == wave.loopType);
  drop(kOverrideLoopRelease, region.loopRelease == wave.loopRelease);
  drop(kOverrideLoopStart, region.loopStart == wave.loopStart);
  drop(kOverrideLoopEnd, region.loopEnd == wave.loopEnd);
  drop(kOverrideLoopPitch, region.loopPitch == wave.loopPitch);
}

// Removes ids that no longer resolve, last to first.
void DropDeadChildren(Item& item) {
  for (std::size_t i = item.children.size(); i-- > 0;)
    if (!item.collection->Find(item.children[i])) item.children.erase(i);
}

using IdLists = std::array<std::vector<ItemId>, kItemTypeCount>;

// Every id of the collection by type, in list order, in one walk of the map.
IdLists IdsByType(const Collection& c) {
  IdLists lists;
  for (int t = 0; t < kItemTypeCount; ++t) lists[t].reserve(c.Count(static_cast<ItemType>(t)));
  c.Map().ForEachEntry([&](ItemId id, Item*) { lists[static_cast<int>(TypeOf(id))].push_back(id); });
  return lists;
}

// Deletes what `doomed` picks among the given items of one type; gathered
// first, since each deletion changes the map.
template <typename T, typename Pred>
bool RemoveWhere(Collection& c, const std::vector<ItemId>& ids, Pred doomed) {
  std::vector<ItemId> victims;
  for (ItemId id : ids)
    if (T* typed = c.FindAs<T>(id); typed && doomed(*typed)) victims.push_back(id);
  for (ItemId id : victims)
    if (Item* item = c.Find(id)) DeleteItem(item);
  return !victims.empty();
}

// The ids FixUpItems works on, by type, asked for at each type's turn (a
// layer's fix-up may delete regions).
using IdSource = std::function<const std::vector<ItemId>&(ItemType)>;

// The items of an item's own tree, and the waveforms its regions play.
IdSource TreeIds(Item& root) {
  auto lists = std::make_shared<IdLists>();
  Collection& c = *root.collection;
  auto add = [&](auto& self, Item& item) -> void {
    (*lists)[static_cast<int>(item.Type())].push_back(item.id);
    for (ItemId child : item.children) {
      Item* sub = c.Find(child);
      if (!sub) continue;
      if (sub->Type() == ItemType::Waveform) {
        auto& waves = (*lists)[static_cast<int>(ItemType::Waveform)];
        if (std::find(waves.begin(), waves.end(), sub->id) == waves.end()) waves.push_back(sub->id);
      } else {
        self(self, *sub);
      }
    }
  };
  add(add, root);
  return [lists](ItemType t) -> const std::vector<ItemId>& { return (*lists)[static_cast<int>(t)]; };
}

// Serials of one item type that a walk has claimed, as bits from the
// lowest serial of the type in the collection.
class SerialSet {
 public:
  explicit SerialSet(const std::vector<ItemId>& ids) {
    if (ids.empty()) return;
    auto [lo, hi] = std::minmax_element(ids.begin(), ids.end(),
                                        [](ItemId a, ItemId b) { return SerialOf(a) < SerialOf(b); });
    base_ = SerialOf(*lo);
    bits_.resize(SerialOf(*hi) - base_ + 1);
  }
  // False when the serial was claimed before or lies outside the type's.
  bool Claim(ItemId id) {
    const uint32_t at = SerialOf(id) - base_;
    if (SerialOf(id) < base_ || at >= bits_.size() || bits_[at]) return false;
    bits_[at] = true;
    return true;
  }
  bool Holds(ItemId id) const {
    const uint32_t at = SerialOf(id) - base_;
    return SerialOf(id) >= base_ && at < bits_.size() && bits_[at];
  }

 private:
  uint32_t base_ = 0;
  std::vector<bool> bits_;
};

// The instruments of a collection as trees that share nothing: every layer
// listed by exactly one instrument, its parent, and every region by exactly
// one layer, its parent. Such trees can be fixed up side by side; anything
// less tidy is left to the one-by-one walk.
struct Forest {
  std::vector<Instrument*> roots;
  std::vector<Instrument*> pending;  // the roots still to settle
  unsigned threads = 0;  // for ParallelFor: 0 all the machine has
  SerialSet layers;
  SerialSet regions;

  Forest(const IdLists& lists)
      : layers(lists[static_cast<int>(ItemType::Layer)]), regions(lists[static_cast<int>(ItemType::Region)]) {}

  // Null when the collection isn't such a forest.
  static std::unique_ptr<Forest> Of(Collection& c, const IdLists& lists);

  bool Holds(ItemType t, ItemId id) const {
    if (t == ItemType::Instrument) return true;
    if (t == ItemType::Layer) return layers.Holds(id);
    if (t == ItemType::Region) return regions.Holds(id);
    return false;
  }
};

bool g_sideBySide = true;

std::unique_ptr<Forest> Forest::Of(Collection& c, const IdLists& lists) {
  if (!g_sideBySide) return nullptr;
  auto forest = std::make_unique<Forest>(lists);
  // Below this many regions, starting threads costs more than it saves.
  constexpr std::size_t kWorthThreads = 1024;
  forest->threads = lists[static_cast<int>(ItemType::Region)].size() < kWorthThreads ? 1 : 0;
  std::vector<Item*> regions;
  for (ItemId instId : lists[static_cast<int>(ItemType::Instrument)]) {
    auto* inst = c.FindAs<Instrument>(instId);
    if (!inst) continue;
    forest->roots.push_back(inst);
    for (ItemId layerId : inst->children) {
      Item* layer = c.Find(layerId);
      if (!layer) continue;  // dangling ids are the fix-up's to drop
      if (TypeOf(layerId) != ItemType::Layer || layer->parentId != inst->id || !forest->layers.Claim(layerId))
        return nullptr;
      // Each region is looked at once here, long after the reader made it.
      regions.clear();
      for (ItemId regionId : layer->children)
        if (Item* region = c.Find(regionId)) {
          __builtin_prefetch(&region->parentId);
          regions.push_back(region);
        }
      for (Item* region : regions)
        if (TypeOf(region->id) != ItemType::Region || region->parentId != layerId || !forest->regions.Claim(region->id))
          return nullptr;
    }
  }
  return forest;
}

// Phases 1 and 2 of the fix-up over the items `ids` gives; true if any item
// was deleted. A forest's trees are settled side by side first, phase 3
// included when `loadOptions` asks for it.
bool NormaliseAndRemove(Collection& c, const IdSource& ids, uint8_t removal, bool loadOptions,
                        const Forest* forest = nullptr);

// "C4..G5" and " : 1..100" in the manner of a region name.
std::string RangeText(const TriggerRecord& t) {
  std::string text = NoteName(t.loKey);
  if (t.hiKey != t.loKey) text += std::string("..") + NoteName(t.hiKey);
  if (t.loVel > 1 || t.hiVel != 127) {
    text += " : " + std::to_string(t.loVel);
    if (t.hiVel != t.loVel) text += ".." + std::to_string(t.hiVel);
  }
  return text;
}

void PruneTrigger(TriggerRecord& record, const TriggerRecord& reference) {
  for (int p = TriggerRecord::kFirst; p <= TriggerRecord::kLast; ++p)
    if (record.IsSet(p) && record.Get(p) == reference.Get(p)) record.MarkUnset(p);
}

// Phase 3 for one instrument's tree: marks that repeat what the level above
// says are dropped, top down.
void DropRedundantMarks(Collection& c, Instrument& inst) {
  static const Articulation defaults;
  const TriggerRecord defaultTrigger;
  for (int i = 0; i < kArticulationCount; ++i)
    if (inst.art.IsSet(i) && inst.art.value[i] == defaults.value[i]) inst.art.MarkUnset(i);
  for (ItemId layerId : inst.children) {
    auto* layer = c.FindAs<Layer>(layerId);
    if (!layer) continue;
    PruneTrigger(layer->trigger, defaultTrigger);
    layer->art.Prune(inst.art);
    for (ItemId regionId : layer->children) {
      auto* region = c.FindAs<Region>(regionId);
      if (!region) continue;
      PruneTrigger(region->trigger, layer->trigger);
      region->art.Prune(layer->art);
      region->RebuildName();
    }
    std::string name(layer->Name());
    if (std::size_t colon = name.find(':'); colon != std::string::npos) name.resize(colon);
    const TriggerRecord& t = layer->trigger;
    if (t.loKey != 0 || t.hiKey != 127 || t.loVel != 0 || t.hiVel != 127) name += ": " + RangeText(t);
    layer->SetName(name);
  }
}

void ApplyLoopConversions(Collection& c, bool bid2fwd, bool append32) {
  for (Waveform* wave : c.All<Waveform>()) {
    if (wave->loopType == 0) continue;
    // A wave that can't be read keeps its loop; the read reports on first use.
    if (!sanitizeLoop(*wave, bid2fwd, false, false, append32, false)) ClearError();
  }
}

int g_collectionSortMode = 0;
int g_waveformSortMode = 0;

// Phase 1 for one item.
void Normalise(Item& item, uint64_t features, bool loadOptions, std::vector<ItemId>* deferredDeletes) {
  switch (item.Type()) {
    case ItemType::Instrument: {
      // Regions come after their layers and inherit in their own FixUp, so
      // the levels above don't refresh them on the way.
      auto& inst = static_cast<Instrument&>(item);
      inst.FixUpLevel(false);
      ReduceArticulation(inst.art, features);
      return;
    }
    case ItemType::Layer: {
      auto& layer = static_cast<Layer&>(item);
      layer.FixUpLevel(false, deferredDeletes);
      ReduceArticulation(layer.art, features);
      return;
    }
    case ItemType::Region: {
      auto& region = static_cast<Region&>(item);
      region.FixUp();
      ReduceArticulation(region.art, features);
      if (loadOptions)
        if (Waveform* wave = RegionWaveform(region)) DropRedundantOverrides(region, *wave);
      return;
    }
    case ItemType::Waveform:
      if (loadOptions) {
        // Before FixUp, which turns "Default" into 16-bit or float.
        auto& wave = static_cast<Waveform&>(item);
        if (wave.preferredFormat == kPreferredDefault && IsGeneric(wave)) {
          int preferred = PreferredFormatFor(SourceDataFormat(wave.sourceFormat));
          if (preferred >= 0) wave.preferredFormat = static_cast<uint8_t>(preferred);
        }
      }
      item.FixUp();
      return;
    default:
      item.FixUp();
      return;
  }
}

// Pulls an item's lines towards the cache ahead of its turn: regions are
// large and were last touched when the reader made them.
template <typename T>
void Prefetch(const T* item) {
  const char* p = reinterpret_cast<const char*>(item);
  for (std::size_t at = 0; at < sizeof(T); at += 64) __builtin_prefetch(p + at, 1);
}

// Phases 1 and 3 for one tree of a forest, in the type order of the whole
// walk: the instrument, its layers, then their regions. Writes nothing
// outside the tree (waveforms are only read) and leaves the map alone. Phase 3 comes straight after
// while the tree is in the cache: removal in between only takes items away,
// and the marks of those that stay don't depend on it.
void SettleTree(Collection& c, Instrument& inst, uint64_t features, bool loadOptions,
                std::vector<ItemId>& deferredDeletes) {
  Normalise(inst, features, loadOptions, &deferredDeletes);
  std::vector<Layer*> layers;
  for (ItemId id : inst.children)
    if (auto* layer = c.FindAs<Layer>(id)) layers.push_back(layer);
  for (Layer* layer : layers) Normalise(*layer, features, loadOptions, &deferredDeletes);
  std::vector<Region*> regions;
  for (Layer* layer : layers)
    for (ItemId id : layer->children)
      if (auto* region = c.FindAs<Region>(id)) regions.push_back(region);
  constexpr std::size_t kAhead = 2;
  for (std::size_t i = 0; i < std::min(kAhead, regions.size()); ++i) Prefetch(regions[i]);
  for (std::size_t i = 0; i < regions.size(); ++i) {
    if (i + kAhead < regions.size()) Prefetch(regions[i + kAhead]);
    Normalise(*regions[i], features, loadOptions, &deferredDeletes);
  }
  if (loadOptions) DropRedundantMarks(c, inst);
}

}  // namespace

// Instrument trees that a reader has finished, settled (phases 1 and 3) on
// the other cores while it reads on. The reader's inserts go into room the
// map set aside, so the workers' look-ups stay valid; should the map have to
// move anything after all, its guard stops the workers first, and the trees
// not yet settled wait for the fix-up.
class EarlySettle {
 public:
  explicit EarlySettle(Collection& c) : c_(c) {}
  ~EarlySettle() { Stop(); }
  EarlySettle(const EarlySettle&) = delete;
  EarlySettle& operator=(const EarlySettle&) = delete;

  Collection& Target() const { return c_; }

  // Starts the workers when `items` are worth them.
  void Start(std::size_t items) {
    if (running_ || stopped_ || !g_sideBySide) return;
    const unsigned threads = ParallelThreads(items / kItemsPerWorker + 1, kMaxWorkers + 1);
    if (threads < 2) return;
    c_.ReserveItems(items + items / 8);  // readers may split what they counted
    c_.SetMapGuard([](void* self) { static_cast<EarlySettle*>(self)->Stop(); }, this);
    features_ = Settings().features;
    running_ = true;
    for (unsigned t = 1; t < threads; ++t) {
      pthread_t thread;
      if (pthread_create(&thread, nullptr, &EarlySettle::Run, this) != 0) break;
      workers_.push_back(thread);
    }
    if (workers_.empty()) Stop();
  }

  void Offer(Instrument& inst) {
    if (!running_) return;
    std::lock_guard<std::mutex> lock(mutex_);
    queue_.push_back(&trees_.emplace_back(Tree{&inst, inst.id, {}, false}));
    ready_.notify_one();
  }

  // Settles what is still queued on this thread as well, then stops.
  void Finish() {
    while (Tree* tree = Next(false)) Settle(*tree);
    Stop();
  }

  // Workers end after the tree in hand; queued trees stay unsettled.
  void Stop() {
    if (!running_) return;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stopped_ = true;
    }
    ready_.notify_all();
    for (pthread_t thread : workers_) pthread_join(thread, nullptr);
    workers_.clear();
    running_ = false;
    c_.SetMapGuard(nullptr, nullptr);
    for (const Tree& tree : trees_)
      if (tree.done) settled_.push_back(tree.id);
    std::sort(settled_.begin(), settled_.end());
  }

  // After Stop: whether the tree of `root` is settled, and the deletions the
  // settled trees left, in the order they were offered.
  bool Settled(ItemId root) const { return std::binary_search(settled_.begin(), settled_.end(), root); }
  void ApplyDeletions() const {
    for (const Tree& tree : trees_)
      for (ItemId id : tree.deletions) DeleteItem(c_.Find(id));
  }

 private:
  static constexpr std::size_t kItemsPerWorker = 1024;
  static constexpr unsigned kMaxWorkers = 3;

  struct Tree {
    Instrument* root;
    ItemId id;
    std::vector<ItemId> deletions;
    bool done;
  };

  static void* Run(void* self) {
    auto* me = static_cast<EarlySettle*>(self);
    while (Tree* tree = me->Next(true)) me->Settle(*tree);
    return nullptr;
  }

  // The next queued tree; null once stopped, or at once when the queue is
  // empty and `wait` is false.
  Tree* Next(bool wait) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (wait) ready_.wait(lock, [this] { return stopped_ || !queue_.empty(); });
    if (stopped_ || queue_.empty()) return nullptr;
    Tree* tree = queue_.front();
    queue_.pop_front();
    return tree;
  }

  void Settle(Tree& tree) {
    SettleTree(c_, *tree.root, features_, true, tree.deletions);
    tree.done = true;  // read after the workers are joined
  }

  Collection& c_;
  uint64_t features_ = 0;
  bool running_ = false;
  bool stopped_ = false;
  std::vector<pthread_t> workers_;
  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<Tree> trees_;  // grows at the back without moving the trees in work
  std::deque<Tree*> queue_;
  std::vector<ItemId> settled_;  // sorted, once stopped
};

namespace {

// The load in progress on this thread, for the readers' hand-overs.
thread_local EarlySettle* t_load = nullptr;

bool NormaliseAndRemove(Collection& c, const IdSource& ids, uint8_t removal, bool loadOptions,
                        const Forest* forest) {
  const uint64_t features = Settings().features;

  // Phase 1: normalise, type by type; a forest's trees first, side by side.
  if (forest) {
    std::vector<std::vector<ItemId>> deferred(forest->pending.size());
    ParallelFor(forest->pending.size(), [&](std::size_t i) {
      SettleTree(c, *forest->pending[i], features, loadOptions, deferred[i]);
    }, forest->threads);
    for (const auto& list : deferred)
      for (ItemId id : list) DeleteItem(c.Find(id));
  }
  for (ItemType t : {ItemType::Instrument, ItemType::Layer, ItemType::Region, ItemType::SynthModel,
                     ItemType::Waveform, ItemType::Song, ItemType::Track}) {
    for (ItemId id : ids(t)) {
      if (forest && forest->Holds(t, id)) continue;
      if (Item* item = c.Find(id)) Normalise(*item, features, loadOptions, nullptr);
    }
  }

  // Phase 2: removal, lowest type first, so an instrument whose last wave
  // went goes in the same call.
  bool deleted = false;
  if (removal & TypeBit(ItemType::Waveform))
    deleted |= RemoveWhere<Waveform>(c, ids(ItemType::Waveform), [](const Waveform& w) {
      return w.length == 0 || (w.channels != 1 && w.channels != 2);
    });
  if (removal & TypeBit(ItemType::SynthModel))
    deleted |= RemoveWhere<SynthModel>(c, ids(ItemType::SynthModel), [](SynthModel& m) {
      DropDeadChildren(m);
      return m.children.empty();
    });
  if (removal & TypeBit(ItemType::Region))
    deleted |= RemoveWhere<Region>(c, ids(ItemType::Region), [](Region& r) {
      DropDeadChildren(r);
      return r.children.empty();
    });
  if (removal & TypeBit(ItemType::Layer))
    deleted |= RemoveWhere<Layer>(c, ids(ItemType::Layer), [](Layer& l) {
      DropDeadChildren(l);
      return l.children.empty();
    });
  if (removal & TypeBit(ItemType::Instrument))
    deleted |= RemoveWhere<Instrument>(c, ids(ItemType::Instrument), [](Instrument& i) {
      DropDeadChildren(i);
      return i.children.empty();
    });
  if (removal & TypeBit(ItemType::Track))
    deleted |= RemoveWhere<Track>(c, ids(ItemType::Track), [](const Track& t) { return t.EventCount() == 0; });
  if (removal & TypeBit(ItemType::Song))
    deleted |= RemoveWhere<Song>(c, ids(ItemType::Song), [](Song& s) {
      DropDeadChildren(s);
      return s.children.empty();
    });
  return deleted;
}

void FixUpAll(Collection& c, uint8_t removal, bool loadOptions, bool sourceHoldsStereo,
              const EarlySettle* early);

}  // namespace

int& CollectionSortMode() { return g_collectionSortMode; }
int& WaveformSortMode() { return g_waveformSortMode; }

void SetSideBySideFixUp(bool enabled) { g_sideBySide = enabled; }

void FixUpItemTree(Item& root, uint8_t removal) {
  if (!root.collection) return;
  if (root.Type() == ItemType::Collection) {
    FixUpItems(static_cast<Collection&>(root), removal, false, false);
    return;
  }
  if (NormaliseAndRemove(*root.collection, TreeIds(root), removal, false)) App().refresh = true;
}

void ExpectItems(Collection& c, std::size_t count) {
  if (t_load && &t_load->Target() == &c) t_load->Start(count);
}

void InstrumentDone(Collection& c, Instrument& inst) {
  if (t_load && &t_load->Target() == &c) t_load->Offer(inst);
}

void FixUpItems(Collection& c, uint8_t removal, bool loadOptions, bool sourceHoldsStereo) {
  FixUpAll(c, removal, loadOptions, sourceHoldsStereo, nullptr);
}

// ---- a reader's session ----

ReadSession::ReadSession(Collection& collection)
    : early_(std::make_unique<EarlySettle>(collection)), outer_(t_load) {
  t_load = early_.get();
}

ReadSession::~ReadSession() { ReadDone(false); }

void ReadSession::ReadDone(bool ok) {
  if (!reading_) return;
  reading_ = false;
  t_load = outer_;
  if (ok) early_->Finish();
  else early_->Stop();
}

void ReadSession::FixUp(bool sourceHoldsStereo) {
  ReadDone(true);
  FixUpAll(early_->Target(), 0xFF, true, sourceHoldsStereo, early_.get());
}

namespace {

void FixUpAll(Collection& c, uint8_t removal, bool loadOptions, bool sourceHoldsStereo,
              const EarlySettle* early) {
  StatusText("Fixing up items...");
  if (early) early->ApplyDeletions();
  // Ids are gathered once: fix-up deletes but never adds, and the look-ups
  // skip what is gone.
  const IdLists lists = IdsByType(c);
  const std::unique_ptr<Forest> forest = Forest::Of(c, lists);
  if (forest)
    for (Instrument* root : forest->roots)
      if (!early || !early->Settled(root->id)) forest->pending.push_back(root);
  const bool deleted = NormaliseAndRemove(
      c, [&lists](ItemType t) -> const std::vector<ItemId>& { return lists[static_cast<int>(t)]; }, removal,
      loadOptions, forest.get());

  // Phase 3: marks that repeat the level above go; a forest's trees have
  // had theirs.
  if (loadOptions && !forest)
    for (Instrument* inst : c.All<Instrument>()) DropRedundantMarks(c, *inst);

  // Phase 4, flattening levels whose feature bits are clear, is left out:
  // every level is on by default, and a cleared level's values are already
  // folded by ReduceArticulation in phase 1.

  // Phase 5: the load options, in this order.
  if (loadOptions) {
    const auto& load = Settings().load;
    if (load.bEnsureUniqueNames) {
      MakeUniqueNames(c, ItemType::Instrument);
      MakeUniqueNames(c, ItemType::Waveform);
    }
    if (load.bAutoMoveArticulation) MoveArticulationUp(c);
    if (load.bAutoMoveTriggerParams) MoveTriggerParamsUp(c);
    if (load.bAutoSplitStereo) SplitStereoWaves(c);
    // A format that holds stereo keeps its mono halves apart on purpose.
    if (load.bAutoMergeStereo && !sourceHoldsStereo) MergeStereoPairs(c);
    if (load.bAutoCompactLayers) CompactLayers(c);
    if (load.bAutoBid2Fwd || load.bAutoAppend32) ApplyLoopConversions(c, load.bAutoBid2Fwd, load.bAutoAppend32);
    if (load.bAutoSortColl) g_collectionSortMode = 1;
    if (load.bAutoSortWaves) g_waveformSortMode = 2;
  }

  // Phase 6.
  c.FixUp();
  StatusText("%s", "");
  if (deleted) App().refresh = true;
  if (loadOptions) App().currentItem = c.id;
}

}  // namespace

}  // namespace kv

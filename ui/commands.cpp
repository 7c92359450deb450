#include "ui/commands.h"
#include "ui/song_render.h"

#include <algorithm>
#include <set>
#include <system_error>
#include <unordered_set>

#include "core/app.h"
#include "core/error.h"
#include "core/instrument_ops.h"
#include "core/settings.h"
#include "formats/import.h"

namespace kv {

namespace fs = std::filesystem;

int UndoDepth() { return 0; }

bool ConfirmDiscard(const char* title, bool replacing) {
  if (!Settings().load.bConfirm) return true;
  if (MainCollection().Count(ItemType::Waveform) == 0) return true;
  if (UndoDepth() == 0) return true;
  const char* text = replacing ? "This will replace all loaded data.\n\nContinue?"
                               : "This will discard any changes that you have made.\n\nContinue?";
  return MessageBox(text, title, BoxButtons::YesNo) == kBoxYes;
}

namespace {

bool OpenFolder(const fs::path& path, OpenMode& mode) {
  std::error_code ec;
  fs::directory_iterator it(path, ec);
  if (ec) return true;  // a folder that can't be listed opens as nothing
  std::vector<fs::path> entries;
  for (; it != fs::directory_iterator(); it.increment(ec)) {
    if (ec) break;
    entries.push_back(it->path());
  }
  // Directory order is arbitrary on Linux; sort for a stable result.
  std::sort(entries.begin(), entries.end());
  for (const fs::path& entry : entries) {
    std::error_code typeEc;
    bool isDir = fs::is_directory(entry, typeEc);
    if (isDir && entry.filename().string().starts_with(".")) continue;
    if (!OpenFile(entry, mode, true)) return false;
    mode = OpenMode::Merge;
  }
  return true;
}

// Newest first, each once; the menu has room for 32 recent files.
void PushRecent(std::vector<std::string>& list, const std::string& entry) {
  std::erase(list, entry);
  list.insert(list.begin(), entry);
  if (list.size() > 32) list.resize(32);
}

void RememberRecent(const fs::path& path) {
  std::error_code ec;
  fs::path absolute = fs::absolute(path, ec);
  if (ec) absolute = path;
  PushRecent(Settings().app.LastFilesA, absolute.string());
  PushRecent(Settings().app.LastPathsA, absolute.parent_path().string());
}

}  // namespace

bool OpenFile(const fs::path& path, OpenMode mode, bool report) {
  if (path.empty()) return true;
  std::error_code ec;
  if (fs::is_directory(path, ec)) return OpenFolder(path, mode);

  StatusText("Reading data...");
  Collection& main = MainCollection();
  bool ok;
  switch (mode) {
    case OpenMode::ReplaceWaves: ok = ReplaceWavesFile(main, path); break;
    case OpenMode::Merge: ok = MergeFile(main, path); break;
    default: ok = ImportFile(main, path, true); break;
  }
  App().refresh = true;
  App().currentItem = main.id;
  if (!ok) {
    StatusText("%s", "");
    return false;
  }
  if (report) StatusText("%s: %s", mode == OpenMode::Merge ? "Merged" : "Opened", path.c_str());
  RememberRecent(path);
  return true;
}

int OpenFileList(std::span<const fs::path> paths) {
  int failures = 0;
  bool first = true;
  for (const fs::path& path : paths) {
    // Failed files don't use up the Replace.
    if (OpenFile(path, first ? OpenMode::Replace : OpenMode::Merge, true)) {
      first = false;
    } else {
      ++failures;
      ShowErrorBox();
    }
  }
  return failures;
}

uint32_t FirstFreeLocation(const Collection& c) {
  std::set<uint32_t> used;
  for (Instrument* inst : c.All<Instrument>()) used.insert(inst->location);
  uint32_t n = 0;
  while (used.count(n)) ++n;
  return n;
}

Instrument* AddNewInstrument(Collection& c) {
  uint32_t location = FirstFreeLocation(c);
  auto* inst = Create<Instrument>(c, "New instrument");
  inst->location = location;
  c.FixUp();
  AddNewLayer(*inst);
  return inst;
}

Layer* AddNewLayer(Item& item) {
  Instrument* inst = nullptr;
  if (auto* i = dynamic_cast<Instrument*>(&item)) inst = i;
  else if (auto* l = dynamic_cast<Layer*>(&item)) inst = InstrumentOf(*l);
  else if (auto* r = dynamic_cast<Region*>(&item)) inst = LayerOf(*r) ? InstrumentOf(*LayerOf(*r)) : nullptr;
  if (!inst) return nullptr;
  Layer* layer = AddLayer(*inst);
  inst->FixUp();
  return layer;
}

Region* AddNewRegion(Item& item) {
  Layer* layer = dynamic_cast<Layer*>(&item);
  if (auto* r = dynamic_cast<Region*>(&item)) layer = LayerOf(*r);
  if (!layer) return nullptr;
  Collection& c = *layer->collection;
  std::vector<Item*> waves = c.ItemsOf(ItemType::Waveform);
  if (waves.empty() || layer->children.size() >= 128) return nullptr;

  uint16_t range = FindFreeKeyRange(*layer, 255);
  int lo = range & 0xFF;
  ItemId wave = waves.front()->id;
  if (lo > 0)
    if (Region* below = RegionAt(*layer, lo - 1, 255))
      if (Waveform* w = RegionWaveform(*below))
        if (Item* next = c.Find(MakeId(ItemType::Waveform, SerialOf(w->id) + 1))) wave = next->id;

  Region* region = AddRegion(*layer, wave, range, MakeRange(0, 127), 255);
  // Copy zone and articulation from the nearest region below.
  for (int key = lo - 1; key >= 0; --key) {
    Region* source = RegionAt(*layer, key, 255);
    if (!source || source == region) continue;
    TriggerRecord trigger = source->trigger;
    trigger.loKey = region->trigger.loKey;
    trigger.hiKey = region->trigger.hiKey;
    trigger.MarkSet(190);
    trigger.MarkSet(191);
    region->trigger = trigger;
    region->art = source->art;
    break;
  }
  region->FixUp();
  ClipRegions(*layer, MakeRange(region->trigger.loKey, region->trigger.hiKey),
              MakeRange(region->trigger.loVel, region->trigger.hiVel), region);
  layer->FixUp();
  App().currentItem = region->id;
  return region;
}

Item* CloneSelected(Item& item) {
  Collection& c = *item.collection;
  if (auto* wave = dynamic_cast<Waveform*>(&item)) {
    std::string copyName = std::string("Copy of ") + wave->name;
    Item* copy = CloneItem(*wave, c, copyName.c_str(), true);
    copy->FixUp();
    App().refresh = true;
    return copy;
  }
  ItemId parentId = kNoItem;
  ItemType parentType = ItemType::Collection;
  switch (item.Type()) {
    case ItemType::Region: parentType = ItemType::Layer; break;
    case ItemType::Layer: parentType = ItemType::Instrument; break;
    case ItemType::Track: parentType = ItemType::Song; break;
    case ItemType::Instrument:
    case ItemType::Song: break;
    default: return nullptr;
  }
  Item* copy = CloneItem(item, c);
  if (parentType != ItemType::Collection) {
    parentId = MakeId(parentType, SerialOf(item.parentId));
    if (Item* parent = c.Find(parentId)) {
      copy->parentId = parent->id;
      AddChild(*parent, copy->id);
      parent->FixUp();
    }
  } else {
    c.FixUp();
  }
  App().refresh = true;
  return copy;
}

int AutocreateInstruments(Collection& c) {
  std::vector<Waveform*> waves = c.All<Waveform>();
  std::unordered_set<ItemId> used;
  for (Instrument* inst : c.All<Instrument>())
    for (ItemId layerId : inst->children)
      if (auto* layer = c.FindAs<Layer>(layerId))
        for (ItemId regionId : layer->children)
          if (auto* region = c.FindAs<Region>(regionId))
            if (Waveform* w = RegionWaveform(*region)) used.insert(w->id);
  std::erase_if(waves, [&](Waveform* w) { return used.count(w->id) != 0; });
  const bool anyUnused = !waves.empty();
  if (!anyUnused) {
    MessageBox("No unused waveforms found!\n\nNo new instrument created.", "Autocreate instruments");
    return 0;
  }
  int made = 0;
  for (Waveform* w : waves) {
    uint32_t location = FirstFreeLocation(c);
    auto* inst = Create<Instrument>(c, w->name);
    inst->location = location;
    Layer* layer = AddLayer(*inst);
    AddRegion(*layer, w->id, MakeRange(0, 127), MakeRange(0, 127), 255);
    ++made;
  }
  FixUpItems(c, 0, false);
  StatusText("Created %d new instrument%s.", made, made >= 2 ? "s" : "");
  App().currentItem = c.id;
  return made;
}

namespace {

const char* Plural(int n) { return n == 1 ? "" : "s"; }

// The first item of a type, standing in for the selection of the window.
template <typename T>
T* FirstOf(Collection& c) {
  std::vector<T*> all = c.All<T>();
  return all.empty() ? nullptr : all.front();
}

}  // namespace

bool RunCollectionCommand(int number) {
  Collection& c = MainCollection();
  switch (number) {
    case 109:
      AddNewInstrument(c);
      return true;
    case 110:
    case 111: {
      Item* target = number == 110 ? static_cast<Item*>(FirstOf<Instrument>(c)) : FirstOf<Layer>(c);
      if (!target) return true;  // nothing to add to: the command does nothing
      if (number == 110) AddNewLayer(*target);
      else AddNewRegion(*target);
      return true;
    }
    case 115:
      AutocreateInstruments(c);
      return true;
    case 128:
      if (!ConfirmDiscard("Confirm clearing collection!", false)) return true;
      c.Clear();
      StatusText("Done: Collection cleared.");
      return true;
    case 138:
    case 149: {
      if (Settings().load.bConfirm) {
        const char* question = number == 138
                                   ? "Do you really want to delete all unused waveforms?"
                                   : "Do you really want to delete any 'duplicate' (bit by bit identical) waveforms?";
        if (MessageBox(question, "Please confirm!", BoxButtons::YesNo) != kBoxYes) return true;
      }
      uint64_t bytes = 0;
      int n = number == 138 ? DeleteUnusedWaves(c, &bytes) : RemoveDuplicateWaves(c, &bytes);
      int kb = static_cast<int>((bytes + 512) / 1024);
      if (number == 138) {
        if (n) StatusText("Done: Deleted %d unused waveform%s (%d KB freed)", n, Plural(n), kb);
        else StatusText("No unused waveforms found");
      } else {
        if (n) StatusText("Done: Deleted %d duplicate waveform%s (%d KB freed)", n, Plural(n), kb);
        else StatusText("Done: No duplicate waveforms found");
      }
      App().refresh = App().refresh || n > 0;
      return true;
    }
    case 154: {
      int stereo = MergeStereoPairs(c);
      if (stereo) StatusText("Done: Merged %d mono waveforms into %d stereo waveform%s", 2 * stereo, stereo, Plural(stereo));
      else StatusText("No waveforms merged");
      return true;
    }
    case 155: {
      int split = SplitStereoWaves(c);
      if (split) StatusText("Done: Split %d stereo waveform%s into %d mono waveforms", split, Plural(split), 2 * split);
      else StatusText("No waveforms split");
      return true;
    }
    case 167: {
      // Every song, as the window's selection of them would.
      for (Song* song : c.All<Song>())
        if (!RenderSong(c, *song)) return false;
      App().refresh = true;
      return true;
    }
    case 185: {
      int merged = CompactLayers(c);
      if (merged) StatusText("Merged %d layer%s.", merged, Plural(merged));
      return true;
    }
    default:
      return Fail("Command", "Command %d is not a collection command", number);
  }
}

}  // namespace kv

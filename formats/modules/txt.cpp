// "Ascii text parameter descriptions": a readable dump of an item's tree with
// every parameter set at each level, by number, name and value with its unit.
// Written only; nothing reads it back.
#include <cstdio>
#include <string>

#include "core/error.h"
#include "core/fileref.h"
#include "core/items.h"
#include "core/params.h"
#include "core/settings.h"
#include "formats/modules/txt.h"
#include "formats/modules/module.h"

namespace kv {
namespace {

constexpr const char* kEol = "\r\n";

struct Dump {
  std::string out;
  ParamDisplay display;
  uint64_t features = kAllFeatures;

  void Line(int depth, const std::string& text) {
    out.append(static_cast<std::size_t>(depth) * 2, ' ');
    out += text;
    out += kEol;
  }

  void Header(int depth, const char* type, const Item& item) {
    Line(depth, std::string(type) + " \"" + std::string(item.Name()) + "\"");
  }

  // One parameter line; rows without a descriptor on this item are skipped.
  void Param(int depth, const Item& item, int p) {
    const ParameterRow* row = params::Descriptor(item, p, features);
    if (!row || row->kind == kKindText) return;
    char number[16];
    std::snprintf(number, sizeof number, "%3d ", p);
    Line(depth, number + std::string(row->name) + ": " + params::GetText(item, p, display, features));
  }

  void Texts(int depth, const Item& item) {
    for (int p = kFirstTextParam + 1; p <= kLastTextParam; ++p) {
      const std::string text = item.GetParamText(p);
      if (!text.empty()) Line(depth, std::string(CatalogueRow(p)->name) + ": " + text);
    }
  }

  void Articulation(int depth, const Item& item, const kv::Articulation& art) {
    for (int p = 0; p < kArticulationCount; ++p)
      if (art.IsSet(p)) Param(depth, item, p);
  }

  void Trigger(int depth, const Item& item, const TriggerRecord& trigger) {
    for (int p = kFirstTriggerParam; p <= kLastTriggerParam; ++p)
      if (trigger.IsSet(p)) Param(depth, item, p);
  }

  void Wave(int depth, const Waveform& w) {
    Header(depth, "Waveform", w);
    char info[96];
    std::snprintf(info, sizeof info, "Length: %u frames, %u channel%s", w.length, w.channels,
                  w.channels == 1 ? "" : "s");
    Line(depth + 1, info);
    Texts(depth + 1, w);
    for (int p = kFirstLoopParam; p <= kLastLoopParam; ++p) Param(depth + 1, w, p);
    for (int p = kFirstWaveParam; p <= kLastWaveParam; ++p) Param(depth + 1, w, p);
  }

  void RegionTree(int depth, const Region& r) {
    Header(depth, "Region", r);
    if (const Waveform* w = RegionWaveform(r)) Line(depth + 1, "Waveform: \"" + std::string(w->Name()) + "\"");
    if (const SynthModel* s = RegionSynth(r)) Line(depth + 1, "Synth model: \"" + std::string(s->Name()) + "\"");
    Trigger(depth + 1, r, r.trigger);
    for (int p = kFirstLoopParam; p <= kLastLoopParam; ++p)
      if (params::IsSet(r, p)) Param(depth + 1, r, p);
    for (int p = kFirstOverrideParam; p <= kLastOverrideParam; ++p)
      if (params::IsSet(r, p)) Param(depth + 1, r, p);
    Articulation(depth + 1, r, r.art);
  }

  void LayerTree(int depth, const Layer& l) {
    Header(depth, "Layer", l);
    Trigger(depth + 1, l, l.trigger);
    Articulation(depth + 1, l, l.art);
    if (!l.collection) return;
    for (ItemId id : l.children)
      if (const Region* r = l.collection->FindAs<Region>(id)) RegionTree(depth + 1, *r);
  }

  void InstrumentTree(int depth, const Instrument& inst) {
    Header(depth, "Instrument", inst);
    if (inst.comment[0]) Line(depth + 1, std::string("Comment: ") + inst.comment);
    for (int p = kFirstLocationParam; p <= kLastLocationParam; ++p) Param(depth + 1, inst, p);
    for (int slot = 0; slot < kFxSlots; ++slot) {
      if (inst.fx[slot].type == 0) continue;
      for (int place = 0; place < kFxRowsPerSlot; ++place)
        Param(depth + 1, inst, kFirstFxParam + slot * kFxRowsPerSlot + place);
    }
    Articulation(depth + 1, inst, inst.art);
    if (!inst.collection) return;
    for (ItemId id : inst.children)
      if (const Layer* l = inst.collection->FindAs<Layer>(id)) LayerTree(depth + 1, *l);
  }

  void SongTree(int depth, const Song& s) {
    Header(depth, "Song", s);
    Texts(depth + 1, s);
    if (!s.collection) return;
    for (ItemId id : s.children)
      if (const Track* t = s.collection->FindAs<Track>(id)) {
        char info[64];
        std::snprintf(info, sizeof info, ", %u events", t->EventCount());
        Line(depth + 1, "Track \"" + std::string(t->Name()) + "\"" + info);
      }
  }

  void CollectionTree(Collection& c) {
    Header(0, "Collection", c);
    Texts(1, c);
    {
      ItemSet set(c, true);
      for (const Instrument* inst : set.instruments) InstrumentTree(1, *inst);
      for (const Waveform* w : set.waveforms) Wave(1, *w);
    }
    for (Item* item : c.ItemsOf(ItemType::Song)) SongTree(1, static_cast<const Song&>(*item));
  }
};

}  // namespace

std::string ParameterDescription(Item& item) {
  Dump dump;
  const SettingsStore& settings = Settings();
  dump.display = ParamDisplay{settings.app.bShowNoteNames != 0, static_cast<int>(settings.app.cOctMidC)};
  dump.features = settings.features;

  switch (item.Type()) {
    case ItemType::Collection: dump.CollectionTree(static_cast<Collection&>(item)); break;
    case ItemType::Instrument: dump.InstrumentTree(0, static_cast<const Instrument&>(item)); break;
    case ItemType::Layer: dump.LayerTree(0, static_cast<const Layer&>(item)); break;
    case ItemType::Region: dump.RegionTree(0, static_cast<const Region&>(item)); break;
    case ItemType::Waveform: dump.Wave(0, static_cast<const Waveform&>(item)); break;
    case ItemType::Song: dump.SongTree(0, static_cast<const Song&>(item)); break;
    default: dump.Header(0, item.Type() == ItemType::Track ? "Track" : "Synth model", item); break;
  }
  return std::move(dump.out);
}

bool txt_Exp(Item& item, FileRef& file, ExportRequest&) {
  std::string text = ParameterDescription(item);
  if (!file.Write(text.data(), text.size())) return Fail("txt_Exp", "Could not write file");
  return true;
}

}  // namespace kv

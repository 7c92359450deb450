#include "ui/listing.h"

#include <algorithm>
#include <cinttypes>

namespace kv {

namespace {

const char* TypeWord(ItemType t) {
  static const char* const kWords[] = {"waveform", "synth", "region", "layer", "instrument", "track", "song", "collection"};
  return kWords[static_cast<int>(t)];
}

void Line(std::FILE* out, int depth, const Item& item) {
  std::fprintf(out, "%*s%s %08" PRIx32 " \"%s\"", depth * 2, "", TypeWord(item.Type()), item.id, item.name);
}

}  // namespace

void PrintItemTree(std::FILE* out, const Collection& c) {
  Line(out, 0, c);
  std::fprintf(out, "\n");
  // Instruments in bank and program order, as a sampler shows them.
  std::vector<Instrument*> instruments = c.All<Instrument>();
  std::stable_sort(instruments.begin(), instruments.end(),
                   [](const Instrument* a, const Instrument* b) { return a->location < b->location; });
  for (Instrument* inst : instruments) {
    Line(out, 1, *inst);
    std::fprintf(out, " bank=%u:%u program=%u drum=%d\n", LocationMajorBank(inst->location),
                 LocationMinorBank(inst->location), LocationProgram(inst->location),
                 LocationIsDrum(inst->location) ? 1 : 0);
    for (ItemId layerId : inst->children) {
      auto* layer = c.FindAs<Layer>(layerId);
      if (!layer) continue;
      Line(out, 2, *layer);
      std::fprintf(out, "\n");
      for (ItemId regionId : layer->children) {
        auto* region = c.FindAs<Region>(regionId);
        if (!region) continue;
        Line(out, 3, *region);
        Waveform* wave = RegionWaveform(*region);
        std::fprintf(out, " key=%d-%d vel=%d-%d wave=\"%s\"\n", region->trigger.loKey, region->trigger.hiKey,
                     region->trigger.loVel, region->trigger.hiVel, wave ? wave->name : "");
      }
    }
  }
  for (Waveform* wave : c.All<Waveform>()) {
    Line(out, 1, *wave);
    std::fprintf(out, " frames=%u rate=%u channels=%u bits=%u root=%u", wave->length, wave->sampleRate,
                 wave->channels, wave->bits, wave->rootKey);
    if (wave->loopType) std::fprintf(out, " loop=%d:%.6g-%.6g", wave->loopType, wave->loopStart, wave->loopEnd);
    std::fprintf(out, "\n");
  }
  for (Song* song : c.All<Song>()) {
    Line(out, 1, *song);
    std::fprintf(out, " format=%u division=%u\n", song->format, song->division);
    for (ItemId trackId : song->children)
      if (auto* track = c.FindAs<Track>(trackId)) {
        Line(out, 2, *track);
        std::fprintf(out, " events=%u port=%u\n", track->EventCount(), track->port);
      }
  }
}

void PrintSummary(std::FILE* out, const Collection& c) {
  std::fprintf(out, "Collection \"%s\"", c.name);
  if (!c.sourcePath.empty()) std::fprintf(out, " from %s", c.sourcePath.c_str());
  std::fprintf(out, "\n");
  static const ItemType kShown[] = {ItemType::Instrument, ItemType::Layer, ItemType::Region, ItemType::Waveform,
                                    ItemType::Song, ItemType::Track};
  for (ItemType t : kShown)
    if (c.Count(t)) std::fprintf(out, "  %u %s%s\n", c.Count(t), TypeWord(t), c.Count(t) == 1 ? "" : "s");
  std::vector<Instrument*> instruments = c.All<Instrument>();
  std::stable_sort(instruments.begin(), instruments.end(),
                   [](const Instrument* a, const Instrument* b) { return a->location < b->location; });
  for (Instrument* inst : instruments)
    std::fprintf(out, "  %s%3u:%-3u %3u  %s\n", LocationIsDrum(inst->location) ? "drum " : "bank ",
                 LocationMajorBank(inst->location), LocationMinorBank(inst->location), LocationProgram(inst->location),
                 inst->name);
}

}  // namespace kv

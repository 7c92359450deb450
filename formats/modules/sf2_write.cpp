// SoundFont 2 and 1 writers: mono samples (stereo waves, and mono waves
// that play as the two sides of one, become linked pairs), one SoundFont
// instrument per layer or per two layers that hold such sides (shared by
// layers whose zones come out the same), generators by the inverse of the
// reader's formulas.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <string>
#include <unordered_map>
#include <vector>

#include "core/app.h"
#include "core/error.h"
#include "core/fileref.h"
#include "core/items.h"
#include "core/resolved.h"
#include "core/samplecodec.h"
#include "core/settings.h"
#include "core/text.h"
#include "core/wavestore.h"
#include "formats/modules/sf2.h"
#include "formats/modules/sf2_format.h"
#include "formats/modules/module.h"

namespace kv {

namespace {

using namespace sf2;

// Zero samples after each sample, as the standard asks for interpolators.
constexpr int kGuardSamples = 46;
constexpr std::size_t kMaxRecords = 65535;

void PutName(char (&field)[20], std::string_view name) {
  std::memset(field, 0, sizeof field);
  const std::string text = Utf8ToWindows1252(name);
  std::memcpy(field, text.data(), std::min(text.size(), sizeof field));
}

using Pdta = PdtaRecords;

GenRec MakeGen(int oper, int amount) {
  GenRec g;
  g.oper.set(static_cast<uint32_t>(oper));
  g.amount.set(static_cast<uint32_t>(amount));
  return g;
}

ModRec MakeMod(int slot, int amount) {
  ModRec m{};
  m.src.set(SlotSourceWord(slot));
  m.dest.set(SlotTable()[slot].dest);
  m.amount.set(static_cast<uint32_t>(amount));
  return m;
}

// CC 91 and 93 to the sends: the standard's own modulators, which the
// send rows stand for.
bool DefaultSendSlot(int slot) { return slot == kSlotCc91ToReverb || slot == kSlotCc93ToChorus; }

// The generators that carry articulation; the rest are written per zone.
constexpr int kArtGens[] = {kModLfoToPitch, kVibLfoToPitch, kModEnvToPitch, kInitialFilterFc, kInitialFilterQ,
                            kModLfoToFilterFc, kModEnvToFilterFc, kModLfoToVolume, kChorusSend, kReverbSend, kPan,
                            kDelayModLfo, kFreqModLfo, kDelayVibLfo, kFreqVibLfo, kDelayModEnv, kAttackModEnv,
                            kHoldModEnv, kDecayModEnv, kSustainModEnv, kReleaseModEnv, kKeyToModEnvHold,
                            kKeyToModEnvDecay, kDelayVolEnv, kAttackVolEnv, kHoldVolEnv, kDecayVolEnv,
                            kSustainVolEnv, kReleaseVolEnv, kKeyToVolEnvHold, kKeyToVolEnvDecay,
                            kInitialAttenuation, kCoarseTune, kFineTune, kScaleTuning};

// Where a wave's samples went: the first sample header (the left one of a
// stereo pair).
struct WavePlace {
  ItemId wave;
  int first;
  int channels;
};

// A layer as one SoundFont instrument, built aside before it is written:
// presets of a bank usually play the same instrument with a few values of
// their own (release, reverb, a filter), and a big bank only fits the
// format's 16-bit record counts when those presets share it again.
struct LayerZones {
  struct Zone {
    ZoneValues values;          // effective articulation generators and slots
    std::vector<GenRec> other;  // ranges, offsets, loop, class, root key; the sample last
  };
  ZoneValues global;
  std::vector<Zone> zones;

  // What must be equal for two layers to share an instrument: everything
  // but the articulation values, and which of those a zone sets itself.
  std::string ShapeKey() const {
    std::string key;
    const auto put = [&key](const void* data, std::size_t size) {
      key.append(static_cast<const char*>(data), size);
    };
    put(global.m.data(), sizeof global.m);
    for (const Zone& z : zones) {
      uint64_t own = 0;
      for (std::size_t i = 0; i < std::size(kArtGens); ++i)
        if (z.values.g[kArtGens[i]] != global.g[kArtGens[i]]) own |= uint64_t{1} << i;
      const auto count = static_cast<uint32_t>(z.other.size());
      put(&own, sizeof own);
      put(&count, sizeof count);
      put(z.other.data(), z.other.size() * sizeof(GenRec));
      put(z.values.m.data(), sizeof z.values.m);
    }
    return key;
  }

  // The preset-level amounts that turn `base` into this layer, when one
  // constant amount per generator does so for every zone.
  bool OffsetFrom(const LayerZones& base, std::array<int32_t, kGenCount>& offset) const {
    if (base.zones.size() != zones.size() || zones.empty()) return false;
    offset.fill(0);
    // From the zones, not the global zone: where every zone sets a value of
    // its own, the global one plays no part.
    for (int n : kArtGens) offset[n] = zones[0].values.g[n] - base.zones[0].values.g[n];
    for (std::size_t i = 0; i < zones.size(); ++i)
      for (int n : kArtGens)
        if (zones[i].values.g[n] - base.zones[i].values.g[n] != offset[n]) return false;
    // A preset generator holds a signed 16-bit amount.
    for (int n : kArtGens)
      if (offset[n] < INT16_MIN || offset[n] > INT16_MAX) return false;
    return true;
  }
};

struct Writer {
  const char* context;
  bool soundFont1;
  bool use24 = false;
  std::vector<uint8_t> smpl, sm24;
  Pdta pd;
  std::vector<WavePlace> places;
  std::unordered_map<std::string, std::vector<int>> shapes;  // shape key -> instrument indices
  std::vector<LayerZones> written;                              // by instrument index

  // The instrument that plays `layer`, with the preset-level amounts it
  // needs: one already written when a constant offset makes it this layer,
  // else a new one named after the preset.
  int SharedInstrument(LayerZones&& layer, std::string_view name, std::array<int32_t, kGenCount>& offset) {
    std::vector<int>& candidates = shapes[layer.ShapeKey()];
    // The latest few of a shape only: a bank of thousands of look-alike
    // presets must not cost a comparison with every one.
    constexpr std::size_t kTries = 64;
    for (std::size_t i = candidates.size(); i-- > 0 && candidates.size() - i <= kTries;)
      if (layer.OffsetFrom(written[candidates[i]], offset)) return candidates[i];
    offset.fill(0);
    const int index = static_cast<int>(pd.inst.size());
    InstRec ir{};
    PutName(ir.name, name);
    ir.bagIndex.set(static_cast<uint32_t>(pd.ibag.size()));
    pd.inst.push_back(ir);

    const ZoneValues defaults = DefaultZone();
    const ZoneValues& global = layer.global;
    std::vector<GenRec> hoisted;
    {
      std::vector<GenRec> gens;
      std::vector<ModRec> mods;
      for (int n : kArtGens)
        if (global.g[n] != defaults.g[n]) gens.push_back(MakeGen(n, global.g[n]));
      for (int s = 0; s < kSlotCount; ++s)
        if (global.m[s] != defaults.m[s] && !DefaultSendSlot(s)) mods.push_back(MakeMod(s, global.m[s]));
      hoisted = SharedZoneGens(layer, !gens.empty() || !mods.empty());
      gens.insert(gens.end(), hoisted.begin(), hoisted.end());
      SortGens(gens);
      if (!gens.empty() || !mods.empty()) Zone(pd.ibag, pd.igen, pd.imod, gens, mods);
    }
    auto isHoisted = [&hoisted](const GenRec& g) {
      return std::any_of(hoisted.begin(), hoisted.end(), [&](const GenRec& h) { return h.oper.get() == g.oper.get(); });
    };
    for (const LayerZones::Zone& z : layer.zones) {
      std::vector<GenRec> gens;
      std::copy_if(z.other.begin(), z.other.end() - 1, std::back_inserter(gens),
                   [&](const GenRec& g) { return !isHoisted(g); });
      std::vector<ModRec> mods;
      for (int n : kArtGens)
        if (z.values.g[n] != global.g[n]) gens.push_back(MakeGen(n, z.values.g[n]));
      SortGens(gens);
      gens.push_back(z.other.back());
      for (int s = 0; s < kSlotCount; ++s)
        if (z.values.m[s] != global.m[s] && !DefaultSendSlot(s)) mods.push_back(MakeMod(s, z.values.m[s]));
      Zone(pd.ibag, pd.igen, pd.imod, gens, mods);
    }
    candidates.push_back(index);
    written.resize(pd.inst.size());
    written[index] = std::move(layer);
    return index;
  }

  // The zone generators (loop mode, exclusive class, offsets, root key)
  // that every zone gives alike, when one copy of each in the global zone
  // makes the instrument smaller than a copy in every zone.
  static std::vector<GenRec> SharedZoneGens(const LayerZones& layer, bool haveGlobal) {
    std::vector<GenRec> shared;
    if (layer.zones.size() < 2) return shared;
    const std::vector<GenRec>& first = layer.zones.front().other;
    for (auto g = first.begin(); g + 1 < first.end(); ++g) {
      const uint16_t oper = g->oper.get();
      if (oper == kKeyRange || oper == kVelRange) continue;
      const bool everywhere = std::all_of(layer.zones.begin() + 1, layer.zones.end(), [&](const LayerZones::Zone& z) {
        return std::any_of(z.other.begin(), z.other.end() - 1, [&](const GenRec& o) {
          return o.oper.get() == oper && o.amount.get() == g->amount.get();
        });
      });
      if (everywhere) shared.push_back(*g);
    }
    // Each generator moved saves one per zone but one; a global zone that
    // isn't there yet costs a zone record.
    const std::size_t saved = shared.size() * (layer.zones.size() - 1);
    if (saved <= (haveGlobal ? 0u : 1u)) shared.clear();
    return shared;
  }

  // The standard's order: ranges first, the rest by number.
  static void SortGens(std::vector<GenRec>& gens) {
    std::stable_sort(gens.begin(), gens.end(), [](const GenRec& a, const GenRec& b) {
      auto rank = [](const GenRec& g) {
        const int o = g.oper.get();
        return o == kKeyRange ? -2 : o == kVelRange ? -1 : o;
      };
      return rank(a) < rank(b);
    });
  }

  int PlaceOf(ItemId wave) const {
    for (const WavePlace& p : places)
      if (p.wave == wave) return static_cast<int>(&p - places.data());
    return -1;
  }

  bool AddWave(Waveform& w) {
    if (PlaceOf(w.id) >= 0) return true;
    if (!w.EnsureData()) return false;
    const int channels = std::clamp<int>(w.channels, 1, 2);
    const uint64_t frames = w.length;
    const int16_t* s16 = w.samples16.get();
    const float* sf = w.samplesF.get();
    if ((!s16 && !sf) || frames == 0) {
      places.push_back({w.id, -1, 0});
      return true;
    }
    places.push_back({w.id, static_cast<int>(pd.shdr.size()), channels});
    const std::string base(w.Name());
    for (int ch = 0; ch < channels; ++ch) {
      const uint64_t start = smpl.size() / 2;
      for (uint64_t f = 0; f < frames; ++f) {
        const uint64_t i = f * channels + ch;
        uint8_t low = 0;
        int16_t high;
        if (s16) {
          high = s16[i];
        } else if (use24) {
          uint8_t b[3];
          kvEncodePcm24(std::span<const float>(sf + i, 1), b, false, false);
          low = b[0];
          high = static_cast<int16_t>(b[1] | (b[2] << 8));
        } else {
          high = kvFloatSampleTo16(sf[i]);
        }
        smpl.push_back(static_cast<uint8_t>(high));
        smpl.push_back(static_cast<uint8_t>(static_cast<uint16_t>(high) >> 8));
        if (use24) sm24.push_back(low);
      }
      smpl.insert(smpl.end(), kGuardSamples * 2, 0);
      if (use24) sm24.insert(sm24.end(), kGuardSamples, 0);
      if (start + frames > UINT32_MAX) return Fail(context, "Too much data");

      ShdrRec h{};
      PutName(h.name, base);
      h.start.set(static_cast<uint32_t>(start));
      h.end.set(static_cast<uint32_t>(start + frames));
      if (w.loopType != 0 && w.loopEnd > w.loopStart) {
        const double ls = std::clamp<double>(w.loopStart, 0.0, static_cast<double>(frames));
        const double le = std::clamp<double>(w.loopEnd, ls, static_cast<double>(frames));
        h.loopStart.set(static_cast<uint32_t>(start + RoundHalfAway(ls)));
        h.loopEnd.set(static_cast<uint32_t>(start + RoundHalfAway(le)));
      } else {
        h.loopStart.set(static_cast<uint32_t>(start));
        h.loopEnd.set(static_cast<uint32_t>(start + frames));
      }
      h.rate.set(w.sampleRate ? w.sampleRate : 44100);
      h.originalKey = std::min<uint8_t>(w.rootKey, 127);
      h.correction = static_cast<int8_t>(std::clamp<int>(w.fineTune, -99, 99));
      if (channels == 2) {
        const int self = static_cast<int>(pd.shdr.size());
        h.link.set(static_cast<uint32_t>(ch == 0 ? self + 1 : self - 1));
        h.type.set(ch == 0 ? kLeftSample : kRightSample);
      } else {
        h.type.set(kMonoSample);
      }
      pd.shdr.push_back(h);
    }
    return true;
  }

  // Generators of one zone: ranges first, the terminal one last.
  void Zone(std::vector<BagRec>& bags, std::vector<GenRec>& gens, std::vector<ModRec>& mods,
            const std::vector<GenRec>& body, const std::vector<ModRec>& zoneMods) {
    BagRec bag;
    bag.genIndex.set(static_cast<uint32_t>(gens.size()));
    bag.modIndex.set(static_cast<uint32_t>(mods.size()));
    bags.push_back(bag);
    gens.insert(gens.end(), body.begin(), body.end());
    mods.insert(mods.end(), zoneMods.begin(), zoneMods.end());
  }

  static void Ranges(const TriggerRecord& t, std::vector<GenRec>& out) {
    if (t.loKey != 0 || t.hiKey != 127) out.push_back(MakeGen(kKeyRange, t.loKey | (t.hiKey << 8)));
    if (t.loVel != 0 || t.hiVel != 127) out.push_back(MakeGen(kVelRange, t.loVel | (t.hiVel << 8)));
  }

  // A zone's ranges under a preset zone that narrows them anyway: an edge
  // that meets the preset zone's edge opens to the end, which plays the same
  // and gives back the one instrument that presets with different key or
  // velocity windows had in common.
  static void OpenRanges(const TriggerRecord& zone, const TriggerRecord& preset, std::vector<GenRec>& out) {
    TriggerRecord t = zone;
    if (t.loKey <= preset.loKey) t.loKey = 0;
    if (t.hiKey >= preset.hiKey) t.hiKey = 127;
    if (t.loVel <= preset.loVel) t.loVel = 0;
    if (t.hiVel >= preset.hiVel) t.hiVel = 127;
    Ranges(t, out);
  }

  // A layer about to be written, with the layer that holds the other
  // halves of its stereo pairs when there is one.
  struct Part {
    Layer* layer = nullptr;
    std::vector<Region*> regions;
    ZoneValues global;
    std::vector<Region*> partners;  // by region: its other half, or null
    bool absorbed = false;          // written with the layer it pairs with
  };

  // Two regions that play the two sides of one stereo sound: mono waves
  // alike in length, rate, pitch and loop, over the same keys and
  // velocities, panned hard apart.
  static bool StereoHalves(const Region& a, const Region& b) {
    const Waveform* wa = RegionWaveform(a);
    const Waveform* wb = RegionWaveform(b);
    if (!wa || !wb || wa == wb || wa->channels > 1 || wb->channels > 1 || wa->length != wb->length ||
        wa->sampleRate != wb->sampleRate || wa->rootKey != wb->rootKey || wa->fineTune != wb->fineTune ||
        wa->loopType != wb->loopType || wa->loopStart != wb->loopStart || wa->loopEnd != wb->loopEnd ||
        !a.trigger.SameRanges(b.trigger)) {
      return false;
    }
    const ResolvedRegion ra = ResolveRegion(a), rb = ResolveRegion(b);
    const float pa = ra.art.value[kRowPan], pb = rb.art.value[kRowPan];
    return std::fabs(pa) == 1.0f && pa == -pb && ra.pitch.rootKey == rb.pitch.rootKey &&
           ra.pitch.masterTune == rb.pitch.masterTune;
  }

  // The two sides of stereo samples come in two layers of one instrument
  // (the reader's zones over the same keys, the export's split of stereo
  // waves). Layers alike but for those waves and pans go back into one
  // SoundFont instrument, where each pair of zones plays a linked pair.
  static void PairStereoLayers(std::vector<Part>& parts) {
    for (std::size_t i = 0; i < parts.size(); ++i) {
      Part& a = parts[i];
      if (a.absorbed || !a.partners.empty()) continue;
      for (std::size_t j = i + 1; j < parts.size(); ++j) {
        Part& b = parts[j];
        if (b.absorbed || !b.partners.empty() || b.regions.size() > a.regions.size() ||
            !a.layer->trigger.SameRanges(b.layer->trigger) || a.global.g != b.global.g || a.global.m != b.global.m) {
          continue;
        }
        std::vector<Region*> partners(a.regions.size(), nullptr);
        bool paired = true;
        for (Region* r : b.regions) {
          std::size_t k = 0;
          while (k < a.regions.size() && (partners[k] || !StereoHalves(*a.regions[k], *r))) ++k;
          if (k == a.regions.size()) {
            paired = false;
            break;
          }
          partners[k] = r;
        }
        if (!paired) continue;
        a.partners = std::move(partners);
        b.absorbed = true;
        break;
      }
    }
  }

  // Makes the samples of two stereo halves a linked pair, the one panned
  // left the left sample. A sample already in a pair stays in that one.
  void LinkPair(const Region& a, const Region& b) {
    const int pa = PlaceOf(RegionWaveform(a)->id), pb = PlaceOf(RegionWaveform(b)->id);
    if (pa < 0 || pb < 0 || places[pa].first < 0 || places[pb].first < 0 || places[pa].channels != 1 ||
        places[pb].channels != 1) {
      return;
    }
    const bool aLeft = ResolveRegion(a).art.value[kRowPan] < 0;
    const int left = places[aLeft ? pa : pb].first, right = places[aLeft ? pb : pa].first;
    ShdrRec& l = pd.shdr[left];
    ShdrRec& r = pd.shdr[right];
    if (l.type.get() != kMonoSample || r.type.get() != kMonoSample) return;
    l.type.set(kLeftSample);
    l.link.set(static_cast<uint32_t>(right));
    r.type.set(kRightSample);
    r.link.set(static_cast<uint32_t>(left));
  }

  // The zones of one region, one per channel of its wave, at the end of
  // `zones`; its wave is written first.
  bool AddRegionZones(Region& region, const Layer& layer, const SendSlots& sends, uint64_t features,
                      LayerZones& zones) {
    Waveform* wave = RegionWaveform(region);
    if (!AddWave(*wave)) return false;
    const WavePlace& place = places[PlaceOf(wave->id)];
    if (place.first < 0) return true;
    const ResolvedRegion resolved = ResolveRegion(region);
    const ZoneValues z = ArticulationToGens(resolved.art, sends, features);
    const LoopView& loop = resolved.loop;
    for (int ch = 0; ch < place.channels; ++ch) {
      LayerZones::Zone& zone = zones.zones.emplace_back();
      zone.values = z;
      // The two sides of a stereo wave play hard left and right.
      if (place.channels == 2) zone.values.g[kPan] = ch == 0 ? -500 : 500;
      std::vector<GenRec>& gens = zone.other;
      OpenRanges(region.trigger, layer.trigger, gens);
      if (resolved.startOffset > 0) {
        gens.push_back(MakeGen(kStartAddrsOffset, resolved.startOffset % 32768));
        if (resolved.startOffset >= 32768) {
          gens.push_back(MakeGen(kStartAddrsCoarse, resolved.startOffset / 32768));
        }
      }
      if (resolved.endOffset < 0) {
        gens.push_back(MakeGen(kEndAddrsOffset, resolved.endOffset % 32768));
        if (resolved.endOffset <= -32768) gens.push_back(MakeGen(kEndAddrsCoarse, resolved.endOffset / 32768));
      }
      // The loop as the region plays it, against the sample header's.
      const int ds = RoundHalfAway(loop.start - wave->loopStart);
      const int de = RoundHalfAway(std::min<double>(loop.end, wave->length) -
                                   std::min<double>(wave->loopEnd, wave->length));
      if (ds) gens.push_back(MakeGen(kStartloopAddrsOffset, ds % 32768));
      if (ds / 32768) gens.push_back(MakeGen(kStartloopAddrsCoarse, ds / 32768));
      if (de) gens.push_back(MakeGen(kEndloopAddrsOffset, de % 32768));
      if (de / 32768) gens.push_back(MakeGen(kEndloopAddrsCoarse, de / 32768));
      if (loop.type != 0) gens.push_back(MakeGen(kSampleModes, loop.release != 0 ? 3 : 1));
      if (region.trigger.exclusionGroup) {
        gens.push_back(MakeGen(kExclusiveClass, std::min<int>(region.trigger.exclusionGroup, 127)));
      }
      if (region.overrideMask & kOverrideRootKey) {
        gens.push_back(MakeGen(kOverridingRootKey, resolved.pitch.rootKey));
      }
      gens.push_back(MakeGen(kSampleId, place.first + ch));
    }
    return true;
  }

  bool AddInstrument(Collection& c, Instrument& instrument, uint64_t features) {
    PhdrRec ph{};
    PutName(ph.name, instrument.Name());
    ph.preset.set(LocationProgram(instrument.location));
    ph.bank.set(LocationIsDrum(instrument.location) ? 128 : LocationMajorBank(instrument.location));
    ph.bagIndex.set(static_cast<uint32_t>(pd.pbag.size()));
    pd.phdr.push_back(ph);

    SendSlots sends;
    for (int s = 0; s < 4; ++s) {
      if (instrument.fx[s].type == 2 && sends.reverb < 0) sends.reverb = s;
      if (instrument.fx[s].type == 1 && sends.chorus < 0) sends.chorus = s;
    }
    const Articulation none;
    std::vector<Part> parts;
    for (ItemId layerId : instrument.children) {
      Layer* layer = c.FindAs<Layer>(layerId);
      if (!layer) continue;
      Part part{layer};
      for (ItemId id : layer->children)
        if (auto* r = c.FindAs<Region>(id); r && RegionWaveform(*r)) part.regions.push_back(r);
      if (part.regions.empty()) continue;
      // The layer's values, absolute, go to the SoundFont instrument's global
      // zone: preset-level generators add to the instrument's, so values that
      // already include them must not stand there.
      part.global = ArticulationToGens(MergedArticulation(none, layer->art, instrument.art), sends, features);
      parts.push_back(std::move(part));
    }
    PairStereoLayers(parts);

    for (const Part& part : parts) {
      if (part.absorbed) continue;
      Layer* layer = part.layer;
      LayerZones zones;
      zones.global = part.global;
      for (std::size_t k = 0; k < part.regions.size(); ++k) {
        Region* region = part.regions[k];
        if (!AddRegionZones(*region, *layer, sends, features, zones)) return false;
        if (Region* other = part.partners.empty() ? nullptr : part.partners[k]) {
          if (!AddRegionZones(*other, *layer, sends, features, zones)) return false;
          LinkPair(*region, *other);
        }
      }

      // An instrument zone can only attenuate: a gain goes to the preset zone.
      int lift = -zones.global.g[kInitialAttenuation];
      for (const LayerZones::Zone& z : zones.zones) lift = std::max(lift, -z.values.g[kInitialAttenuation]);
      lift = std::max(lift, 0);
      zones.global.g[kInitialAttenuation] += lift;
      for (LayerZones::Zone& z : zones.zones) z.values.g[kInitialAttenuation] += lift;

      std::array<int32_t, kGenCount> offset;
      const int inst = SharedInstrument(std::move(zones), instrument.Name(), offset);
      offset[kInitialAttenuation] -= lift;
      std::vector<GenRec> body;
      for (int n : kArtGens)
        if (offset[n] != 0) body.push_back(MakeGen(n, offset[n]));
      Ranges(layer->trigger, body);
      SortGens(body);
      body.push_back(MakeGen(kInstrument, inst));
      Zone(pd.pbag, pd.pgen, pd.pmod, body, {});
    }
    return true;
  }

  bool TooMuch() const {
    if (pd.pgen.size() < kMaxRecords && pd.igen.size() < kMaxRecords && pd.pbag.size() < kMaxRecords &&
        pd.ibag.size() < kMaxRecords && pd.pmod.size() < kMaxRecords && pd.imod.size() < kMaxRecords &&
        pd.shdr.size() < kMaxRecords && pd.inst.size() < kMaxRecords) {
      return false;
    }
    if (soundFont1) {
      Fail(context,
           "Save failed - Too many 'parameter' values!\nThe SBK format can handle a maximum of 65536 parameter "
           "values...\n");
    } else {
      Fail(context,
           "Save failed - Too much data!\n\nThe SF2 file format is by its construction limited to storing a maximum "
           "of 65536 parameter values... Remove some instruments then try saving again.\n");
    }
    return true;
  }

  void Terminals() {
    PhdrRec eop{};
    PutName(eop.name, "EOP");
    eop.bagIndex.set(static_cast<uint32_t>(pd.pbag.size()));
    pd.phdr.push_back(eop);
    Zone(pd.pbag, pd.pgen, pd.pmod, {}, {});
    pd.pmod.push_back(ModRec{});
    pd.pgen.push_back(GenRec{});
    InstRec eoi{};
    PutName(eoi.name, "EOI");
    eoi.bagIndex.set(static_cast<uint32_t>(pd.ibag.size()));
    pd.inst.push_back(eoi);
    Zone(pd.ibag, pd.igen, pd.imod, {}, {});
    pd.imod.push_back(ModRec{});
    pd.igen.push_back(GenRec{});
    ShdrRec eos{};
    PutName(eos.name, "EOS");
    pd.shdr.push_back(eos);
  }
};

void AppendChunk(std::vector<uint8_t>& out, const char* id, const void* data, std::size_t size) {
  out.insert(out.end(), id, id + 4);
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<uint8_t>(size >> (8 * i)));
  const auto* p = static_cast<const uint8_t*>(data);
  out.insert(out.end(), p, p + size);
  if (size & 1) out.push_back(0);
}

template <typename T>
void AppendRecords(std::vector<uint8_t>& out, const char* id, const std::vector<T>& records) {
  AppendChunk(out, id, records.data(), records.size() * sizeof(T));
}

// INFO text: nul-terminated, cut to `limit` bytes with the nul, even size.
void AppendText(std::vector<uint8_t>& out, const char* id, std::string_view text, std::size_t limit) {
  std::string bytes = Utf8ToWindows1252(text);
  if (bytes.size() > limit - 1) bytes.resize(limit - 2);
  bytes.push_back('\0');
  if (bytes.size() & 1) bytes.push_back('\0');
  AppendChunk(out, id, bytes.data(), bytes.size());
}

std::vector<uint8_t> List(const char* type, const std::vector<uint8_t>& body) {
  std::vector<uint8_t> out;
  out.insert(out.end(), type, type + 4);
  out.insert(out.end(), body.begin(), body.end());
  return out;
}

bool WriteBank(Item& item, FileRef& file, ExportRequest& request, const char* context, bool soundFont1) {
  const ItemType type = item.Type();
  if (type != ItemType::Instrument && type != ItemType::Collection) {
    return Fail(context, "The file format can not save this item");
  }
  Collection& c = *item.collection;
  ItemSet set(item, type == ItemType::Collection);
  const uint64_t features = Settings().features;

  Writer w{context, soundFont1};
  const bool allow24 = !soundFont1 && (request.request == 0 || (request.request & (1u << kPcm24)));
  if (allow24) {
    auto wants24 = [](const Waveform* wave) { return wave->samplesF || wave->bits > 16; };
    for (const Waveform* wave : set.waveforms) w.use24 |= wants24(wave);
    for (Instrument* ins : set.instruments)
      for (ItemId l : ins->children)
        if (auto* layer = c.FindAs<Layer>(l))
          for (ItemId r : layer->children)
            if (auto* region = c.FindAs<Region>(r))
              if (auto* wave = RegionWaveform(*region)) w.use24 |= wants24(wave);
  }
  for (Instrument* ins : set.instruments) {
    if (!w.AddInstrument(c, *ins, features)) return false;
    if (w.TooMuch()) return false;
  }
  for (Waveform* wave : set.waveforms)
    if (!w.AddWave(*wave)) return false;
  if (w.TooMuch()) return false;
  w.Terminals();

  std::vector<uint8_t> info;
  const uint16_t version[2] = {static_cast<uint16_t>(soundFont1 ? 1 : 2),
                               static_cast<uint16_t>(soundFont1 ? 0 : w.use24 ? 4 : 1)};
  const uint8_t ifil[4] = {static_cast<uint8_t>(version[0]), 0, static_cast<uint8_t>(version[1]), 0};
  AppendChunk(info, "ifil", ifil, 4);
  AppendChunk(info, "isng", "EMU8000\0", 8);
  std::string_view name = c.Name();
  if (type == ItemType::Instrument || name.empty()) name = item.Name();
  AppendText(info, "INAM", name.empty() ? std::string_view("Kelvo Studio bank") : name, 256);
  if (c.engineer[0]) AppendText(info, "IENG", c.engineer, 256);
  if (c.copyright[0]) AppendText(info, "ICOP", c.copyright, 256);
  if (c.comment[0]) AppendText(info, "ICMT", c.comment, 65536);
  char isft[20] = {};
  std::memcpy(isft, kProgramTitle, std::min(std::strlen(kProgramTitle), sizeof isft - 1));
  AppendChunk(info, "ISFT", isft, sizeof isft);

  std::vector<uint8_t> sdta;
  AppendChunk(sdta, "smpl", w.smpl.data(), w.smpl.size());
  if (w.use24) AppendChunk(sdta, "sm24", w.sm24.data(), w.sm24.size());
  w.smpl.clear();
  w.smpl.shrink_to_fit();

  std::vector<uint8_t> pdta;
  AppendRecords(pdta, "phdr", w.pd.phdr);
  AppendRecords(pdta, "pbag", w.pd.pbag);
  AppendRecords(pdta, "pmod", w.pd.pmod);
  AppendRecords(pdta, "pgen", w.pd.pgen);
  AppendRecords(pdta, "inst", w.pd.inst);
  AppendRecords(pdta, "ibag", w.pd.ibag);
  AppendRecords(pdta, "imod", w.pd.imod);
  AppendRecords(pdta, "igen", w.pd.igen);
  AppendRecords(pdta, "shdr", w.pd.shdr);

  std::vector<uint8_t> body;
  body.insert(body.end(), {'s', 'f', 'b', 'k'});
  const auto infoList = List("INFO", info);
  AppendChunk(body, "LIST", infoList.data(), infoList.size());
  const auto sdtaList = List("sdta", sdta);
  sdta.clear();
  sdta.shrink_to_fit();
  AppendChunk(body, "LIST", sdtaList.data(), sdtaList.size());
  const auto pdtaList = List("pdta", pdta);
  AppendChunk(body, "LIST", pdtaList.data(), pdtaList.size());
  if (body.size() > UINT32_MAX) return Fail(context, "Too much data");

  uint8_t head[8] = {'R', 'I', 'F', 'F'};
  for (int i = 0; i < 4; ++i) head[4 + i] = static_cast<uint8_t>(body.size() >> (8 * i));
  if (!file.Write(head, 8) || !file.Write(body.data(), body.size())) return Fail(context, "Writing to file failed");
  return true;
}

}  // namespace

bool sf2_Exp(Item& item, FileRef& file, ExportRequest& request) {
  return WriteBank(item, file, request, "sf2_Exp", false);
}

bool sbk_Exp(Item& item, FileRef& file, ExportRequest& request) {
  return WriteBank(item, file, request, "sbk_Exp", true);
}

}  // namespace kv

// SFZ writer: one text file per instrument, its waves as WAV files beside it
// or in a sub-folder named after it.
//
// Each level is written as the difference to the level above: the merged
// articulation of a level is turned into a full opcode list (defaults
// included), and only the opcodes whose text differs from the parent's list
// are written. That keeps conversions that tie several rows together (the
// cutoff corrections, folded envelopes) right at every level, and leaves
// default values out.
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "core/articulation.h"
#include "core/error.h"
#include "core/fileref.h"
#include "core/items.h"
#include "core/resolved.h"
#include "core/units.h"
#include "formats/modules/module.h"
#include "formats/modules/sfz.h"
#include "formats/modules/sfz_internal.h"
#include "formats/modules/wav.h"

namespace kv {

namespace {

namespace fs = std::filesystem;

constexpr const char* kWriteContext = "sfz_Exp";

using OpList = std::vector<std::pair<std::string, std::string>>;

struct Writer {
  bool v2 = false;
  OpList ops;
  void Put(const std::string& name, double value) { ops.emplace_back(name, sfz::FormatNumber(value)); }
  void Put(const std::string& name, std::string value) { ops.emplace_back(name, std::move(value)); }
};

// Every opcode an articulation speaks for, defaults included.
OpList ArticulationOpcodes(const Articulation& source, bool v2) {
  Articulation a = source;
  Writer w{v2, {}};
  const auto& v = a.value;

  // Envelopes the DAHDSR opcodes can't hold are folded first; the V-ENV's
  // peak gain goes into the volume.
  double volumeGain = 0;
  EnvGroup env[kEnvCount];
  for (int k = 0; k < kEnvCount; ++k) {
    env[k] = a.ReadEnvelope(k);
    if (k != kEnvX && !IsPlainEnvelope(env[k])) {
      const float gain = FoldToDahdsr(env[k], k != kEnvV);
      if (k == kEnvV) volumeGain = gain;
    }
  }

  const double tune = v[kRowMasterTune];
  const double transpose = std::trunc(tune);
  w.Put("transpose", transpose);
  w.Put("tune", std::round((tune - transpose) * 100.0 * 1000.0) / 1000.0);
  w.Put("pitch_keytrack", v[kRowKeyToPitch] * 100.0);
  w.Put("bend_up", v[kRowBendToPitch] * 100.0);
  w.Put("bend_down", -v[kRowBendToPitch] * 100.0);
  if (v2) w.Put("pitch_random", v[kRowRandomPitch] * 100.0);

  w.Put("volume", v[kRowMasterVolume] + volumeGain);
  w.Put("amp_veltrack", v[kRowVelToVolume] / 96.0 * 100.0);
  w.Put("amp_keytrack", v[kRowKeyToVolume] / 12.0);
  w.Put(v2 ? "volume_oncc1" : "gain_cc1", v[kRowModWheelToVolume]);
  w.Put(v2 ? "volume_oncc129" : "gain_cc129", v[kRowAftertouchToVolume]);

  const int type = ValueAsInt(v[kRowFilterType]);
  if (type > 0) {
    w.Put("fil_type", sfz::FilterTypeName(type, v2));
    // SFZ's cutoff holds at velocity 0 and at fil_keycenter, which stays at
    // its default, middle C.
    const FormatCutoff cutoff =
        CutoffFromModel(ModelCutoff{v[kRowCutoff], v[kRowVelToCutoff], v[kRowKeyToCutoff]}, 60.0);
    w.Put("cutoff", cutoff.hz);
    w.Put("fil_veltrack", cutoff.velocitySpan * 100.0);
    w.Put("fil_keytrack", cutoff.keyPerOctave / 0.12);
    w.Put(v2 ? "cutoff_oncc1" : "cutoff_cc1", v[kRowModWheelToCutoff] * 100.0);
    w.Put("cutoff_chanaft", v[kRowAftertouchToCutoff] * 100.0);
    w.Put("resonance", v[kRowResonance]);
    if (v2) {
      w.Put("resonance_oncc1", v[kRowModWheelToResonance]);
      w.Put("resonance_oncc129", v[kRowAftertouchToResonance]);
    }
  } else {
    // Nothing says "no filter" in SFZ; a wide-open one sounds the same.
    w.Put("cutoff", std::string("off"));
  }

  for (int b = 0; b < kEqBands; ++b) {
    const EqBand e = a.ReadEq(b);
    const std::string p = "eq" + std::to_string(b + 1) + "_";
    w.Put(p + "gain", e.gain);
    if (e.gain == 0) continue;
    w.Put(p + "freq", e.frequency);
    w.Put(p + "bw", sfz::QToBandwidth(e.q));
    if (v2) w.Put(p + "type", std::string(e.mode == 1 ? "lshelf" : e.mode == 2 ? "hshelf" : "peak"));
  }

  w.Put("pan", v[kRowPan] * 100.0);
  if (v2) w.Put("pan_oncc10", v[kRowCc10ToPan] * 100.0);
  w.Put("pan_keytrack", v[kRowKeyToPan] * 100.0 / 12.0);
  if (v2) w.Put("pan_random", v[kRowRandomPan] * 100.0);
  for (int n = 0; n < 4; ++n) w.Put("effect" + std::to_string(n + 1), v[sfz::kSendRows[n]] * 100.0);

  struct EnvDef {
    const char* prefix;
    int k;
  };
  for (const EnvDef& d : {EnvDef{"ampeg_", kEnvV}, EnvDef{"pitcheg_", kEnvP}, EnvDef{"fileg_", kEnvF}}) {
    const EnvGroup& g = env[d.k];
    const std::string p = d.prefix;
    w.Put(p + "start", g.row[kEnvInitial] * 100.0);
    for (const sfz::EnvSegment& s : sfz::kEnvSegments) {
      const double t = g.row[s.timeRow];
      w.Put(p + s.word, t);
      // Velocity and key amounts are seconds added at the top of their range.
      w.Put(p + "vel2" + s.word, t > 0 ? t * (g.row[s.velRow] - 1.0) : 0.0);
      if (v2) w.Put(p + s.word + "_oncc133", t > 0 ? t * (g.row[s.keyRow] - 1.0) * 127.0 / 12.0 : 0.0);
    }
    w.Put(p + "sustain", g.row[kEnvSustain] * 100.0);
    if (d.k != kEnvV && g.depthCount >= 2) {
      w.Put(p + "depth", g.depth[0] * 100.0);
      w.Put(p + "vel2depth", g.depth[1] * 100.0);
    }
  }

  struct LfoDef {
    const char* prefix;
    int n;
    int rows[3];  // depth, mod wheel, aftertouch
    double scale;
  };
  for (const LfoDef& d :
       {LfoDef{"pitchlfo_", kLfoP, {kRowPLfoToPitch, kRowModWheelToPLfoPitch, kRowAftertouchToPLfoPitch}, 100.0},
        LfoDef{"amplfo_", kLfoV, {kRowVLfoToVolume, kRowModWheelToVLfoVolume, kRowAftertouchToVLfoVolume}, 1.0},
        LfoDef{"fillfo_", kLfoF, {kRowFLfoToCutoff, kRowModWheelToFLfoCutoff, kRowAftertouchToFLfoCutoff}, 100.0}}) {
    const std::string p = d.prefix;
    w.Put(p + "freq", v[LfoRow(d.n, kLfoFrequency)]);
    w.Put(p + "delay", v[LfoRow(d.n, kLfoDelay)]);
    w.Put(p + "fade", v[LfoRow(d.n, kLfoRamp)]);
    w.Put(p + "depth", v[d.rows[0]] * d.scale);
    w.Put(p + "depthcc1", v[d.rows[1]] * d.scale);
    w.Put(p + "depthchanaft", v[d.rows[2]] * d.scale);
  }
  if (v2) {
    // The X-LFO has no opcodes of its own: a generic LFO aimed at pitch and pan.
    w.Put("lfo01_freq", v[LfoRow(kLfoX, kLfoFrequency)]);
    w.Put("lfo01_delay", v[LfoRow(kLfoX, kLfoDelay)]);
    w.Put("lfo01_fade", v[LfoRow(kLfoX, kLfoRamp)]);
    static constexpr int kWave[6] = {1, 0, 3, 12, 6, 7};
    const int shape = ValueAsInt(v[LfoRow(kLfoX, kLfoShape)]) & kLfoShapeMask;
    w.Put("lfo01_wave", static_cast<double>(shape < 6 ? kWave[shape] : 1));
    w.Put("lfo01_pitch", v[kRowXLfoToPitch] * 100.0);
    w.Put("lfo01_pitch_oncc1", v[kRowModWheelToXLfoPitch] * 100.0);
    w.Put("lfo01_pitch_oncc129", v[kRowAftertouchToXLfoPitch] * 100.0);
    w.Put("lfo01_pan", v[kRowXLfoToPan] * 100.0);
  }
  return w.ops;
}

// The opcodes of `child` whose text differs from `parent`'s.
// Both lists come from ArticulationOpcodes and so mostly walk in step; the
// search runs only where a conditional opcode puts them out of step.
OpList Difference(const OpList& child, const OpList& parent) {
  OpList out;
  std::size_t next = 0;
  for (const auto& [name, value] : child) {
    const std::string* inherited = nullptr;
    if (next < parent.size() && parent[next].first == name) {
      inherited = &parent[next++].second;
    } else {
      for (std::size_t k = 0; k < parent.size(); ++k) {
        if (parent[k].first != name) continue;
        inherited = &parent[k].second;
        next = k + 1;
        break;
      }
    }
    if (inherited && *inherited == value) continue;
    if (!inherited && value == "0") continue;
    if (name == "cutoff" && value == "off") {
      if (inherited) out.emplace_back("cutoff", "24000");
      continue;
    }
    out.emplace_back(name, value);
  }
  return out;
}

void Append(std::string& text, const OpList& ops) {
  for (const auto& [name, value] : ops) text += " " + name + "=" + value;
}

// Wave files written in this process, by path: a second instrument saved to
// the same folder mustn't overwrite a different wave of the same name, and
// needn't write again a wave the same batch has already put there.
struct WrittenWave {
  ItemId wave = kNoItem;
  uint64_t batch = 0;
  uint32_t request = 0;
};

std::unordered_map<std::string, WrittenWave>& WrittenWaves() {
  static std::unordered_map<std::string, WrittenWave> written;
  return written;
}

// Where a batch first wrote each wave, by wave and request: the next folder
// that needs the same wave gets it without a second copy of its data where
// the file system allows (see PlaceFileWithoutCopy).
struct FirstCopy {
  uint64_t batch = 0;
  std::map<std::pair<ItemId, uint32_t>, fs::path> paths;
};

FirstCopy& FirstCopies() {
  static FirstCopy copies;
  return copies;
}

std::string Lower(std::string s) {
  for (char& c : s) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
  return s;
}

class WaveFiles {
 public:
  WaveFiles(fs::path folder, uint32_t request) : folder_(std::move(folder)), request_(request) {}

  // The file name of a wave, written on first use; empty with a failure set.
  bool Name(Waveform& wave, std::string& name) {
    if (auto it = names_.find(wave.id); it != names_.end()) {
      name = it->second;
      return true;
    }
    std::string stem = SafeFileName(wave.Name());
    if (stem.empty()) stem = "wave";
    for (int n = 1;; ++n) {
      name = n == 1 ? stem + ".wav" : stem + " " + std::to_string(n) + ".wav";
      const std::string key = (folder_ / name).string();
      auto written = WrittenWaves().find(key);
      const bool clash =
          used_.count(Lower(name)) || (written != WrittenWaves().end() && written->second.wave != wave.id);
      if (!clash) break;
    }
    used_.insert(Lower(name));
    const fs::path path = folder_ / name;
    const uint64_t batch = ExportBatch::Current();
    const auto written = WrittenWaves().find(path.string());
    std::error_code ec;
    const bool alreadyThere = batch != 0 && written != WrittenWaves().end() && written->second.batch == batch &&
                              written->second.request == request_ && fs::is_regular_file(path, ec);
    if (!alreadyThere) {
      FirstCopy& copies = FirstCopies();
      if (copies.batch != batch) copies = FirstCopy{batch, {}};
      const auto first = batch != 0 ? copies.paths.find({wave.id, request_}) : copies.paths.end();
      const bool placed = first != copies.paths.end() && fs::is_regular_file(first->second, ec) &&
                          PlaceFileWithoutCopy(first->second, path, HardLinkSharedFiles());
      if (!placed && !WriteWaveFile(wave, path, request_)) {
        if (ErrorMessage[0] == 0) Fail(kWriteContext, "Could not create file");
        return false;
      }
      WrittenWaves()[path.string()] = {wave.id, batch, request_};
      if (batch != 0 && first == copies.paths.end()) copies.paths[{wave.id, request_}] = path;
    }
    names_[wave.id] = name;
    return true;
  }

 private:
  fs::path folder_;
  uint32_t request_;
  std::unordered_map<ItemId, std::string> names_;
  std::set<std::string> used_;
};

template <typename T>
std::vector<T*> ChildrenOf(const Item& parent) {
  std::vector<T*> out;
  for (ItemId id : parent.children)
    if (auto* t = parent.collection->FindAs<T>(id)) out.push_back(t);
  return out;
}

bool WriteInstrument(Instrument& inst, FileRef& file, const ExportRequest& request) {
  const uint32_t variant = request.parameter;
  const bool v2 = variant >= 2;
  const bool subFolder = variant == 1 || variant == 3;
  const fs::path sfzPath = file.Path();
  const std::string stem = sfzPath.stem().string();
  fs::path waveFolder = sfzPath.parent_path();
  if (subFolder) {
    waveFolder /= stem;
    std::error_code ec;
    fs::create_directories(waveFolder, ec);
    if (ec || !fs::is_directory(waveFolder)) return Fail(kWriteContext, "Could not create file");
  }

  std::string text;
  if (v2) {
    text += "//-------------------------------------------------------------------------------------------------\n";
    text += "// sfz Definition File\n";
    text += "// Version 2\n";
    text += "//\n";
    text += "// Written by Kelvo Studio v12.5\n";
  } else {
    text += "/////////////////////////////////////////////////////////////////////////////\n";
    text += "/// sfz definition file\n";
    text += "/// written by Kelvo Studio v12.5\n";
    text += "/// -------------------------------------------------------------------------\n";
    text += "/// " + std::string(inst.Name()) + "\n";
    text += "/////////////////////////////////////////////////////////////////////////////\n";
  }
  text += "\n";
  if (subFolder) text += "<control>\ndefault_path=" + stem + "/\n\n";

  const OpList defaults = ArticulationOpcodes(Articulation(), v2);
  Articulation instArt = inst.art;
  instArt.Inherit(Articulation());
  const OpList instOps = ArticulationOpcodes(instArt, v2);
  text += "<global>";
  Append(text, Difference(instOps, defaults));
  text += "\n";

  // Channel effects as <effect> headers on the bus of their slot, so that
  // the sends of the regions keep a target.
  for (int slot = 0; slot < kFxSlots; ++slot) {
    const ChannelFx& fx = inst.fx[slot];
    const float* p = fx.param;
    std::string e;
    using namespace sfz;
    switch (fx.type) {
      case kFxChorus:
        e = std::string(" type=") + (p[kChorusFlanger] != 0 ? "flanger" : "chorus") +
            " lfofreq=" + FormatNumber(p[kChorusRate]) +
            " depth=" + FormatNumber(p[kChorusDepth] / kChorusFullDepth * 100.0) +
            " feedback=" + FormatNumber(p[kChorusFeedback] * 100.0);
        break;
      case kFxReverb:
        e = " type=fverb size=" + FormatNumber(p[kReverbSize] * 100.0) +
            " damp=" + FormatNumber(p[kReverbDamp] * 100.0);
        break;
      case kFxCompressor:
        e = " type=comp threshold=" + FormatNumber(p[kCompThreshold]) + " ratio=" + FormatNumber(p[kCompRatio]) +
            " attack=" + FormatNumber(p[kCompAttack]) + " release=" + FormatNumber(p[kCompRelease]) +
            " gain=" + FormatNumber(p[kCompGain]);
        break;
      case kFxOverdrive: e = " type=disto drive=" + FormatNumber(p[kOverdriveDrive]); break;
      case kFxPhaser:
        e = " type=phaser lfofreq=" + FormatNumber(p[kPhaserRate]) + " depth=" + FormatNumber(p[kPhaserDepth] * 100.0) +
            " feedback=" + FormatNumber(p[kPhaserFeedback] * 100.0);
        break;
      case kFxShaper: e = " type=filter cutoff=" + FormatNumber(p[kShaperFocus]); break;
      default: continue;
    }
    text += "<effect> bus=fx" + std::to_string(slot + 1) + e + "\n";
  }

  WaveFiles waves(waveFolder, request.request);
  std::vector<Layer*> layers = ChildrenOf<Layer>(inst);
  int seqLength = 1;
  for (Layer* layer : layers)
    for (Region* region : ChildrenOf<Region>(*layer))
      if (region->trigger.triggerType >= 2) seqLength = std::max(seqLength, region->trigger.triggerType - 1);

  for (Layer* layer : layers) {
    Articulation layerArt = layer->art;
    layerArt.Inherit(instArt);
    const OpList layerOps = ArticulationOpcodes(layerArt, v2);
    const TriggerRecord& lt = layer->trigger;
    text += "\n<group>";
    if (lt.loKey != 0 || lt.hiKey != 127) text += " lokey=" + std::to_string(lt.loKey) + " hikey=" + std::to_string(lt.hiKey);
    if (lt.loVel != 0 || lt.hiVel != 127) text += " lovel=" + std::to_string(lt.loVel) + " hivel=" + std::to_string(lt.hiVel);
    Append(text, Difference(layerOps, instOps));
    text += "\n";

    for (Region* region : ChildrenOf<Region>(*layer)) {
      Waveform* wave = RegionWaveform(*region);
      if (!wave) continue;
      const TriggerRecord& t = region->trigger;
      int lo = std::max(t.loKey, lt.loKey), hi = std::min(t.hiKey, lt.hiKey);
      int lovel = std::max(t.loVel, lt.loVel), hivel = std::min(t.hiVel, lt.hiVel);
      if (lo > hi || lovel > hivel) continue;  // plays nowhere
      std::string sampleName;
      if (!waves.Name(*wave, sampleName)) return false;
      const ResolvedRegion view = ResolveRegion(*region);

      Articulation art = region->art;
      art.Inherit(layerArt);
      // The wave's own tuning and level belong to the region in SFZ.
      art.Set(kRowMasterTune, art.value[kRowMasterTune] + view.pitch.waveFineTune * 0.01f);
      art.Set(kRowMasterVolume, art.value[kRowMasterVolume] + view.amplitude.waveVolume);

      text += "<region> sample=" + sampleName;
      OpList ops;
      auto put = [&](const char* name, double value) { ops.emplace_back(name, sfz::FormatNumber(value)); };
      auto fade = [&](int width, int& limit, bool low, const char* a, const char* b) {
        if (width <= 0) return;
        const int start = limit - (width + 1) / 2;
        put(a, start);
        put(b, start + width);
        limit = low ? std::max(0, start) : std::min(127, start + width);
      };
      int keyLo = lo, keyHi = hi, velLo = lovel, velHi = hivel;
      OpList fades;
      {
        OpList saved;
        std::swap(saved, ops);
        fade(t.keyFadeIn, keyLo, true, "xfin_lokey", "xfin_hikey");
        fade(t.keyFadeOut, keyHi, false, "xfout_lokey", "xfout_hikey");
        fade(t.velFadeIn, velLo, true, "xfin_lovel", "xfin_hivel");
        fade(t.velFadeOut, velHi, false, "xfout_lovel", "xfout_hivel");
        std::swap(saved, ops);
        fades = std::move(saved);
      }
      put("lokey", keyLo);
      put("hikey", keyHi);
      put("lovel", velLo);
      put("hivel", velHi);
      ops.insert(ops.end(), fades.begin(), fades.end());
      if (t.keyFadeFormula) ops.emplace_back("xf_keycurve", "gain");
      if (t.velFadeFormula) ops.emplace_back("xf_velcurve", "gain");
      if (view.pitch.rootKey != 60) put("pitch_keycenter", view.pitch.rootKey);
      if (t.exclusionGroup) {
        put("group", t.exclusionGroup);
        put("off_by", t.exclusionGroup);
      }
      if (t.triggerType == 1) ops.emplace_back("trigger", "release");
      if (t.triggerType >= 2) {
        put("seq_length", seqLength);
        put("seq_position", t.triggerType - 1);
      }
      if (t.sustainSwitch == 1) put("locc64", sfz::kPedalDown), put("hicc64", sfz::kCcTop);
      if (t.sustainSwitch == 2) put("locc64", 0), put("hicc64", sfz::kPedalDown - 1);
      if (t.delay > 0) put("delay", t.delay);
      if (view.startOffset > 0) put("offset", view.startOffset);
      if (view.endOffset < 0 && wave->length) put("end", static_cast<double>(wave->length) - 1.0 + view.endOffset);

      const LoopView& loop = view.loop;
      const double loopEnd = std::min(static_cast<double>(loop.end), static_cast<double>(wave->length));
      const bool oneShot = ValueAsInt(art.value[EnvRow(kEnvV, kEnvReleaseMode)]) == 1;
      if (loop.type == 0 || loopEnd <= loop.start) {
        if (oneShot) ops.emplace_back("loop_mode", "one_shot");
        else if (wave->loopType != 0) ops.emplace_back("loop_mode", "no_loop");
      } else {
        ops.emplace_back("loop_mode", loop.release ? "loop_sustain" : "loop_continuous");
        put("loop_start", loop.start);
        put("loop_end", loopEnd - 1.0);
        if (v2 && loop.type != 1) ops.emplace_back("loop_type", loop.type == 2 ? "backward" : "alternate");
        if (loop.pitch != 0) put("loop_tune", loop.pitch * 100.0);
      }
      Append(text, ops);
      Append(text, Difference(ArticulationOpcodes(art, v2), layerOps));
      text += "\n";
    }
  }
  if (!file.Write(text.data(), text.size())) return Fail(kWriteContext, "Could not create file");
  return true;
}

}  // namespace

bool sfz_Exp(Item& item, FileRef& file, ExportRequest& request) {
  if (item.Type() != ItemType::Instrument && item.Type() != ItemType::Waveform)
    return Fail(kWriteContext, "The file format can not save this item");
  ItemSet set(item, false);
  if (set.instruments.empty()) return Fail(kWriteContext, "The file format can not save this item");
  return WriteInstrument(*set.instruments.front(), file, request);
}

}  // namespace kv

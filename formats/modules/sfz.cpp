// SFZ text instruments: headers in angle brackets, opcode=value pairs and
// sample paths relative to the file.
#include "formats/modules/sfz.h"

#include <cstring>

#include "formats/detect_bytes.h"

namespace kv {

using namespace detect;

int sfz_Detect(const uint8_t* data, uint32_t, uint32_t size, uint64_t) {
  // Text only: a nul byte means binary data.
  if (size == 0 || std::memchr(data, 0, size)) return 0;
  static constexpr const char* kHeaders[] = {"<region>", "<group>",  "<global>", "<master>", "<control>",
                                             "<curve>",  "<effect>", "<midi>",   "<sample>"};
  for (int64_t hit = Find(data, size, 0, "<", 1); hit >= 0; hit = Find(data, size, static_cast<uint32_t>(hit) + 1, "<", 1)) {
    for (const char* header : kHeaders)
      if (Tag(data, size, static_cast<uint64_t>(hit), header, std::strlen(header))) return 4;
  }
  // Text without headers reads as an empty instrument: no objection.
  return 2;
}

}  // namespace kv

// ===================================================================== reader
//
// The file is preprocessed into one text (defines substituted, includes
// inlined), then walked token by token. Each header level has a record of
// the opcodes it knows, by canonical name: <global> fills the first,
// <master> and <group> start from a copy of the level above, <region> from a
// copy of its group, so a later assignment overwrites an earlier one and
// that is the whole inheritance. A region's record is converted into model
// units only at the end, once its sample is loaded.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "core/app.h"
#include "core/articulation.h"
#include "core/error.h"
#include "core/fileref.h"
#include "core/instrument_ops.h"
#include "core/items.h"
#include "core/params.h"
#include "core/text.h"
#include "core/units.h"
#include "formats/modules/module.h"
#include "formats/modules/sfz_internal.h"

namespace kv {

namespace sfz {

int FilterTypeFromName(std::string_view name) {
  if (name.size() < 6) return 0;
  const char first = static_cast<char>(name[0] | 0x20);
  const char fifth = name[4] == '6' ? '4' : name[4];
  switch (first) {
    case 'l': return fifth == '1' ? 1 : fifth == '2' ? 2 : fifth == '4' ? 4 : 0;
    case 'h': return fifth == '1' ? 5 : fifth == '2' ? 6 : fifth == '4' ? 8 : 0;
    case 'b':
      if ((name[1] | 0x20) == 'r') return fifth == '1' ? 11 : fifth == '2' ? 12 : 0;
      return fifth == '1' ? 9 : fifth == '2' ? 10 : 0;
    default: return 0;
  }
}

const char* FilterTypeName(int type, bool v2) {
  switch (type) {
    case 1: return "lpf_1p";
    case 2: case 3: return "lpf_2p";
    case 4: return v2 ? "lpf_4p" : "lpf_2p";
    case 5: return "hpf_1p";
    case 6: case 7: return "hpf_2p";
    case 8: return v2 ? "hpf_4p" : "hpf_2p";
    case 9: return v2 ? "bpf_1p" : "bpf_2p";
    case 10: return "bpf_2p";
    case 11: return v2 ? "brf_1p" : "brf_2p";
    case 12: return "brf_2p";
    default: return "";
  }
}

std::string FormatNumber(double value) {
  if (!std::isfinite(value)) return "0";
  // Six significant digits: values come from 32-bit floats, whose noise
  // ("28.200001") says nothing.
  const double magnitude = std::fabs(value);
  int decimals = 6;
  if (magnitude >= 1.0) decimals = std::max(0, 6 - (static_cast<int>(std::floor(std::log10(magnitude))) + 1));
  char buf[400];
  auto res = std::to_chars(buf, buf + sizeof buf, value, std::chars_format::fixed, decimals);
  std::string s(buf, res.ptr);
  if (s.find('.') != std::string::npos) {
    while (s.back() == '0') s.pop_back();
    if (s.back() == '.') s.pop_back();
  }
  if (s == "-0") s = "0";
  return s;
}

double BandwidthToQ(double octaves) {
  if (!(octaves > 0.0)) return 10.0;
  const double p = std::exp2(octaves);
  return std::sqrt(p) / (p - 1.0);
}

double QToBandwidth(double q) {
  if (!(q > 0.0)) return 1.0;
  return 2.0 / std::log(2.0) * std::asinh(1.0 / (2.0 * q));
}

}  // namespace sfz

namespace {

namespace fs = std::filesystem;

constexpr const char* kReadContext = "sfz_Imp";
// The preprocessed text may not grow past this: defines that expand into
// defines double at every level, and includes can repeat each other.
constexpr std::size_t kMaxText = std::size_t{32} << 20;
constexpr int kMaxIncludeDepth = 16;
constexpr int kMaxIncludes = 1024;
constexpr std::size_t kMaxRegions = 1u << 17;
constexpr std::size_t kMaxEffects = 16;
constexpr std::size_t kMaxLayers = 1024;
// lfoN_ and egN_ opcodes number with one or two digits; an egN_ has up to 16
// points, time0-15 and level0-15.
constexpr int kLastNumbered = 99;
constexpr int kEgPoints = 16;

using Opcodes = std::map<std::string, std::string, std::less<>>;

bool IsBlank(char c) { return c == ' ' || c == '\t'; }
bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }
bool IsNameChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

std::string_view Trim(std::string_view s) {
  while (!s.empty() && IsSpace(s.front())) s.remove_prefix(1);
  while (!s.empty() && IsSpace(s.back())) s.remove_suffix(1);
  return s;
}

bool ParseDouble(std::string_view s, double& out) {
  s = Trim(s);
  if (!s.empty() && s.front() == '+') s.remove_prefix(1);
  double v = 0;
  auto res = std::from_chars(s.data(), s.data() + s.size(), v);
  if (res.ec != std::errc() || res.ptr == s.data() || !std::isfinite(v)) return false;
  out = v;
  return true;
}

// A key as a number or a note name such as c#4 or Eb3 (middle C is c4).
bool ParseKey(std::string_view s, int& key) {
  s = Trim(s);
  double v;
  if (ParseDouble(s, v)) {
    key = static_cast<int>(std::lround(std::clamp(v, -1.0, 128.0)));
    return true;
  }
  if (s.empty()) return false;
  static constexpr int kSemis[7] = {9, 11, 0, 2, 4, 5, 7};  // a..g
  const char letter = static_cast<char>(s[0] | 0x20);
  if (letter < 'a' || letter > 'g') return false;
  int n = kSemis[letter - 'a'];
  std::size_t i = 1;
  if (i < s.size() && s[i] == '#') ++n, ++i;
  else if (i < s.size() && s[i] == 'b') --n, ++i;
  int octave = 0;
  auto res = std::from_chars(s.data() + i, s.data() + s.size(), octave);
  if (res.ec != std::errc() || octave < -2 || octave > 10) return false;
  key = std::clamp((octave + 1) * 12 + n, -1, 128);
  return true;
}

// ---------------------------------------------------------------- paths

bool ReadWholeFile(const fs::path& path, std::size_t limit, std::string& out, bool& tooBig) {
  tooBig = false;
  FileRef file;
  struct stat info {};
  if (!file.OpenRead(path) || ::fstat(file.Fd(), &info) != 0 || !S_ISREG(info.st_mode)) return false;
  const uint64_t size = file.Size();
  if (size > limit) {
    tooBig = true;
    return false;
  }
  out.resize(static_cast<std::size_t>(size));
  return size == 0 || file.ReadExact(out.data(), out.size());
}

// ---------------------------------------------------------------- preprocessing

class Preprocessor {
 public:
  explicit Preprocessor(fs::path folder) : folder_(std::move(folder)) {}

  // Appends `text` with defines applied and includes inlined; false when the
  // result would pass kMaxText.
  bool Run(std::string_view text, int depth) {
    std::size_t i = 0;
    while (i < text.size() && !overflow_) {
      const std::size_t next = text.find_first_of("#$/", i);
      if (next == std::string_view::npos) {
        Append(text.substr(i));
        break;
      }
      Append(text.substr(i, next - i));
      i = next;
      const std::string_view rest = text.substr(i);
      if (rest.starts_with("#define")) {
        i = Define(text, i + 7);
      } else if (rest.starts_with("#include")) {
        i = Include(text, i + 8, depth);
      } else if (rest[0] == '$') {
        i = Substitute(text, i);
      } else if (rest.starts_with("//")) {
        // Comments stay as they are: a commented-out directive does nothing.
        std::size_t end = text.find_first_of("\r\n", i);
        if (end == std::string_view::npos) end = text.size();
        Append(text.substr(i, end - i));
        i = end;
      } else {
        Append(rest.substr(0, 1));
        ++i;
      }
    }
    return !overflow_;
  }

  // The file being read counts as open, so including itself is a loop.
  void Enter(const fs::path& path) {
    std::error_code ec;
    fs::path key = fs::weakly_canonical(path, ec);
    stack_.push_back(ec ? path : key);
  }

  std::string& Text() { return out_; }
  bool Overflow() const { return overflow_; }

 private:
  void Append(std::string_view s) {
    if (overflow_) return;
    if (out_.size() + s.size() > kMaxText) {
      overflow_ = true;
      return;
    }
    out_.append(s);
  }

  static std::size_t LineEnd(std::string_view text, std::size_t i) {
    const std::size_t end = text.find_first_of("\r\n", i);
    return end == std::string_view::npos ? text.size() : end;
  }

  // The define that matches at `i` (the longest, ending where a name can't
  // go on), or null.
  const std::pair<std::string, std::string>* Match(std::string_view text, std::size_t i) const {
    const std::pair<std::string, std::string>* best = nullptr;
    for (const auto& d : defines_) {
      if (text.compare(i, d.first.size(), d.first) != 0) continue;
      const std::size_t after = i + d.first.size();
      if (after < text.size() && IsNameChar(text[after])) continue;
      if (!best || d.first.size() > best->first.size()) best = &d;
    }
    return best;
  }

  std::size_t Substitute(std::string_view text, std::size_t i) {
    if (const auto* d = Match(text, i)) {
      Append(d->second);
      return i + d->first.size();
    }
    Append("$");
    return i + 1;
  }

  // #define NAME VALUE: the line goes; names with '$' are substituted later.
  std::size_t Define(std::string_view text, std::size_t i) {
    const std::size_t end = LineEnd(text, i);
    std::string_view line = text.substr(i, end - i);
    if (std::size_t c = line.find("//"); c != std::string_view::npos) line = line.substr(0, c);
    std::size_t p = 0;
    while (p < line.size() && IsBlank(line[p])) ++p;
    std::size_t q = p;
    while (q < line.size() && !IsBlank(line[q])) ++q;
    const std::string_view name = line.substr(p, q - p);
    const std::string_view raw = Trim(line.substr(q));
    if (name.size() > 1 && name[0] == '$') {
      // The value itself may use earlier defines.
      std::string value;
      for (std::size_t k = 0; k < raw.size();) {
        const auto* d = raw[k] == '$' ? Match(raw, k) : nullptr;
        if (d) {
          value += d->second;
          k += d->first.size();
        } else {
          value += raw[k++];
        }
        if (value.size() > kMaxText) {
          overflow_ = true;
          return end;
        }
      }
      auto it = std::find_if(defines_.begin(), defines_.end(), [&](const auto& e) { return e.first == name; });
      if (it != defines_.end()) it->second = std::move(value);
      else defines_.emplace_back(std::string(name), std::move(value));
    }
    return end;
  }

  // #include "file": relative to the instrument's folder, read and processed
  // in place. Loops, depth and the number of includes are bounded.
  std::size_t Include(std::string_view text, std::size_t i, int depth) {
    const std::size_t end = LineEnd(text, i);
    std::string_view line = text.substr(i, end - i);
    std::size_t p = 0;
    while (p < line.size() && IsBlank(line[p])) ++p;
    std::string_view name;
    if (p < line.size() && line[p] == '"') {
      const std::size_t close = line.find('"', p + 1);
      name = line.substr(p + 1, close == std::string_view::npos ? std::string_view::npos : close - p - 1);
    } else {
      std::size_t q = p;
      while (q < line.size() && !IsBlank(line[q])) ++q;
      name = line.substr(p, q - p);
    }
    if (Trim(name).empty()) return end;
    if (depth >= kMaxIncludeDepth || includes_ >= kMaxIncludes) return end;
    ++includes_;
    const fs::path path = ResolvePath(folder_, name);
    std::error_code ec;
    fs::path key = fs::weakly_canonical(path, ec);
    if (ec) key = path;
    if (std::find(stack_.begin(), stack_.end(), key) != stack_.end()) return end;  // an include loop
    std::string content;
    bool tooBig = false;
    if (!ReadWholeFile(path, kMaxText - std::min(kMaxText, out_.size()), content, tooBig)) {
      if (tooBig) overflow_ = true;
      else StatusText("Couldn't openwave");
      return end;
    }
    stack_.push_back(key);
    Append("\n");
    Run(content, depth + 1);
    Append("\n");
    stack_.pop_back();
    return end;
  }

  fs::path folder_;
  std::string out_;
  std::vector<std::pair<std::string, std::string>> defines_;
  std::vector<fs::path> stack_;
  int includes_ = 0;
  bool overflow_ = false;
};

// ---------------------------------------------------------------- opcode names

bool StartsWith(std::string_view s, std::string_view p) { return s.substr(0, p.size()) == p; }

// "_oncc" and "_cc" forms are the same opcode as "cc".
std::string FoldCc(std::string_view name) {
  std::string s(name);
  for (std::size_t p; (p = s.find("_oncc")) != std::string::npos;) s.replace(p, 5, "cc");
  for (std::size_t p; (p = s.find("_cc")) != std::string::npos;) s.replace(p, 3, "cc");
  return s;
}

// A number of one or two digits at the start of `s`, then '_'; the rest goes
// to `word`.
bool NumberedWord(std::string_view s, int& n, std::string_view& word) {
  std::size_t i = 0;
  n = 0;
  while (i < s.size() && i < 2 && s[i] >= '0' && s[i] <= '9') n = n * 10 + (s[i++] - '0');
  if (i == 0 || i >= s.size() || s[i] != '_') return false;
  word = s.substr(i + 1);
  return true;
}

bool OneOf(std::string_view w, std::initializer_list<std::string_view> list) {
  return std::find(list.begin(), list.end(), w) != list.end();
}

// The canonical name of an opcode of a region-level record, or "" for one
// this reader doesn't know.
std::string Canonical(std::string_view raw) {
  const std::string s = FoldCc(raw);
  static const std::unordered_map<std::string_view, std::string_view> kAliases = {
      {"on_locc64", "locc64"}, {"on_hicc64", "hicc64"}, {"polyphony_group", "group"}, {"offby", "off_by"},
      {"loopmode", "loop_mode"}, {"loopstart", "loop_start"}, {"loopend", "loop_end"}, {"looptype", "loop_type"},
      {"pitch", "tune"}, {"bendup", "bend_up"}, {"benddown", "bend_down"}, {"tune_random", "pitch_random"},
      {"pitchcc136", "pitch_random"}, {"tunecc136", "pitch_random"}, {"tunecc135", "pitchcc135"},
      {"cutoff_chanaft", "cutoffcc129"}, {"cutoffcc131", "cutoffcc129"}, {"filtype", "fil_type"},
      {"cutoff2_chanaft", "cutoff2cc129"}, {"cutoff2cc131", "cutoff2cc129"}, {"resonancecc131", "resonancecc129"},
      {"resonance2cc131", "resonance2cc129"}, {"volumecc131", "volumecc129"}, {"pancc136", "pan_random"},
  };
  if (auto it = kAliases.find(s); it != kAliases.end()) return std::string(it->second);
  static const std::initializer_list<std::string_view> kPlain = {
      "sample", "lokey", "hikey", "key", "lovel", "hivel", "locc64", "hicc64", "group", "off_by", "trigger",
      "seq_length", "seq_position", "xf_keycurve", "xf_velcurve", "xfin_lokey", "xfin_hikey", "xfin_lovel",
      "xfin_hivel", "xfout_lokey", "xfout_hikey", "xfout_lovel", "xfout_hivel", "offset", "end", "delay",
      "delay_samples", "loop_mode", "loop_start", "loop_end", "loop_type", "loop_tune", "loop_tune01", "volume",
      "volumecc1", "volumecc129", "amp_veltrack", "amp_keytrack", "amp_keycenter", "pan", "pancc10",
      "pan_keycenter", "pan_keytrack", "pan_random", "transpose", "tune", "pitch_keycenter", "pitch_keytrack",
      "bend_up", "bend_down", "pitch_random", "pitchcc135", "cutoff", "cutoffcc1", "cutoffcc129", "fil_veltrack",
      "fil_keycenter", "fil_keytrack", "fil_type", "cutoff2", "cutoff2cc1", "cutoff2cc129", "fil2_veltrack",
      "fil2_keycenter", "fil2_keytrack", "fil2_type", "resonance", "resonancecc1", "resonancecc129", "resonance2",
      "resonance2cc1", "resonance2cc129"};
  if (OneOf(s, kPlain)) return s;
  // gain_ and volume_ with a controller number: CC1 and the aftertouch forms.
  if (StartsWith(s, "gaincc") || StartsWith(s, "volumecc")) {
    const std::string_view n = std::string_view(s).substr(s.find("cc") + 2);
    if (n == "1") return "volumecc1";
    if (n == "129" || n == "131") return "volumecc129";
    return "";
  }
  for (std::string_view prefix : {"ampeg_", "fileg_", "pitcheg_"}) {
    if (!StartsWith(s, prefix)) continue;
    const std::string_view w = std::string_view(s).substr(prefix.size());
    if (OneOf(w, {"delay", "start", "attack", "hold", "decay", "sustain", "release", "decay_zero", "release_zero",
                  "vel2attack", "vel2decay", "vel2delay", "vel2hold", "vel2release", "vel2depth", "depth",
                  "attackcc131", "attackcc133", "decaycc131", "decaycc133", "delaycc131", "delaycc133",
                  "holdcc131", "holdcc133", "releasecc131", "releasecc133"}))
      return s;
    return "";
  }
  for (std::string_view prefix : {"amplfo_", "fillfo_", "pitchlfo_"}) {
    if (!StartsWith(s, prefix)) continue;
    std::string_view w = std::string_view(s).substr(prefix.size());
    if (w == "depthchanaft" || w == "depthcc131") w = w == "depthcc131" ? "depthcc131" : "depthcc129";
    if (OneOf(w, {"freq", "delay", "fade", "depth", "depthcc1", "depthcc129", "depthcc131"}))
      return std::string(prefix) + std::string(w);
    return "";
  }
  int n = 0;
  std::string_view w;
  if (StartsWith(s, "eg") && NumberedWord(std::string_view(s).substr(2), n, w)) {
    if (n < 1) return "";
    static const std::initializer_list<std::string_view> kTargets = {
        "amplitude", "cutoff", "pitch", "pan", "volume", "cutoffcc1", "cutoffcc129", "cutoffcc131", "pitchcc1",
        "pitchcc129", "pitchcc131", "pancc1", "pancc129", "pancc131", "volumecc1", "volumecc129", "volumecc131"};
    bool ok = OneOf(w, kTargets) || w == "points" || w == "sustain";
    int k = 0;
    std::string_view rest;
    if (!ok && (StartsWith(w, "time") || StartsWith(w, "level"))) {
      rest = w.substr(w[0] == 't' ? 4 : 5);
      auto r = std::from_chars(rest.data(), rest.data() + rest.size(), k);
      ok = r.ec == std::errc() && r.ptr == rest.data() + rest.size() && k >= 0 && k < kEgPoints;
    }
    return ok ? "eg" + std::to_string(n) + "_" + std::string(w) : "";
  }
  if (StartsWith(s, "lfo") && NumberedWord(std::string_view(s).substr(3), n, w)) {
    if (n < 1) return "";
    if (OneOf(w, {"wave", "freq", "delay", "fade", "amplitude", "cutoff", "pitch", "pan", "volume", "cutoffcc1",
                  "cutoffcc129", "cutoffcc131", "pitchcc1", "pitchcc129", "pitchcc131", "pancc1", "pancc129",
                  "pancc131", "volumecc1", "volumecc129", "volumecc131"}))
      return "lfo" + std::to_string(n) + "_" + std::string(w);
    return "";
  }
  if (StartsWith(s, "eq") && s.size() > 3 && s[2] >= '1' && s[2] <= '3' && s[3] == '_') {
    const std::string_view word = std::string_view(s).substr(4);
    return OneOf(word, {"freq", "gain", "bw", "type"}) ? s : "";
  }
  if (StartsWith(s, "effect") && s.size() == 7 && s[6] >= '1' && s[6] <= '4') return s;
  return "";
}

// ---------------------------------------------------------------- records

struct Record {
  const Opcodes& o;
  bool Has(std::string_view k) const { return o.find(k) != o.end(); }
  std::string_view Str(std::string_view k) const {
    auto it = o.find(k);
    return it == o.end() ? std::string_view() : std::string_view(it->second);
  }
  double Num(std::string_view k, double def) const {
    double v;
    return ParseDouble(Str(k), v) ? v : def;
  }
  int Key(std::string_view k, int def) const {
    int v;
    return ParseKey(Str(k), v) ? v : def;
  }
};

struct Ranges {
  int lokey = 0, hikey = 127, lovel = 0, hivel = 127;
  bool operator==(const Ranges&) const = default;
};

Ranges RangesOf(const Record& r) {
  Ranges g;
  if (r.Has("key")) g.lokey = g.hikey = r.Key("key", 60);
  g.lokey = r.Key("lokey", g.lokey);
  g.hikey = r.Key("hikey", g.hikey);
  g.lovel = static_cast<int>(std::lround(std::clamp(r.Num("lovel", 0), -1.0, 128.0)));
  g.hivel = static_cast<int>(std::lround(std::clamp(r.Num("hivel", 127), -1.0, 128.0)));
  return g;
}

// Time quotient between full and no velocity for an SFZ velocity amount in
// seconds added at full velocity.
double VelocityRatio(double time, double amount) {
  if (time <= 0.0) return amount > 0 ? 64.0 : amount < 0 ? 0.015625 : 1.0;
  return std::clamp((time + amount) / time, 0.015625, 64.0);
}

double KeyRatio(double time, double amount) {
  if (time <= 0.0) return amount > 0 ? 4.0 : amount < 0 ? 0.25 : 1.0;
  return std::clamp((time + amount * 12.0 / sfz::kCcTop) / time, 0.25, 4.0);
}

// The articulation a record gives: catalogue defaults, with every row that
// one of its opcodes speaks for set.
void ToArticulation(const Record& r, Articulation& a) {
  auto set = [&](int row, double v) { a.Set(row, static_cast<float>(v)); };
  auto num = [&](std::string_view k, double def) { return r.Num(k, def); };

  // Pitch.
  if (r.Has("transpose") || r.Has("tune")) set(kRowMasterTune, num("transpose", 0) + num("tune", 0) * 0.01);
  if (r.Has("pitch_keytrack")) set(kRowKeyToPitch, num("pitch_keytrack", 100) * 0.01);
  if (r.Has("bend_up") || r.Has("bend_down"))
    set(kRowBendToPitch, std::max(std::fabs(num("bend_up", 200)), std::fabs(num("bend_down", -200))) * 0.01);
  if (r.Has("pitch_random")) set(kRowRandomPitch, num("pitch_random", 0) * 0.01);
  else if (r.Has("pitchcc135")) set(kRowRandomPitch, num("pitchcc135", 0) * 0.005);

  // Volume.
  if (r.Has("volume") || r.Has("amp_keytrack") || r.Has("amp_keycenter"))
    set(kRowMasterVolume, num("volume", 0) + (60.0 - r.Key("amp_keycenter", 60)) * num("amp_keytrack", 0));
  if (r.Has("amp_veltrack")) set(kRowVelToVolume, num("amp_veltrack", 100) / 100.0 * 96.0);
  if (r.Has("amp_keytrack")) set(kRowKeyToVolume, num("amp_keytrack", 0) * 12.0);
  if (r.Has("volumecc1")) set(kRowModWheelToVolume, num("volumecc1", 0));
  if (r.Has("volumecc129")) set(kRowAftertouchToVolume, num("volumecc129", 0));

  // Filter: the second one only when the first is off.
  const bool second = !r.Has("cutoff") && r.Has("cutoff2");
  const std::string p = second ? "2" : "";
  if (r.Has("cutoff" + p)) {
    const std::string fil = second ? "fil2_" : "fil_";
    const std::string_view typeName = r.Str(fil + "type");
    const int type = typeName.empty() ? 2 : sfz::FilterTypeFromName(typeName);
    set(kRowFilterType, type);
    // SFZ's cutoff holds at velocity 0 and at fil_keycenter.
    FormatCutoff format;
    format.hz = num("cutoff" + p, 8000);
    format.velocitySpan = num(fil + "veltrack", 0) * 0.01;
    format.keyPerOctave = num(fil + "keytrack", 0) * 0.12;
    const ModelCutoff model = CutoffToModel(format, r.Key(fil + "keycenter", 60));
    if (r.Has(fil + "veltrack")) set(kRowVelToCutoff, model.velocityDepth);
    if (r.Has(fil + "keytrack")) set(kRowKeyToCutoff, model.keyDepth);
    set(kRowCutoff, model.hz);
    if (r.Has("cutoff" + p + "cc1")) set(kRowModWheelToCutoff, num("cutoff" + p + "cc1", 0) * 0.01);
    if (r.Has("cutoff" + p + "cc129")) set(kRowAftertouchToCutoff, num("cutoff" + p + "cc129", 0) * 0.01);
  }
  const std::string q = !r.Has("resonance") && r.Has("resonance2") ? "2" : "";
  if (r.Has("resonance" + q)) set(kRowResonance, num("resonance" + q, 0));
  if (r.Has("resonance" + q + "cc1")) set(kRowModWheelToResonance, num("resonance" + q + "cc1", 0));
  if (r.Has("resonance" + q + "cc129")) set(kRowAftertouchToResonance, num("resonance" + q + "cc129", 0));

  // EQ bands.
  for (int b = 0; b < kEqBands; ++b) {
    const std::string e = "eq" + std::to_string(b + 1) + "_";
    const int band = (kRowEq2Mode - kRowEq1Mode) * b;
    if (r.Has(e + "type")) {
      const std::string_view t = r.Str(e + "type");
      set(kRowEq1Mode + band, t == "lshelf" ? 1 : t == "hshelf" ? 2 : 0);
    }
    if (r.Has(e + "freq")) set(kRowEq1Frequency + band, num(e + "freq", 0));
    if (r.Has(e + "gain")) set(kRowEq1Gain + band, num(e + "gain", 0));
    if (r.Has(e + "bw")) set(kRowEq1Q + band, sfz::BandwidthToQ(num(e + "bw", 1)));
  }

  // Pan and sends.
  if (r.Has("pan") || r.Has("pan_keytrack"))
    set(kRowPan, num("pan", 0) / 100.0 + (60.0 - r.Key("pan_keycenter", 60)) * num("pan_keytrack", 0) / 100.0);
  if (r.Has("pancc10")) set(kRowCc10ToPan, num("pancc10", 100) / 100.0);
  if (r.Has("pan_keytrack")) set(kRowKeyToPan, num("pan_keytrack", 0) * 12.0 / 100.0);
  if (r.Has("pan_random")) set(kRowRandomPan, num("pan_random", 0) / 100.0);
  for (int n = 0; n < 4; ++n) {
    const std::string k = "effect" + std::to_string(n + 1);
    if (r.Has(k)) set(sfz::kSendRows[n], num(k, 0) / 100.0);
  }

  // Envelopes V, P, F.
  struct EnvDef {
    const char* prefix;
    int k;
    int depthRow, velDepthRow;
  };
  for (const EnvDef& d : {EnvDef{"ampeg_", kEnvV, -1, -1},
                          EnvDef{"pitcheg_", kEnvP, kRowPEnvToPitch, kRowVelToPEnvPitch},
                          EnvDef{"fileg_", kEnvF, kRowFEnvToCutoff, kRowVelToFEnvCutoff}}) {
    const std::string e = d.prefix;
    auto row = [&](int offset) { return EnvRow(d.k, offset); };
    auto time = [&](const char* w) { return std::max(0.0, num(e + w, 0)); };
    if (r.Has(e + "start")) {
      set(row(kEnvInitial), num(e + "start", 0) / 100.0);
      set(row(kEnvA1Level), num(e + "start", 0) / 100.0);
    }
    for (const sfz::EnvSegment& s : sfz::kEnvSegments) {
      const std::string w = s.word;
      if (r.Has(e + w)) set(row(s.timeRow), time(s.word));
      const std::string vel = e + "vel2" + w, velCc = e + w + "cc131", keyCc = e + w + "cc133";
      if (r.Has(vel) || r.Has(velCc))
        set(row(s.velRow), VelocityRatio(time(s.word), r.Has(vel) ? num(vel, 0) : num(velCc, 0)));
      if (r.Has(keyCc)) set(row(s.keyRow), KeyRatio(time(s.word), num(keyCc, 0)));
    }
    if (r.Has(e + "sustain")) set(row(kEnvSustain), std::clamp(num(e + "sustain", 100), 0.0, 100.0) / 100.0);
    if (d.depthRow >= 0 && r.Has(e + "depth")) set(d.depthRow, num(e + "depth", 0) * 0.01);
    if (d.velDepthRow >= 0 && r.Has(e + "vel2depth")) set(d.velDepthRow, num(e + "vel2depth", 0) * 0.01);
  }

  // LFOs P, V, F with their depth rows: depth, mod wheel, aftertouch, velocity.
  struct LfoDef {
    const char* prefix;
    int n;
    int rows[4];
    double scale;
  };
  bool pitchLfo = false;
  const LfoDef lfos[] = {
      {"pitchlfo_", kLfoP,
       {kRowPLfoToPitch, kRowModWheelToPLfoPitch, kRowAftertouchToPLfoPitch, kRowVelToPLfoPitch}, 0.01},
      {"amplfo_", kLfoV,
       {kRowVLfoToVolume, kRowModWheelToVLfoVolume, kRowAftertouchToVLfoVolume, kRowVelToVLfoVolume}, 1.0},
      {"fillfo_", kLfoF,
       {kRowFLfoToCutoff, kRowModWheelToFLfoCutoff, kRowAftertouchToFLfoCutoff, kRowVelToFLfoCutoff}, 0.01},
  };
  for (const LfoDef& d : lfos) {
    const std::string l = d.prefix;
    bool any = false;
    if (r.Has(l + "freq")) set(LfoRow(d.n, kLfoFrequency), num(l + "freq", 5)), any = true;
    if (r.Has(l + "delay")) set(LfoRow(d.n, kLfoDelay), num(l + "delay", 0)), any = true;
    if (r.Has(l + "fade")) set(LfoRow(d.n, kLfoRamp), num(l + "fade", 0)), any = true;
    const char* words[4] = {"depth", "depthcc1", "depthcc129", "depthcc131"};
    for (int i = 0; i < 4; ++i)
      if (r.Has(l + words[i])) set(d.rows[i], num(l + words[i], 0) * d.scale), any = true;
    if (d.n == kLfoP) pitchLfo = any;
  }

  // Generic LFOs, folded by target: amplitude to V, cutoff to F, pitch to P
  // (to X when the P-LFO is in use already), pan to X.
  for (int n = 1; n <= kLastNumbered; ++n) {
    const std::string l = "lfo" + std::to_string(n) + "_";
    auto it = r.o.lower_bound(l);
    if (it == r.o.end() || !StartsWith(it->first, l)) continue;
    struct Target {
      const char* word;
      int lfo;
      int rows[3];  // depth, mod wheel, aftertouch
      double scale;
    };
    const Target pitch =
        pitchLfo ? Target{"pitch", kLfoX, {kRowXLfoToPitch, kRowModWheelToXLfoPitch, kRowAftertouchToXLfoPitch}, 0.01}
                 : Target{"pitch", kLfoP, {kRowPLfoToPitch, kRowModWheelToPLfoPitch, kRowAftertouchToPLfoPitch}, 0.01};
    const Target targets[5] = {
        pitch,
        {"cutoff", kLfoF, {kRowFLfoToCutoff, kRowModWheelToFLfoCutoff, kRowAftertouchToFLfoCutoff}, 0.01},
        {"volume", kLfoV, {kRowVLfoToVolume, kRowModWheelToVLfoVolume, kRowAftertouchToVLfoVolume}, 1.0},
        {"amplitude", kLfoV, {kRowVLfoToVolume, kRowModWheelToVLfoVolume, kRowAftertouchToVLfoVolume}, -1.0},
        {"pan", kLfoX, {kRowXLfoToPan, -1, -1}, 0.01},
    };
    for (const Target& t : targets) {
      const std::string w = t.word;
      const bool has = r.Has(l + w) || r.Has(l + w + "cc1") || r.Has(l + w + "cc129") || r.Has(l + w + "cc131");
      if (!has) continue;
      auto depth = [&](const std::string& k) {
        const double v = num(k, 0);
        // Amplitude in percent becomes a level change in dB.
        return t.scale < 0 ? 20.0 * std::log10(1.0 + std::clamp(v, -99.0, 1000.0) / 100.0) : v * t.scale;
      };
      if (r.Has(l + w)) set(t.rows[0], depth(l + w));
      if (t.rows[1] >= 0 && r.Has(l + w + "cc1")) set(t.rows[1], depth(l + w + "cc1"));
      if (t.rows[2] >= 0 && (r.Has(l + w + "cc129") || r.Has(l + w + "cc131")))
        set(t.rows[2], depth(r.Has(l + w + "cc129") ? l + w + "cc129" : l + w + "cc131"));
      if (r.Has(l + "freq")) set(LfoRow(t.lfo, kLfoFrequency), num(l + "freq", 5));
      if (r.Has(l + "delay")) set(LfoRow(t.lfo, kLfoDelay), num(l + "delay", 0));
      if (r.Has(l + "fade")) set(LfoRow(t.lfo, kLfoRamp), num(l + "fade", 0));
      if (r.Has(l + "wave")) {
        // SFZ numbering: triangle, sine, 75% pulse, square, 25% pulse, 12.5% pulse, saw up, saw down.
        static constexpr int kShapes[8] = {1, 0, 2, 2, 2, 2, 4, 5};
        const int wv = static_cast<int>(num(l + "wave", 1));
        set(LfoRow(t.lfo, kLfoShape), wv >= 0 && wv < 8 ? kShapes[wv] : wv == 12 ? 3 : 0);
      }
    }
  }

  // Generic envelopes: points before the sustain point fill attack 1, attack
  // 2, decay 1 and decay 2; those after it the three release segments.
  for (int n = 1; n <= kLastNumbered; ++n) {
    const std::string e = "eg" + std::to_string(n) + "_";
    auto it = r.o.lower_bound(e);
    if (it == r.o.end() || !StartsWith(it->first, e)) continue;
    int k = -1, depthRow = -1;
    double depth = 0;
    if (r.Has(e + "amplitude")) k = kEnvV;
    else if (r.Has(e + "cutoff")) k = kEnvF, depthRow = kRowFEnvToCutoff, depth = num(e + "cutoff", 0) * 0.01;
    else if (r.Has(e + "pitch")) k = kEnvP, depthRow = kRowPEnvToPitch, depth = num(e + "pitch", 0) * 0.01;
    else if (r.Has(e + "pan")) k = kEnvX, depthRow = kRowXEnvToPan, depth = num(e + "pan", 0) * 0.01;
    if (k < 0) continue;
    auto row = [&](int offset) { return EnvRow(k, offset); };
    const int points = std::clamp(static_cast<int>(num(e + "points", kEgPoints)), 1, kEgPoints);
    const int sustain = std::clamp(static_cast<int>(num(e + "sustain", 0)), 0, points - 1);
    auto time = [&](int i) { return std::max(0.0, num(e + "time" + std::to_string(i), 0)); };
    auto level = [&](int i) { return num(e + "level" + std::to_string(i), 0); };
    set(row(kEnvInitial), level(0));
    const int pre[4][2] = {{kEnvA1Time, kEnvA1Level}, {kEnvA2Time, kEnvA2Level}, {kEnvD1Time, kEnvD1Level},
                           {kEnvD2Time, kEnvSustain}};
    double carried = 0;
    for (int s = 0; s < 4; ++s) {
      const int i = s + 1;
      if (i <= sustain) {
        // More than four segments: the last row takes the rest of the time.
        double t = time(i);
        if (s == 3)
          for (int j = i + 1; j <= sustain; ++j) t += time(j);
        set(row(pre[s][0]), t + carried);
        carried = 0;
      } else {
        set(row(pre[s][0]), 0);
      }
      set(row(pre[s][1]), level(std::min(i, sustain)));
    }
    const int post[3][2] = {{kEnvR1Rate, kEnvR1Level}, {kEnvR2Time, kEnvR2Level}, {kEnvR3Time, kEnvR3Level}};
    for (int s = 0; s < 3; ++s) {
      const int i = sustain + 1 + s;
      set(row(post[s][0]), i < points ? time(i) : 0);
      set(row(post[s][1]), i < points ? level(i) : level(std::min(points - 1, sustain + s)) * (k == kEnvV ? 0 : 1));
    }
    if (depthRow >= 0) set(depthRow, depth);
  }
}

// What a region record gives besides its articulation.
struct RegionDraft {
  Articulation art;
  Ranges ranges;
  int root = 60;  // 255: the sample's own
  std::vector<std::pair<int, float>> trigger;  // trigger rows but for the ranges
  int loopType = -1;                           // -1: the sample's
  int loopRelease = -1;
  double loopStart = -1, loopEnd = -1;         // loopEnd exclusive
  bool hasLoopTune = false;
  double loopTune = 0;
  double offset = 0;
  bool hasEnd = false;
  double end = 0;                              // inclusive
  double delaySamples = -1;
  std::string sample;
};

RegionDraft ToRegion(const Opcodes& o) {
  const Record r{o};
  RegionDraft s;
  ToArticulation(r, s.art);
  s.ranges = RangesOf(r);
  s.sample = std::string(r.Str("sample"));
  if (r.Has("key")) s.root = r.Key("key", 60);
  if (r.Has("pitch_keycenter")) {
    if (r.Str("pitch_keycenter") == "sample") s.root = 255;
    else s.root = std::clamp(r.Key("pitch_keycenter", 60), 0, 127);
  }
  s.root = s.root == 255 ? 255 : std::clamp(s.root, 0, 127);

  auto trig = [&](int p, double v) { s.trigger.emplace_back(p, static_cast<float>(v)); };
  if (r.Has("locc64") || r.Has("hicc64")) {
    const double lo = r.Num("locc64", 0), hi = r.Num("hicc64", sfz::kCcTop);
    trig(kRowSustainSwitch, lo < sfz::kPedalDown && hi >= sfz::kPedalDown ? 0 : lo >= sfz::kPedalDown ? 1 : 2);
  }
  if (r.Has("group") && r.Has("off_by") && r.Num("group", 0) == r.Num("off_by", -1) && r.Num("group", 0) > 0)
    trig(kRowExclusionGroup, std::min(r.Num("group", 0), 65535.0));
  if (r.Has("trigger")) {
    const std::string_view t = r.Str("trigger");
    if (t == "release" || t == "release_key") trig(kRowTriggerType, 1);
    else if (t == "attack") trig(kRowTriggerType, 0);
  }
  if (r.Num("seq_length", 1) >= 2) trig(kRowTriggerType, 2 + std::clamp(r.Num("seq_position", 1) - 1, 0.0, 15.0));
  if (r.Has("xf_keycurve")) trig(kRowKeyFadeFormula, r.Str("xf_keycurve") == "gain" ? 1 : 0);
  if (r.Has("xf_velcurve")) trig(kRowVelFadeFormula, r.Str("xf_velcurve") == "gain" ? 1 : 0);
  // Fades: the region's limit moves to the centre of the fade, whose width
  // is the range.
  auto fade = [&](const char* lo, const char* hi, bool key, int row, int& limit) {
    if (!r.Has(lo) && !r.Has(hi)) return;
    const int a = key ? r.Key(lo, 0) : static_cast<int>(r.Num(lo, 0));
    const int b = key ? r.Key(hi, 0) : static_cast<int>(r.Num(hi, 0));
    if (b <= a) return;
    limit = (a + b + 1) / 2;
    trig(row, std::min(b - a, 126));
  };
  fade("xfin_lokey", "xfin_hikey", true, kRowKeyFadeIn, s.ranges.lokey);
  fade("xfout_lokey", "xfout_hikey", true, kRowKeyFadeOut, s.ranges.hikey);
  fade("xfin_lovel", "xfin_hivel", false, kRowVelFadeIn, s.ranges.lovel);
  fade("xfout_lovel", "xfout_hivel", false, kRowVelFadeOut, s.ranges.hivel);
  if (r.Has("delay")) trig(kRowTriggerDelay, std::clamp(r.Num("delay", 0), 0.0, 100.0));
  if (r.Has("delay_samples")) s.delaySamples = std::max(0.0, r.Num("delay_samples", 0));

  s.offset = std::clamp(r.Num("offset", 0), 0.0, 1e6);
  if (r.Has("end")) s.hasEnd = true, s.end = r.Num("end", 0);

  const std::string_view typeName = r.Str("loop_type");
  const int loopType = typeName == "backward" ? 2 : typeName == "alternate" ? 3 : 1;
  const std::string_view mode = r.Str("loop_mode");
  if (mode == "no_loop") {
    s.loopType = 0;
  } else if (mode == "one_shot") {
    s.loopType = 0;
    s.art.Set(EnvRow(kEnvV, kEnvReleaseMode), 1);
  } else if (mode == "loop_continuous") {
    s.loopType = loopType, s.loopRelease = 0;
  } else if (mode == "loop_sustain") {
    s.loopType = loopType, s.loopRelease = 1;
  } else if (r.Has("loop_type")) {
    s.loopType = loopType;
  }
  if (r.Has("loop_start")) s.loopStart = std::max(0.0, r.Num("loop_start", 0));
  if (r.Has("loop_end")) s.loopEnd = std::max(0.0, r.Num("loop_end", 0) + 1.0);
  if (r.Has("loop_tune")) s.hasLoopTune = true, s.loopTune = r.Num("loop_tune", 0) * 0.01;
  else if (r.Has("loop_tune01")) s.hasLoopTune = true, s.loopTune = r.Num("loop_tune01", 0) * 0.1;
  return s;
}

// ---------------------------------------------------------------- channel effects

double Percent(const Record& r, std::string_view k, double def) { return r.Num(k, def * 100.0) / 100.0; }

void ApplyEffect(Instrument& inst, int slot, const Opcodes& o) {
  const Record r{o};
  const std::string_view type = r.Str("type");
  auto setType = [&](sfz::FxType t) { params::Set(inst, FxTypeParam(slot), static_cast<float>(t)); };
  auto put = [&](sfz::FxPlace place, double v) { params::Set(inst, FxParam(slot, place), static_cast<float>(v)); };
  using namespace sfz;
  if (type == "large_hall" || type == "large_room" || type == "small_hall" || type == "small_room" ||
      type == "fverb") {
    setType(kFxReverb);
    const double size = type == "large_hall" ? 0.9 : type == "large_room" ? 0.7 : type == "small_hall" ? 0.5 : 0.3;
    put(kReverbSize, std::clamp(Percent(r, "size", size), 0.0, 1.0));
    if (r.Has("damp")) put(kReverbDamp, std::clamp(Percent(r, "damp", 0.5), 0.0, 1.0));
  } else if (type == "chorus" || type == "flanger") {
    setType(kFxChorus);
    if (r.Has("lfofreq")) put(kChorusRate, r.Num("lfofreq", 0.3));
    if (r.Has("depth")) put(kChorusDepth, Percent(r, "depth", 0.4) * kChorusFullDepth);
    if (r.Has("feedback")) put(kChorusFeedback, std::fabs(Percent(r, "feedback", 0)));
    if (type == "flanger") put(kChorusFlanger, 1);
  } else if (type == "phaser") {
    setType(kFxPhaser);
    if (r.Has("lfofreq")) put(kPhaserRate, r.Num("lfofreq", 0.5));
    if (r.Has("depth")) put(kPhaserDepth, Percent(r, "depth", 0.5));
    if (r.Has("feedback")) put(kPhaserFeedback, std::fabs(Percent(r, "feedback", 0.75)));
  } else if (type == "disto") {
    setType(kFxOverdrive);
    if (r.Has("drive")) put(kOverdriveDrive, r.Num("drive", 24));
  } else if (type == "comp") {
    setType(kFxCompressor);
    if (r.Has("threshold")) put(kCompThreshold, r.Num("threshold", -24));
    if (r.Has("ratio")) put(kCompRatio, r.Num("ratio", 4));
    if (r.Has("attack")) put(kCompAttack, r.Num("attack", 0.025));
    if (r.Has("release")) put(kCompRelease, r.Num("release", 0.125));
    if (r.Has("gain")) put(kCompGain, r.Num("gain", 0));
  } else if (type == "filter") {
    setType(kFxShaper);
    if (r.Has("cutoff") || r.Has("freq")) put(kShaperFocus, r.Num(r.Has("cutoff") ? "cutoff" : "freq", 0));
  }
}

// ---------------------------------------------------------------- samples

constexpr std::string_view kSampleExtensions[] = {"aif", "aiff", "aifc", "flac", "mp3", "ogg", "wav"};

std::string LowerExtension(const fs::path& p) {
  std::string e = p.extension().string();
  if (!e.empty()) e.erase(0, 1);
  for (char& c : e) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
  return e;
}

const char* DecoderName(const std::string& ext) {
  if (ext == "flac") return "FLAC";
  if (ext == "ogg") return "Ogg Vorbis";
  if (ext == "mp3") return "MP3";
  return nullptr;
}

bool DecodeBase64(std::string_view in, std::string& out) {
  auto value = [](char c) -> int {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+' || c == '-') return 62;
    if (c == '/' || c == '_') return 63;
    return -1;
  };
  out.clear();
  out.reserve(in.size() / 4 * 3);
  uint32_t acc = 0;
  int bits = 0;
  for (char c : in) {
    if (c == '=') break;
    const int v = value(c);
    if (v < 0) {
      if (IsSpace(c)) continue;
      return false;
    }
    acc = (acc << 6) | static_cast<uint32_t>(v);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out.push_back(static_cast<char>((acc >> bits) & 0xFF));
    }
  }
  return !out.empty();
}

class SampleLoader {
 public:
  SampleLoader(Collection& c, fs::path folder, const std::map<std::string, std::string>& embedded)
      : c_(c), folder_(std::move(folder)), embedded_(embedded) {}

  // The waveform for a sample path, loaded once per file; null when it can't
  // be had (the region then has no wave and the load goes on).
  Waveform* Get(const std::string& stored) {
    if (stored.empty() || stored[0] == '*') return nullptr;  // generators such as *sine have no file
    auto cached = byName_.find(stored);
    if (cached != byName_.end()) return c_.FindWave(cached->second);
    Waveform* wave = nullptr;
    if (auto e = embedded_.find(stored); e != embedded_.end()) {
      wave = LoadEmbedded(stored, e->second);
    } else {
      const fs::path path = ResolvePath(folder_, stored);
      auto byPath = byPath_.find(path.string());
      if (byPath != byPath_.end()) {
        wave = c_.FindWave(byPath->second);
      } else {
        wave = Load(path, stored);
        byPath_[path.string()] = wave ? wave->id : kNoItem;
      }
    }
    byName_[stored] = wave ? wave->id : kNoItem;
    return wave;
  }

  // One box for everything that went missing, so a large instrument doesn't
  // ask for a click per sample.
  void Report() const {
    for (const auto& [decoder, m] : missingDecoder_)
      MessageBox("Warning: " + std::to_string(m.count) + " sample file(s) need the " + decoder +
                     " decoder, which is not available yet; their regions have no wave (first: " + m.first + ")",
                 "SFZ instrument");
    if (notFound_)
      MessageBox("Warning: " + std::to_string(notFound_) + " sample file(s) could not be opened; their regions "
                 "have no wave (first: " + firstNotFound_ + ")", "SFZ instrument");
  }

 private:
  struct Missing {
    int count = 0;
    std::string first;
  };

  Waveform* Load(const fs::path& path, const std::string& stored) {
    const std::string ext = LowerExtension(path);
    const bool known = std::find(std::begin(kSampleExtensions), std::end(kSampleExtensions), ext) !=
                       std::end(kSampleExtensions);
    const SampleReader reader = known ? FindSampleReader(path) : SampleReader{};
    if (known && !reader.read) {
      const char* decoder = DecoderName(ext);
      Missing& m = missingDecoder_[decoder ? decoder : ext];
      if (m.count++ == 0) m.first = stored;
      return nullptr;
    }
    FileRef file;
    struct stat info {};
    if (!known || !file.OpenRead(path) || ::fstat(file.Fd(), &info) != 0 || !S_ISREG(info.st_mode)) {
      NoteNotFound(stored);
      return nullptr;
    }
    return ReadInto(file, reader.read, reader.parameter, path.stem().string(), stored);
  }

  // A sample stored in the file itself (a <sample> header with base64data):
  // decoded through a temporary file and read into memory at once.
  Waveform* LoadEmbedded(const std::string& name, const std::string& data) {
    std::string bytes;
    if (!DecodeBase64(data, bytes)) {
      NoteNotFound(name);
      return nullptr;
    }
    const std::string ext = LowerExtension(fs::path(name));
    const SampleReader reader = FindSampleReader(fs::path(name));
    if (!reader.read || std::find(std::begin(kSampleExtensions), std::end(kSampleExtensions), ext) ==
                     std::end(kSampleExtensions)) {
      NoteNotFound(name);
      return nullptr;
    }
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/kelvo-sfz-XXXXXX." + ext;
    const int fd = ::mkstemps(pattern.data(), static_cast<int>(ext.size() + 1));
    if (fd < 0) {
      NoteNotFound(name);
      return nullptr;
    }
    Waveform* wave = nullptr;
    {
      FileRef file(fd, pattern, true);
      if (file.Write(bytes.data(), bytes.size()) && file.Seek(0))
        wave = ReadInto(file, reader.read, reader.parameter, fs::path(name).stem().string(), name);
      // The temporary file goes: the samples must be in memory first.
      if (wave && wave->EnsureData()) {
        wave->readCallback = nullptr;
        wave->sourcePath = c_.sourcePath;
      } else if (wave) {
        DeleteItem(wave);
        wave = nullptr;
        NoteNotFound(name);
      }
    }
    ::unlink(pattern.c_str());
    return wave;
  }

  Waveform* ReadInto(FileRef& file, FormatReadFn read, uint32_t parameter, const std::string& stem,
                     const std::string& stored) {
    Collection scratch;
    scratch.SetName(stem);
    scratch.sourcePath = file.Path();
    if (!read(scratch, file, parameter)) {
      ClearError();
      NoteNotFound(stored);
      return nullptr;
    }
    std::vector<Waveform*> waves = scratch.All<Waveform>();
    if (waves.empty()) {
      NoteNotFound(stored);
      return nullptr;
    }
    Waveform* wave = waves.front();
    for (std::size_t i = 1; i < waves.size(); ++i) DeleteItem(waves[i]);
    for (Instrument* inst : scratch.All<Instrument>()) DeleteItem(inst);
    if (wave->name[0] == 0) wave->SetName(stem);
    // SFZ players tune and level by the opcodes alone; a sample chunk's
    // fine tune or gain would be applied twice.
    wave->fineTune = 0;
    wave->volume = 0.0f;
    MergeCollections(c_, scratch);
    return wave;
  }

  void NoteNotFound(const std::string& stored) {
    if (notFound_++ == 0) firstNotFound_ = stored;
  }

  Collection& c_;
  fs::path folder_;
  const std::map<std::string, std::string>& embedded_;
  std::unordered_map<std::string, ItemId> byName_;
  std::unordered_map<std::string, ItemId> byPath_;
  std::map<std::string, Missing> missingDecoder_;
  int notFound_ = 0;
  std::string firstNotFound_;
};

// ---------------------------------------------------------------- parser

enum class Level { None, Control, Global, Master, Group, Region, Effect, Sample, Skip };

struct RegionRecord {
  Opcodes ops;
  int group = 0;
  Ranges groupRanges;
};

struct Parsed {
  Opcodes global;
  std::vector<RegionRecord> regions;
  std::vector<Opcodes> effects;
  std::map<std::string, std::string> embedded;  // <sample> name -> base64 data
};

class Parser {
 public:
  explicit Parser(Parsed& out) : out_(out) {}

  void Run(std::string_view s) {
    std::size_t pos = 0;
    const std::size_t n = s.size();
    while (pos < n) {
      const char c = s[pos];
      if (IsSpace(c)) {
        ++pos;
      } else if (c == '/' && pos + 1 < n && s[pos + 1] == '/') {
        pos = LineEnd(s, pos);
      } else if (c == '/' && pos + 1 < n && s[pos + 1] == '*') {
        const std::size_t close = s.find("*/", pos + 2);
        pos = close == std::string_view::npos ? n : close + 2;
      } else if (c == '<') {
        const std::size_t eol = LineEnd(s, pos);
        const std::size_t gt = s.find('>', pos);
        if (gt == std::string_view::npos || gt > eol) {
          pos = eol;  // an unterminated header: the line goes
          continue;
        }
        if (!Header(s.substr(pos + 1, gt - pos - 1))) {
          pos = eol;  // an unknown header: its line goes
          continue;
        }
        pos = gt + 1;
      } else {
        const std::size_t start = pos;
        while (pos < n && !IsSpace(s[pos]) && s[pos] != '=' && s[pos] != '<') ++pos;
        if (pos >= n || s[pos] != '=') {
          if (pos == start) ++pos;  // a lone '<' can't get here; anything else moves on
          continue;
        }
        const std::string_view name = s.substr(start, pos - start);
        ++pos;
        std::size_t end;
        if (name == "sample" || name == "default_path") {
          end = PathValueEnd(s, pos);
        } else if (name == "base64data") {
          end = Base64ValueEnd(s, pos);
        } else {
          end = pos;
          while (end < n && !IsSpace(s[end]) && s[end] != '<' && !(s[end] == '/' && end + 1 < n && s[end + 1] == '/'))
            ++end;
        }
        Assign(name, Trim(s.substr(pos, end - pos)));
        pos = end;
      }
    }
    FinishRegion();
    FinishEffect();
  }

 private:
  static std::size_t LineEnd(std::string_view s, std::size_t i) {
    const std::size_t e = s.find_first_of("\r\n", i);
    return e == std::string_view::npos ? s.size() : e;
  }

  // Paths may hold blanks: the value runs to the line end, a comment, or the
  // next opcode on the line (the blank before the name ahead of the next '=').
  static std::size_t PathValueEnd(std::string_view s, std::size_t i) {
    std::size_t end = LineEnd(s, i);
    if (std::size_t c = s.substr(i, end - i).find("//"); c != std::string_view::npos) end = i + c;
    if (std::size_t h = s.substr(i, end - i).find('<'); h != std::string_view::npos) end = i + h;
    if (std::size_t eq = s.substr(i, end - i).find('='); eq != std::string_view::npos) {
      std::size_t q = i + eq;
      while (q > i && !IsSpace(s[q - 1])) --q;
      end = q;
    }
    return end;
  }

  // Embedded samples are wrapped into lines (and indented) as their writer
  // likes: the text runs over any blanks and line breaks up to a header, a
  // comment, an opcode ('=' with more than padding after it) or a word with
  // letters base64 doesn't use. It may hold "//" itself, but not "// ".
  static std::size_t Base64ValueEnd(std::string_view s, std::size_t i) {
    auto base64 = [](char c) {
      return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '/' ||
             c == '-' || c == '_' || c == '=';
    };
    std::size_t end = i;
    for (std::size_t p = i; p < s.size();) {
      while (p < s.size() && IsSpace(s[p])) ++p;
      std::size_t q = p;
      while (q < s.size() && base64(s[q])) ++q;
      if (q == p || (q < s.size() && !IsSpace(s[q]) && s[q] != '<')) break;
      const std::string_view word = s.substr(p, q - p);
      const std::size_t eq = word.find('=');
      if (eq != std::string_view::npos && word.find_first_not_of('=', eq) != std::string_view::npos) break;
      if (word == "//") break;
      end = p = q;
    }
    return end;
  }

  bool Header(std::string_view h) {
    Level next;
    if (h == "region") next = Level::Region;
    else if (h == "group") next = Level::Group;
    else if (h == "global") next = Level::Global;
    else if (h == "master") next = Level::Master;
    else if (h == "control") next = Level::Control;
    else if (h == "effect") next = Level::Effect;
    else if (h == "sample") next = Level::Sample;
    else if (h == "curve" || h == "midi") next = Level::Skip;
    else {
      FinishRegion();
      FinishEffect();
      level_ = Level::Skip;
      return false;
    }
    FinishRegion();
    FinishEffect();
    level_ = next;
    switch (next) {
      case Level::Global:
        out_.global.clear();
        hasMaster_ = false;
        group_ = out_.global;
        ++groupIndex_;
        break;
      case Level::Master:
        master_ = out_.global;
        hasMaster_ = true;
        group_ = master_;
        ++groupIndex_;
        break;
      case Level::Group:
        group_ = hasMaster_ ? master_ : out_.global;
        ++groupIndex_;
        break;
      case Level::Region:
        region_ = group_;
        inRegion_ = true;
        break;
      case Level::Effect:
        effect_.clear();
        inEffect_ = true;
        break;
      case Level::Sample:
        sampleName_.clear();
        break;
      default:
        break;
    }
    return true;
  }

  void Assign(std::string_view name, std::string_view value) {
    switch (level_) {
      case Level::Control:
        if (name == "default_path") {
          defaultPath_ = std::string(value);
          std::replace(defaultPath_.begin(), defaultPath_.end(), '\\', '/');
          if (!defaultPath_.empty() && defaultPath_.back() != '/') defaultPath_ += '/';
        }
        return;
      case Level::Effect:
        if (effect_.size() < 64) effect_[std::string(name)] = std::string(value);
        return;
      case Level::Sample:
        if (name == "name") sampleName_ = std::string(value);
        else if (name == "base64data" && !sampleName_.empty()) out_.embedded[sampleName_] = std::string(value);
        return;
      case Level::None:
      case Level::Skip:
        return;
      default:
        break;
    }
    std::string key = Canonical(name);
    if (key.empty()) return;
    std::string v(value);
    if (key == "sample" && !v.empty() && v[0] != '*') v = defaultPath_ + v;
    Opcodes& target = level_ == Level::Global   ? out_.global
                      : level_ == Level::Master ? master_
                      : level_ == Level::Group  ? group_
                                                : region_;
    target[key] = std::move(v);
    // Levels below take what their parent says until they say otherwise.
    if (level_ == Level::Global) {
      if (hasMaster_) master_[key] = target[key];
      group_[key] = target[key];
    } else if (level_ == Level::Master) {
      group_[key] = target[key];
    }
  }

  void FinishRegion() {
    if (!inRegion_) return;
    inRegion_ = false;
    if (out_.regions.size() >= kMaxRegions) return;
    RegionRecord rec;
    rec.ops = std::move(region_);
    rec.group = groupIndex_;
    rec.groupRanges = RangesOf(Record{group_});
    out_.regions.push_back(std::move(rec));
    region_.clear();
  }

  void FinishEffect() {
    if (!inEffect_) return;
    inEffect_ = false;
    if (out_.effects.size() < kMaxEffects) out_.effects.push_back(std::move(effect_));
    effect_.clear();
  }

  Parsed& out_;
  Level level_ = Level::None;
  Opcodes master_, group_, region_, effect_;
  bool hasMaster_ = false, inRegion_ = false, inEffect_ = false;
  int groupIndex_ = 0;
  std::string defaultPath_;
  std::string sampleName_;
};

// ---------------------------------------------------------------- location

// SFZ has no word for an instrument's bank and program, so libraries carry
// them in their file names: our save-all by location ("d0-0-12 - Name":
// drum flag, major bank, minor bank, program), our numbered save-alls
// ("07 - Name", counting from 1 in the bank's order) and other SoundFont
// exporters ("012_Name", the program in bank 0). The name loses the prefix.
bool LocationFromFileName(std::string_view stem, uint32_t& location, std::string_view& name) {
  std::size_t i = 0;
  auto number = [&](uint32_t& v, uint32_t top) {
    const std::size_t start = i;
    v = 0;
    while (i < stem.size() && stem[i] >= '0' && stem[i] <= '9' && v <= top) v = v * 10 + (stem[i++] - '0');
    return i > start && v <= top;
  };
  auto skip = [&](std::string_view text) {
    if (stem.substr(i, text.size()) != text) return false;
    i += text.size();
    return true;
  };
  auto rest = [&] {
    name = stem.substr(i);
    if (name.empty()) name = stem;
    return true;
  };
  constexpr uint32_t kTop = 127;
  uint32_t major = 0, minor = 0, program = 0;
  const bool drum = stem.starts_with('d');
  i = drum ? 1 : 0;
  if (number(major, kTop) && skip("-") && number(minor, kTop) && skip("-") && number(program, kTop) && skip(" - ")) {
    location = MakeLocation(major, minor, program, drum);
    return rest();
  }
  // The count goes on into the banks, as a merge moves a taken location on.
  i = 0;
  uint32_t count = 0;
  if (number(count, kLocationMask >> 1) && count >= 1 && skip(" - ")) {
    location = count - 1;
    return rest();
  }
  i = 0;
  if (number(program, kTop) && i == 3 && skip("_")) {
    location = MakeLocation(0, 0, program, false);
    return rest();
  }
  return false;
}

// ---------------------------------------------------------------- building items

// Key and velocity occupancy of a layer, to keep overlapping regions apart:
// a layer holds no two regions that play on the same key and velocity.
struct LayerSlot {
  Layer* layer = nullptr;
  Ranges ranges;
  KeyVelocityCells used;

  bool Fits(const Ranges& r) const { return !used.Overlaps(r.lokey, r.hikey, r.lovel, r.hivel); }
  void Take(const Ranges& r) { used.Add(r.lokey, r.hikey, r.lovel, r.hivel); }
};

void ApplyRegion(Region& region, const RegionDraft& s, const Waveform* wave) {
  for (const auto& [p, v] : s.trigger) region.SetParam(p, v);
  const double rate = wave && wave->sampleRate ? wave->sampleRate : 44100.0;
  if (s.delaySamples >= 0)
    region.SetParam(kRowTriggerDelay, static_cast<float>(std::min(100.0, s.delaySamples / rate)));
  if (s.loopType >= 0) region.SetParam(kRowLoopType, static_cast<float>(s.loopType));
  if (s.loopRelease >= 0) region.SetParam(kRowLoopRelease, static_cast<float>(s.loopRelease));
  if (s.loopStart >= 0) region.SetParam(kRowLoopStart, static_cast<float>(s.loopStart));
  if (s.loopEnd >= 0) region.SetParam(kRowLoopEnd, static_cast<float>(s.loopEnd));
  if (s.hasLoopTune) region.SetParam(kRowLoopPitch, static_cast<float>(s.loopTune));
  if (s.offset > 0) region.SetParam(kRowStartOffset, static_cast<float>(s.offset));
  if (s.hasEnd && wave && wave->length) {
    const double endOffset = std::min(0.0, s.end + 1.0 - wave->length);
    if (endOffset < 0) region.SetParam(kRowEndOffset, static_cast<float>(std::max(-1e6, endOffset)));
  }
}

bool ReadSfz(Collection& c, FileRef& file) {
  const uint64_t size = file.Size();
  if (size > kMaxText) return Fail(kReadContext, "Out of memory");
  std::string text(static_cast<std::size_t>(size), '\0');
  if (!file.Seek(0) || (size && !file.ReadExact(text.data(), text.size())))
    return Fail(kReadContext, "Could not read file");

  const fs::path path = file.Path();
  const fs::path folder = CurrentImportFolder().empty() ? path.parent_path() : CurrentImportFolder();
  Preprocessor pre(folder);
  pre.Enter(path);
  if (!pre.Run(text, 0)) return Fail(kReadContext, "Out of memory");
  text.clear();
  text.shrink_to_fit();

  Parsed parsed;
  Parser(parsed).Run(pre.Text());
  pre.Text().clear();

  const std::string stem = path.stem().string();
  uint32_t location = 0;
  std::string_view name = stem;
  const bool located = LocationFromFileName(stem, location, name);
  Instrument* inst = Create<Instrument>(c, std::string(name).c_str());
  if (located) inst->location = location;
  {
    Articulation global;
    ToArticulation(Record{parsed.global}, global);
    inst->art = global;
  }
  // Effect headers fill the channel effect slots: by bus where it names one
  // (fx1..fx4), else the next free slot.
  {
    bool used[kFxSlots] = {};
    for (const Opcodes& e : parsed.effects) {
      const std::string_view bus = Record{e}.Str("bus");
      int slot = -1;
      if (bus.size() == 3 && bus.substr(0, 2) == "fx" && bus[2] >= '1' && bus[2] <= '4') slot = bus[2] - '1';
      if (slot < 0 || used[slot])
        for (int i = 0; i < kFxSlots && slot < 0; ++i)
          if (!used[i]) slot = i;
      if (slot < 0 || used[slot]) continue;
      used[slot] = true;
      ApplyEffect(*inst, slot, e);
    }
  }

  SampleLoader samples(c, folder, parsed.embedded);
  struct Built {
    Region* region;
    Articulation art;
    std::size_t layer;
  };
  std::vector<Built> built;
  std::vector<std::unique_ptr<LayerSlot>> layers;
  std::vector<int> layerGroup;  // the first group each layer was made for
  for (RegionRecord& rec : parsed.regions) {
    RegionDraft draft = ToRegion(rec.ops);
    rec.ops.clear();
    Ranges& r = draft.ranges;
    r.lokey = std::max(r.lokey, 0), r.hikey = std::min(r.hikey, 127);
    r.lovel = std::max(r.lovel, 0), r.hivel = std::min(r.hivel, 127);
    if (r.lokey > r.hikey || r.lovel > r.hivel) continue;  // never plays (hikey=-1 and the like)
    Waveform* wave = samples.Get(draft.sample);

    // The layer of its group's ranges that has room for it.
    std::size_t chosen = layers.size();
    for (std::size_t i = 0; i < layers.size(); ++i) {
      if (layers[i]->ranges == rec.groupRanges && layers[i]->Fits(r)) {
        chosen = i;
        break;
      }
    }
    if (chosen == layers.size()) {
      if (layers.size() >= kMaxLayers) {
        chosen = layers.size() - 1;
      } else {
        auto slot = std::make_unique<LayerSlot>();
        slot->layer = AddLayer(*inst);
        slot->ranges = rec.groupRanges;
        const Ranges& g = rec.groupRanges;
        const Ranges full;
        if (g.lokey != full.lokey || g.hikey != full.hikey) {
          slot->layer->SetParam(kRowLoKey, static_cast<float>(std::clamp(g.lokey, 0, 127)));
          slot->layer->SetParam(kRowHiKey, static_cast<float>(std::clamp(g.hikey, 0, 127)));
        }
        if (g.lovel != full.lovel || g.hivel != full.hivel) {
          slot->layer->SetParam(kRowLoVel, static_cast<float>(std::clamp(g.lovel, 0, 127)));
          slot->layer->SetParam(kRowHiVel, static_cast<float>(std::clamp(g.hivel, 0, 127)));
        }
        layers.push_back(std::move(slot));
        layerGroup.push_back(rec.group);
      }
    }
    LayerSlot& slot = *layers[chosen];
    slot.Take(r);
    Region* region = AddRegion(*slot.layer, wave ? wave->id : kAllocateSerial - 1, MakeRange(r.lokey, r.hikey),
                               MakeRange(r.lovel, r.hivel), static_cast<uint8_t>(draft.root));
    ApplyRegion(*region, draft, wave);
    built.push_back({region, draft.art, chosen});
  }

  // Levels: a value all regions of a layer share goes to the layer unless
  // the instrument says the same; a region keeps what differs from its layer.
  std::vector<std::vector<std::size_t>> members(layers.size());
  for (std::size_t i = 0; i < built.size(); ++i) members[built[i].layer].push_back(i);
  for (std::size_t l = 0; l < layers.size(); ++l) {
    Layer& layer = *layers[l]->layer;
    const auto& list = members[l];
    if (list.empty()) continue;
    for (int row = 0; row < kArticulationCount; ++row) {
      const float v = built[list[0]].art.value[row];
      bool same = true;
      for (std::size_t m : list) same = same && built[m].art.value[row] == v;
      if (same && v != inst->art.value[row]) {
        layer.art.value[row] = v;
        layer.art.MarkSet(row);
      }
    }
    Articulation effective = layer.art;
    effective.Inherit(inst->art);
    for (std::size_t m : list) {
      Region& region = *built[m].region;
      for (int row = 0; row < kArticulationCount; ++row) {
        if (built[m].art.value[row] == effective.value[row]) continue;
        region.art.value[row] = built[m].art.value[row];
        region.art.MarkSet(row);
      }
    }
  }
  samples.Report();
  return true;
}

}  // namespace

bool sfz_Imp(Collection& collection, FileRef& file, uint32_t) { return ReadSfz(collection, file); }

}  // namespace kv

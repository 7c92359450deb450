// Tracker modules: MOD (patterns become a Song), S3M, XM, IT and the
// sample-only readers of the other module formats. Signatures follow each
// format's published layout.
#include "formats/modules/mod.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <unordered_set>
#include <vector>

#include "core/error.h"
#include "core/fileref.h"
#include "core/items.h"
#include "core/midi_events.h"
#include "core/param_ids.h"
#include "core/wavestore.h"
#include "formats/detect_bytes.h"
#include "formats/modules/mid.h"
#include "formats/modules/wav_cursor.h"

namespace kv {

using namespace detect;

namespace {

int Signature(const uint8_t* data, uint32_t size, uint64_t fileSize, uint64_t minimum, uint64_t offset,
              const char* tag, std::size_t length, int score = 6) {
  return fileSize >= minimum && Tag(data, size, offset, tag, length) ? score : 0;
}

bool Printable(const uint8_t* data, uint64_t offset, uint64_t length) {
  for (uint64_t i = 0; i < length; ++i) {
    const uint8_t c = data[offset + i];
    if (c != 0 && (c < 0x20 || c > 0x7E)) return false;
  }
  return true;
}

// Sample records of a MOD header: 30 bytes each from byte 20; finetune is a
// nibble and volume at most 64.
bool ModSamplesSane(const uint8_t* data, int samples) {
  for (int i = 0; i < samples; ++i) {
    const uint8_t* rec = data + 20 + 30 * i;
    if (rec[24] > 15 || rec[25] > 64) return false;
  }
  return true;
}

constexpr const char* kModTags[] = {"M.K.", "M!K!", "4CHN", "FLT4", "6CHN", "8CHN", "FLT8", "CD81", "EX08",
                                    "OCTA", "10CH", "12CH", "14CH", "16CH", "24CH", "32CH"};

}  // namespace

int mod_Detect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  if (fileSize >= 1084 && Has(size, 0, 1084)) {
    for (const char* tag : kModTags) {
      if (!Tag(data, size, 1080, tag, 4)) continue;
      const uint8_t positions = data[950];
      return positions >= 1 && positions <= 128 && ModSamplesSane(data, 31) ? 6 : 4;
    }
  }
  // The old 15-sample form has no signature at all: a plausible header is
  // all there is, and the extension has to decide.
  if (fileSize < 600 || !Has(size, 0, 600)) return 0;
  const uint8_t positions = data[470];
  if (positions < 1 || positions > 128 || !Printable(data, 0, 20) || !ModSamplesSane(data, 15)) return 0;
  for (int i = 0; i < 15; ++i)
    if (!Printable(data, 20 + 30 * i, 22)) return 0;
  for (int i = 0; i < 128; ++i)
    if (data[472 + i] >= 128) return 0;
  return 2;
}

int mod_669Detect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  // Two-letter magic ("if" Composer 669, "JN" UNIS 669): weak, so the
  // counts must be in range too.
  if (fileSize < 0x1F1 || !Has(size, 0, 0x71)) return 0;
  if (!Tag(data, size, 0, "if", 2) && !Tag(data, size, 0, "JN", 2)) return 0;
  return data[0x6E] <= 64 && data[0x6F] <= 128 && data[0x70] < 128 ? 4 : 0;
}

int mod_AmsDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize) {
  if (parameter == 1) return Signature(data, size, fileSize, 8, 0, "AMShdr\x1A", 7);
  return Signature(data, size, fileSize, 8, 0, "Extreme", 7);
}

int mod_DmfDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  return Signature(data, size, fileSize, 66, 0, "DDMF", 4);
}

int mod_DsmDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  if (Signature(data, size, fileSize, 12, 0, "RIFF", 4) && FourCC(data, size, 8, "DSMF")) return 6;
  return Signature(data, size, fileSize, 12, 0, "DSMF", 4);  // the headerless variant
}

int mod_FarDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  if (!Signature(data, size, fileSize, 98, 0, "FAR\xFE", 4)) return 0;
  return Tag(data, size, 44, "\r\n\x1A", 3) ? 6 : 4;
}

int mod_GdmDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  return Signature(data, size, fileSize, 0x9E, 0, "GDM\xFE", 4) && FourCC(data, size, 0x47, "GMFS") ? 6 : 0;
}

int mod_ItDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  return Signature(data, size, fileSize, 0xC0, 0, "IMPM", 4);
}

int mod_MdlDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  return Signature(data, size, fileSize, 5, 0, "DMDL", 4);
}

int mod_MedDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  // The reader takes the MMD0-MMD3 forms only, not the older MED forms.
  if (fileSize < 52 || !Tag(data, size, 0, "MMD", 3) || !Has(size, 3, 1)) return 0;
  return data[3] >= '0' && data[3] <= '3' ? 6 : 0;
}

int mod_Mt2Detect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  return Signature(data, size, fileSize, 126, 0, "MT20", 4);
}

int mod_MtmDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  // "MTM" and a version byte 1.x.
  if (!Signature(data, size, fileSize, 66, 0, "MTM", 3) || !Has(size, 3, 1)) return 0;
  return data[3] >= 0x10 && data[3] < 0x20 ? 6 : 4;
}

int mod_OktDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  return Signature(data, size, fileSize, 16, 0, "OKTASONG", 8);
}

int mod_PsmDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  if (Signature(data, size, fileSize, 146, 0, "PSM\xFE", 4)) return 6;
  // The later chunked form of the same name.
  return Signature(data, size, fileSize, 12, 0, "PSM ", 4) && FourCC(data, size, 8, "FILE") ? 6 : 0;
}

int mod_PtmDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  return Signature(data, size, fileSize, 608, 44, "PTMF", 4);
}

int mod_S3mDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  return Signature(data, size, fileSize, 96, 44, "SCRM", 4);
}

int mod_StmDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  // Byte 28 is 0x1A and byte 29 the file type, 2 for a module; the tracker
  // name in bytes 20-27 varies, the known ones make it certain.
  if (fileSize < 48 || !Has(size, 0, 48) || data[28] != 0x1A || data[29] != 2) return 0;
  if (!Printable(data, 20, 8)) return 0;
  return Tag(data, size, 20, "!Scream!", 8) || Tag(data, size, 20, "BMOD2STM", 8) ? 6 : 4;
}

int mod_UltDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  if (!Signature(data, size, fileSize, 48, 0, "MAS_UTrack_V00", 14) || !Has(size, 14, 1)) return 0;
  return data[14] >= '1' && data[14] <= '4' ? 6 : 4;
}

int mod_UmxDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  // The Unreal package tag; sound packages carry it too, so only the
  // extension tells music from sound.
  return Signature(data, size, fileSize, 36, 0, "\xC1\x83\x2A\x9E", 4, 4);
}

int mod_UniDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  if (fileSize < 8 || !Has(size, 0, 4)) return 0;
  if (Tag(data, size, 0, "APUN", 4)) return 4;
  return Tag(data, size, 0, "UN0", 3) && data[3] >= '0' && data[3] <= '9' ? 4 : 0;
}

int mod_XmDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  if (!Signature(data, size, fileSize, 64, 0, "Extended Module: ", 17) || !Has(size, 60, 4)) return 0;
  // The header size counts from byte 60 and covers at least the counts.
  const uint64_t headerSize = U32le(data + 60);
  return headerSize >= 20 && fileSize >= 60 + headerSize ? 6 : 0;
}

}  // namespace kv

// ======================================================================= MOD

namespace kv {

namespace {

constexpr const char* kModImp = "mod_Imp";

struct ModSampleRecord {
  char name[22] = {};
  uint32_t words = 0;
  int finetune = 0;  // -8..7, eighths of a semitone
  int volume = 0;    // 0..64
  uint32_t loopStart = 0;
  uint32_t loopWords = 0;
};

struct ModHeader {
  char name[20] = {};
  int channels = 4;
  int sampleCount = 31;
  uint32_t headerSize = 1084;
  bool startrekker = false;  // FLT4/FLT8: F is always speed, E is not played
  bool flt8 = false;         // each pattern is two 4-channel halves
  std::array<ModSampleRecord, 31> samples;
  int positions = 0;
  std::array<uint8_t, 128> order = {};
  int patterns = 0;
};

struct ModTag {
  const char* tag;
  int channels;
};
constexpr ModTag kModChannelTags[] = {
    {"M.K.", 4}, {"M!K!", 4}, {"4CHN", 4}, {"FLT4", 4}, {"6CHN", 6},  {"8CHN", 8},  {"FLT8", 8},  {"CD81", 8},
    {"EX08", 8}, {"OCTA", 8}, {"10CH", 10}, {"12CH", 12}, {"14CH", 14}, {"16CH", 16}, {"24CH", 24}, {"32CH", 32},
};

bool ReadModHeader(ByteCursor& cur, ModHeader& h) {
  uint8_t raw[1084] = {};
  const std::size_t got = cur.Seek(0) ? cur.BytesUpTo(raw, sizeof raw) : 0;
  bool tagged = false;
  if (got >= 1084) {
    for (const ModTag& t : kModChannelTags) {
      if (std::memcmp(raw + 1080, t.tag, 4) != 0) continue;
      tagged = true;
      h.channels = t.channels;
      h.startrekker = t.tag[0] == 'F';
      h.flt8 = std::memcmp(t.tag, "FLT8", 4) == 0;
      break;
    }
  }
  if (!tagged) {
    h.sampleCount = 15;
    h.headerSize = 600;
  }
  if (got < h.headerSize) return Fail(kModImp, "Zero song length");
  std::memcpy(h.name, raw, sizeof h.name);
  for (int i = 0; i < h.sampleCount; ++i) {
    const uint8_t* r = raw + 20 + 30 * i;
    ModSampleRecord& s = h.samples[i];
    std::memcpy(s.name, r, sizeof s.name);
    s.words = GetU16be(r + 22);
    s.finetune = (r[24] & 0x0F) >= 8 ? (r[24] & 0x0F) - 16 : r[24] & 0x0F;
    s.volume = std::min<int>(r[25], 64);
    s.loopStart = GetU16be(r + 26);
    s.loopWords = GetU16be(r + 28);
  }
  const uint8_t* song = raw + 20 + 30 * h.sampleCount;
  h.positions = std::min<int>(song[0], 128);
  std::memcpy(h.order.data(), song + 2, 128);
  if (h.flt8)
    for (uint8_t& o : h.order) o = static_cast<uint8_t>(o / 2);
  if (h.positions == 0) return Fail(kModImp, "Zero song length");

  uint64_t sampleBytes = 0;
  for (int i = 0; i < h.sampleCount; ++i) sampleBytes += uint64_t{h.samples[i].words} * 2;
  const uint64_t fileSize = cur.FileSize();
  const uint64_t patternBytes = uint64_t(h.channels) * 256;
  uint64_t count = 129;  // a file shorter than its samples says nothing about its patterns
  if (fileSize >= sampleBytes + h.headerSize) count = (fileSize - sampleBytes - h.headerSize) / patternBytes;
  if (count > 128) {
    count = 0;
    for (int i = 0; i < h.positions; ++i) count = std::max<uint64_t>(count, h.order[i] + 1u);
  }
  h.patterns = static_cast<int>(count);
  return true;
}

struct ModCell {
  int sample = 0;
  int period = 0;
  int effect = 0;
  int param = 0;
  int x() const { return param >> 4; }
  int y() const { return param & 15; }
};

// The volume curve of a MIDI controller or velocity for a tracker volume.
int MidiVolume(int volume) { return static_cast<int>(std::sqrt(double(std::clamp(volume, 0, 64))) * 15.875 + 0.1); }

// The key of a period at a finetune: C at period 428 is key 60, finetune
// counts eighths of a semitone.
int KeyForPeriod(int period, int finetune) {
  const double key = 60.0 + 12.0 * std::log2(428.0 * std::exp2(-finetune / 96.0) / period);
  return static_cast<int>(std::clamp(std::lround(key), 0L, 127L));
}

// Conversion of the pattern data into the tracks' event bytes.
class ModSong {
 public:
  ModSong(const ModHeader& h, std::vector<uint8_t> patternData)
      : h_(h), data_(std::move(patternData)), chans_(h.channels) {
    for (int c = 0; c < h.channels; ++c) {
      const int m = c % 15;
      chans_[c].midi = m < 9 ? m : m + 1;  // channel 10 is the drum channel
    }
  }

  void Run();
  std::vector<uint8_t>& Control() { return control_; }
  std::vector<uint8_t>& Channel(int c) { return chans_[c].out; }

 private:
  struct Event {
    uint32_t tick;
    uint8_t status, data1, data2;
  };
  struct Chan {
    int midi = 0;
    int sample = 0;
    int finetune = 0;
    int volume = 64;
    int key = -1;       // sounding
    int lastKey = -1;   // of the last note started
    int velocity = 127;
    bool byVelocity = true;
    int cc7 = -1;
    int cc1 = 0, cc92 = 0;
    double notePeriod = 0, period = 0;
    int bend = 8192;
    int bendRange = 2;
    int portaTarget = 0, portaSpeed = 0;
    bool glissando = false;
    int vibDepth = 0, tremDepth = 0;
    int loopRow = 0, loopCount = 0;
    std::vector<Event> row;  // this row's events, sorted before writing
    std::vector<uint8_t> out;
    uint32_t written = 0;    // tick of the last event written
  };

  ModCell Cell(int pattern, int row, int channel) const;
  void Tempo(uint32_t tick);
  void Meta(uint32_t tick, uint8_t type, const std::string& text);
  void PlayRow(int pattern, int row, uint32_t tick, int speed, int repeats);
  void PlayCell(Chan& ch, const ModCell& cell, int pattern, int row, int speed, int repeats);
  bool VolumeChangesAhead(const Chan& ch, int pattern, int row, int channel, int volume) const;
  void Note(Chan& ch, uint32_t at, int key, int velocity);
  void NoteOff(Chan& ch, uint32_t at);
  void SetBend(Chan& ch, uint32_t at);
  void SendVolume(Chan& ch, uint32_t at);
  void Control(Chan& ch, uint32_t at, int controller, int value) { ch.row.push_back({at, 0xB0, uint8_t(controller), uint8_t(value)}); }
  void Flush(Chan& ch, uint32_t rowTick);
  void EndAll(uint32_t tick);

  const ModHeader& h_;
  std::vector<uint8_t> data_;
  std::vector<Chan> chans_;
  std::vector<uint8_t> control_;
  uint32_t controlTick_ = 0;
  int speed_ = 6, bpm_ = 125;
  uint32_t tempoSent_ = 480000;
};

ModCell ModSong::Cell(int pattern, int row, int channel) const {
  std::size_t at;
  if (h_.flt8) {
    // Channels 0-3 in the pattern's first 1024 bytes, 4-7 in the next.
    at = std::size_t(pattern) * 2048 + (channel >= 4 ? 1024 : 0) + std::size_t(row) * 16 + (channel & 3) * 4;
  } else {
    at = (std::size_t(pattern) * 64 + row) * h_.channels * 4 + std::size_t(channel) * 4;
  }
  ModCell c;
  if (at + 4 > data_.size()) return c;
  const uint8_t* b = data_.data() + at;
  c.sample = (b[0] & 0xF0) | (b[2] >> 4);
  c.period = (b[0] & 0x0F) << 8 | b[1];
  c.effect = b[2] & 0x0F;
  c.param = b[3];
  if (c.effect == 0xE && h_.startrekker) c.effect = c.param = 0;
  return c;
}

void ModSong::Meta(uint32_t tick, uint8_t type, const std::string& text) {
  MidiEventWriter w(control_);
  w.Meta(tick - controlTick_, type, {reinterpret_cast<const uint8_t*>(text.data()), text.size()});
  controlTick_ = tick;
}

void ModSong::Tempo(uint32_t tick) {
  const uint32_t us = static_cast<uint32_t>(std::lround(speed_ * 10000000.0 / bpm_));
  if (us == tempoSent_) return;
  tempoSent_ = us;
  const uint8_t bytes[3] = {uint8_t(us >> 16), uint8_t(us >> 8), uint8_t(us)};
  MidiEventWriter w(control_);
  w.Meta(tick - controlTick_, 0x51, bytes);
  controlTick_ = tick;
}

void ModSong::Note(Chan& ch, uint32_t at, int key, int velocity) {
  ch.row.push_back({at, 0x90, uint8_t(key), uint8_t(velocity)});
  ch.key = key;
}

void ModSong::NoteOff(Chan& ch, uint32_t at) {
  if (ch.key < 0) return;
  ch.row.push_back({at, 0x90, uint8_t(ch.key), 0});
  ch.key = -1;
}

// The pitch between the note's period and the present one as a bend; the
// bend range grows by two semitones whenever the offset reaches it.
void ModSong::SetBend(Chan& ch, uint32_t at) {
  if (ch.notePeriod <= 0 || ch.period <= 0) return;
  const double offset = 12.0 * std::log2(ch.notePeriod / ch.period);
  if (std::fabs(offset) >= ch.bendRange && ch.bendRange < 96) {
    while (std::fabs(offset) >= ch.bendRange && ch.bendRange < 96) ch.bendRange += 2;
    Control(ch, at, 101, 0);
    Control(ch, at, 100, 0);
    Control(ch, at, 6, ch.bendRange);
    Control(ch, at, 38, 0);
  }
  const int value = static_cast<int>(std::clamp(std::lround(8192 + 8192 * offset / ch.bendRange), 0L, 16383L));
  if (value == ch.bend) return;
  ch.bend = value;
  ch.row.push_back({at, 0xE0, uint8_t(value & 0x7F), uint8_t(value >> 7)});
}

// Channel volume for the present volume: the whole level at fixed velocity,
// the part the velocity doesn't give otherwise.
void ModSong::SendVolume(Chan& ch, uint32_t at) {
  int value = MidiVolume(ch.volume);
  if (ch.byVelocity) value = ch.velocity ? std::min(127, (value * 127 + ch.velocity / 2) / ch.velocity) : 127;
  if (value == ch.cc7) return;
  ch.cc7 = value;
  Control(ch, at, 7, value);
}

// Whether the note started in this row changes its volume before the next
// note: slides in this row or after, later volume or sample settings.
bool ModSong::VolumeChangesAhead(const Chan&, int pattern, int row, int channel, int volume) const {
  for (int r = row; r < 64; ++r) {
    const ModCell c = Cell(pattern, r, channel);
    if (r > row && c.period && c.effect != 3 && c.effect != 5) return false;
    if ((c.effect == 5 || c.effect == 6 || c.effect == 0xA) && c.param) return true;
    if (r == row) continue;
    if (c.sample && c.sample <= h_.sampleCount && h_.samples[c.sample - 1].volume != volume) return true;
    if (c.effect == 0xC && std::min(c.param, 64) != volume) return true;
    if (c.effect == 0xE && (c.x() == 0xA || c.x() == 0xB) && c.y()) return true;
  }
  return false;
}

void ModSong::PlayCell(Chan& ch, const ModCell& cell, int pattern, int row, int speed, int repeats) {
  const int channel = static_cast<int>(&ch - chans_.data());
  const int effect = cell.param || cell.effect ? cell.effect : -1;  // 000 is no arpeggio
  const int x = cell.x(), y = cell.y();
  const int trackerTicks = speed * repeats;
  const uint32_t rowTicks = 24u * repeats;
  auto at = [&](int trackerTick) { return static_cast<uint32_t>((trackerTick * 48 + speed) / (2 * speed)); };

  const bool sounding = ch.key >= 0;
  const bool porta = (effect == 3 || effect == 5) && cell.period && sounding;
  const int delay = effect == 0xE && x == 0xD ? y : 0;
  const bool noteDue = cell.period && !porta && delay < speed;
  const uint32_t t0 = at(delay);
  bool volumeChanged = false;

  // 2: a sample number selects the sample and its finetune and volume.
  if (cell.sample && cell.sample <= h_.sampleCount) {
    if (cell.sample != ch.sample) ch.row.push_back({t0, 0xC0, uint8_t(cell.sample - 1), 0});
    ch.sample = cell.sample;
    ch.finetune = h_.samples[cell.sample - 1].finetune;
    volumeChanged = ch.volume != h_.samples[cell.sample - 1].volume;
    ch.volume = h_.samples[cell.sample - 1].volume;
  }

  // 4: the effects that act before the note.
  int fineSlide = 0;
  int cutAt = -1;
  bool vibrato = false, tremolo = false;
  switch (effect) {
    case 3:
    case 5:
      if (cell.period) ch.portaTarget = cell.period;
      if (effect == 3 && cell.param) ch.portaSpeed = cell.param;
      break;
    case 4:
    case 6:
      vibrato = true;
      if (effect == 4 && y) ch.vibDepth = y;
      break;
    case 7:
      tremolo = true;
      if (y) ch.tremDepth = y;
      break;
    case 8:
      if (cell.param <= 128) Control(ch, t0, 10, cell.param < 65 ? cell.param : cell.param - 1);
      break;
    case 0xC:
      volumeChanged |= ch.volume != std::min(cell.param, 64);
      ch.volume = std::min(cell.param, 64);
      break;
    case 0xE:
      switch (x) {
        case 1: fineSlide = -y; break;
        case 2: fineSlide = y; break;
        case 3: ch.glissando = y != 0; break;
        case 5: ch.finetune = y >= 8 ? y - 16 : y; break;
        case 0xA:
        case 0xB: {
          const int v = std::clamp(ch.volume + (x == 0xA ? y : -y), 0, 64);
          volumeChanged |= v != ch.volume;
          ch.volume = v;
          break;
        }
        case 0xC: cutAt = y < speed ? y : -1; break;
        default: break;
      }
      break;
    default:
      break;
  }

  // 1, 3: the new note's key; the sounding one ends where the new one begins.
  int key = -1;
  if (noteDue) {
    NoteOff(ch, t0);
    key = KeyForPeriod(cell.period, ch.finetune);
    ch.notePeriod = ch.period = cell.period;
  }
  // 5: fine slides as pitch bend.
  if (fineSlide && ch.period > 0) {
    ch.period = std::clamp(ch.period + fineSlide, 113.0 / 2, 856.0 * 2);
  }
  if (noteDue || (fineSlide && ch.key >= 0)) SetBend(ch, t0);
  // 6: modulation for vibrato, effect depth for tremolo.
  const int cc1 = vibrato ? std::min(127, 8 * ch.vibDepth) : 0;
  if (cc1 != ch.cc1) Control(ch, t0, 1, ch.cc1 = cc1);
  const int cc92 = tremolo ? std::min(127, 8 * ch.tremDepth) : 0;
  if (cc92 != ch.cc92) Control(ch, t0, 92, ch.cc92 = cc92);
  // 7, 8: volume, then the note.
  if (noteDue) {
    const int velocity = MidiVolume(ch.volume);
    ch.byVelocity = velocity > 0 && !VolumeChangesAhead(ch, pattern, row, channel, ch.volume);
    ch.velocity = ch.byVelocity ? velocity : 127;
    SendVolume(ch, t0);
    Note(ch, t0, key, ch.velocity);
    ch.lastKey = key;
  } else if (volumeChanged && ch.key >= 0) {
    SendVolume(ch, t0);
  }

  // 9: what happens during the row.
  if (effect == 0 && ch.lastKey >= 0 && (ch.key >= 0 || noteDue)) {
    // Arpeggio: base note, + x, + y, a third of the row each.
    const int base = ch.lastKey;
    const int keys[3] = {base, std::min(127, base + x), std::min(127, base + y)};
    if (ch.key < 0) Note(ch, 0, base, ch.velocity);
    for (int part = 1; part < 3; ++part) {
      if (keys[part] == ch.key) continue;
      const uint32_t t = rowTicks * part / 3;
      NoteOff(ch, t);
      Note(ch, t, keys[part], ch.velocity);
    }
    NoteOff(ch, rowTicks);
    return;
  }
  for (int k = 1; k < trackerTicks; ++k) {
    if (k % speed == 0) continue;  // a repeated row's first tick slides nothing
    const uint32_t t = at(k);
    switch (effect) {
      case 1:
      case 2:
        if (ch.key < 0 || ch.period <= 0) break;
        ch.period = std::clamp(ch.period + (effect == 1 ? -cell.param : cell.param), 113.0 / 2, 856.0 * 2);
        SetBend(ch, t);
        break;
      case 3:
      case 5:
        if (ch.key < 0 || ch.portaTarget <= 0 || ch.period <= 0) break;
        if (ch.period > ch.portaTarget) ch.period = std::max<double>(ch.portaTarget, ch.period - ch.portaSpeed);
        else ch.period = std::min<double>(ch.portaTarget, ch.period + ch.portaSpeed);
        if (ch.glissando) {
          // To the nearest semitone of the note's scale.
          const double semis = std::round(12.0 * std::log2(ch.notePeriod / ch.period));
          const double keep = ch.period;
          ch.period = ch.notePeriod / std::exp2(semis / 12.0);
          SetBend(ch, t);
          ch.period = keep;
        } else {
          SetBend(ch, t);
        }
        break;
      default:
        break;
    }
    if ((effect == 5 || effect == 6 || effect == 0xA) && cell.param) {
      const int v = std::clamp(ch.volume + (x ? x : -y), 0, 64);
      if (v != ch.volume && ch.key >= 0) {
        ch.volume = v;
        SendVolume(ch, t);
      }
      ch.volume = v;
    }
    if (effect == 0xE && x == 9 && y && k % y == 0 && ch.key >= 0) {
      const int retrigger = ch.key;
      NoteOff(ch, t);
      Note(ch, t, retrigger, ch.velocity);
    }
  }
  if (cutAt >= 0) NoteOff(ch, at(cutAt));
}

void ModSong::Flush(Chan& ch, uint32_t rowTick) {
  std::stable_sort(ch.row.begin(), ch.row.end(), [](const Event& a, const Event& b) { return a.tick < b.tick; });
  MidiEventWriter w(ch.out);
  for (const Event& e : ch.row) {
    const uint32_t tick = rowTick + e.tick;
    w.Channel(tick - ch.written, e.status, uint8_t(ch.midi), e.data1, e.data2);
    ch.written = tick;
  }
  ch.row.clear();
}

void ModSong::PlayRow(int pattern, int row, uint32_t tick, int speed, int repeats) {
  for (int c = 0; c < h_.channels; ++c) {
    Chan& ch = chans_[c];
    PlayCell(ch, Cell(pattern, row, c), pattern, row, speed, repeats);
    Flush(ch, tick);
  }
}

void ModSong::EndAll(uint32_t tick) {
  for (Chan& ch : chans_) {
    NoteOff(ch, 0);
    Flush(ch, tick);
    MidiEventWriter(ch.out).EndOfTrack(tick - ch.written);
  }
  MidiEventWriter(control_).EndOfTrack(tick - controlTick_);
}

// Cells, tracker ticks and bytes of events at most: what a hostile file can
// make the conversion do. A song of 128 patterns of 32 channels at speed 31
// stays below all three.
constexpr uint64_t kMaxCellRows = uint64_t{1} << 19;
constexpr uint64_t kMaxTicks = uint64_t{1} << 23;
constexpr std::size_t kMaxEventBytes = std::size_t{1} << 25;

void ModSong::Run() {
  // The channel tracks' heads and the control track's.
  for (int c = 0; c < h_.channels; ++c) {
    Chan& ch = chans_[c];
    MidiEventWriter w(ch.out);
    const uint8_t port = static_cast<uint8_t>(c / 15);
    w.Meta(0, 0x21, {&port, 1});
    char name[24];
    const int n = std::snprintf(name, sizeof name, "Track %d", c + 1);
    w.Meta(0, 0x03, {reinterpret_cast<const uint8_t*>(name), std::size_t(n)});
    w.Channel(0, 0xB0, uint8_t(ch.midi), 121, 0);
    w.Channel(0, 0xB0, uint8_t(ch.midi), 10, c % 4 == 0 || c % 4 == 3 ? 31 : 106);
  }
  Meta(0, 0x01, "Created from a MOD by Kelvo Studio v12.5");
  const uint8_t timeSignature[4] = {4, 2, 24, 8};
  MidiEventWriter(control_).Meta(0, 0x58, timeSignature);
  const uint8_t tempo[3] = {0x07, 0x53, 0x00};  // 480000: speed 6 at 125
  MidiEventWriter(control_).Meta(0, 0x51, tempo);

  // Positions past an order entry that names no pattern are not in the song.
  int length = h_.positions;
  for (int p = 0; p < length; ++p)
    if (h_.order[p] >= h_.patterns) length = p;

  std::vector<bool> played(std::size_t(length), false);
  std::unordered_set<uint64_t> seen;
  uint32_t tick = 0;
  uint64_t cellRows = 0, ticks = 0;
  bool exhausted = false;
  while (!exhausted) {
    int pos = 0;
    while (pos < length && played[pos]) ++pos;
    if (pos >= length) break;
    // Each part of the song starts as the song does.
    speed_ = 6;
    bpm_ = 125;
    Tempo(tick);
    for (Chan& ch : chans_) ch.loopRow = ch.loopCount = 0;
    int row = 0;
    bool entering = true;
    while (true) {
      if (entering) {
        if (pos >= length || played[pos]) break;
        played[pos] = true;
        char marker[32];
        std::snprintf(marker, sizeof marker, "%d <- P%d", pos, h_.order[pos]);
        Meta(tick, 0x06, marker);
        entering = false;
      }
      // The same row in the same loop state again would repeat forever.
      uint64_t state = uint64_t(pos) << 8 | uint64_t(row);
      for (const Chan& ch : chans_) state = state * 1099511628211ull ^ uint64_t(ch.loopCount << 8 | ch.loopRow);
      if (!seen.insert(state).second) break;
      cellRows += h_.channels;
      std::size_t bytes = control_.size();
      for (const Chan& ch : chans_) bytes += ch.out.size();
      if (cellRows > kMaxCellRows || ticks > kMaxTicks || bytes > kMaxEventBytes) {
        exhausted = true;
        break;
      }

      const int pattern = h_.order[pos];
      int jump = -1, breakRow = -1, loopTo = -1, repeats = 1;
      for (int c = 0; c < h_.channels; ++c) {
        const ModCell cell = Cell(pattern, row, c);
        const int x = cell.x(), y = cell.y();
        switch (cell.effect) {
          case 0xB: jump = cell.param; break;
          case 0xD: {
            breakRow = x * 10 + y;
            if (breakRow >= 64) breakRow = 0;
            break;
          }
          case 0xE:
            if (x == 6) {
              Chan& ch = chans_[c];
              if (y == 0) {
                ch.loopRow = row;
              } else if (ch.loopCount == 0) {
                ch.loopCount = y;
                loopTo = ch.loopRow;
              } else if (--ch.loopCount > 0) {
                loopTo = ch.loopRow;
              }
            } else if (x == 0xE) {
              repeats = 1 + y;
            }
            break;
          case 0xF:
            if (cell.param == 0) break;
            if (cell.param < 32 || h_.startrekker) speed_ = cell.param;
            else bpm_ = cell.param;
            break;
          default:
            break;
        }
      }
      Tempo(tick);
      ticks += uint64_t(h_.channels) * speed_ * repeats;
      PlayRow(pattern, row, tick, speed_, repeats);
      tick += 24u * repeats;

      if (loopTo >= 0) {
        row = loopTo;
      } else if (jump >= 0) {
        if (jump <= pos || jump >= length || played[std::size_t(jump)]) break;
        pos = jump;
        row = breakRow >= 0 ? breakRow : 0;
        entering = true;
      } else if (breakRow >= 0) {
        ++pos;
        row = breakRow;
        entering = true;
      } else if (++row >= 64) {
        ++pos;
        row = 0;
        entering = true;
      }
    }
  }
  EndAll(tick);
}

std::string SampleName(const ModSampleRecord& s, int number) {
  for (char c : s.name)
    if (static_cast<uint8_t>(c) > 0x20) return std::string(s.name, strnlen(s.name, sizeof s.name));
  char text[16];
  std::snprintf(text, sizeof text, "No %d", number);
  return text;
}

}  // namespace

bool mod_Imp(Collection& collection, FileRef& file, uint32_t) {
  ByteCursor cur(file);
  ModHeader h;
  if (!ReadModHeader(cur, h)) return false;

  // Pattern data as far as the file has it; the rest plays as empty cells.
  const uint64_t patternBytes = uint64_t(h.patterns) * h.channels * 256;
  std::vector<uint8_t> data(patternBytes, 0);
  if (cur.Seek(h.headerSize)) cur.BytesUpTo(data.data(), data.size());

  ModSong converter(h, std::move(data));
  converter.Run();

  Song* song = Create<Song>(collection);
  const std::size_t nameLength = strnlen(h.name, sizeof h.name);
  if (nameLength) {
    song->SetName(h.name, nameLength, TextEncoding::Foreign);
  } else {
    const std::string stem = file.Path().stem().string();
    song->SetName(stem.data(), stem.size(), TextEncoding::Foreign);
  }
  song->sourcePath = file.Path();
  song->format = 1;
  song->division = 96;
  auto addTrack = [&](const char* name, std::vector<uint8_t>& events) {
    auto* track = Create<Track>(collection, name);
    track->parentId = song->id;
    AddChild(*song, track->id);
    track->SetEvents(std::move(events));
    ScanTickZero(*track, nullptr);
    track->SetName(name);
  };
  addTrack("Control Track", converter.Control());
  for (int c = 0; c < h.channels; ++c) {
    char name[24];
    std::snprintf(name, sizeof name, "Track %d", c + 1);
    addTrack(name, converter.Channel(c));
  }

  // Samples follow the patterns in order; each one's first word is not sound.
  uint64_t offset = h.headerSize + patternBytes;
  for (int i = 0; i < h.sampleCount; ++i) {
    const ModSampleRecord& s = h.samples[i];
    const uint64_t start = offset;
    offset += uint64_t{s.words} * 2;
    if (s.words == 0) continue;
    Waveform* w = Create<Waveform>(collection);
    const std::string name = SampleName(s, i + 1);
    w->SetName(name.data(), name.size(), TextEncoding::Foreign);
    w->sourcePath = file.Path();
    w->fileOffset = start + 2;
    const uint64_t frames = uint64_t{s.words} * 2 - 2;
    w->length = static_cast<uint32_t>(std::min(frames, cur.LeftFrom(w->fileOffset)));
    w->channels = 1;
    w->sampleRate = static_cast<uint32_t>(
        std::floor(258.973028125 * std::exp2((s.finetune * 0.125 + 60.0) / 12.0) + 0.499));
    w->rootKey = 60;
    if (s.loopWords > 1) {
      // Ultimate Soundtracker counted the loop start in bytes: a loop that
      // only fits the sample so is read that way.
      const uint64_t bytes = uint64_t{s.words} * 2, loopBytes = uint64_t{s.loopWords} * 2;
      const bool inBytes = h.sampleCount == 15 && uint64_t{s.loopStart} * 2 + loopBytes > bytes &&
                           uint64_t{s.loopStart} + loopBytes <= bytes;
      const int64_t loopStart = std::max<int64_t>(0, int64_t{s.loopStart} * (inBytes ? 1 : 2) - 2);
      w->loopType = 1;
      w->loopStart = static_cast<float>(loopStart);
      w->loopEnd = static_cast<float>(std::min<int64_t>(loopStart + int64_t(loopBytes), int64_t(frames)));
    }
    SetGenericFormat(*w, kPcm8);

    Instrument* inst = Create<Instrument>(collection);
    inst->SetName(name.data(), name.size(), TextEncoding::Foreign);
    inst->location = MakeLocation(0, 0, static_cast<uint32_t>(i), false);
    Layer* layer = AddLayer(*inst);
    Region* region = AddRegion(*layer, w->id, MakeRange(0, 127), kNoRange, 255);
    region->art.Set(kRowVEnvR1Rate, 5.0f);
    // A tracker channel plays one sample at a time: a new note on the
    // channel stops the one still sounding in its release.
    region->SetParam(kRowExclusionGroup, 1.0f);
  }
  return true;
}

}  // namespace kv

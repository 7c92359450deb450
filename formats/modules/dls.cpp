// DLS and GigaStudio module: DLS banks, MLS collections, GigaStudio files,
// split sets and compressed waves.
#include "formats/modules/dls.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "core/app.h"
#include "core/error.h"
#include "core/fileref.h"
#include "core/fixup.h"
#include "core/instrument_ops.h"
#include "core/items.h"
#include "core/text.h"
#include "core/wavestore.h"
#include "formats/detect_bytes.h"
#include "formats/modules/dls_format.h"
#include "formats/modules/gig_format.h"
#include "formats/modules/module.h"
#include "formats/modules/sf2_format.h"
#include "formats/modules/wav.h"

namespace kv {

using namespace detect;

namespace {

bool IsRiffForm(const uint8_t* data, uint32_t size, uint64_t fileSize, const char (&form)[5]) {
  return fileSize >= 12 && FourCC(data, size, 0, "RIFF") && FourCC(data, size, 8, form);
}

// GigaStudio files share the DLS form; their own chunks (dimension regions,
// articulation, sample groups) tell them apart. Instruments come first in
// the file, so these turn up within the buffer.
bool HasGigaChunks(const uint8_t* data, uint32_t size) {
  static constexpr const char* kIds[] = {"3prg", "3ewa", "3lnk", "3ewg", "3gri"};
  for (int64_t hit = Find(data, size, 12, "3", 1); hit >= 0; hit = Find(data, size, static_cast<uint32_t>(hit) + 1, "3", 1)) {
    if (!Has(size, static_cast<uint64_t>(hit), 4)) return false;
    for (const char* id : kIds)
      if (Tag(data, size, static_cast<uint64_t>(hit), id, 4)) return true;
  }
  return false;
}

}  // namespace

int dls_Detect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  if (!IsRiffForm(data, size, fileSize, "DLS ")) return 0;
  return HasGigaChunks(data, size) ? 4 : 6;
}

int dls_MlsDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  return IsRiffForm(data, size, fileSize, "MLS ") ? 6 : 0;
}

int dls_GigDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  if (!IsRiffForm(data, size, fileSize, "DLS ")) return 0;
  return HasGigaChunks(data, size) ? 6 : 2;
}

// Pieces of an old split set are cut at arbitrary places; only the name of
// the set tells them, so the extension decides.
int dls_GigSplitDetect(const uint8_t*, uint32_t, uint32_t size, uint64_t) { return size > 0 ? 2 : 0; }

int dls_GigWaveDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  if (!IsRiffForm(data, size, fileSize, "WAVE")) return 0;
  // A compressed wave carries the GigaStudio wave extension chunk.
  uint64_t pos = 12;
  for (int chunk = 0; chunk < 16 && Has(size, pos, 8); ++chunk) {
    if (FourCC(data, size, pos, "ewav")) return 6;
    const uint64_t body = U32le(data + pos + 4);
    pos += 8 + body + (body & 1);
  }
  // The extension follows the data: past the bytes seen it may still come.
  return pos > size && pos < fileSize ? 4 : 2;
}

}  // namespace kv

// ==== Reading ====

namespace kv {

namespace {

using dls::Connection;

namespace fs = std::filesystem;

constexpr const char* kParse = "dls_Parse";

uint16_t Le16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
uint32_t Le32(const uint8_t* p) { return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24); }

bool ReadAt(FileRef& file, uint64_t offset, void* out, std::size_t size) {
  return file.Seek(offset) && file.ReadExact(out, size);
}

bool IdIs(const uint8_t* id, const char* want) { return std::memcmp(id, want, 4) == 0; }

// The chunks of a body held in memory, each with its id and body; sizes are
// cut to what the enclosing body holds.
template <typename Fn>
void ForEachChunk(std::span<const uint8_t> data, Fn&& fn) {
  std::size_t pos = 0;
  while (data.size() - pos >= 8) {
    const uint32_t size = Le32(data.data() + pos + 4);
    const std::size_t left = data.size() - pos - 8;
    const std::size_t n = std::min<std::size_t>(size, left);
    fn(data.data() + pos, data.subspan(pos + 8, n));
    if (size >= left) break;
    pos += 8 + n + (n & 1);
    if (pos > data.size()) break;
  }
}

// A LIST body's type and contents; false when it is too short to have one.
bool ListOf(const uint8_t* id, std::span<const uint8_t> body, const char* type) {
  return IdIs(id, "LIST") && body.size() >= 4 && IdIs(body.data(), type);
}

std::string InfoText(std::span<const uint8_t> body) {
  const auto* text = reinterpret_cast<const char*>(body.data());
  return DecodeText(text, strnlen(text, body.size()), TextEncoding::Foreign);
}

// The texts of a LIST INFO body.
struct InfoTexts {
  std::string name, comment, copyright, engineer;
};
InfoTexts ReadInfo(std::span<const uint8_t> list) {
  InfoTexts t;
  ForEachChunk(list.subspan(4), [&](const uint8_t* id, std::span<const uint8_t> body) {
    if (IdIs(id, "INAM")) t.name = InfoText(body);
    else if (IdIs(id, "ICMT")) t.comment = InfoText(body);
    else if (IdIs(id, "ICOP")) t.copyright = InfoText(body);
    else if (IdIs(id, "IENG")) t.engineer = InfoText(body);
  });
  return t;
}

// The connection blocks of the art1/art2 chunks of an articulator list
// (lart or lar2). The count comes from the chunk's size, never beyond it.
void ReadArticulators(std::span<const uint8_t> list, std::vector<Connection>& out, bool& level1) {
  ForEachChunk(list.subspan(4), [&](const uint8_t* id, std::span<const uint8_t> body) {
    const bool art1 = IdIs(id, "art1");
    if (!art1 && !IdIs(id, "art2")) return;
    if (body.size() < 8) return;
    const uint32_t header = Le32(body.data());
    if (header < 8 || header > body.size()) return;
    const std::size_t room = (body.size() - header) / 12;
    const std::size_t count = std::min<std::size_t>(Le32(body.data() + 4), room);
    out.reserve(out.size() + count);
    for (std::size_t i = 0; i < count; ++i) {
      const uint8_t* p = body.data() + header + 12 * i;
      out.push_back({Le16(p), Le16(p + 2), Le16(p + 4), Le16(p + 6), static_cast<int32_t>(Le32(p + 8))});
    }
    level1 |= art1;
  });
}

// A wsmp body: unity note and fine tune (normalised into ±100 cents), gain
// and the first loop.
struct SampleInfo {
  bool present = false;
  int root = 60;
  int fine = 0;
  double gainDb = 0.0;
  bool looped = false;
  bool release = false;
  uint32_t loopStart = 0;
  uint32_t loopLength = 0;
};

SampleInfo ReadWsmp(std::span<const uint8_t> body) {
  SampleInfo s;
  if (body.size() < 20) return s;
  s.present = true;
  const uint32_t header = Le32(body.data());
  s.root = Le16(body.data() + 4);
  s.fine = static_cast<int16_t>(Le16(body.data() + 6));
  s.gainDb = static_cast<int32_t>(Le32(body.data() + 8)) / dls::kDbUnit;
  // A fine tune past a semitone moves into the root key.
  while (s.fine >= 101) {
    s.fine -= 100;
    --s.root;
  }
  while (s.fine <= -101) {
    s.fine += 100;
    ++s.root;
  }
  s.root = std::clamp(s.root, 0, 127);
  const uint32_t loops = Le32(body.data() + 16);
  if (loops != 0 && header <= body.size() && body.size() - header >= 16) {
    const uint8_t* l = body.data() + header;
    s.looped = true;
    s.release = Le32(l + 4) == 1;
    s.loopStart = Le32(l + 8);
    s.loopLength = Le32(l + 12);
  }
  return s;
}

// Regions of a layer number that overlap one already placed go into a
// further layer of the same number: the model's regions of a layer must not
// overlap, and the file's may (the two sides of a stereo sound above all).
class LayerStack {
 public:
  LayerStack(Instrument& instrument, int number) : instrument_(instrument), number_(number) {}

  Layer& For(int loKey, int hiKey, int loVel, int hiVel) {
    Level* place = nullptr;
    for (auto& level : levels_)
      if (!level->used.Overlaps(loKey, hiKey, loVel, hiVel)) {
        place = level.get();
        break;
      }
    if (!place && levels_.size() >= kMaxLayers) place = levels_.back().get();
    if (!place) {
      Layer* layer = AddLayer(instrument_);
      char name[32];
      std::snprintf(name, sizeof name, "Layer %d", number_);
      layer->SetName(name);
      levels_.push_back(std::make_unique<Level>());
      place = levels_.back().get();
      place->layer = layer;
    }
    place->used.Add(loKey, hiKey, loVel, hiVel);
    return *place->layer;
  }

 private:
  static constexpr std::size_t kMaxLayers = 32;
  struct Level {
    Layer* layer = nullptr;
    KeyVelocityCells used;  // 4 KB: kept on the heap
  };

  Instrument& instrument_;
  int number_;
  std::vector<std::unique_ptr<Level>> levels_;
};

struct PoolWave {
  uint64_t offset;  // from the start of the pool list's contents
  Waveform* wave;   // null when the entry could not be read
  uint32_t fileNo = 0;  // GigaStudio split sets: 0 the main file, n its .gxNN
};

// A GigaStudio pool wave with the extension chunk holds block-coded data.
void ReadGigWave(FileRef& file, uint64_t start, uint64_t end, Waveform& wave) {
  uint64_t dataAt = 0, dataEnd = 0;
  bool coded = false;
  for (uint64_t pos = start; pos + 8 <= end;) {
    uint8_t h[8];
    if (!ReadAt(file, pos, h, sizeof h)) break;
    const uint64_t size = std::min<uint64_t>(Le32(h + 4), end - pos - 8);
    if (IdIs(h, "data")) {
      dataAt = pos + 8;
      dataEnd = pos + 8 + size;
    } else if (IdIs(h, "ewav")) {
      coded = true;
    }
    pos += 8 + size + (size & 1);
  }
  if (coded && dataEnd) gig::SetupCompressedWave(file, dataAt, dataEnd, wave);
}

class DlsReader {
 public:
  DlsReader(Collection& c, FileRef& file) : c_(c), file_(file) {}

  bool Read(uint64_t start, uint64_t end, bool mls);
  // GigaStudio: the same walk with the dimension regions, coded waves and
  // context "gig_Parse".
  void SetGig() {
    gig_ = true;
    ctx_ = "gig_Parse";
  }

 private:
  struct DimensionRegion {
    std::span<const uint8_t> wsmp, ewa;
  };
  struct GigRegion {
    int loKey, hiKey, loVel, hiVel, keyGroup;
    bool noteExclusion;
    std::span<const uint8_t> lnk, wsmp;
    std::vector<DimensionRegion> dims;
  };
  void ReadDimensions(Instrument& instrument, std::map<int, LayerStack>& layers, const GigRegion& r);
  void ApplySample(Region& region, const Instrument& instrument, const Waveform& wave, std::span<const uint8_t> wsmp);

  bool ReadPool(FileRef& file, uint64_t body, uint64_t end, uint32_t fileNo = 0);
  bool ReadExtensionFiles();
  bool ReadCueTable(uint64_t body, uint64_t size);
  void ReadInstruments(std::span<const uint8_t> lins);
  void ReadInstrument(std::span<const uint8_t> ins);
  Waveform* CueWave(uint32_t cue, const char*& missing) const;

  Collection& c_;
  FileRef& file_;
  std::vector<PoolWave> pool_;
  bool havePtbl_ = false;
  std::vector<uint64_t> cues_;
  std::vector<uint32_t> cueFiles_;  // the file of each cue (split sets)
  bool gig_ = false;
  bool version3_ = false;
  const char* ctx_ = kParse;
  int regionIndex_ = 0;
  std::string dropped_;  // dimensions kept at their first zone, for the note
};

bool DlsReader::Read(uint64_t start, uint64_t end, bool mls) {
  const uint64_t fileSize = file_.Size();
  end = std::min(end, fileSize);
  uint8_t head[12];
  if (start > end || end - start < 12 || !ReadAt(file_, start, head, sizeof head) || !IdIs(head, "RIFF") ||
      !(IdIs(head + 8, "DLS ") || (mls && IdIs(head + 8, "MLS ")))) {
    return Fail(ctx_, "Not a RIFF DLS file");
  }
  end = std::min<uint64_t>(end, start + 8 + uint64_t{Le32(head + 4)});

  // The top-level chunks: where the instrument list, the cue table, the
  // pool and the texts lie.
  uint64_t linsAt = 0, linsSize = 0, ptblAt = 0, ptblSize = 0, wvplAt = 0, wvplEnd = 0;
  bool haveLins = false, haveWvpl = false;
  InfoTexts info;
  for (uint64_t pos = start + 12; pos + 8 <= end;) {
    uint8_t h[12];
    if (!ReadAt(file_, pos, h, 8)) break;
    const uint64_t body = pos + 8;
    const uint64_t size = std::min<uint64_t>(Le32(h + 4), end - body);
    if (IdIs(h, "LIST") && size >= 4 && ReadAt(file_, body, h + 8, 4)) {
      if (IdIs(h + 8, "lins") && !haveLins) {
        haveLins = true;
        linsAt = body;
        linsSize = size;
      } else if ((IdIs(h + 8, "wvpl") || IdIs(h + 8, "dwpl")) && !haveWvpl) {
        haveWvpl = true;
        wvplAt = body + 4;
        wvplEnd = body + size;
      } else if (IdIs(h + 8, "INFO") && size <= (1u << 20)) {
        std::vector<uint8_t> list(static_cast<std::size_t>(size));
        if (ReadAt(file_, body, list.data(), list.size())) info = ReadInfo(list);
      }
    } else if (IdIs(h, "vers") && size >= 4 && ReadAt(file_, body, h + 8, 4)) {
      version3_ = Le16(h + 10) > 2;
    } else if (IdIs(h, "ptbl") && !havePtbl_) {
      havePtbl_ = true;
      ptblAt = body;
      ptblSize = size;
    }
    pos = body + size + (size & 1);
  }

  if (!info.name.empty()) c_.SetName(info.name);
  if (!info.copyright.empty()) CopyText(c_.copyright, info.copyright);
  if (!info.engineer.empty()) CopyText(c_.engineer, info.engineer);
  if (!info.comment.empty()) CopyText(c_.comment, info.comment);

  if (gig_ && !haveWvpl) return Fail(ctx_, "No waveforms!");
  if (havePtbl_) {
    if (!ReadCueTable(ptblAt, ptblSize)) return Fail(ctx_, "Could not read pool cue table");
  } else {
    MessageBox(kDlsNoPtblWarning, ctx_);
  }
  if (haveWvpl && !ReadPool(file_, wvplAt, wvplEnd)) return false;
  if (gig_ && !ReadExtensionFiles()) return false;

  if (haveLins) {
    // The instrument list is small beside the pool: read whole, its size
    // bounded by the file's.
    std::vector<uint8_t> lins(static_cast<std::size_t>(linsSize));
    if (!ReadAt(file_, linsAt, lins.data(), lins.size())) return Fail(ctx_, "Reading from file failed");
    ReadInstruments(lins);
  }
  if (!dropped_.empty()) MessageBox(("Note: " + dropped_).c_str(), ctx_);
  return true;
}

bool DlsReader::ReadCueTable(uint64_t body, uint64_t size) {
  uint8_t h[8];
  if (size < 8 || !ReadAt(file_, body, h, sizeof h)) return false;
  const uint32_t header = Le32(h);
  const uint32_t count = Le32(h + 4);
  if (header < 8 || header > size || (size - header) / 4 < count) return false;
  // GigaStudio tables of 8-byte entries: a file number (a split set's
  // extension) and the offset, or the offset's high half in files past 2 GB.
  const bool wide = gig_ && (size - header) / 8 >= count && (size - header) == uint64_t{count} * 8;
  const std::size_t entry = wide ? 8 : 4;
  cues_.resize(count);
  cueFiles_.assign(count, 0);
  std::vector<uint8_t> raw(std::size_t{count} * entry);
  if (count && !ReadAt(file_, body + header, raw.data(), raw.size())) return false;
  const bool large = file_.Size() >> 31;
  for (uint32_t i = 0; i < count; ++i) {
    const uint8_t* e = raw.data() + entry * i;
    if (!wide) {
      cues_[i] = Le32(e);
    } else if (large) {
      cues_[i] = (uint64_t{Le32(e)} << 32) | Le32(e + 4);
    } else {
      cueFiles_[i] = Le32(e);
      cues_[i] = Le32(e + 4);
    }
  }
  return true;
}

// The pools of a split set's extension files, named after the main file
// with .gx01, .gx02 ... and found beside it.
bool DlsReader::ReadExtensionFiles() {
  uint32_t last = 0;
  for (uint32_t f : cueFiles_) last = std::max(last, f);
  if (last > 99) return Fail(ctx_, "Couldn't find extension file");
  const fs::path main = file_.Path();
  std::string stem = main.filename().string();
  if (stem.size() > 4 && EqualsNoCase(stem.substr(stem.size() - 4), ".gig")) stem.resize(stem.size() - 4);
  for (uint32_t n = 1; n <= last; ++n) {
    char suffix[8];
    std::snprintf(suffix, sizeof suffix, ".gx%02u", n);
    const fs::path path = ResolvePath(main.parent_path(), stem + suffix);
    std::error_code ec;
    FileRef ext;
    if (!fs::is_regular_file(path, ec) || !ext.OpenRead(path)) return Fail(ctx_, "Couldn't find extension file");
    uint8_t head[12];
    const uint64_t size = ext.Size();
    if (size < 12 || !ReadAt(ext, 0, head, sizeof head) || !IdIs(head, "RIFF")) return Fail(ctx_, "Invalid extension file");
    const uint64_t end = std::min<uint64_t>(size, 8 + uint64_t{Le32(head + 4)});
    bool found = false;
    for (uint64_t pos = 12; pos + 12 <= end && !found;) {
      uint8_t h[12];
      if (!ReadAt(ext, pos, h, sizeof h)) break;
      const uint64_t body = std::min<uint64_t>(Le32(h + 4), end - pos - 8);
      if (IdIs(h, "LIST") && IdIs(h + 8, "wvpl")) {
        found = true;
        if (!ReadPool(ext, pos + 12, pos + 8 + body, n)) return false;
      }
      pos += 8 + body + (body & 1);
    }
    if (!found) return Fail(ctx_, "Invalid extension file");
  }
  return true;
}

bool DlsReader::ReadPool(FileRef& file, uint64_t body, uint64_t end, uint32_t fileNo) {
  int index = 0;
  for (uint64_t pos = body; pos + 12 <= end;) {
    uint8_t h[12];
    if (!ReadAt(file, pos, h, sizeof h)) break;
    const uint64_t size = std::min<uint64_t>(Le32(h + 4), end - pos - 8);
    if (IdIs(h, "LIST") && (IdIs(h + 8, "wave") || IdIs(h + 8, "wav "))) {
      ++index;
      auto* wave = Create<Waveform>(c_);
      char name[32];
      std::snprintf(name, sizeof name, "Wave %d", index);
      wave->SetName(name);
      wave->bits = 16;
      if (size >= 4 && wav_ReadWaveBody(file, pos + 12, pos + 8 + size, *wave)) {
        if (gig_) ReadGigWave(file, pos + 12, pos + 8 + size, *wave);
        pool_.push_back({pos - body, wave, fileNo});
      } else {
        // A pool entry without samples: the regions that play it say so.
        DeleteItem(wave);
        ClearError();
        pool_.push_back({pos - body, nullptr, fileNo});
      }
    }
    pos += 8 + size + (size & 1);
  }
  return true;
}

Waveform* DlsReader::CueWave(uint32_t cue, const char*& missing) const {
  if (!havePtbl_) {
    // Without the table the waves are taken in order.
    if (cue >= pool_.size()) {
      missing = "Missing wave";
      return nullptr;
    }
    if (!pool_[cue].wave) missing = "Missing wave";
    return pool_[cue].wave;
  }
  if (cue >= cues_.size()) {
    missing = "Missing cue";
    return nullptr;
  }
  const uint64_t offset = cues_[cue];
  const uint32_t fileNo = cueFiles_.empty() ? 0 : cueFiles_[cue];
  const auto it = std::lower_bound(pool_.begin(), pool_.end(), std::make_pair(fileNo, offset),
                                   [](const PoolWave& p, std::pair<uint32_t, uint64_t> o) {
                                     return std::make_pair(p.fileNo, p.offset) < o;
                                   });
  if (it == pool_.end() || it->offset != offset || it->fileNo != fileNo || !it->wave) {
    missing = "Missing wave";
    return nullptr;
  }
  return it->wave;
}

void DlsReader::ReadInstruments(std::span<const uint8_t> lins) {
  std::size_t count = 0;
  ForEachChunk(lins.subspan(4), [&](const uint8_t* id, std::span<const uint8_t> body) {
    count += ListOf(id, body, "ins ");
  });
  ExpectItems(c_, count * 8);
  ForEachChunk(lins.subspan(4), [&](const uint8_t* id, std::span<const uint8_t> body) {
    if (ListOf(id, body, "ins ")) ReadInstrument(body);
  });
}

void DlsReader::ReadInstrument(std::span<const uint8_t> ins) {
  struct RegionChunks {
    std::span<const uint8_t> rgnh, wsmp, wlnk;
    std::vector<Connection> blocks;
    bool level1Blocks = false;
    bool hasArticulation = false;
    bool level2 = false;  // rgn2
    std::span<const uint8_t> lnk;                 // GigaStudio dimension table
    std::vector<DimensionRegion> dims;            // its 3ewl lists in order
  };
  std::span<const uint8_t> insh;
  InfoTexts info;
  std::vector<Connection> instBlocks;
  bool instLevel1 = false, instHasArticulation = false;
  std::vector<RegionChunks> regions;

  ForEachChunk(ins.subspan(4), [&](const uint8_t* id, std::span<const uint8_t> body) {
    if (IdIs(id, "insh")) {
      insh = body;
    } else if (ListOf(id, body, "INFO")) {
      info = ReadInfo(body);
    } else if (ListOf(id, body, "lart") || ListOf(id, body, "lar2")) {
      instHasArticulation = true;
      ReadArticulators(body, instBlocks, instLevel1);
    } else if (ListOf(id, body, "lrgn")) {
      ForEachChunk(body.subspan(4), [&](const uint8_t* rid, std::span<const uint8_t> rbody) {
        const bool rgn2 = ListOf(rid, rbody, "rgn2");
        if (!rgn2 && !ListOf(rid, rbody, "rgn ")) return;
        RegionChunks r;
        r.level2 = rgn2;
        ForEachChunk(rbody.subspan(4), [&](const uint8_t* cid, std::span<const uint8_t> cbody) {
          if (IdIs(cid, "rgnh")) r.rgnh = cbody;
          else if (IdIs(cid, "wsmp")) r.wsmp = cbody;
          else if (IdIs(cid, "wlnk")) r.wlnk = cbody;
          else if (IdIs(cid, "3lnk")) r.lnk = cbody;
          else if (ListOf(cid, cbody, "3prg")) {
            ForEachChunk(cbody.subspan(4), [&](const uint8_t* eid, std::span<const uint8_t> ebody) {
              if (!ListOf(eid, ebody, "3ewl")) return;
              DimensionRegion d;
              ForEachChunk(ebody.subspan(4), [&](const uint8_t* did, std::span<const uint8_t> dbody) {
                if (IdIs(did, "wsmp")) d.wsmp = dbody;
                else if (IdIs(did, "3ewa")) d.ewa = dbody;
              });
              r.dims.push_back(d);
            });
          } else if (ListOf(cid, cbody, "lart") || ListOf(cid, cbody, "lar2")) {
            r.hasArticulation = true;
            ReadArticulators(cbody, r.blocks, r.level1Blocks);
          }
        });
        regions.push_back(std::move(r));
      });
    }
  });

  auto* instrument = Create<Instrument>(c_);
  instrument->sourcePath = file_.Path();
  uint32_t bank = 0, program = 0;
  if (insh.size() >= 12) {
    bank = Le32(insh.data() + 4);
    program = Le32(insh.data() + 8);
  }
  const bool drum = (bank >> 31) & 1u;
  const uint32_t major = (bank >> 8) & 0x7F, minor = bank & 0x7F;
  instrument->location = MakeLocation(major, minor, program & 0x7F, drum);
  if (!info.name.empty()) {
    instrument->SetName(info.name);
  } else {
    char name[64];
    std::snprintf(name, sizeof name, "%s %u-%u: %u", drum ? "Drums" : "Instrument", major, minor, program & 0x7F);
    instrument->SetName(name);
  }
  if (!info.comment.empty()) CopyText(instrument->comment, info.comment);

  // Sends need an effect slot of their kind.
  bool reverb = dls::ConnectionsUseReverb(instBlocks), chorus = dls::ConnectionsUseChorus(instBlocks);
  for (const RegionChunks& r : regions) {
    reverb |= dls::ConnectionsUseReverb(r.blocks);
    chorus |= dls::ConnectionsUseChorus(r.blocks);
  }
  dls::SendSlots sends;
  if (reverb) sends.reverb = sf2::EffectSlot(*instrument, sf2::kFxReverb);
  if (chorus) sends.chorus = sf2::EffectSlot(*instrument, sf2::kFxChorus);

  uint32_t unknown = 0;
  if (instHasArticulation) {
    unknown += dls::ConnectionsToArticulation(instBlocks, instLevel1, sends, instrument->art).unknown;
  }

  std::map<int, LayerStack> layers;
  struct Linked {
    Region* region;
    uint32_t channel;
  };
  std::vector<Linked> linked;
  for (RegionChunks& r : regions) {
    int loKey = 0, hiKey = 127, loVel = 0, hiVel = 127, layerNumber = 0;
    uint16_t options = 0, keyGroup = 0;
    if (r.rgnh.size() >= 12) {
      const uint8_t* h = r.rgnh.data();
      loKey = std::min<int>(Le16(h), 127);
      hiKey = std::min<int>(Le16(h + 2), 127);
      loVel = std::min<int>(Le16(h + 4), 127);
      hiVel = std::min<int>(Le16(h + 6), 127);
      options = Le16(h + 8);
      keyGroup = Le16(h + 10);
      if (r.rgnh.size() >= 14) layerNumber = Le16(h + 12);
    }
    if (loKey > hiKey) std::swap(loKey, hiKey);
    if (loVel > hiVel) std::swap(loVel, hiVel);
    // Level 1 leaves the velocity range unused, often as 0-0.
    if (hiVel == 0) hiVel = 127;
    ++regionIndex_;
    if (gig_ && !r.lnk.empty()) {
      ReadDimensions(*instrument, layers, {loKey, hiKey, loVel, hiVel, keyGroup, (options & 1u) != 0, r.lnk, r.wsmp, r.dims});
      continue;
    }

    uint16_t linkOptions = 0, phaseGroup = 0;
    uint32_t channel = 1, cue = 0;
    if (r.wlnk.size() >= 12) {
      linkOptions = Le16(r.wlnk.data());
      phaseGroup = Le16(r.wlnk.data() + 2);
      channel = Le32(r.wlnk.data() + 4);
      cue = Le32(r.wlnk.data() + 8);
    }
    const char* missing = nullptr;
    Waveform* wave = r.wlnk.size() >= 12 ? CueWave(cue, missing) : (missing = "Missing cue", nullptr);

    auto [it, made] = layers.try_emplace(layerNumber, *instrument, layerNumber);
    Layer& layer = it->second.For(loKey, hiKey, loVel, hiVel);
    Region* region = AddRegion(layer, wave ? wave->id : kNoItem, MakeRange(static_cast<uint8_t>(loKey), static_cast<uint8_t>(hiKey)),
                               MakeRange(static_cast<uint8_t>(loVel), static_cast<uint8_t>(hiVel)), 255);
    if (missing) region->SetName(missing);
    if (keyGroup) region->SetParam(kRowExclusionGroup, keyGroup);
    if (options & 1u) region->SetParam(kRowNoteExclusion, 1);
    if (phaseGroup) {
      region->SetParam(kRowPhaseGroup, phaseGroup);
      if (linkOptions & 1u) region->SetParam(kRowPhaseMaster, 1);
    }
    if (channel == 1 || channel == 2) linked.push_back({region, channel});

    if (r.hasArticulation) {
      unknown += dls::ConnectionsToArticulation(r.blocks, r.level1Blocks, sends, region->art).unknown;
      // A region's articulation takes the place of the instrument's whole:
      // what only the instrument sets is the default here.
      static const Articulation kDefaults;
      for (int row = 0; row < kArticulationCount; ++row)
        if (instrument->art.IsSet(row) && !region->art.IsSet(row)) region->art.Set(row, kDefaults.value[row]);
    }

    if (wave) ApplySample(*region, *instrument, *wave, r.wsmp);
  }

  // The two sides of a stereo sound: a right-channel region keeps its link
  // to the group and plays on the right, the others of its group on the
  // left, unless their articulation places them.
  for (const Linked& l : linked) {
    if (l.channel != 2) continue;
    if (!l.region->art.IsSet(kRowPan)) l.region->art.Set(kRowPan, 1.0f);
    for (const Linked& other : linked)
      if (other.channel == 1 && other.region->phaseGroup != 0 && other.region->phaseGroup == l.region->phaseGroup &&
          !other.region->art.IsSet(kRowPan))
        other.region->art.Set(kRowPan, -1.0f);
  }

  if (layers.empty()) AddLayer(*instrument);
  instrument->unreadArticulation += unknown;
  InstrumentDone(c_, *instrument);
}

// A GigaStudio region: its dimension regions, one Region each in the layer
// of its velocity zone (and layer zone). Release-trigger zones become
// release triggers, round robin and random zones alternate groups, the
// sustain pedal the pedal switch; a sample-channel dimension is one stereo
// wave or two linked sides. Other dimensions keep their first zone.
void DlsReader::ReadDimensions(Instrument& instrument, std::map<int, LayerStack>& layers, const GigRegion& r) {
  struct Dim {
    int type, bits, zones, pos, slot;
  };
  const std::size_t slots = version3_ ? 8 : 5;
  const std::size_t poolAt = version3_ ? 68 : 44;
  std::vector<Dim> dims;
  int pos = 0;
  for (std::size_t i = 0; i < slots && 4 + 8 * i + 5 <= r.lnk.size(); ++i) {
    const uint8_t* d = r.lnk.data() + 4 + 8 * i;
    if (d[0] == gig::kDimNone || d[1] == 0) continue;
    if (pos + d[1] > 8) {
      dropped_ += dropped_.empty() ? "" : "; ";
      dropped_ += "a region's dimensions need more than 8 bits: those past them are left out";
      break;
    }
    const int most = 1 << d[1];
    const int zones = d[4] == 0 ? most : std::min<int>(d[4], most);
    dims.push_back({d[0], d[1], zones, pos, static_cast<int>(i)});
    pos += d[1];
  }
  const std::size_t count =
      std::min<std::size_t>({r.lnk.size() >= 4 ? Le32(r.lnk.data()) : 0, r.dims.size(), std::size_t{256}});
  auto poolIndex = [&](std::size_t index) -> uint32_t {
    const std::size_t at = poolAt + 4 * index;
    return at + 4 <= r.lnk.size() ? Le32(r.lnk.data() + at) : 0xFFFFFFFFu;
  };
  auto waveOf = [&](std::size_t index, const char*& missing) -> Waveform* {
    missing = nullptr;
    const uint32_t cue = poolIndex(index);
    if (cue == 0xFFFFFFFFu) {
      missing = "Missing cue";
      return nullptr;
    }
    return CueWave(cue, missing);
  };

  // Which zones of each dimension are read.
  std::vector<int> kept(dims.size());
  for (std::size_t k = 0; k < dims.size(); ++k) {
    const Dim& d = dims[k];
    switch (d.type) {
      case gig::kDimVelocity:
      case gig::kDimLayer:
      case gig::kDimReleaseTrigger:
      case gig::kDimRoundRobin:
      case gig::kDimRandom:
      case gig::kDimRoundRobinKeyboard:
      case gig::kDimSustainPedal:
      case gig::kDimSampleChannel:
        kept[k] = std::min<int>(d.zones, 16);
        break;
      default: {
        kept[k] = 1;
        char buffer[32], text[160];
        std::snprintf(text, sizeof text, "the %s dimension of \"%s\" keeps its first zone only",
                      gig::DimensionName(static_cast<uint8_t>(d.type), buffer), std::string(instrument.Name()).c_str());
        if (dropped_.find(text) == std::string::npos) {
          dropped_ += dropped_.empty() ? "" : "; ";
          dropped_ += text;
        }
        break;
      }
    }
  }

  // The velocity zones: the upper limits of the file (3ewa), else even
  // splits.
  auto velocityRange = [&](std::size_t k, int zone, std::size_t index, int& lo, int& hi) {
    const Dim& d = dims[k];
    auto upper = [&](int z) -> int {
      const std::size_t other = (index & ~(static_cast<std::size_t>((1 << d.bits) - 1) << d.pos)) |
                                (static_cast<std::size_t>(z) << d.pos);
      if (other >= count) return -1;
      Articulation scratch;
      const gig::DimensionExtras x = gig::ReadArticulation(r.dims[other].ewa, scratch);
      if (version3_ && x.haveUpperLimits) return x.upperLimits[d.slot];
      return x.velocityLimit ? x.velocityLimit : -1;
    };
    const int top = upper(zone), below = zone > 0 ? upper(zone - 1) : -1;
    if (top > 0 && (zone == 0 || below >= 0) && top > below) {
      lo = zone == 0 ? 0 : below + 1;
      hi = zone == d.zones - 1 ? 127 : top;
    } else {
      lo = zone * 128 / d.zones;
      hi = zone == d.zones - 1 ? 127 : (zone + 1) * 128 / d.zones - 1;
    }
  };

  std::vector<int> zone(dims.size(), 0);
  for (;;) {
    std::size_t index = 0;
    for (std::size_t k = 0; k < dims.size(); ++k) index |= static_cast<std::size_t>(zone[k]) << dims[k].pos;
    if (index < count) {
      int loVel = r.loVel, hiVel = r.hiVel, layerNumber = 0, trigger = 0, pedal = 0;
      float pan = 2.0f;  // none
      bool skip = false;
      const char* missing = nullptr;
      Waveform* wave = waveOf(index, missing);
      for (std::size_t k = 0; k < dims.size(); ++k) {
        const int z = zone[k];
        switch (dims[k].type) {
          case gig::kDimVelocity:
            velocityRange(k, z, index, loVel, hiVel);
            layerNumber += z;
            break;
          case gig::kDimLayer: layerNumber += 128 * z; break;
          case gig::kDimReleaseTrigger: trigger = z ? 1 : trigger; break;
          case gig::kDimRoundRobin:
          case gig::kDimRandom:
          case gig::kDimRoundRobinKeyboard: trigger = 2 + z; break;
          case gig::kDimSustainPedal: pedal = z ? 1 : 2; break;
          case gig::kDimSampleChannel: {
            // One stereo wave plays both sides from the first zone; two mono
            // waves are the two sides of a pair.
            const char* other = nullptr;
            const std::size_t otherIndex = index ^ (static_cast<std::size_t>(1) << dims[k].pos);
            Waveform* otherWave = otherIndex < count ? waveOf(otherIndex, other) : nullptr;
            const bool pair = otherWave && wave && otherWave != wave && wave->channels == 1;
            if (z > 1 || (z == 1 && !pair)) skip = true;
            if (pair) pan = z ? 1.0f : -1.0f;
            break;
          }
          default: break;
        }
      }
      if (!skip) {
        Layer& layer = layers.try_emplace(layerNumber, instrument, layerNumber).first->second.For(r.loKey, r.hiKey, loVel, hiVel);
        Region* region = AddRegion(layer, wave ? wave->id : kNoItem,
                                   MakeRange(static_cast<uint8_t>(r.loKey), static_cast<uint8_t>(r.hiKey)),
                                   MakeRange(static_cast<uint8_t>(loVel), static_cast<uint8_t>(hiVel)), 255);
        if (missing) region->SetName(missing);
        if (r.keyGroup) region->SetParam(kRowExclusionGroup, static_cast<float>(r.keyGroup));
        if (r.noteExclusion) region->SetParam(kRowNoteExclusion, 1);
        if (trigger) region->SetParam(kRowTriggerType, static_cast<float>(std::min(trigger, 17)));
        if (pedal) region->SetParam(kRowSustainSwitch, static_cast<float>(pedal));
        const DimensionRegion& dr = r.dims[index];
        const gig::DimensionExtras x = gig::ReadArticulation(dr.ewa, region->art);
        if (pan <= 1.0f) region->art.Set(kRowPan, pan);
        if (x.startOffset) region->SetParam(kRowStartOffset, static_cast<float>(x.startOffset));
        instrument.unreadArticulation += static_cast<uint32_t>(x.unread);
        if (wave) ApplySample(*region, instrument, *wave, dr.wsmp.empty() ? r.wsmp : dr.wsmp);
      }
    }
    // The next combination of kept zones.
    std::size_t k = 0;
    for (; k < dims.size(); ++k) {
      if (++zone[k] < kept[k]) break;
      zone[k] = 0;
    }
    if (k == dims.size()) break;
  }
}

// The region's wsmp wins over the wave's: a root key of its own, its tuning
// and gain against the wave's as articulation, its loop.
void DlsReader::ApplySample(Region& region, const Instrument& instrument, const Waveform& wave,
                            std::span<const uint8_t> wsmp) {
  const SampleInfo s = ReadWsmp(wsmp);
  if (!s.present) return;
  auto effective = [&](int row) { return region.art.IsSet(row) ? region.art.value[row] : instrument.art.value[row]; };
  if (s.root != wave.rootKey) region.SetParam(kRowRootKeyOverride, static_cast<float>(s.root));
  if (s.fine != wave.fineTune) {
    region.art.Set(kRowMasterTune, static_cast<float>(effective(kRowMasterTune) + (s.fine - wave.fineTune) * 0.01));
  }
  const double gain = s.gainDb - wave.volume;
  if (std::fabs(gain) > 1e-6) region.art.Set(kRowMasterVolume, static_cast<float>(effective(kRowMasterVolume) + gain));
  // GigaStudio keeps the loops with the wave (smpl); its wsmp names none.
  if (gig_ && !s.looped) return;
  const int loopType = s.looped ? 1 : 0;
  const float loopStart = static_cast<float>(s.loopStart);
  const float loopEnd = static_cast<float>(static_cast<double>(s.loopStart) + s.loopLength);
  if (loopType != wave.loopType) region.SetParam(kRowLoopType, static_cast<float>(loopType));
  if (s.looped) {
    if ((s.release ? 1 : 0) != wave.loopRelease) region.SetParam(kRowLoopRelease, s.release ? 1.0f : 0.0f);
    if (loopStart != wave.loopStart || loopEnd != wave.loopEnd) {
      region.SetParam(kRowLoopStart, loopStart);
      region.SetParam(kRowLoopEnd, loopEnd);
    }
  }
}

}  // namespace

bool dls_Read(Collection& collection, FileRef& file, uint64_t start, uint64_t end) {
  DlsReader reader(collection, file);
  return reader.Read(start, end, true);
}

bool dls_Imp(Collection& collection, FileRef& file, uint32_t) {
  DlsReader reader(collection, file);
  return reader.Read(0, file.Size(), false);
}

bool gig_Imp(Collection& collection, FileRef& file, uint32_t) {
  DlsReader reader(collection, file);
  reader.SetGig();
  return reader.Read(0, file.Size(), false);
}

bool mls_Imp(Collection& collection, FileRef& file, uint32_t) {
  DlsReader reader(collection, file);
  return reader.Read(0, file.Size(), true);
}

}  // namespace kv

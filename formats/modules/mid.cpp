// Standard MIDI files and RIFF-MIDI.
#include "formats/modules/mid.h"

#include "formats/modules/dls.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <span>
#include <string>
#include <vector>

#include "core/app.h"
#include "core/error.h"
#include "core/fileref.h"
#include "core/items.h"
#include "core/midi_events.h"
#include "core/param_ids.h"
#include "core/text.h"
#include "formats/detect_bytes.h"

namespace kv {

using namespace detect;

int mid_Detect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  if (!FourCC(data, size, 0, "MThd") || !Has(size, 4, 4)) return 0;
  // The header chunk (6 bytes or more) must be in the file.
  const uint64_t length = U32be(data + 4);
  return length >= 6 && fileSize >= 8 + length ? 6 : 0;
}

int rmid_Detect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  return fileSize >= 12 && FourCC(data, size, 0, "RIFF") && FourCC(data, size, 8, "RMID") ? 6 : 0;
}

namespace {

constexpr const char* kParse = "mid_Parse";
constexpr const char* kMidExp = "mid_Exp";
constexpr const char* kRmidImp = "rmid_Imp";
constexpr const char* kRmidExp = "rmid_Exp";
constexpr const char* kCannotSave = "The file format can not save this item";

// A hostile file of nested LISTs must not exhaust the stack; real RIFF-MIDI
// files nest two deep.
constexpr int kMaxRiffDepth = 32;

uint32_t U32beAt(const uint8_t* p) { return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3]; }
uint32_t U32leAt(const uint8_t* p) { return uint32_t{p[3]} << 24 | uint32_t{p[2]} << 16 | uint32_t{p[1]} << 8 | p[0]; }
uint16_t U16beAt(const uint8_t* p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }

void PutU32be(std::vector<uint8_t>& out, uint32_t v) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(v >> shift));
}
void PutU16be(std::vector<uint8_t>& out, uint16_t v) {
  out.push_back(static_cast<uint8_t>(v >> 8));
  out.push_back(static_cast<uint8_t>(v));
}
void PutU32le(std::vector<uint8_t>& out, uint32_t v) {
  for (int shift = 0; shift < 32; shift += 8) out.push_back(static_cast<uint8_t>(v >> shift));
}
void PutId(std::vector<uint8_t>& out, const char* id) { out.insert(out.end(), id, id + 4); }

bool ReadAt(FileRef& file, uint64_t offset, void* out, std::size_t n) {
  return file.Seek(offset) && file.ReadExact(out, n);
}

// An 8-bit text of a file, cut at its first zero, as the program's text.
std::string FileText(const uint8_t* bytes, std::size_t length) {
  const auto* text = reinterpret_cast<const char*>(bytes);
  length = strnlen(text, length);
  return length ? DecodeText(text, length, TextEncoding::Foreign) : std::string();
}

void NameFromFile(Item& item, const uint8_t* bytes, std::size_t length) {
  const std::string text = FileText(bytes, length);
  item.SetName(text.data(), text.size(), TextEncoding::Utf8);
}

std::string TrackNumberName(int number) {
  char text[24];
  std::snprintf(text, sizeof text, "Track %02d", number);
  return text;
}

// Synthesis voices sent as SysEx (Yamaha FM voices, MT-32 timbres) become
// models of their own once those synthesizers exist; until then there is no
// importer and the SysEx stays in the track only.
using SysExVoiceImporter = bool (*)(Collection&, std::span<const uint8_t> message);
constexpr SysExVoiceImporter kFmVoiceImporter = nullptr;
constexpr SysExVoiceImporter kLaVoiceImporter = nullptr;

// Feeds the SysEx messages before the first note to one importer.
void ScanSysExVoices(Collection& c, const Track& track, bool yamaha, SysExVoiceImporter importer) {
  if (!importer) return;
  MidiEventCursor cursor(track.Events());
  MidiEvent e;
  while (cursor.Next(e) && e.status != 0x90 && !e.IsEndOfTrack()) {
    if (e.status != 0xF0 || e.length == 0) continue;
    if ((e.payload[0] == 0x43) == yamaha) importer(c, {e.payload, e.length});
  }
}

struct ParseState {
  Song* song = nullptr;
  std::vector<uint32_t>* chunkIndexes = nullptr;  // per stored track, for mid_Read's renaming
};

bool Parse(Collection& c, FileRef& file, ParseState& st, uint64_t start, uint64_t end) {
  end = std::min(end, file.Size());
  if (start >= end) return Fail(kParse, "Invalid or corrupt Midi file");
  bool leading = false;  // a master or control track comes first
  uint32_t chunkIndex = 0;
  uint64_t pos = start;
  while (pos < end && end - pos >= 8) {
    uint8_t head[8];
    if (!ReadAt(file, pos, head, sizeof head)) break;
    const uint64_t body = pos + 8;
    const uint64_t size = U32beAt(head + 4);
    const uint64_t next = body + size;
    if (std::memcmp(head, "MThd", 4) == 0 && !st.song) {
      uint8_t h[6] = {};
      if (!ReadAt(file, body, h, std::min<uint64_t>(6, end - body))) break;
      const std::string stem = file.Path().stem().string();
      st.song = Create<Song>(c);
      st.song->SetName(stem.data(), stem.size(), TextEncoding::Foreign);
      st.song->sourcePath = file.Path();
      st.song->format = U16beAt(h);
      st.song->division = U16beAt(h + 4);  // the track count at h + 2 is not trusted
    } else if (std::memcmp(head, "MTrk", 4) == 0 && st.song) {
      const uint16_t format = st.song->format;
      std::string name;
      if (format == 0) {
        name = "Master Track";
        leading = true;
      } else if (format == 1 && chunkIndex == 0) {
        name = "Control Track";
        leading = true;
      } else {
        name = TrackNumberName(static_cast<int>(chunkIndex) + (leading ? 1 : 0));
      }
      // A chunk cut short by the end of the file keeps what is there.
      const uint64_t available = std::min(size, end - std::min(end, body));
      if (available > 4) {
        std::vector<uint8_t> data(available);
        if (available && !ReadAt(file, body, data.data(), data.size())) break;
        auto* track = Create<Track>(c, name.c_str());
        track->parentId = st.song->id;
        AddChild(*st.song, track->id);
        track->SetEvents(std::move(data));
        if (st.chunkIndexes) st.chunkIndexes->push_back(chunkIndex);
        if (format == 2) track->sequenceNumber = static_cast<uint16_t>(chunkIndex);
        if (format == 1 && chunkIndex == 0) {
          // The next chunk is "Track 01" as well: two tracks of that name is
          // what a format 1 file without names shows.
          track->SetName(TrackNumberName(1));
          leading = false;
        }
        ScanTickZero(*track, nullptr);
        ScanSysExVoices(c, *track, true, kFmVoiceImporter);
        ScanSysExVoices(c, *track, false, kLaVoiceImporter);
      }
      ++chunkIndex;
    }
    if (next > end) break;  // a size past the range ends the walk
    pos = next;
  }
  if (!st.song) return Fail(kParse, "Invalid or corrupt Midi file");
  return true;
}

// Format 2 tracks are patterns: those still under their default name are
// named by sequence number, unless several share number 0.
void RenamePatterns(Song& song, const std::vector<uint32_t>& chunkIndexes) {
  Collection& c = *song.collection;
  std::vector<Track*> tracks;
  for (ItemId id : song.children)
    if (auto* t = c.FindAs<Track>(id)) tracks.push_back(t);
  const auto zeros = std::count_if(tracks.begin(), tracks.end(), [](Track* t) { return t->sequenceNumber == 0; });
  int zerosSeen = 0;
  for (std::size_t i = 0; i < tracks.size() && i < chunkIndexes.size(); ++i) {
    Track& t = *tracks[i];
    if (t.Name() == TrackNumberName(static_cast<int>(chunkIndexes[i]))) {
      char text[24];
      if (zeros > 1 && t.sequenceNumber == 0) std::snprintf(text, sizeof text, "Track %02d", zerosSeen);
      else std::snprintf(text, sizeof text, "Pattern %02d", t.sequenceNumber);
      t.SetName(text);
    }
    if (t.sequenceNumber == 0) ++zerosSeen;
  }
}

// The Song of an export: the item itself, or a collection's first song.
Song* SongOf(Item& item) {
  if (item.Type() == ItemType::Song) return static_cast<Song*>(&item);
  if (item.Type() == ItemType::Collection) {
    auto songs = static_cast<Collection&>(item).All<Song>();
    if (!songs.empty()) return songs.front();
  }
  return nullptr;
}

std::vector<Track*> TracksOf(const Song& song) {
  std::vector<Track*> out;
  for (ItemId id : song.children)
    if (auto* t = song.collection->FindAs<Track>(id)) out.push_back(t);
  return out;
}

// "MThd" and every "MTrk" chunk, as a Standard MIDI File has them.
void AppendSmf(std::vector<uint8_t>& out, const Song& song, const std::vector<Track*>& tracks) {
  PutId(out, "MThd");
  PutU32be(out, 6);
  PutU16be(out, song.format);
  PutU16be(out, static_cast<uint16_t>(tracks.size()));
  PutU16be(out, song.division);
  for (const Track* t : tracks) {
    PutId(out, "MTrk");
    PutU32be(out, static_cast<uint32_t>(t->Events().size()));
    out.insert(out.end(), t->Events().begin(), t->Events().end());
  }
}

// ---- RIFF-MIDI reading ----

struct RiffState {
  Collection& c;
  FileRef& file;
  Song* song = nullptr;
};

void ReadInfoText(RiffState& st, uint64_t body, uint32_t size, int parameter) {
  if (!st.song || size == 0) return;
  uint8_t text[1024];
  const std::size_t n = std::min<std::size_t>(size, sizeof text);
  if (!ReadAt(st.file, body, text, n)) return;
  if (parameter == kRowName) NameFromFile(*st.song, text, n);
  else st.song->SetParamText(parameter, FileText(text, n));
}

bool WalkRiff(RiffState& st, uint64_t start, uint64_t end, int depth) {
  static constexpr struct {
    const char* id;
    int parameter;
  } kInfo[] = {{"INAM", kRowName},      {"IART", kRowArtist},   {"ICMT", kRowComment},
               {"ICOP", kRowCopyright}, {"IENG", kRowEngineer}, {"IPRD", kRowProduct}};
  if (start + 8 >= end) return true;
  uint64_t pos = start;
  for (;;) {
    uint8_t head[8];
    if (!ReadAt(st.file, pos, head, sizeof head)) return true;
    const uint32_t size = U32leAt(head + 4);
    const uint64_t body = pos + 8;
    // Odd chunks are padded to even positions.
    const uint64_t next = (pos + size + 9) & ~uint64_t{1};
    if (std::memcmp(head, "data", 4) == 0) {
      Song* song = nullptr;
      if (!mid_Parse(st.c, st.file, song, body, next)) return false;
      st.song = song;
    } else if (std::memcmp(head, "LIST", 4) == 0) {
      if (depth < kMaxRiffDepth && !WalkRiff(st, pos + 12, next, depth + 1)) return false;
    } else if (std::memcmp(head, "RIFF", 4) == 0) {
      uint8_t form[4];
      if (ReadAt(st.file, body, form, 4) && std::memcmp(form, "DLS ", 4) == 0 &&
          !dls_Read(st.c, st.file, pos, std::min(next, end)))
        return false;
    } else if (std::memcmp(head, "DISP", 4) == 0) {
      uint8_t disp[4 + 128] = {};
      if (st.song && size > 4 && ReadAt(st.file, body, disp, 4) && U32leAt(disp) == 1) {
        const std::size_t n = std::min<std::size_t>(size - 4, 128);
        if (ReadAt(st.file, body + 4, disp + 4, n)) NameFromFile(*st.song, disp + 4, n);
      }
    } else {
      for (const auto& info : kInfo)
        if (std::memcmp(head, info.id, 4) == 0) ReadInfoText(st, body, size, info.parameter);
    }
    if ((next | 1) + 8 >= end) return true;
    pos = next;
  }
}

}  // namespace

void ScanTickZero(Track& track, Song* song) {
  MidiEventCursor cursor(track.Events());
  MidiEvent e;
  bool groupFound = false, sequenceFound = false, nameFromText = false, nameFinal = false, copyrightFound = !song;
  while (cursor.Next(e) && e.delta == 0) {
    if (e.IsEndOfTrack()) break;
    if (e.status == 0xFF) {
      switch (e.metaType) {
        case 0x21:
          if (!groupFound && e.length > 0) {
            track.channelGroup = e.payload[0];
            groupFound = true;
          }
          break;
        case 0x00:
          if (!sequenceFound && e.length == 2) track.sequenceNumber = U16beAt(e.payload);
          sequenceFound = true;
          break;
        case 0x01:
          if (!nameFromText && !nameFinal) {
            NameFromFile(track, e.payload, e.length);
            nameFromText = true;
          }
          break;
        case 0x03:
          if (!nameFinal) {
            NameFromFile(track, e.payload, e.length);
            nameFinal = true;
          }
          break;
        case 0x02:
          if (!copyrightFound) {
            song->SetParamText(kRowCopyright, FileText(e.payload, std::min<uint32_t>(e.length, 128)));
            copyrightFound = true;
          }
          break;
        default: break;
      }
    }
    if (groupFound && sequenceFound && nameFinal && copyrightFound) break;
  }
}

bool mid_Parse(Collection& c, FileRef& file, Song*& song, uint64_t start, uint64_t end) {
  ParseState st;
  const bool ok = Parse(c, file, st, start, end);
  song = st.song;
  return ok;
}

bool mid_Read(Collection& c, FileRef& file, uint32_t) {
  ParseState st;
  std::vector<uint32_t> chunkIndexes;
  st.chunkIndexes = &chunkIndexes;
  if (!Parse(c, file, st, 0, file.Size())) return false;
  if (st.song->format == 2) RenamePatterns(*st.song, chunkIndexes);
  return true;
}

bool mid_Exp(Item& item, FileRef& file, ExportRequest&) {
  Song* song = SongOf(item);
  if (!song) return Fail(kMidExp, "%s", kCannotSave);
  std::vector<uint8_t> out;
  AppendSmf(out, *song, TracksOf(*song));
  if (!file.Write(out.data(), out.size())) return Fail(kMidExp, "Write error");
  return true;
}

bool rmid_Imp(Collection& c, FileRef& file, uint32_t) {
  uint8_t head[12];
  if (!ReadAt(file, 0, head, sizeof head) || std::memcmp(head, "RIFF", 4) != 0 || std::memcmp(head + 8, "RMID", 4) != 0)
    return Fail(kRmidImp, "Not a RIFF-RMID file");
  RiffState st{c, file};
  const uint64_t end = std::min<uint64_t>(uint64_t{U32leAt(head + 4)} + 8, file.Size());
  return WalkRiff(st, 12, end, 0);
}

bool rmid_Exp(Item& item, FileRef& file, ExportRequest& request) {
  Song* song = SongOf(item);
  if (!song) return Fail(kRmidExp, "%s", kCannotSave);
  if (request.parameter > 2) return Fail(kRmidExp, "Unsupported subformat");
  const uint64_t start = file.Tell();
  const std::vector<Track*> tracks = TracksOf(*song);

  std::vector<uint8_t> smf;
  AppendSmf(smf, *song, tracks);
  const uint32_t unpadded = static_cast<uint32_t>(smf.size());
  if (unpadded & 1) smf.push_back(static_cast<uint8_t>(unpadded & 1));  // the pad byte is the size's low bit

  struct Text {
    const char* id;
    std::string bytes;
  };
  const Text texts[] = {{"IART", Utf8ToWindows1252(song->artist)},   {"ICMT", Utf8ToWindows1252(song->comment)},
                        {"ICOP", Utf8ToWindows1252(song->copyright)}, {"IENG", Utf8ToWindows1252(song->engineer)},
                        {"INAM", Utf8ToWindows1252(song->name)},      {"IPRD", Utf8ToWindows1252(song->product)}};
  std::vector<uint8_t> list;
  PutId(list, "INFO");
  for (const Text& t : texts) {
    if (t.bytes.empty()) continue;
    // Always room for the terminating zero, and even.
    const uint32_t padded = static_cast<uint32_t>(t.bytes.size() + 2) & ~1u;
    PutId(list, t.id);
    PutU32le(list, padded);
    list.insert(list.end(), t.bytes.begin(), t.bytes.end());
    list.resize(list.size() + (padded - t.bytes.size()), 0);
  }
  static const char kSoftware[20] = "Kelvo Studio v12.5";
  PutId(list, "ISFT");
  PutU32le(list, sizeof kSoftware);
  list.insert(list.end(), kSoftware, kSoftware + sizeof kSoftware);

  std::vector<uint8_t> out;
  const uint32_t dataSize = static_cast<uint32_t>(smf.size());
  const uint32_t listSize = static_cast<uint32_t>(list.size());
  PutId(out, "RIFF");
  PutU32le(out, dataSize + 20 + listSize);
  PutId(out, "RMID");
  PutId(out, "data");
  PutU32le(out, dataSize);
  out.insert(out.end(), smf.begin(), smf.end());
  PutId(out, "LIST");
  PutU32le(out, listSize);
  out.insert(out.end(), list.begin(), list.end());
  if (!file.Write(out.data(), out.size())) return Fail(kRmidExp, "Write error");
  if (request.parameter == 0) return true;

  // The song's instruments as a DLS bank behind the song, inside the RIFF
  // form: its growth is added to the form's size.
  if (!dls_Write(*song->collection, file, 0x100004, static_cast<int>(request.parameter))) return false;
  const uint64_t riffSize = file.Tell() - start - 8;
  if (riffSize > 0xFFFFFFFFu) return Fail(kRmidExp, "Too much data");
  uint8_t head[8] = {'R', 'I', 'F', 'F'};
  for (int i = 0; i < 4; ++i) head[4 + i] = static_cast<uint8_t>(riffSize >> (8 * i));
  if (!file.Seek(start) || !file.Write(head, sizeof head) || !file.Seek(file.Size())) {
    return Fail(kRmidExp, "Write error");
  }
  return true;
}

}  // namespace kv

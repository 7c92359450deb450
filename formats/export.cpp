#include "formats/export.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <set>
#include <system_error>
#include <vector>

#include "core/app.h"
#include "core/error.h"
#include "core/resample.h"
#include "core/fileref.h"
#include "core/instrument_ops.h"
#include "core/settings.h"
#include "core/text.h"
#include "core/wavestore.h"
#include "formats/import.h"

namespace kv {

namespace fs = std::filesystem;

namespace {

constexpr const char* kExportContext = "File Export";
constexpr const char* kSaveAllContext = "Save all in multiple files";

// A restore point: the flat records of the items a save may change, and the
// ids that existed. Restoring deletes what was added and reads the records
// back into the items (re-creating any that went). Waves are recorded only
// where `recordWave` says so, since a record holds the samples.
class RestorePoint {
 public:
  template <typename Pred>
  RestorePoint(Collection& c, Pred recordWave) : c_(c) {
    c.Map().ForEach([&](Item* item) {
      existing_.insert(item->id);
      if (item->Type() == ItemType::Waveform && !recordWave(static_cast<Waveform&>(*item))) return;
      Record r{item->id, {}};
      item->Serialize(r.bytes);
      records_.push_back(std::move(r));
    });
  }

  void Restore() {
    std::vector<ItemId> added;
    c_.Map().ForEach([&](Item* item) {
      if (!existing_.count(item->id)) added.push_back(item->id);
    });
    for (ItemId id : added)
      if (Item* item = c_.Find(id)) DeleteItem(item);
    for (const Record& r : records_) {
      Item* item = c_.Find(r.id);
      if (!item) item = Recreate(r.id);
      if (item) item->Deserialize(r.bytes);
    }
  }

 private:
  struct Record {
    ItemId id;
    std::vector<uint8_t> bytes;
  };

  Item* Recreate(ItemId id) {
    const uint32_t serial = SerialOf(id);
    switch (TypeOf(id)) {
      case ItemType::Waveform: return Create<Waveform>(c_, nullptr, serial);
      case ItemType::SynthModel: return Create<SynthModel>(c_, nullptr, serial);
      case ItemType::Region: return Create<Region>(c_, nullptr, serial);
      case ItemType::Layer: return Create<Layer>(c_, nullptr, serial);
      case ItemType::Instrument: return Create<Instrument>(c_, nullptr, serial);
      case ItemType::Track: return Create<Track>(c_, nullptr, serial);
      case ItemType::Song: return Create<Song>(c_, nullptr, serial);
      case ItemType::Collection: return nullptr;
    }
    return nullptr;
  }

  Collection& c_;
  std::set<ItemId> existing_;
  std::vector<Record> records_;
};

// What the request allows, with "Auto" read as everything the row can do.
uint32_t EffectiveRequest(const ExportRequest& request, int row) {
  if (request.request) return request.request;
  uint32_t parameter = 0;
  return FormatCapabilities(row, parameter);
}

bool SongsHaveEvents(Item& item) {
  Collection& c = *item.collection;
  auto songHas = [&](const Song& s) {
    for (ItemId id : s.children)
      if (auto* t = c.FindAs<Track>(id); t && t->EventCount() > 0) return true;
    return false;
  };
  if (auto* song = dynamic_cast<Song*>(&item)) return songHas(*song);
  if (item.Type() == ItemType::Collection)
    for (Song* s : c.All<Song>())
      if (songHas(*s)) return true;
  return false;
}

std::vector<Waveform*> WavesOf(Item& item) {
  if (auto* coll = dynamic_cast<Collection*>(&item)) return coll->All<Waveform>();
  ItemSet set(item, true);
  return set.waveforms;
}

void PushRecent(std::vector<std::string>& list, const std::string& entry) {
  std::erase(list, entry);
  list.insert(list.begin(), entry);
  if (list.size() > 32) list.resize(32);
}

void RememberRecent(const fs::path& path) {
  PushRecent(Settings().app.LastFilesA, path.string());
  PushRecent(Settings().app.LastPathsA, path.parent_path().string());
}

bool SamePath(const fs::path& a, const fs::path& b) {
  std::error_code ec;
  if (fs::equivalent(a, b, ec)) return true;
  return fs::absolute(a, ec).lexically_normal() == fs::absolute(b, ec).lexically_normal();
}

// Where the old file is kept during a save: "<path>.bak", or a hidden unique
// name beside it when that is taken (a backup must never replace a file).
fs::path BackupPath(const fs::path& target) {
  fs::path bak = target;
  bak += ".bak";
  std::error_code ec;
  for (int n = 1; fs::exists(fs::symlink_status(bak, ec)); ++n) {
    bak = target.parent_path() / ("." + target.filename().string() + ".bak" + std::to_string(n));
  }
  return bak;
}

// The guarded save's new file. It is made in the target's folder, without a
// name where the file system allows (O_TMPFILE) and else under a hidden
// unique one, and takes the target's name only once it is whole and on disk:
// the target holds the old file or the new one, whole, at every instant, and
// a save killed half-way leaves nothing behind (or only the hidden file).
// The writer sees the target's path, so files it puts beside it are named
// after the target.
class PendingFile {
 public:
  PendingFile() = default;
  PendingFile(const PendingFile&) = delete;
  PendingFile& operator=(const PendingFile&) = delete;
  ~PendingFile() { Discard(); }

  bool Open(const fs::path& target) {
    target_ = target;
    folder_ = target.parent_path().empty() ? fs::path(".") : target.parent_path();
    int fd = -1;
    std::error_code ec;
    // Naming an unnamed file goes through /proc.
    if (fs::exists("/proc/self/fd", ec)) fd = ::open(folder_.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0666);
    if (fd < 0) {
      for (int n = 0; n < 1000 && fd < 0; ++n) {
        temp_ = TempName(n);
        fd = ::open(temp_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd < 0 && errno != EEXIST) break;
      }
      if (fd < 0) {
        temp_.clear();
        return false;
      }
    }
    file_ = FileRef(fd, target, true);
    return true;
  }

  FileRef& File() { return file_; }

  // Flushes the file to disk, gives it `mode` (unless negative) and puts it
  // at the target in one rename.
  bool Commit(int mode) {
    const int fd = file_.Fd();
    if (::fsync(fd) != 0) return Fail(kExportContext, "Writing to file failed");
    if (mode >= 0) ::fchmod(fd, static_cast<mode_t>(mode));
    if (temp_.empty()) {
      const std::string self = "/proc/self/fd/" + std::to_string(fd);
      for (int n = 0; n < 1000 && temp_.empty(); ++n) {
        const fs::path name = TempName(n);
        if (::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) == 0) temp_ = name;
        else if (errno != EEXIST) break;
      }
      if (temp_.empty()) return Fail(kExportContext, "Could not create file");
    }
    if (::rename(temp_.c_str(), target_.c_str()) != 0) return Fail(kExportContext, "Could not create file");
    temp_.clear();
    file_.Close();
    // The rename itself reaches the disk with the folder.
    if (const int dir = ::open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); dir >= 0) {
      ::fsync(dir);
      ::close(dir);
    }
    return true;
  }

  void Discard() {
    file_.Close();
    if (!temp_.empty()) ::unlink(temp_.c_str());
    temp_.clear();
  }

 private:
  fs::path TempName(int n) const {
    return folder_ / ("." + target_.filename().string() + ".kvsave" + std::to_string(::getpid()) + "-" +
                      std::to_string(n));
  }

  fs::path target_;
  fs::path folder_;
  fs::path temp_;  // the hidden name, while the file has one
  FileRef file_;
};

std::string SizeText(uint64_t bytes) {
  char text[64];
  if (bytes < 1024) std::snprintf(text, sizeof text, "(%d Bytes)", static_cast<int>(bytes));
  else if (bytes < 1048576) std::snprintf(text, sizeof text, "(%.1f KB)", bytes / 1024.0);
  else std::snprintf(text, sizeof text, "(%.1f MB)", bytes / 1048576.0);
  return text;
}

std::string LowerAscii(std::string_view s) {
  std::string out(s);
  for (char& ch : out) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
  return out;
}

bool RowFits(int row, uint32_t mask) {
  const FormatEntry* e = FormatAt(row);
  return e && RowWriteFunction(row) && (mask == 0xFF || (e->typeFlags & mask));
}

// FindWriterByExtension over the writers this process has, test overlays
// included: the first row of that extension whose type flags meet the mask.
int WriterByExtension(std::string_view ext, uint32_t mask) {
  if (!ext.empty() && ext.front() == '.') ext.remove_prefix(1);
  for (int row = 0; row < kFormatCount; ++row)
    if (RowFits(row, mask) && EqualsNoCase(FormatExtension(row), ext)) return row;
  return -1;
}

}  // namespace

// ---------------------------------------------------------------- AdaptWave

Waveform* AdaptWave(Waveform* wave, const ExportRequest& request, uint32_t rate) {
  if (!wave) return nullptr;
  if (!wave->EnsureData()) return nullptr;
  int channels = wave->channels;
  const uint32_t word = request.request;
  if (word & (kCapMono | kCapStereo)) {
    if (wave->channels == 2 && !(word & kCapStereo)) channels = 1;
    if (wave->channels == 1 && !(word & kCapMono)) channels = 2;
  }
  if (rate != 0 && rate != wave->sampleRate) {
    // A copy at the new rate, then its channels; the copy goes unless it is
    // what the writer gets.
    if (!wave->collection) return (Fail(kExportContext, "Out of memory"), nullptr);
    auto* copy = static_cast<Waveform*>(CloneItem(*wave, *wave->collection, wave->name, false));
    if (!copy) return (Fail(kExportContext, "Out of memory"), nullptr);
    if (!resampleToRate(*copy, *wave, rate, kResampleAuto, nullptr)) {
      DeleteItem(copy);
      return nullptr;
    }
    Waveform* adapted = AdaptWaveChannels(*copy, channels);
    if (adapted != copy) DeleteItem(copy);
    if (!adapted && !ErrorMessage[0]) Fail(kExportContext, "Out of memory");
    return adapted;
  }
  Waveform* adapted = AdaptWaveChannels(*wave, channels);
  if (!adapted && !ErrorMessage[0]) Fail(kExportContext, "Out of memory");
  return adapted;
}

void ReleaseAdaptedWave(const Waveform& original, Waveform* adapted) { ReleaseAdapted(original, adapted); }

// ---------------------------------------------------------------- ExportItem

namespace {
SongRenderer g_songRenderer = nullptr;
}  // namespace

void SetSongRenderer(SongRenderer renderer) { g_songRenderer = renderer; }

namespace {

// ExportItem into `pending` when given (the guarded save), else into a file
// made at `path`.
bool ExportItemTo(Item* item, int row, const fs::path& path, ExportRequest request, bool keepEmpty,
                  PendingFile* pending) {
  if (!item) return Fail(kExportContext, "No item selected");
  const FormatEntry* entry = FormatAt(row);
  const FormatWriteFn write = RowWriteFunction(row);
  if (!entry || !write) return Fail(kExportContext, "Invalid export format selected");
  request.parameter = entry->parameter;

  Collection& c = *item->collection;
  const uint32_t effective = EffectiveRequest(request, row);
  const bool midiRequest = effective & kCapMidi;

  // Which item goes to the writer; temporaries go at the end.
  Item* target = item;
  std::optional<ItemSet> itemSet;
  ItemId temporarySong = kNoItem;
  ItemId temporaryWave = kNoItem;
  bool render = false;
  switch (item->Type()) {
    case ItemType::Track: {
      auto* song = Create<Song>(c, item->name);
      if (auto* parent = c.FindAs<Song>(MakeId(ItemType::Song, SerialOf(item->parentId)))) {
        song->format = parent->format;
        song->division = parent->division;
      }
      Item* copy = CloneItem(*item, c);
      copy->parentId = song->id;
      AddChild(*song, copy->id);
      temporarySong = song->id;
      target = song;
      render = !midiRequest;
      break;
    }
    case ItemType::Song: render = !midiRequest; break;
    case ItemType::Region:
    case ItemType::Layer:
    case ItemType::SynthModel:
      itemSet.emplace(*item, false);
      if (itemSet->instruments.empty()) return Fail(kExportContext, "Empty item - nothing to save");
      target = itemSet->instruments.front();
      break;
    default: break;
  }

  std::optional<RestorePoint> restore;
  const bool wasSaving = App().savingOrConverting;
  auto finish = [&](bool ok) {
    if (restore) restore->Restore();
    if (Item* song = c.Find(temporarySong)) DeleteItem(song);
    if (Item* wave = c.Find(temporaryWave)) DeleteItem(wave);
    itemSet.reset();
    App().savingOrConverting = wasSaving;
    return ok;
  };

  const bool needsSynthesis = target->NeedsSynthesis();
  const uint8_t removal = static_cast<uint8_t>((1u << static_cast<unsigned>(target->Type())) - 1);
  FixUpItemTree(*target, removal);

  App().savingOrConverting = true;
  if (!target->EnsureData()) return finish(false);
  if (render) {
    // The song plays through the synthesizer, which the program plugs in.
    if (!g_songRenderer) {
      Fail(kExportContext, "This program can't render songs: choose a MIDI format");
      return finish(false);
    }
    ClearError();
    Waveform* wave = g_songRenderer(c, static_cast<Song&>(*target));
    if (!wave) {
      if (!ErrorMessage[0]) Fail(kExportContext, "Save aborted!");
      return finish(false);
    }
    temporaryWave = wave->id;
    target = wave;
  }
  if (needsSynthesis) {
    // Synthesis models render with the synthesizer, which isn't built yet.
    Fail(kExportContext, "Failed to render synth to wave");
    return finish(false);
  }
  if (!keepEmpty) {
    bool content = false;
    if (!midiRequest) content = target->HasContent();
    if (midiRequest || (target->Type() == ItemType::Collection && (entry->typeFlags & TypeBit(ItemType::Song))))
      content = content || SongsHaveEvents(*target);
    if (!content) {
      Fail(kExportContext, "Empty item - nothing to save");
      return finish(false);
    }
  }
  if ((target->Type() == ItemType::Collection || target->Type() == ItemType::Instrument) &&
      !(effective & kCapStereo)) {
    std::vector<Waveform*> waves = WavesOf(*target);
    if (std::any_of(waves.begin(), waves.end(), [](const Waveform* w) { return w->channels == 2; })) {
      restore.emplace(c, [](const Waveform& w) { return w.channels == 2; });
      SplitStereoWaves(c);
    }
  }

  StatusText("Writing - %s", path.c_str());
  FileRef own;
  if (pending ? !pending->Open(path) : !own.OpenWrite(path)) {
    Fail(kExportContext, "Could not create file");
    return finish(false);
  }
  const bool ok = write(*target, pending ? pending->File() : own, request);
  if (!pending) {
    own.Close();
    if (!ok) {
      std::error_code ec;
      fs::remove(path, ec);
    }
  }
  return finish(ok);
}

}  // namespace

bool ExportItem(Item* item, int row, const fs::path& path, ExportRequest request, bool keepEmpty) {
  return ExportItemTo(item, row, path, request, keepEmpty, nullptr);
}

// ---------------------------------------------------------------- SaveFile

bool SaveFile(Item* item, const fs::path& path, int row, ExportRequest request, bool report) {
  const ExportBatch batch;
  if (report) StatusText("Saving...");
  std::error_code ec;
  // A symbolic link stays a link: its target is what gets saved.
  fs::path target = path;
  if (fs::is_symlink(fs::symlink_status(path, ec))) {
    fs::path resolved = fs::canonical(path, ec);
    if (!ec) target = resolved;
  }
  const bool existed = fs::exists(fs::symlink_status(target, ec));
  // A folder of that name is never moved aside for a file.
  if (existed && fs::is_directory(fs::symlink_status(target, ec))) {
    StatusText("Failed to Save.");
    return Fail(kExportContext, "Could not create file");
  }
  fs::path backup;
  struct stat oldInfo {};
  if (existed) {
    // Waves that read lazily from the old file must have their samples
    // before it moves away.
    if (item && item->collection)
      for (Waveform* w : item->collection->All<Waveform>())
        if (!w->HasData() && w->readCallback && SamePath(w->sourcePath, target) && !w->EnsureData()) {
          StatusText("Failed to Save.");
          return false;
        }
    ::stat(target.c_str(), &oldInfo);
    // The old file stays where it is until the new one replaces it; the
    // backup is a second name for it (a copy where names can't be shared).
    backup = BackupPath(target);
    if (::link(target.c_str(), backup.c_str()) != 0) {
      fs::copy_file(target, backup, fs::copy_options::none, ec);
      if (ec) {
        StatusText("Failed to Save.");
        return Fail(kExportContext, "Could not create file");
      }
    }
  }

  PendingFile pending;
  const bool ok = ExportItemTo(item, row, target, request, false, &pending) &&
                  pending.Commit(existed ? static_cast<int>(oldInfo.st_mode & 07777) : -1);
  pending.Discard();
  if (existed) {
    std::error_code ignore;
    fs::remove(backup, ignore);
  }
  if (!ok) {
    StatusText("Failed to Save.");
    if (report) RememberRecent(fs::absolute(path, ec));
    return false;
  }
  if (report) {
    if (auto* coll = dynamic_cast<Collection*>(item)) {
      coll->sourcePath = fs::absolute(path, ec);
      coll->formatIndex = row;
    }
    const uint64_t size = fs::file_size(target, ec);
    StatusText("Saved: %s %s", path.c_str(), SizeText(ec ? 0 : size).c_str());
    RememberRecent(fs::absolute(path, ec));
  }
  return true;
}

// ---------------------------------------------------------------- save target

uint8_t SaveTypeMask(const Item* item) {
  if (!item) return 0xFF;
  uint8_t mask = 0;
  switch (item->Type()) {
    case ItemType::Waveform: mask = 0x01; break;
    case ItemType::Song:
    case ItemType::Track: mask = 0x40; break;
    case ItemType::Collection:
      mask = 0x80;
      if (static_cast<const Collection*>(item)->Count(ItemType::Instrument) == 1) mask |= 0x10;
      break;
    default: mask = 0x10; break;
  }
  // A synthetic item is rendered, so it goes where instruments go.
  if (item->NeedsSynthesis()) mask |= 0x10;
  return mask;
}

int SaveClass(const Item* item) {
  if (!item) return 4;
  switch (item->Type()) {
    case ItemType::Waveform: return 0;
    case ItemType::Song:
    case ItemType::Track: return 2;
    case ItemType::Collection: return 3;
    default: return 1;
  }
}

namespace {
// "g722" names the family of "g722-8": a variant row's extension is its
// family's and a dash.
bool IsFamilyExtension(const std::string& typed, const char* rowExtension) {
  const std::string row = rowExtension;
  return typed.size() > 1 && row.size() > typed.size() && EqualsNoCase(row.substr(0, typed.size() - 1), typed.substr(1)) &&
         row[typed.size() - 1] == '-';
}
}  // namespace

bool ChooseSaveTarget(const Item* item, const fs::path& typed, int chosenRow, const ExportRequest& chosenRequest,
                      SaveTarget& out, uint8_t typeMask) {
  const uint8_t mask = typeMask ? typeMask : SaveTypeMask(item);
  int row = chosenRow;
  if (!RowFits(row, mask)) {
    // The row last used for this class of item, or the first fitting after it.
    int start = std::clamp(Settings().app.aiLastExp[SaveClass(item)], 0, kFormatCount - 1);
    row = -1;
    for (int i = 0; i < kFormatCount && row < 0; ++i)
      if (RowFits((start + i) % kFormatCount, mask)) row = (start + i) % kFormatCount;
  }
  if (row < 0) return Fail(kExportContext, "Invalid export format selected");

  ExportRequest request = chosenRequest;
  fs::path path = typed;
  if (path.filename().empty() && item) path /= SafeFileName(item->Name());
  const std::string ext = path.extension().string();
  const int typedRow = ext.size() > 1 ? WriterByExtension(std::string_view(ext).substr(1), mask) : -1;
  if (typedRow >= 0 && !EqualsNoCase(ext.substr(1), FormatExtension(row))) {
    row = typedRow;
    request = ExportRequest{};
  } else if (typedRow < 0 && !(row == chosenRow && IsFamilyExtension(ext, FormatExtension(row)))) {
    // A row named outright keeps a name in its family's extension ("x.g722"
    // written by row 134, whose own extension is "g722-8").
    path += std::string(".") + FormatExtension(row);
  }
  out.path = path;
  out.row = row;
  out.request = request;

  auto& last = Settings().app.aiLastExp;
  if (item) {
    last[SaveClass(item)] = row;
  } else {
    const uint8_t flags = FormatAt(row)->typeFlags;
    last[4] = row;
    if (flags & 0x80) last[3] = row;
    if (flags & 0x60) last[2] = row;
    if (flags & 0x1C) last[1] = row;
    if (flags & 0x01) last[0] = row;
  }
  return true;
}

bool ParseOnExists(std::string_view text, OnExists& out) {
  if (EqualsNoCase(text, "overwrite")) out = OnExists::Overwrite;
  else if (EqualsNoCase(text, "skip")) out = OnExists::Skip;
  else if (EqualsNoCase(text, "cancel")) out = OnExists::Cancel;
  else return false;
  return true;
}

// ---------------------------------------------------------------- Save all

std::string SaveAllName(const Item& item, int number, int mode, const std::string& baseStem) {
  char num[16];
  std::snprintf(num, sizeof num, "%02d", number);
  const std::string name = SafeFileName(item.Name());
  switch (mode) {
    case 210: return baseStem + " - " + num;
    case 211: return std::string(num) + " - " + baseStem;
    case 212: return baseStem + " - " + name;
    case 214: return std::string(num) + " - " + name;
    case 215: {
      std::string source = item.GetSourcePath().stem().string();
      return source.empty() ? name : SafeFileName(source);
    }
    case 218: {
      const Instrument* inst = nullptr;
      std::string tail;
      if (auto* i = dynamic_cast<const Instrument*>(&item)) inst = i;
      else if (auto* l = dynamic_cast<const Layer*>(&item)) {
        inst = InstrumentOf(*l);
        tail = std::string(".") + l->name;
      } else if (auto* r = dynamic_cast<const Region*>(&item)) {
        if (Layer* l = LayerOf(*r)) inst = InstrumentOf(*l);
        tail = std::string(".") + r->name;
      }
      if (!inst) return name;
      char prefix[48];
      std::snprintf(prefix, sizeof prefix, "%s%d-%d-%d - ", LocationIsDrum(inst->location) ? "d" : "",
                    static_cast<int>(LocationMajorBank(inst->location)),
                    static_cast<int>(LocationMinorBank(inst->location)),
                    static_cast<int>(LocationProgram(inst->location)));
      return prefix + SafeFileName(std::string(inst->Name()) + tail);
    }
    default: return name;  // 213, and 216 whose dialog proposes the item's name
  }
}

bool SaveAll(Collection& c, const fs::path& baseWithExt, int row, ExportRequest request, int mode, bool subdirs,
             OnExists onExists, int& savedCount, int* failedCount) {
  const ExportBatch batch;
  savedCount = 0;
  if (failedCount) *failedCount = 0;
  const FormatEntry* entry = FormatAt(row);
  if (!entry || !RowWriteFunction(row)) return Fail(kExportContext, "Invalid export format selected");
  std::error_code ec;
  PushRecent(Settings().app.LastPathsA, fs::absolute(baseWithExt, ec).parent_path().string());

  if (entry->typeFlags & 0x80) {
    if (!SaveFile(&c, baseWithExt, row, request, false)) return false;
    savedCount = 1;
    StatusText("Saved 1 collection!");
    return true;
  }
  std::vector<Item*> items;
  if (entry->typeFlags & 0x10) {
    items = c.ItemsOf(ItemType::Instrument);
    if (items.empty()) {
      StatusText("No instruments to save!");
      return true;
    }
  } else if (entry->typeFlags & 0x01) {
    items = c.ItemsOf(ItemType::Waveform);
    if (items.empty()) {
      StatusText("No waveforms to save!");
      return true;
    }
  } else if (entry->typeFlags & 0x40) {
    items = c.ItemsOf(ItemType::Song);
    if (items.empty()) {
      StatusText("No songs to save!");
      return true;
    }
  } else {
    return Fail(kSaveAllContext, "Can't 'Save all...' with this file format!");
  }

  const fs::path folder = baseWithExt.parent_path();
  const std::string stem = baseWithExt.stem().string();
  const std::string ext = baseWithExt.has_extension() ? baseWithExt.extension().string()
                                                      : std::string(".") + FormatExtension(row);
  const std::vector<ItemId> ids = [&] {
    std::vector<ItemId> v;
    for (Item* i : items) v.push_back(i->id);
    return v;
  }();
  int number = 0;
  for (ItemId id : ids) {
    Item* item = c.Find(id);
    if (!item) continue;
    ++number;
    ++savedCount;  // items reached, not files written
    const std::string name = SaveAllName(*item, number, mode, stem);
    fs::path dir = folder;
    if (subdirs) {
      dir /= name;
      fs::create_directories(dir, ec);
    }
    const fs::path path = dir / (name + ext);
    if (fs::exists(path, ec)) {
      if (onExists == OnExists::Skip) continue;
      if (onExists == OnExists::Cancel) {
        StatusText("Failed: Save all cancelled after %d files.", savedCount - 1);
        savedCount -= 1;
        return true;
      }
    }
    if (!SaveFile(item, path, row, request, false)) {
      ShowErrorBox();
      if (failedCount) ++*failedCount;
    }
  }
  StatusText("Done: Saved %d files.", savedCount);
  return true;
}

// ---------------------------------------------------------------- command line

int FindWriterRow(std::string_view text, uint32_t typeMask) {
  if (text.empty()) return -1;
  if (std::all_of(text.begin(), text.end(), [](char ch) { return ch >= '0' && ch <= '9'; })) {
    int row = std::atoi(std::string(text).c_str());
    return FormatAt(row) && RowWriteFunction(row) ? row : -1;
  }
  if (int row = WriterByExtension(text, typeMask); row >= 0) return row;
  const std::string wanted = LowerAscii(text);
  for (int row = 0; row < kFormatCount; ++row)
    if (RowFits(row, typeMask) && LowerAscii(FormatName(row)) == wanted) return row;
  return -1;
}

bool SaveCollectionOrItem(Collection& c, Item* item, const fs::path& out, const SaveOptions& options) {
  Item* subject = item ? item : &c;
  // A collection that is one lone wave saves as that wave when the name asks
  // for a wave format ("kelvo in.aif --save out.wav"); one that is a lone
  // song, as that song, in a song format or rendered ("kelvo a.rmi --save
  // a.mid", "kelvo a.mid --save a.wav").
  auto writesAs = [&](uint32_t typeMask) {
    const std::string ext = out.extension().string();
    const int row = options.format.empty() ? (ext.size() > 1 ? FindWriterRow(ext.substr(1), typeMask) : -1)
                                           : FindWriterRow(options.format, typeMask);
    return row >= 0;
  };
  if (!item && c.Count(ItemType::Instrument) == 0 && c.Count(ItemType::Waveform) == 1 && c.Count(ItemType::Song) == 0 &&
      writesAs(TypeBit(ItemType::Waveform)))
    subject = c.All<Waveform>().front();
  // A lone instrument likewise, for a format that keeps one instrument
  // and no collection ("kelvo a.p --save a.sfz").
  if (!item && subject == &c && c.Count(ItemType::Instrument) == 1 && c.Count(ItemType::Song) == 0 &&
      !writesAs(TypeBit(ItemType::Collection)) && writesAs(TypeBit(ItemType::Instrument)))
    subject = c.All<Instrument>().front();
  // The instruments loaded beside a song are the ones it plays ("kelvo
  // a.mid bank.sf2 --save a.wav"); a bank format keeps the instruments
  // ("kelvo x.mod --save x.sf2").
  const bool keepsInstruments = c.Count(ItemType::Instrument) > 0 && writesAs(TypeBit(ItemType::Instrument));
  if (!item && subject == &c && c.Count(ItemType::Song) == 1 &&
      (writesAs(TypeBit(ItemType::Song)) || (writesAs(TypeBit(ItemType::Waveform)) && !keepsInstruments)))
    subject = c.All<Song>().front();
  uint8_t mask = SaveTypeMask(subject);
  // A song saved in a sound format is rendered on its way there ("kelvo
  // song.mid --save song.wav").
  const bool isSong = subject->Type() == ItemType::Song || subject->Type() == ItemType::Track;
  if (isSong && !writesAs(TypeBit(ItemType::Song)) && writesAs(TypeBit(ItemType::Waveform)))
    mask = static_cast<uint8_t>(TypeBit(ItemType::Waveform));
  int chosen = -1;
  if (!options.format.empty()) {
    chosen = FindWriterRow(options.format, mask);
    if (chosen < 0) {
      // A row the table lists as writable whose writer isn't built says so.
      const std::string& f = options.format;
      if (!f.empty() && f.size() < 5 && std::all_of(f.begin(), f.end(), [](char ch) { return ch >= '0' && ch <= '9'; })) {
        const int row = std::atoi(f.c_str());
        if (FormatAt(row) && !RowWriteFunction(row) && (FormatAt(row)->design & kDesignWrite))
          return Fail(kExportContext, "Writing \"%s\" files is not available yet", FormatName(row));
      }
      return Fail(kExportContext, "No writer \"%s\" for this item", f.c_str());
    }
  }
  SaveTarget target;
  // Without --format the typed extension decides; with an unknown one the
  // remembered row's extension is appended, as in the dialog.
  if (!ChooseSaveTarget(subject, out, chosen, ExportRequest{}, target, mask)) return false;

  uint32_t parameter = 0;
  const uint32_t caps = FormatCapabilities(target.row, parameter);
  uint32_t word = 0;
  if (!options.dataFormat.empty() && !EqualsNoCase(options.dataFormat, "auto")) {
    int code = -1;
    for (int f = 0; f < kDataFormatCount; ++f)
      if (EqualsNoCase(options.dataFormat, DataFormatName(f))) code = f;
    if (code < 0 || !(caps & (1u << code)))
      return Fail(kExportContext, "\"%s\" can't write %s data", FormatName(target.row), options.dataFormat.c_str());
    word |= 1u << code;
  }
  if (EqualsNoCase(options.channels, "mono") || EqualsNoCase(options.channels, "stereo")) {
    const uint32_t bit = EqualsNoCase(options.channels, "mono") ? kCapMono : kCapStereo;
    if (!(caps & bit))
      return Fail(kExportContext, "\"%s\" can't write %s data", FormatName(target.row), options.channels.c_str());
    word |= bit;
    // A format choice alone leaves the channels to each item, and the reverse.
    if (!(word & kCapFormatMask)) word |= caps & kCapFormatMask;
  } else if (!EqualsNoCase(options.channels, "auto") && !options.channels.empty()) {
    return Fail(kExportContext, "Channels must be auto, mono or stereo, not \"%s\"", options.channels.c_str());
  } else if (word) {
    word |= caps & (kCapMono | kCapStereo);
  }
  target.request.request = word;
  target.request.rate = options.rateKbps;

  std::error_code ec;
  if (fs::exists(target.path, ec)) {
    if (options.onExists == OnExists::Skip) {
      StatusText("Skipped: %s (file exists)", target.path.c_str());
      return true;
    }
    if (options.onExists == OnExists::Cancel)
      return Fail(kExportContext, "File already exists: %s", target.path.c_str());
  }
  return SaveFile(subject, target.path, target.row, target.request, true);
}

bool SaveAllItems(Collection& c, const fs::path& baseWithExt, int mode, bool subdirs, OnExists onExists,
                  int& savedCount, std::string_view format) {
  savedCount = 0;
  const std::string ext = baseWithExt.extension().string();
  // A named writer picks among the rows of one extension (the SFZ variants).
  const int row = !format.empty()          ? FindWriterRow(format, 0xFF)
                  : ext.size() > 1         ? FindWriterRow(std::string_view(ext).substr(1), 0xFF)
                                           : -1;
  if (row < 0) return Fail(kSaveAllContext, "Can't 'Save all...' with this file format!");
  Settings().sall.iMode = mode;
  Settings().sall.bSubDirs = subdirs ? 1 : 0;
  // The folder named on the command line is made, as a dialog would offer.
  std::error_code ec;
  if (const fs::path folder = baseWithExt.parent_path(); !folder.empty() && !fs::is_directory(folder, ec)) {
    fs::create_directories(folder, ec);
    if (ec) return Fail(kSaveAllContext, "Could not create file");
  }
  int failed = 0;
  if (!SaveAll(c, baseWithExt, row, ExportRequest{}, mode, subdirs, onExists, savedCount, &failed)) return false;
  // Each failure has been reported; a script still needs to know.
  if (failed > 0) return Fail(kSaveAllContext, "%d of %d files could not be saved", failed, savedCount);
  return true;
}

}  // namespace kv

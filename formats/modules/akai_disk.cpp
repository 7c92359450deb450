// AKAI S-series floppy images: 800 or 1600 blocks of 1 KiB, a directory of
// 24-byte entries (name, type letter, size, first block) and a FAT of 16-bit
// links at byte 1536. The whole image is read into memory (its size is fixed
// and small) and each file is handed to the reader of its type.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "core/app.h"
#include "core/error.h"
#include "core/fileref.h"
#include "core/items.h"
#include "formats/modules/akai.h"
#include "formats/modules/akai_internal.h"
#include "formats/modules/wav_cursor.h"

namespace kv {

namespace {

constexpr const char* kImp = "akafd_Imp";
constexpr uint64_t kChkSysHead = 24576;
constexpr uint64_t kBlock = 1024;
constexpr std::size_t kEntry = 24;
constexpr std::size_t kSmallTable = 64;
constexpr std::size_t kLargeTable = 512;
constexpr std::size_t kLargeTableAt = 5120;
constexpr std::size_t kFatAt = 1536;
// FAT links with either top bit set end a chain (or mark system blocks).
constexpr uint16_t kLinkEnd = 0xC000;

struct DiskFile {
  std::string name;  // trailing blanks cut
  uint8_t type = 0;  // as stored
  uint32_t size = 0;
  uint16_t first = 0;
};

struct Disk {
  std::vector<uint8_t> image;  // the data part, without a ChkSys head
  uint32_t blocks = 0;
  std::vector<DiskFile> files;
};

char TypeLetter(uint8_t type) { return static_cast<char>(type & 0x7F); }
bool S900Type(uint8_t type) { return type >= 'A' && type <= 'Z'; }

bool ReadDisk(FileRef& file, uint32_t parameter, Disk& disk) {
  ByteCursor cur(file);
  const uint64_t head = parameter == 1 ? kChkSysHead : 0;
  const uint64_t size = cur.FileSize();
  const uint64_t kib = size >= head ? (size - head) / kBlock : 0;
  if (kib != 800 && kib != 1600) return Fail(kImp, "Wrong file size for an AKAI S-series floppy disk");
  disk.blocks = static_cast<uint32_t>(kib);
  disk.image.resize(kib * kBlock);
  if (!cur.Seek(head) || !cur.Bytes(disk.image.data(), disk.image.size())) return Fail(kImp, "Reading from file failed");

  const uint8_t* d = disk.image.data();
  // Entry 0 of the small table typed 0xFF says the directory is the large one.
  const bool large = GetU16le(d + 16) > 254 && d[16] == 0xFF;
  const std::size_t at = large ? kLargeTableAt : 0;
  const std::size_t count = large ? kLargeTable : kSmallTable;
  for (std::size_t i = 0; i < count; ++i) {
    const uint8_t* e = d + at + i * kEntry;
    const uint8_t type = e[16];
    if (type == 0 || type == 0xFF) continue;
    DiskFile f;
    f.type = type;
    f.size = e[17] | (e[18] << 8) | (uint32_t{e[19]} << 16);
    f.first = GetU16le(e + 20);
    if (S900Type(type)) {
      // S900 names are ten plain characters.
      std::string n(reinterpret_cast<const char*>(e), 10);
      n.erase(std::find(n.begin(), n.end(), '\0'), n.end());
      for (char& c : n) c = c >= 0x20 && c < 0x7F ? c : ' ';
      f.name = akai::Trimmed(n);
    } else {
      f.name = akai::Trimmed(akai_DecodeName({e, akai::kNameLength}));
    }
    disk.files.push_back(std::move(f));
  }
  return true;
}

// The file's bytes along its FAT chain; "Error: Invalid FAT" for a chain
// that leaves the image, loops or ends before the file does.
bool FileBytes(const Disk& disk, const DiskFile& f, std::vector<uint8_t>& out) {
  const uint32_t need = static_cast<uint32_t>((uint64_t{f.size} + kBlock - 1) / kBlock);
  if (need > disk.blocks) return Fail(kImp, "Error: Invalid FAT");
  out.clear();
  out.reserve(f.size);
  std::vector<bool> seen(disk.blocks, false);
  uint32_t block = f.first;
  for (uint32_t n = 0; n < need; ++n) {
    if (block >= disk.blocks || seen[block]) return Fail(kImp, "Error: Invalid FAT");
    seen[block] = true;
    const uint64_t take = std::min<uint64_t>(kBlock, f.size - out.size());
    const uint8_t* p = disk.image.data() + uint64_t{block} * kBlock;
    out.insert(out.end(), p, p + take);
    const uint16_t link = GetU16le(disk.image.data() + kFatAt + 2 * block);
    if (n + 1 < need) {
      if (link & kLinkEnd) return Fail(kImp, "Error: Invalid FAT");
      block = link;
    }
  }
  return true;
}

std::string ListName(uint32_t parameter, const DiskFile& f) {
  char text[96];
  std::snprintf(text, sizeof text, parameter == 1 ? "<ChkSys AKAI floppy image: %s.%c>" : "<AKAI floppy disk image: %s.%c>",
                f.name.c_str(), TypeLetter(f.type));
  return text;
}

}  // namespace

bool akafd_List(FileRef& file, uint32_t parameter, std::vector<std::string>& names) {
  Disk disk;
  if (!ReadDisk(file, parameter, disk)) return false;
  for (const DiskFile& f : disk.files) names.push_back(ListName(parameter, f));
  return true;
}

bool akafd_Imp(Collection& collection, FileRef& file, uint32_t parameter) {
  Disk disk;
  if (!ReadDisk(file, parameter, disk)) return false;

  // Samples first, so that programs find them by name.
  std::map<std::string, ItemId> samples;
  std::vector<std::string> skipped;
  std::vector<uint8_t> bytes;
  for (const DiskFile& f : disk.files) {
    const char letter = TypeLetter(f.type);
    if (S900Type(f.type)) {
      skipped.push_back(f.name + "." + letter);
      continue;
    }
    if (letter != 's') continue;
    if (!FileBytes(disk, f, bytes)) return false;
    akai::SampleMarkers markers;
    Waveform* w = akai::SampleFromMemory(collection, bytes, kImp, &markers);
    if (!w) return false;
    w->sourcePath = ListName(parameter, f);
    samples.emplace(akai::Folded(f.name), w->id);
  }
  for (const DiskFile& f : disk.files) {
    if (S900Type(f.type) || TypeLetter(f.type) != 'p') continue;
    if (!FileBytes(disk, f, bytes)) return false;
    // Markers of a sample in the image: read again from its header.
    auto lookup = [&](const std::string& name, akai::SampleMarkers& markers) -> Waveform* {
      const auto it = samples.find(akai::Folded(name));
      if (it == samples.end()) return nullptr;
      for (const DiskFile& s : disk.files) {
        std::vector<uint8_t> head;
        if (TypeLetter(s.type) == 's' && !S900Type(s.type) && akai::Folded(s.name) == it->first &&
            FileBytes(disk, s, head) && head.size() >= akai::kS3000Header) {
          markers.count = GetU32le(head.data() + 26);
          markers.start = GetU32le(head.data() + 30);
          markers.end = GetU32le(head.data() + 34);
          break;
        }
      }
      return collection.FindAs<Waveform>(it->second);
    };
    if (!akai::ReadProgram(collection, bytes, lookup, ListName(parameter, f), kImp)) return false;
  }
  for (const DiskFile& f : disk.files) {
    const char letter = TypeLetter(f.type);
    if (!S900Type(f.type) && letter != 's' && letter != 'p')
      skipped.push_back(f.name + "." + letter);
  }
  if (!skipped.empty()) {
    std::string list;
    for (const std::string& s : skipped) list += (list.empty() ? "" : ", ") + s;
    MessageBox("Note: files of a type that can't be read yet were skipped: " + list, "AKAI floppy disk image");
  }
  return true;
}

}  // namespace kv

#include "formats/modules/module.h"

#include <algorithm>
#include <cctype>
#include <string>
#include <string_view>
#include <utility>

#include "core/text.h"

namespace kv {

namespace fs = std::filesystem;

// ---- choice of encoding ----

int LowestDataFormat(uint32_t bits) {
  for (int b = 0; b < 20; ++b)
    if (bits & (1u << b)) return b;
  return kDataFormatNone;
}

namespace {

// Snaps a rate to the row's list: the first entry not below it, else the
// last entry. A list whose first entry is 0 takes any rate.
float SnapRate(const DataFormatChoice& choice, float target) {
  if (target <= 0.0f) target = 256.0f;
  if (!choice.rateFn) return target;
  float last = choice.rateFn(0, choice.parameter, nullptr);
  if (last == 0.0f) return target;
  for (int i = 0; i < 1024; ++i) {  // bounded: a broken list can't hang us
    const float r = i == 0 ? last : choice.rateFn(i, choice.parameter, nullptr);
    if (r <= 0.0f) break;
    if (r >= target) return r;
    last = r;
  }
  return last;
}

}  // namespace

int ChooseDataFormat(const DataFormatChoice& choice, float& rate) {
  rate = 0.0f;
  const uint32_t allowed = choice.request & kCapFormatMask;
  const int own = choice.own;
  const bool ownAllowed = own >= 0 && own < 20 && (allowed & (1u << own));

  int result = kDataFormatNone;
  float target = choice.wantedRate;
  if (ownAllowed && (own != kDataFormatCompressed || choice.wantedRate == 0.0f || choice.wantedRate == choice.ownRate)) {
    result = own;
    target = choice.ownRate;
  } else if (allowed != 0 && (allowed & (allowed - 1)) == 0) {
    result = LowestDataFormat(allowed);
  } else if (allowed & 0xFFu) {
    // The next better PCM or float above the wave's own, else PCM 16-bit.
    if (own >= 0 && own < 7)
      for (int b = own + 1; b <= 7 && result == kDataFormatNone; ++b)
        if (allowed & (1u << b)) result = b;
    if (result == kDataFormatNone && (allowed & (1u << 2))) result = 2;
  } else if ((allowed & (1u << 16)) && own == 2) {
    result = 16;
  } else if ((allowed & (1u << 15)) && own == 0) {
    result = 15;
  } else if (allowed & kCapCompressed) {
    result = kDataFormatCompressed;
    target = 256.0f;
  } else {
    result = LowestDataFormat(allowed);
  }
  if (result == kDataFormatCompressed) rate = SnapRate(choice, target);
  return result;
}


// ---- the import under way ----

namespace {

fs::path& ImportFolderSlot() {
  static fs::path folder;
  return folder;
}

SampleReader (*g_sampleReaderLookup)(const fs::path&) = nullptr;

}  // namespace

const fs::path& CurrentImportFolder() { return ImportFolderSlot(); }

fs::path ResolveImportPath(const fs::path& name) {
  if (name.is_absolute() || CurrentImportFolder().empty()) return name;
  return CurrentImportFolder() / name;
}

// Backslashes are separators and a drive letter is dropped (files made on
// Windows); a component that isn't there by exact name is looked for
// without regard to case.
fs::path ResolvePath(const fs::path& folder, std::string_view stored) {
  std::string name(stored);
  while (!name.empty() && std::isspace(static_cast<unsigned char>(name.back()))) name.pop_back();
  std::size_t lead = 0;
  while (lead < name.size() && std::isspace(static_cast<unsigned char>(name[lead]))) ++lead;
  name.erase(0, lead);
  std::replace(name.begin(), name.end(), '\\', '/');
  if (name.size() >= 2 && name[1] == ':' && ((name[0] | 0x20) >= 'a' && (name[0] | 0x20) <= 'z')) name.erase(0, 2);
  fs::path start = !name.empty() && name[0] == '/' ? fs::path("/") : folder;
  fs::path exact = start / fs::path(name).relative_path();
  std::error_code ec;
  if (fs::exists(exact, ec)) return exact;
  fs::path current = start;
  for (const fs::path& part : fs::path(name).relative_path()) {
    const std::string p = part.string();
    if (p.empty() || p == ".") continue;
    if (p == "..") {
      current /= part;
      continue;
    }
    fs::path direct = current / part;
    if (fs::exists(direct, ec)) {
      current = direct;
      continue;
    }
    bool found = false;
    for (fs::directory_iterator it(current, ec), end; !ec && it != end; it.increment(ec)) {
      if (EqualsNoCase(it->path().filename().string(), p)) {
        current = it->path();
        found = true;
        break;
      }
    }
    if (!found) return exact;
  }
  return current;
}

ImportFolderScope::ImportFolderScope(fs::path folder) : saved_(std::move(ImportFolderSlot())) {
  ImportFolderSlot() = std::move(folder);
}
ImportFolderScope::~ImportFolderScope() { ImportFolderSlot() = std::move(saved_); }

SampleReader FindSampleReader(const fs::path& path) {
  return g_sampleReaderLookup ? g_sampleReaderLookup(path) : SampleReader{};
}

void SetSampleReaderLookup(SampleReader (*lookup)(const fs::path& path)) { g_sampleReaderLookup = lookup; }

// ---- the export under way ----

namespace {

uint64_t g_batchNumber = 0;
int g_batchDepth = 0;
bool g_hardLinkShared = false;

}  // namespace

// Nested batches (SaveFile inside SaveAll) share the outer one's number.
ExportBatch::ExportBatch() {
  if (g_batchDepth++ == 0) ++g_batchNumber;
}
ExportBatch::~ExportBatch() { --g_batchDepth; }
uint64_t ExportBatch::Current() { return g_batchDepth > 0 ? g_batchNumber : 0; }

void SetHardLinkSharedFiles(bool allow) { g_hardLinkShared = allow; }
bool HardLinkSharedFiles() { return g_hardLinkShared; }

std::string SafeFileName(std::string_view name) {
  std::string out;
  for (char ch : name) {
    if (out.size() >= 255) break;
    if (ch == '"') {
      out += '\'';
      continue;
    }
    if (std::string_view("*./:<>?\\").find(ch) != std::string_view::npos || ch == 127) {
      if (!out.empty()) out += '_';
      continue;
    }
    out += ch;
  }
  // Never split a UTF-8 character at the limit.
  while (!out.empty() && (static_cast<unsigned char>(out.back()) & 0xC0) == 0x80 && out.size() >= 255) out.pop_back();
  return out;
}

}  // namespace kv

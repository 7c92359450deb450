#include "core/settings.h"

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <map>
#include <pwd.h>
#include <system_error>
#include <type_traits>
#include <unistd.h>

#include "core/error.h"

namespace kv {

namespace {

using S = SettingsStore;

template <typename T>
constexpr SettingKind KindOf() {
  if constexpr (std::is_same_v<T, uint8_t>) return SettingKind::Byte;
  else if constexpr (std::is_same_v<T, int32_t>) return SettingKind::Int32;
  else if constexpr (std::is_same_v<T, uint32_t>) return SettingKind::UInt32;
  else if constexpr (std::is_same_v<T, float>) return SettingKind::Float;
  else if constexpr (std::is_same_v<T, uint64_t>) return SettingKind::UInt64;
  else if constexpr (std::is_same_v<T, std::string>) return SettingKind::Text;
  else if constexpr (std::is_same_v<T, std::vector<std::string>>) return SettingKind::PathList;
  else if constexpr (std::is_same_v<T, SettingsPoint>) return SettingKind::Point;
  else if constexpr (std::is_same_v<T, std::array<int32_t, 5>>) return SettingKind::Int32Array;
  else {
    static_assert(std::is_same_v<T, std::array<uint16_t, 5>>, "no setting kind for this member type");
    return SettingKind::UInt16Array;
  }
}

// The field of a row: a chain of member pointers from the store down.
template <auto... Members>
void* FieldOf(SettingsStore& s) {
  return &(s .* ... .* Members);
}

template <auto... Members>
const void* ConstFieldOf(const SettingsStore& s) {
  return &(s .* ... .* Members);
}

template <auto... Members>
constexpr SettingRow Row(const char* name, const char* defaultText, uint32_t width = 0) {
  using T = std::remove_cvref_t<decltype((std::declval<SettingsStore&>() .* ... .* Members))>;
  constexpr SettingKind kind = KindOf<T>();
  if constexpr (kind == SettingKind::Int32Array || kind == SettingKind::UInt16Array) width = std::tuple_size_v<T>;
  return {name, kind, width, &FieldOf<Members...>, &ConstFieldOf<Members...>, defaultText};
}

// Texts of Linux paths are not cut at 260 bytes; this is PATH_MAX.
constexpr uint32_t kPathWidth = 4096;

// Save order is this order.
constexpr SettingRow kRows[] = {
    Row<&S::app, &S::App::LastFilesA>("app.LastFilesA", "", 1024),
    Row<&S::app, &S::App::LastPathsA>("app.LastPathsA", "", 1024),
    Row<&S::app, &S::App::aiLastExp>("app.aiLastExp", "0,0,0,0,0"),
    Row<&S::app, &S::App::ptLastPos>("app.ptLastPos", ""),
    Row<&S::app, &S::App::ptLastSize>("app.ptLastSize", ""),
    Row<&S::app, &S::App::iPaneSplitL>("app.iPaneSplitL", "221"),
    Row<&S::app, &S::App::awColWidths>("app.awColWidths", "160,62,50,40,40"),
    Row<&S::app, &S::App::bCheckForUpdates>("app.bCheckForUpdates", "255"),
    Row<&S::app, &S::App::bDispBankPrgs>("app.bDispBankPrgs", "1"),
    Row<&S::app, &S::App::bDispLoBank>("app.bDispLoBank", "0"),
    Row<&S::app, &S::App::bAutoSelWaveforms>("app.bAutoSelWaveforms", "1"),
    Row<&S::app, &S::App::bAutoSelCollItems>("app.bAutoSelCollItems", "0"),
    Row<&S::app, &S::App::bPropagateDownDelta>("app.bPropagateDownDelta", "0"),
    Row<&S::app, &S::App::bPersistentState>("app.bPersistentState", "0"),
    Row<&S::app, &S::App::bShowNoteNames>("app.bShowNoteNames", "1"),
    Row<&S::app, &S::App::cOctMidC>("app.cOctMidC", "4"),
    Row<&S::load, &S::Load::bConfirm>("load.bConfirm", "0"),
    Row<&S::load, &S::Load::bAutoSplitStereo>("load.bAutoSplitStereo", "0"),
    Row<&S::load, &S::Load::bAutoMergeStereo>("load.bAutoMergeStereo", "1"),
    Row<&S::load, &S::Load::bAutoCompactLayers>("load.bAutoCompactLayers", "1"),
    Row<&S::load, &S::Load::bAutoRemoveDupWaves>("load.bAutoRemoveDupWaves", "1"),
    Row<&S::load, &S::Load::bAutoMoveArticulation>("load.bAutoMoveArticulation", "0"),
    Row<&S::load, &S::Load::bAutoMoveTriggerParams>("load.bAutoMoveTriggerParams", "1"),
    Row<&S::load, &S::Load::bAutoAppend32>("load.bAutoAppend32", "0"),
    Row<&S::load, &S::Load::bAutoBid2Fwd>("load.bAutoBid2Fwd", "0"),
    Row<&S::load, &S::Load::bAutoSortColl>("load.bAutoSortColl", "1"),
    Row<&S::load, &S::Load::bAutoSortWaves>("load.bAutoSortWaves", "1"),
    Row<&S::load, &S::Load::bEnsureUniqueNames>("load.bEnsureUniqueNames", "1"),
    Row<&S::aio, &S::Aio::szAudioOutDev>("aio.szAudioOutDev", "System default", 64),
    Row<&S::aio, &S::Aio::bAudioOutExclusive>("aio.bAudioOutExclusive", "0"),
    Row<&S::aio, &S::Aio::cAudioOutFormat>("aio.cAudioOutFormat", "16"),
    Row<&S::aio, &S::Aio::cAudioOutChannels>("aio.cAudioOutChannels", "2"),
    Row<&S::aio, &S::Aio::szAudioOutSampleRate>("aio.szAudioOutSampleRate", "48000"),
    Row<&S::aio, &S::Aio::szAudioInDev>("aio.szAudioInDev", "System default", 64),
    Row<&S::aio, &S::Aio::bAudioInExclusive>("aio.bAudioInExclusive", "0"),
    Row<&S::aio, &S::Aio::cAudioInFormat>("aio.cAudioInFormat", "16"),
    Row<&S::aio, &S::Aio::cAudioInChannels>("aio.cAudioInChannels", "2"),
    Row<&S::aio, &S::Aio::bAudioInAGC>("aio.bAudioInAGC", "1"),
    Row<&S::aio, &S::Aio::bAudioInMono>("aio.bAudioInMono", "0"),
    Row<&S::aio, &S::Aio::szAudioInSampleRate>("aio.szAudioInSampleRate", "48000"),
    Row<&S::aio, &S::Aio::szMidiInDev>("aio.szMidiInDev", "", 32),
    Row<&S::aio, &S::Aio::nLatency>("aio.nLatency", "-1"),
    Row<&S::aio, &S::Aio::fdbMixGain>("aio.fdbMixGain", "0"),
    Row<&S::aio, &S::Aio::bEnable>("aio.bEnable", "0"),
    Row<&S::aio, &S::Aio::bVKeyboard>("aio.bVKeyboard", "1"),
    Row<&S::aio, &S::Aio::bPlayWaveOnClick>("aio.bPlayWaveOnClick", "1"),
    Row<&S::aio, &S::Aio::bPlayCollOnClick>("aio.bPlayCollOnClick", "0"),
    Row<&S::aio, &S::Aio::acVKlo>("aio.acVKlo", "ZSXDCVGBHNJM,L.", 38),
    Row<&S::aio, &S::Aio::acVKhi>("aio.acVKhi", "Q2W3ER5T6Y7UI9O0P", 38),
    Row<&S::ap, &S::Ap::ptLastPos>("ap.ptLastPos", "64,48"),
    Row<&S::ap, &S::Ap::bOpenNew>("ap.bOpenNew", "0"),
    Row<&S::ap, &S::Ap::bTrackInEditor>("ap.bTrackInEditor", "1"),
    Row<&S::ap, &S::Ap::bSpectrumViz>("ap.bSpectrumViz", "0"),
    Row<&S::ap, &S::Ap::bTrackViz>("ap.bTrackViz", "0"),
    Row<&S::ap, &S::Ap::bWaveDispFill>("ap.bWaveDispFill", "1"),
    Row<&S::ap, &S::Ap::bWaveDispSplit>("ap.bWaveDispSplit", "0"),
    Row<&S::sds, &S::Sds::szOutDev>("sds.szOutDev", "", 32),
    Row<&S::sds, &S::Sds::szInDev>("sds.szInDev", "", 32),
    Row<&S::sds, &S::Sds::iChannel>("sds.iChannel", "0"),
    Row<&S::sds, &S::Sds::iBaseSample>("sds.iBaseSample", "0"),
    Row<&S::sds, &S::Sds::iSCSIDev>("sds.iSCSIDev", "0"),
    Row<&S::sds, &S::Sds::iOutBits>("sds.iOutBits", "16"),
    Row<&S::rawio, &S::RawIo::iCDDev>("rawio.iCDDev", "0"),
    Row<&S::rawio, &S::RawIo::iFDDev>("rawio.iFDDev", "0"),
    Row<&S::rawio, &S::RawIo::bReplaceColl>("rawio.bReplaceColl", "1"),
    Row<&S::app, &S::App::wszWave>("app.wszWave", "", kPathWidth),
    Row<&S::app, &S::App::wszMidi>("app.wszMidi", "", kPathWidth),
    Row<&S::app, &S::App::wszKeyb>("app.wszKeyb", "", kPathWidth),
    Row<&S::app, &S::App::szVSTPaths>("app.szVSTPaths", "", 0),
    Row<&S::features>("features", "0xFFFFFFFFFFFFFFFF"),
    Row<&S::sall, &S::SaveAll::iMode>("sall.iMode", "213"),
    Row<&S::sall, &S::SaveAll::bSubDirs>("sall.bSubDirs", "0"),
    Row<&S::sy2wt, &S::Sy2Wt::dwSampleRate>("sy2wt.dwSampleRate", "48000"),
    Row<&S::sy2wt, &S::Sy2Wt::dwmsMaxLength>("sy2wt.dwmsMaxLength", "2000"),
    Row<&S::sy2wt, &S::Sy2Wt::dwmsMinLength>("sy2wt.dwmsMinLength", "250"),
    Row<&S::sy2wt, &S::Sy2Wt::iNumWaves>("sy2wt.iNumWaves", "1"),
    Row<&S::mid2wav, &S::Mid2Wav::dwSampleRate>("mid2wav.dwSampleRate", "48000"),
    Row<&S::mid2wav, &S::Mid2Wav::bEffects>("mid2wav.bEffects", "1"),
    Row<&S::mid2wav, &S::Mid2Wav::bDeleteSrc>("mid2wav.bDeleteSrc", "0"),
    Row<&S::mid2wav, &S::Mid2Wav::bNormalizePeak>("mid2wav.bNormalizePeak", "1"),
    Row<&S::mid2wav, &S::Mid2Wav::bDeleteSilence>("mid2wav.bDeleteSilence", "1"),
    Row<&S::mid2wav, &S::Mid2Wav::wszGMBank>("mid2wav.wszGMBank", "", kPathWidth),
    Row<&S::mid2wav, &S::Mid2Wav::iMaxPolyphony>("mid2wav.iMaxPolyphony", "128"),
    Row<&S::fmt, &S::Fmt::mp3, &S::Fmt::Mp3::bWriteID3>("fmt.mp3.bWriteID3", "1"),
    Row<&S::fmt, &S::Fmt::mp3, &S::Fmt::Mp3::bWriteAPE>("fmt.mp3.bWriteAPE", "0"),
    Row<&S::fmt, &S::Fmt::mp3, &S::Fmt::Mp3::bWriteJS>("fmt.mp3.bWriteJS", "1"),
    Row<&S::fmt, &S::Fmt::mp2, &S::Fmt::Mp2::bWriteID3>("fmt.mp2.bWriteID3", "0"),
    Row<&S::fmt, &S::Fmt::mp2, &S::Fmt::Mp2::bWriteJS>("fmt.mp2.bWriteJS", "1"),
    Row<&S::fmt, &S::Fmt::aac, &S::Fmt::Aac::bWriteID3>("fmt.aac.bWriteID3", "0"),
    Row<&S::fmt, &S::Fmt::aac, &S::Fmt::Aac::bWriteAPE>("fmt.aac.bWriteAPE", "0"),
    Row<&S::fmt, &S::Fmt::aac, &S::Fmt::Aac::bWriteMS>("fmt.aac.bWriteMS", "1"),
    Row<&S::fmt, &S::Fmt::vox, &S::Fmt::Vox::dwDataFormat>("fmt.vox.dwDataFormat", "0x8002000"),
    Row<&S::fmt, &S::Fmt::sd2, &S::Fmt::Sd2::dwSampleRate>("fmt.sd2.dwSampleRate", "44100"),
    Row<&S::fmt, &S::Fmt::sd2, &S::Fmt::Sd2::iChannels>("fmt.sd2.iChannels", "2"),
    Row<&S::fmt, &S::Fmt::sd2, &S::Fmt::Sd2::iBits>("fmt.sd2.iBits", "16"),
};

constexpr const char* kVersionName = "VersionNumber";

bool gFirstRun = true;

// ---- text forms ----

std::string_view Trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

// Decimal with an optional minus, or 0x hex; the whole text must be used.
template <typename T>
bool ParseInteger(std::string_view text, T& out) {
  text = Trim(text);
  if (text.empty()) return false;
  int base = 10;
  bool negative = false;
  if (text.front() == '-') {
    negative = true;
    text.remove_prefix(1);
  }
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    base = 16;
    text.remove_prefix(2);
  }
  if (text.empty() || text.front() == '-' || text.front() == '+') return false;
  uint64_t magnitude = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), magnitude, base);
  if (ec != std::errc() || end != text.data() + text.size()) return false;
  if (negative) {
    if constexpr (std::is_signed_v<T>) {
      if (magnitude > static_cast<uint64_t>(std::numeric_limits<T>::max()) + 1) return false;
      out = static_cast<T>(-static_cast<int64_t>(magnitude));
      return true;
    } else {
      return false;
    }
  }
  if (magnitude > static_cast<uint64_t>(std::numeric_limits<T>::max())) return false;
  out = static_cast<T>(magnitude);
  return true;
}

bool ParseFloat(std::string_view text, float& out) {
  text = Trim(text);
  if (text.empty()) return false;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
  return ec == std::errc() && end == text.data() + text.size();
}

template <typename T>
std::string IntegerText(T value) {
  char buffer[24];
  auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, value);
  return std::string(buffer, ec == std::errc() ? end : buffer);
}

std::string FloatText(float value) {
  char buffer[32];
  auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, value);  // shortest exact form
  return std::string(buffer, ec == std::errc() ? end : buffer);
}

// Splits a comma list into exactly `count` integers.
template <typename T>
bool ParseList(std::string_view text, T* out, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t comma = text.find(',');
    const bool last = i + 1 == count;
    if (last != (comma == std::string_view::npos)) return false;
    if (!ParseInteger(text.substr(0, comma), out[i])) return false;
    if (!last) text.remove_prefix(comma + 1);
  }
  return true;
}

template <typename T>
std::string ListText(const T* values, std::size_t count) {
  std::string s;
  for (std::size_t i = 0; i < count; ++i) {
    if (i) s += ',';
    s += IntegerText(values[i]);
  }
  return s;
}

// Line breaks and backslashes are escaped so that any text stays on its line.
std::string EscapeText(std::string_view text) {
  std::string s;
  s.reserve(text.size());
  for (char c : text) {
    if (c == '\\') s += "\\\\";
    else if (c == '\n') s += "\\n";
    else if (c == '\r') s += "\\r";
    else s += c;
  }
  return s;
}

bool UnescapeText(std::string_view text, std::string& out) {
  out.clear();
  for (std::size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c != '\\') {
      out += c;
      continue;
    }
    if (++i == text.size()) return false;
    switch (text[i]) {
      case '\\': out += '\\'; break;
      case 'n': out += '\n'; break;
      case 'r': out += '\r'; break;
      default: return false;
    }
  }
  return true;
}

// Cuts to `limit` bytes without splitting a UTF-8 sequence.
void CutUtf8(std::string& s, std::size_t limit) {
  if (s.size() <= limit) return;
  std::size_t n = limit;
  while (n > 0 && (static_cast<unsigned char>(s[n]) & 0xC0) == 0x80) --n;
  s.resize(n);
}

// Keeps the leading entries that fit the byte budget: each entry with its
// terminator, plus the list's own terminator.
void FitPathList(std::vector<std::string>& list, uint32_t budget) {
  std::size_t used = 1;
  std::size_t keep = 0;
  for (; keep < list.size(); ++keep) {
    if (list[keep].empty()) break;
    used += list[keep].size() + 1;
    if (used > budget) break;
  }
  list.resize(keep);
}

// Parses `text` into the row's field. Nothing changes on failure.
bool ParseValue(const SettingRow& row, SettingsStore& s, std::string_view text) {
  void* field = row.field(s);
  switch (row.kind) {
    case SettingKind::Byte: return ParseInteger(text, *static_cast<uint8_t*>(field));
    case SettingKind::Int32: return ParseInteger(text, *static_cast<int32_t*>(field));
    case SettingKind::UInt32: return ParseInteger(text, *static_cast<uint32_t*>(field));
    case SettingKind::UInt64: return ParseInteger(text, *static_cast<uint64_t*>(field));
    case SettingKind::Float: return ParseFloat(text, *static_cast<float*>(field));
    case SettingKind::Text: {
      std::string value;
      if (!UnescapeText(text, value)) return false;
      if (row.width) CutUtf8(value, row.width - 1);
      *static_cast<std::string*>(field) = std::move(value);
      return true;
    }
    case SettingKind::PathList: {
      auto& list = *static_cast<std::vector<std::string>*>(field);
      std::string value;
      if (!UnescapeText(text, value)) return false;
      list.clear();
      if (!value.empty()) list.push_back(std::move(value));
      FitPathList(list, row.width);
      return true;
    }
    case SettingKind::Point: {
      auto& point = *static_cast<SettingsPoint*>(field);
      if (Trim(text).empty()) {
        point = SettingsPoint{};
        return true;
      }
      int32_t xy[2];
      if (!ParseList(text, xy, 2)) return false;
      point = SettingsPoint{xy[0], xy[1], true};
      return true;
    }
    case SettingKind::Int32Array: {
      int32_t values[8];
      if (row.width > 8 || !ParseList(text, values, row.width)) return false;
      std::memcpy(field, values, row.width * sizeof(int32_t));
      return true;
    }
    case SettingKind::UInt16Array: {
      uint16_t values[8];
      if (row.width > 8 || !ParseList(text, values, row.width)) return false;
      std::memcpy(field, values, row.width * sizeof(uint16_t));
      return true;
    }
  }
  return false;
}

// The value's text; for a path list, its entries one per element.
std::vector<std::string> ValueTexts(const SettingRow& row, const SettingsStore& s) {
  const void* field = row.constField(s);
  switch (row.kind) {
    case SettingKind::Byte: return {IntegerText(*static_cast<const uint8_t*>(field))};
    case SettingKind::Int32: return {IntegerText(*static_cast<const int32_t*>(field))};
    case SettingKind::UInt32: return {IntegerText(*static_cast<const uint32_t*>(field))};
    case SettingKind::UInt64: {
      char buffer[24];
      std::snprintf(buffer, sizeof buffer, "0x%016llX",
                    static_cast<unsigned long long>(*static_cast<const uint64_t*>(field)));
      return {buffer};
    }
    case SettingKind::Float: return {FloatText(*static_cast<const float*>(field))};
    case SettingKind::Text: return {EscapeText(*static_cast<const std::string*>(field))};
    case SettingKind::PathList: {
      std::vector<std::string> list = *static_cast<const std::vector<std::string>*>(field);
      FitPathList(list, row.width);
      for (auto& entry : list) entry = EscapeText(entry);
      return list;
    }
    case SettingKind::Point: {
      const auto& p = *static_cast<const SettingsPoint*>(field);
      return {p.present ? IntegerText(p.x) + "," + IntegerText(p.y) : std::string()};
    }
    case SettingKind::Int32Array: return {ListText(static_cast<const int32_t*>(field), row.width)};
    case SettingKind::UInt16Array: return {ListText(static_cast<const uint16_t*>(field), row.width)};
  }
  return {};
}

const SettingRow* FindRow(std::string_view name) {
  for (const auto& row : kRows) {
    if (name == row.name) return &row;
  }
  return nullptr;
}

// "app.LastFilesA.3" -> the list's row and 3.
const SettingRow* FindListEntry(std::string_view name, std::size_t& index) {
  const std::size_t dot = name.rfind('.');
  if (dot == std::string_view::npos) return nullptr;
  const SettingRow* row = FindRow(name.substr(0, dot));
  if (!row || row->kind != SettingKind::PathList) return nullptr;
  uint32_t n = 0;
  if (!ParseInteger(name.substr(dot + 1), n) || n == 0) return nullptr;
  index = n;
  return row;
}

// Numeric compare of dotted versions: "12.5" > "9.10" > "9.9".
bool VersionLess(std::string_view a, std::string_view b) {
  while (!a.empty() || !b.empty()) {
    auto take = [](std::string_view& v) {
      uint64_t n = 0;
      std::size_t i = 0;
      while (i < v.size() && v[i] >= '0' && v[i] <= '9') n = n * 10 + static_cast<uint64_t>(v[i++] - '0');
      const std::size_t dot = v.find('.', i);
      v = dot == std::string_view::npos ? std::string_view() : v.substr(dot + 1);
      return n;
    };
    const uint64_t x = take(a);
    const uint64_t y = take(b);
    if (x != y) return x < y;
  }
  return false;
}

void ApplyFallbacks(SettingsStore& s) {
  if (s.app.iPaneSplitL <= 16) s.app.iPaneSplitL = 221;
  if (s.mid2wav.wszGMBank.empty()) s.mid2wav.wszGMBank = DefaultGmBankPath();
  // "Windows default" in a settings file copied from another machine means
  // the system's default device too.
  for (std::string* device : {&s.aio.szAudioOutDev, &s.aio.szAudioInDev}) {
    if (*device == "Windows default") *device = "System default";
  }
}

void ApplyDefaults(SettingsStore& s) {
  for (const auto& row : kRows) {
    [[maybe_unused]] bool ok = ParseValue(row, s, row.defaultText);
  }
  s.VersionNumber = "0.0";
}

std::filesystem::path HomeFolder() {
  if (const char* home = std::getenv("HOME"); home && *home) return home;
  if (const passwd* pw = getpwuid(getuid()); pw && pw->pw_dir) return pw->pw_dir;
  return "/tmp";
}

bool ReadWholeFile(const std::filesystem::path& path, std::string& out) {
  // Far beyond any real settings file; a huge one is not read past this.
  constexpr std::size_t kMaxBytes = 4u << 20;
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  out.clear();
  char buffer[65536];
  while (out.size() < kMaxBytes) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    out.append(buffer, static_cast<std::size_t>(n));
  }
  ::close(fd);
  return true;
}

bool WriteAll(int fd, std::string_view data) {
  while (!data.empty()) {
    const ssize_t n = ::write(fd, data.data(), data.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

}  // namespace

SettingsStore::SettingsStore() {
  ApplyDefaults(*this);
  ApplyFallbacks(*this);
}

SettingsStore& Settings() {
  static SettingsStore store;
  return store;
}

std::span<const SettingRow> SettingRows() { return kRows; }

std::filesystem::path SettingsPath() {
  if (const char* path = std::getenv("KELVO_SETTINGS"); path && *path) return path;
  std::filesystem::path base;
  // Relative XDG paths are invalid and ignored.
  if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && *xdg == '/') {
    base = xdg;
  } else {
    base = HomeFolder() / ".config";
  }
  return base / "kelvo-studio" / "settings.ini";
}

std::string DefaultGmBankPath() {
  static constexpr const char* kBanks[] = {
      "/usr/share/sounds/sf2/default-GM.sf2",
      "/usr/share/sounds/sf3/default-GM.sf3",
      "/usr/share/sounds/sf2/FluidR3_GM.sf2",
      "/usr/share/sounds/sf2/TimGM6mb.sf2",
  };
  for (const char* bank : kBanks) {
    std::error_code ec;
    if (std::filesystem::is_regular_file(bank, ec)) return bank;
  }
  return kBanks[0];
}

void ResetSettings() {
  Settings() = SettingsStore();
  gFirstRun = true;
}

bool IsFirstRun() { return gFirstRun; }

bool LoadSettings() {
  SettingsStore& s = Settings();
  s = SettingsStore();
  std::string data;
  const bool haveFile = ReadWholeFile(SettingsPath(), data);

  bool haveVersion = false;
  std::map<const SettingRow*, std::map<std::size_t, std::string>> lists;
  std::string_view rest = data;
  while (!rest.empty()) {
    const std::size_t eol = rest.find('\n');
    std::string_view line = rest.substr(0, eol);
    rest = eol == std::string_view::npos ? std::string_view() : rest.substr(eol + 1);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    const std::size_t eq = line.find('=');
    if (eq == std::string_view::npos || line.front() == '#' || line.front() == ';') continue;
    const std::string_view name = Trim(line.substr(0, eq));
    const std::string_view value = line.substr(eq + 1);

    if (name == kVersionName) {
      std::string version(Trim(value));
      if (!version.empty()) {
        s.VersionNumber = std::move(version);
        haveVersion = true;
      }
      continue;
    }
    if (const SettingRow* row = FindRow(name)) {
      if (row->kind == SettingKind::PathList) {
        lists[row][1] = std::string(value);
      } else {
        ParseValue(*row, s, value);  // a bad value keeps the default
      }
      continue;
    }
    std::size_t index = 0;
    if (const SettingRow* row = FindListEntry(name, index)) lists[row][index] = std::string(value);
  }

  for (auto& [row, entries] : lists) {
    auto& list = *static_cast<std::vector<std::string>*>(row->field(s));
    list.clear();
    for (auto& [index, text] : entries) {
      std::string path;
      if (UnescapeText(text, path) && !path.empty()) list.push_back(std::move(path));
    }
    FitPathList(list, row->width);
  }

  ApplyFallbacks(s);
  gFirstRun = !haveVersion;
  if (VersionLess(s.VersionNumber, kCurrentVersion)) s.VersionNumber = kCurrentVersion;
  return haveFile;
}

std::string FormatSettings(const SettingsStore& s) {
  std::string out;
  for (const auto& row : kRows) {
    const std::vector<std::string> texts = ValueTexts(row, s);
    if (row.kind == SettingKind::PathList) {
      for (std::size_t i = 0; i < texts.size(); ++i) {
        out += row.name;
        out += '.';
        out += IntegerText(i + 1);
        out += '=';
        out += texts[i];
        out += '\n';
      }
      continue;
    }
    out += row.name;
    out += '=';
    out += texts.empty() ? std::string() : texts.front();
    out += '\n';
  }
  out += kVersionName;
  out += '=';
  out += EscapeText(s.VersionNumber);
  out += '\n';
  return out;
}

void PrintSettings(std::FILE* out) {
  const std::string text = FormatSettings(Settings());
  std::fwrite(text.data(), 1, text.size(), out);
}

bool SaveSettings() {
  const std::filesystem::path path = SettingsPath();
  const std::filesystem::path folder = path.has_parent_path() ? path.parent_path() : std::filesystem::path(".");
  std::error_code ec;
  std::filesystem::create_directories(folder, ec);

  std::string temp = (folder / (path.filename().string() + ".XXXXXX")).string();
  const int fd = ::mkstemp(temp.data());
  if (fd < 0) return Fail("Save settings", "Could not create '%s': %s", temp.c_str(), std::strerror(errno));
  // This version has run now, whether or not a load came first.
  SettingsStore& s = Settings();
  if (VersionLess(s.VersionNumber, kCurrentVersion)) s.VersionNumber = kCurrentVersion;
  const std::string text = "# Kelvo Studio settings\n" + FormatSettings(s);
  const bool written = WriteAll(fd, text) && ::fsync(fd) == 0;
  const bool closed = ::close(fd) == 0;
  if (!written || !closed || ::rename(temp.c_str(), path.c_str()) != 0) {
    const int error = errno;
    ::unlink(temp.c_str());
    return Fail("Save settings", "Could not write '%s': %s", path.c_str(), std::strerror(error));
  }
  // The rename itself is durable only once the folder is synced.
  if (const int dir = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); dir >= 0) {
    ::fsync(dir);
    ::close(dir);
  }
  return true;
}

bool SetSettingText(std::string_view name, std::string_view value) {
  static constexpr const char* kContext = "Settings";
  SettingsStore& s = Settings();
  const SettingRow* row = FindRow(name);
  if (row) {
    if (!ParseValue(*row, s, value)) {
      return Fail(kContext, "Invalid value for %.*s: '%.*s'", static_cast<int>(name.size()), name.data(),
                  static_cast<int>(value.size()), value.data());
    }
    ApplyFallbacks(s);
    return true;
  }
  std::size_t index = 0;
  if ((row = FindListEntry(name, index))) {
    auto& list = *static_cast<std::vector<std::string>*>(row->field(s));
    std::string path;
    if (index > list.size() + 1 || !UnescapeText(value, path)) {
      return Fail(kContext, "Invalid value for %.*s: '%.*s'", static_cast<int>(name.size()), name.data(),
                  static_cast<int>(value.size()), value.data());
    }
    if (path.empty()) {
      if (index <= list.size()) list.erase(list.begin() + static_cast<std::ptrdiff_t>(index - 1));
    } else if (index > list.size()) {
      list.push_back(std::move(path));
    } else {
      list[index - 1] = std::move(path);
    }
    FitPathList(list, row->width);
    return true;
  }
  if (name == kVersionName) {
    s.VersionNumber = std::string(Trim(value));
    return true;
  }
  return Fail(kContext, "Unknown setting: %.*s", static_cast<int>(name.size()), name.data());
}

bool GetSettingText(std::string_view name, std::string& out) {
  if (name == kVersionName) {
    out = EscapeText(Settings().VersionNumber);
    return true;
  }
  std::size_t index = 0;
  const SettingRow* row = FindRow(name);
  if (!row) row = FindListEntry(name, index);
  if (!row) return false;
  std::vector<std::string> texts = ValueTexts(*row, Settings());
  if (index == 0) index = 1;  // a list by its own name gives its first entry
  out = index <= texts.size() ? texts[index - 1] : std::string();
  return true;
}

}  // namespace kv

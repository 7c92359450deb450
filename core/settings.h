// The process-wide user preferences. Read once at start (LoadSettings), changed
// in place by commands, written once at an orderly exit (SaveSettings).
//
// The store is a UTF-8 `name=value` file; every setting is described by one
// row of a table (name, kind, width, field, default) and that table alone
// drives loading, saving, printing and setting by name. A member's name is
// the setting's last name part, so `load.bAutoSortColl` is
// Settings().load.bAutoSortColl. Main thread only.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kv {

// A window position or size; `present` is false until one was stored.
struct SettingsPoint {
  int32_t x = 0;
  int32_t y = 0;
  bool present = false;
  friend bool operator==(const SettingsPoint&, const SettingsPoint&) = default;
};

struct SettingsStore {
  struct App {
    std::vector<std::string> LastFilesA;  // recent files, newest first
    std::vector<std::string> LastPathsA;  // recent folders; the first starts the dialogs
    std::array<int32_t, 5> aiLastExp;     // last registry row per class: wave, instrument, song, collection, none
    SettingsPoint ptLastPos;
    SettingsPoint ptLastSize;
    int32_t iPaneSplitL;
    std::array<uint16_t, 5> awColWidths;
    uint8_t bCheckForUpdates;  // 0xFF not asked yet, 1 yes, 0 no
    uint8_t bDispBankPrgs;
    uint8_t bDispLoBank;
    uint8_t bAutoSelWaveforms;
    uint8_t bAutoSelCollItems;
    uint8_t bPropagateDownDelta;
    uint8_t bPersistentState;
    uint8_t bShowNoteNames;
    uint8_t cOctMidC;  // octave number of middle C
    std::string wszWave;  // external programs: command lines split into words
    std::string wszMidi;
    std::string wszKeyb;
    std::string szVSTPaths;
  } app;

  struct Load {
    uint8_t bConfirm;
    uint8_t bAutoSplitStereo;
    uint8_t bAutoMergeStereo;
    uint8_t bAutoCompactLayers;
    uint8_t bAutoRemoveDupWaves;
    uint8_t bAutoMoveArticulation;
    uint8_t bAutoMoveTriggerParams;
    uint8_t bAutoAppend32;
    uint8_t bAutoBid2Fwd;
    uint8_t bAutoSortColl;
    uint8_t bAutoSortWaves;
    uint8_t bEnsureUniqueNames;
  } load;

  struct Aio {
    std::string szAudioOutDev;
    uint8_t bAudioOutExclusive;
    uint8_t cAudioOutFormat;  // bits
    uint8_t cAudioOutChannels;
    uint32_t szAudioOutSampleRate;  // a number despite its prefix
    std::string szAudioInDev;
    uint8_t bAudioInExclusive;
    uint8_t cAudioInFormat;
    uint8_t cAudioInChannels;
    uint8_t bAudioInAGC;
    uint8_t bAudioInMono;
    uint32_t szAudioInSampleRate;
    std::string szMidiInDev;
    int32_t nLatency;  // -1 automatic
    float fdbMixGain;  // dB
    uint8_t bEnable;
    uint8_t bVKeyboard;
    uint8_t bPlayWaveOnClick;
    uint8_t bPlayCollOnClick;
    std::string acVKlo;  // computer keys of the lower and upper piano rows
    std::string acVKhi;
  } aio;

  struct Ap {
    SettingsPoint ptLastPos;
    uint8_t bOpenNew;
    uint8_t bTrackInEditor;
    uint8_t bSpectrumViz;
    uint8_t bTrackViz;
    uint8_t bWaveDispFill;
    uint8_t bWaveDispSplit;
  } ap;

  struct Sds {
    std::string szOutDev;
    std::string szInDev;
    int32_t iChannel;
    int32_t iBaseSample;
    int32_t iSCSIDev;
    int32_t iOutBits;
  } sds;

  struct RawIo {
    int32_t iCDDev;  // index into the sorted /dev/sr* and /dev/fd* lists
    int32_t iFDDev;
    uint8_t bReplaceColl;
  } rawio;

  uint64_t features;  // one bit per parameter group the user has on

  struct SaveAll {
    int32_t iMode;
    uint8_t bSubDirs;
  } sall;

  struct Sy2Wt {
    uint32_t dwSampleRate;
    uint32_t dwmsMaxLength;
    uint32_t dwmsMinLength;
    int32_t iNumWaves;
  } sy2wt;

  struct Mid2Wav {
    uint32_t dwSampleRate;
    uint8_t bEffects;
    uint8_t bDeleteSrc;
    uint8_t bNormalizePeak;
    uint8_t bDeleteSilence;
    std::string wszGMBank;
    int32_t iMaxPolyphony;
  } mid2wav;

  struct Fmt {
    struct Mp3 {
      uint8_t bWriteID3;
      uint8_t bWriteAPE;
      uint8_t bWriteJS;
    } mp3;
    struct Mp2 {
      uint8_t bWriteID3;
      uint8_t bWriteJS;
    } mp2;
    struct Aac {
      uint8_t bWriteID3;
      uint8_t bWriteAPE;
      uint8_t bWriteMS;
    } aac;
    struct Vox {
      uint32_t dwDataFormat;  // source format word of headerless VOX data
    } vox;
    struct Sd2 {
      uint32_t dwSampleRate;
      int32_t iChannels;
      int32_t iBits;
    } sd2;
  } fmt;

  // The version that last ran; the current one after a load.
  std::string VersionNumber;

  SettingsStore();  // all defaults
};

SettingsStore& Settings();

// ---- the table ----

enum class SettingKind : uint8_t {
  Byte,         // u8: b and c names
  Int32,        // i and n names
  UInt32,       // dw names
  Float,        // f names
  UInt64,       // features, written in hex
  Text,         // sz, wsz and the key rows
  PathList,     // name.1=, name.2= ...; written only when not empty
  Point,        // "x,y", or empty for none
  Int32Array,   // comma list of exactly `width` numbers
  UInt16Array,
};

struct SettingRow {
  const char* name;
  SettingKind kind;
  // Text: bytes with the terminator (0: any length). PathList: byte budget of
  // the whole list. Arrays: element count.
  uint32_t width;
  void* (*field)(SettingsStore&);
  const void* (*constField)(const SettingsStore&);
  const char* defaultText;
};

// In save order.
std::span<const SettingRow> SettingRows();

inline constexpr const char* kCurrentVersion = "12.5";

// ---- the store ----

// ${KELVO_SETTINGS}, else ${XDG_CONFIG_HOME:-~/.config}/kelvo-studio/settings.ini.
std::filesystem::path SettingsPath();

// Reads the file into Settings(). Values that are missing or can't be read
// keep their defaults without a word. False only when there was no file.
bool LoadSettings();
// Writes Settings() through a temporary file renamed over the old one.
bool SaveSettings();
// True when the last load found no VersionNumber.
bool IsFirstRun();

// All defaults, as on a first run.
void ResetSettings();

// Effective settings, one name=value a line, in table order.
void PrintSettings(std::FILE* out);
std::string FormatSettings(const SettingsStore& settings);

// Sets one setting from its text form; a path-list entry is `name.N`, and
// `name` alone replaces the list (empty clears it). False with a message
// for an unknown name or a value that doesn't parse.
bool SetSettingText(std::string_view name, std::string_view value);
// The text form of one setting; false for an unknown name.
bool GetSettingText(std::string_view name, std::string& out);

// The GM bank used when none is set: the first of the system's usual banks
// that exists, else the first of them.
std::string DefaultGmBankPath();

}  // namespace kv

// The export pipeline: getting one item into a form a row's writer can take
// (a temporary instrument or song, stereo split for rows without stereo),
// the guarded save with its ".bak", the save-target rules that stand in for
// the save dialog, and "Save all in multiple files".
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "core/items.h"
#include "formats/registry.h"

namespace kv {

// Writes `item` to a new file at `path` through `row`'s writer. Context
// "File Export"; the model is as it was afterwards, whatever happened, but
// for the clean-up of lower levels every save starts with. A writer's failure
// deletes the file and keeps the writer's texts.
bool ExportItem(Item* item, int row, const std::filesystem::path& path, ExportRequest request, bool keepEmpty);

// Renders a song to a new Waveform in the collection for a save in a sound
// format; null (ErrorContext/ErrorMessage set) when it can't. The program
// installs one that plays the song on its synthesizer.
using SongRenderer = Waveform* (*)(Collection& collection, Song& song);
void SetSongRenderer(SongRenderer renderer);

// The wave in the form `request` allows, for writers: itself when nothing
// changes, else a copy the caller gives back with ReleaseAdaptedWave. Null
// with a failure text when the data can't be had or the form can't be made.
// `rate` is the wanted sample rate in Hz, 0 for no change.
Waveform* AdaptWave(Waveform* wave, const ExportRequest& request, uint32_t rate);
void ReleaseAdaptedWave(const Waveform& original, Waveform* adapted);

// The guarded save: the new file is written under a temporary name in the
// target's folder, flushed to disk and renamed over the target, so the path
// holds the old file or the new one, whole, whatever happens to the process.
// An existing file is also kept as a backup for the length of the save, and
// the new file takes its permissions. Waves that read lazily from `path` are
// read first. With `report` the status says
// "Saved: <path> (<size>)", a saved Collection takes the path and row, and
// the recent lists take the path.
bool SaveFile(Item* item, const std::filesystem::path& path, int row, ExportRequest request, bool report);

// ---- choosing the target, without a dialog ----

// Type flags a row must hold to take the item; every row fits no item.
uint8_t SaveTypeMask(const Item* item);
// Index into app.aiLastExp: 0 waveform, 1 instrument, 2 song, 3 collection, 4 none.
int SaveClass(const Item* item);

struct SaveTarget {
  std::filesystem::path path;
  int row = -1;
  ExportRequest request;
};
// `typed` is the name the user gave; `chosenRow` the selected row, or -1 for
// the one remembered for the item's class (or the first fitting after it).
// A typed extension of another writer that fits the item wins, with the
// request back to "Auto"; no or an unknown extension gets the row's. The
// row is remembered for the item's class. `typeMask` names the kinds of
// rows to choose from when not the item's own (0).
bool ChooseSaveTarget(const Item* item, const std::filesystem::path& typed, int chosenRow,
                      const ExportRequest& chosenRequest, SaveTarget& out,
                      uint8_t typeMask = 0);

// What to do when a target file exists and nobody can be asked.
enum class OnExists { Overwrite, Skip, Cancel };
bool ParseOnExists(std::string_view text, OnExists& out);

// "Save all in multiple files" with the row and request the dialog gave.
// `mode` is sall.iMode (210-218), `subdirs` sall.bSubDirs. Items whose file
// exists follow `onExists`; `savedCount` takes the items reached.
bool SaveAll(Collection& collection, const std::filesystem::path& baseWithExt, int row, ExportRequest request,
             int mode, bool subdirs, OnExists onExists, int& savedCount, int* failedCount = nullptr);
// The file name SaveAll gives item number `number` (from 1), without folder.
std::string SaveAllName(const Item& item, int number, int mode, const std::string& baseStem);

// ---- command-line entry points ----

struct SaveOptions {
  std::string format;      // row number, extension or row name; empty: by the path's extension
  std::string dataFormat;  // DataFormat display name ("PCM 16-bit"); empty: Auto
  std::string channels = "auto";  // auto | mono | stereo
  float rateKbps = 0.0f;   // compressed rows; 0: not set
  OnExists onExists = OnExists::Overwrite;
};
// Saves `item` (the collection when null) to `out`.
bool SaveCollectionOrItem(Collection& collection, Item* item, const std::filesystem::path& out,
                          const SaveOptions& options);
// SaveAll with the row taken from the base name's extension.
bool SaveAllItems(Collection& collection, const std::filesystem::path& baseWithExt, int mode, bool subdirs,
                  OnExists onExists, int& savedCount,
                  std::string_view format = {});
// A row from "385", "sfz" or a row's name, among writers fitting `typeMask`; -1 if none.
int FindWriterRow(std::string_view text, uint32_t typeMask);

}  // namespace kv

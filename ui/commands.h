// The file-level commands of the program, shared by the command-line driver
// and the window program. None of them shows a box for a failed load or save:
// the caller does, through ShowErrorBox.
#pragma once

#include <filesystem>
#include <span>
#include <string>

#include "core/items.h"

namespace kv {

enum class OpenMode : int {
  Replace = 101,
  Merge = 103,
  ReplaceWaves = 151,
};

// Opens a file or a folder into the main collection. A folder opens its
// entries in order (dot-folders skipped); after the first success the mode
// turns to Merge. An empty path is a success.
bool OpenFile(const std::filesystem::path& path, OpenMode mode, bool report);

// Opens a list in the command line's way: the first success replaces, later
// files merge, a failure is shown and the list goes on. Returns the number of
// failed files.
int OpenFileList(std::span<const std::filesystem::path> paths);

// True without a question when confirmation is off, the collection has no
// waveforms, or nothing was changed since the load.
bool ConfirmDiscard(const char* title, bool replacing);

// Number of steps in the undo ring; the ring itself comes with the undo store.
int UndoDepth();

// ---- collection commands ----

// 109: a new instrument at the first free location with one layer.
Instrument* AddNewInstrument(Collection& c);
// 110: a new layer at the end of the instrument the item belongs to.
Layer* AddNewLayer(Item& item);
// 111: a new region in the layer the item belongs to; null when the
// collection has no waveform or the layer is full.
Region* AddNewRegion(Item& item);
// 130: clones one item (a waveform with its samples, others under their parent).
Item* CloneSelected(Item& item);
// 115: an instrument for every waveform no region uses. Returns the number made.
int AutocreateInstruments(Collection& c);
// Runs a collection command by its menu number on the main collection:
// 109-111 add, 115 autocreate, 128 clear, 138 delete unused waveforms,
// 149 delete duplicate waveforms, 154 dual mono to stereo, 155 stereo to dual
// mono, 185 merge layers. Results go to the status text. False with the error
// texts filled for a number that isn't a collection command.
bool RunCollectionCommand(int number);

// The lowest location word no instrument has.
uint32_t FirstFreeLocation(const Collection& c);

}  // namespace kv

// The import pipeline: one route from a path to a consistent Collection
// (open, detect, clear, the row's read function, FixUpItems), plus merging a
// file into what is loaded and replacing waveforms by name.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>

#include "core/items.h"
#include "formats/registry.h"

namespace kv {

class FileRef;

// Reads `path` into `collection`, replacing what it held. With `strict` the
// raw row 0 can take a file no module claims. Context "File Import"; on a
// module's failure its own texts stand and the collection is left empty,
// named "Empty collection".
bool ImportFile(Collection& collection, const std::filesystem::path& path, bool strict);

// True when the file opens and some row detects it.
bool CanImport(const std::filesystem::path& path);

// Imports into a scratch collection and moves everything into `collection`.
// A failed read leaves `collection` as it was.
bool MergeFile(Collection& collection, const std::filesystem::path& path);

// Imports into a scratch collection; every waveform of the same name (case
// included) in `collection` takes the scratch one's samples. A file read well
// with nothing to replace is a success.
bool ReplaceWavesFile(Collection& collection, const std::filesystem::path& path);
// The sample-level replace shared with the external wave editor: `target`
// takes `source`'s samples, length, channels, rate and bits, and its loop when
// the source has a real one.
void ReplaceWaveData(Waveform& target, Waveform& source);
// Waves replaced since the last call; the counter goes back to 0.
int TakeReplacedCount();

// Row 0: any file as raw 8-bit signed mono at 44100 Hz, after asking whether
// to (with boxes off the answer is "Allways OK").
bool raw_Imp(Collection& collection, FileRef& file, uint32_t parameter);
// The raw row's two process-wide answers, back to their start (asking on).
void ResetRawImportQuestion();

// The folder of the file being imported, while a read function runs; empty
// otherwise. Modules resolve referenced files (sample files of a text
// instrument format) against it instead of the process's working directory.
const std::filesystem::path& CurrentImportFolder();
// `name` as stored in a file, resolved against CurrentImportFolder() unless
// it is absolute.
std::filesystem::path ResolveImportPath(const std::filesystem::path& name);

// Removal bits are 1 << ItemType; an import passes 0xFF, an export the types
// below the saved item's own. `loadOptions` applies the load settings.
void FixUpItems(Collection& collection, uint8_t removal, bool loadOptions);

// For readers of large banks, to be called while their read function runs.
// ExpectItems tells about how many items the reader is about to make;
// InstrumentDone hands over an instrument whose layers and regions are
// complete and that the reader won't touch again. While it reads on, the
// fix-up settles such trees on the machine's other cores. Outside a load, or
// for a collection other than the one loading, both do nothing.
void ExpectItems(Collection& collection, std::size_t count);
void InstrumentDone(Collection& collection, Instrument& instrument);

// A large collection whose instruments share no layers or regions has its
// instrument trees fixed up side by side on the machine's cores. Turned off,
// every item goes one by one; the results are the same either way.
void SetSideBySideFixUp(bool enabled);

// The same normalising and removal for one item's own tree (an instrument
// with its layers and regions, and the waveforms it plays) when only that
// item is about to be written: a save of one instrument needn't walk the
// whole collection. A collection goes through FixUpItems.
void FixUpItemTree(Item& root, uint8_t removal);

// Sort modes the load options ask of the views: the collection tree's (1
// after a load with load.bAutoSortColl) and the waveform list's (2 with
// load.bAutoSortWaves); 0 until a load sets them. The views read them.
int& CollectionSortMode();
int& WaveformSortMode();

// ---- row functions ----

// The read and write functions a row has in this process: the table's, or a
// test overlay's. Row 0 reads with raw_Imp.
FormatReadFn RowReadFunction(int row);
FormatWriteFn RowWriteFunction(int row);
// Test seam: gives a row other read and write functions (null keeps the
// table's) without touching the constant table. ClearRowOverrides() undoes
// all of them.
void OverrideRowFunctions(int row, FormatReadFn read, FormatWriteFn write);
void ClearRowOverrides();

}  // namespace kv

// The import route: one way from a path to a consistent Collection (open,
// detect, clear, the row's read function, the fix-up of core/fixup.h), plus
// merging a file into what is loaded and replacing waveforms by name. The
// fix-up and the readers' hand-overs are core's; what modules see of an
// import under way is in formats/modules/module.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>

#include "core/items.h"
#include "core/fixup.h"
#include "formats/modules/raw.h"
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

// The reader ImportFile would pick for a sample file by its name: the look-up
// behind FindSampleReader, installed when this library is linked in.
SampleReader RegistrySampleReader(const std::filesystem::path& path);

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

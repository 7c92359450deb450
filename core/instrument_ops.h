// Model-level instrument operations: stereo pair merge and split, layer
// compaction, moving trigger parameters and articulation up, duplicate and
// unused waveform removal, and the loop sanitizer the load options and writers run.
//
// They live in core, not processing, because they touch only the model and
// the import and export pipelines (kv_formats, below kv_processing) run them
// as load options and before a save. The processing wizard calls the same
// functions; its rows add pages, undo steps and status texts around them.
#pragma once

#include <cstdint>

#include "core/items.h"

namespace kv {

// Merges mono pairs whose names differ only by a final " L"/" R" or
// "-L"/"-R" (same length, rate and root key) into interleaved stereo waves.
// Regions of the two halves with the same ranges in one instrument become one
// region on the stereo wave; other right-side regions play the stereo wave.
// The right halves go. Returns the number of stereo waves made.
int MergeStereoPairs(Collection& collection);

// Splits every stereo wave into a left wave (this one, " -L") and a right
// clone (" -R"). Each layer playing split waves gets a partner layer in its
// instrument with copies of those regions on the right waves; the originals
// pan left, the copies right. Returns the number of waves split.
int SplitStereoWaves(Collection& collection);

// Merges the layers of each instrument that can be one: same trigger type,
// same layer trigger and articulation, and regions that don't overlap.
// Returns the number of layers merged away.
int CompactLayers(Collection& collection);

// For each layer: trigger parameters that all its regions set alike (key and
// velocity ranges and the exclusion fields excepted) move into the layer.
// Returns the number of layers changed.
int MoveTriggerParamsUp(Collection& collection);

// Articulation parameters that all regions of a layer agree on move to the
// layer, then those all layers agree on to the instrument. Returns the
// number of levels changed.
int MoveArticulationUp(Collection& collection);

// Deletes waves whose samples are bit-identical to an earlier wave with the
// same length, channels, rate, sample form and loop; regions and models are
// pointed at the kept wave. `bytesFreed` (optional) takes the memory size of
// what went. Waves that can't be read are left alone.
int RemoveDuplicateWaves(Collection& collection, uint64_t* bytesFreed = nullptr);

// Deletes waves that no region or synthesis model uses.
int DeleteUnusedWaves(Collection& collection, uint64_t* bytesFreed = nullptr);

// Repairs a looped wave for players that know only forward loops and read
// past the end: alternating or reverse loops written out forward (the
// mirrored loop over the frames behind it, the data grown when needed), the
// loop repeated up to at least 32 frames, 32 frames behind the loop (the
// loop's start again, or silence after a sampled release) and 32 before it.
// Regions playing the wave follow the new points. False for an unlooped
// wave, and when the data can't be read or memory runs out (ErrorContext/
// ErrorMessage set, the wave as it was); true otherwise, changed or not.
bool sanitizeLoop(Waveform& wave, bool alternating, bool reverse, bool min32, bool after32, bool before32);

// Which key and velocity cells the regions of a layer cover, for readers
// that keep overlapping regions apart in layers of their own. Ranges are
// inclusive and limited to 0-127.
class KeyVelocityCells {
 public:
  bool Overlaps(int loKey, int hiKey, int loVel, int hiVel) const;
  void Add(int loKey, int hiKey, int loVel, int hiVel);

 private:
  uint64_t row_[128][2] = {};  // per key, one bit per velocity
};

}  // namespace kv

// Small steps shared by every operation that edits a wave's samples in place:
// the instrument operations of core and the processing wizard's rows.
//
// The rule they serve: an edit finishes, or leaves the wave exactly as it was.
// Buffers come from TryAllocArray first and are swapped in last, so a failed
// allocation changes nothing.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "core/items.h"

namespace kv {

// What an edit did to one wave. A failed edit has set ErrorContext and
// ErrorMessage and left the wave as it was.
enum class EditResult : uint8_t { Unchanged, Changed, Failed };

// Frames [first, end) of a wave, bounded by its length. The usual request of
// an edit: `first` below 0 counts from 0, `end` below 0 or past the length
// means the length. Empty when end <= first.
struct FrameSpan {
  uint32_t first = 0;
  uint32_t end = 0;
  bool empty() const { return end <= first; }
  uint32_t size() const { return empty() ? 0 : end - first; }
};
FrameSpan SpanOf(const Waveform& wave, int64_t first, int64_t end);

// Loads a wave's data for an operation that walks many waves: true when it
// is there; a wave that can't be read is left as it is, with no error kept.
bool LoadForProcessing(Waveform& wave);

// Makes the wave own its data in the form it has (float when it holds both):
// the read callback goes, so the edit is never undone by a lazy re-read.
// False when the data can't be read.
bool OwnData(Waveform& wave);

// Resizes a wave's own buffer to `frames`, keeping what fits, zero-filling
// the rest. The wave must own its data (OwnData done). On failure (context
// `context`, "Out of memory") the wave is unchanged.
bool ResizeFrames(Waveform& wave, uint32_t frames, const char* context = "Loop tools");

// Copies every channel of frame `from` to frame `to`, in the form the wave holds.
void CopyFrame(Waveform& wave, uint32_t to, uint32_t from);

// Regions follow a wave whose loop moved: offsets stay inside the new loop's
// reach, and region loop overrides that lay in or behind the old loop adapt.
void FollowLoopChange(Collection& c, const Waveform& wave, int64_t oldStart, int64_t oldEnd, int64_t newStart,
                      int64_t newEnd);

// Interleaves two mono waves into `target` (one of them, or a third wave):
// float when either is float, the shorter side padded with silence, the
// larger bit depth and the mean root key (integer division). Both must hold
// their data. On failure ("Out of memory" under `context`) nothing changes.
bool InterleaveInto(Waveform& target, const Waveform& left, const Waveform& right,
                    const char* context = "->Stereo");

// Channel `channel` (0 left, 1 right) of a stereo buffer as a mono one; null
// when memory runs out.
template <typename T>
std::unique_ptr<T[]> TakeChannel(const T* stereo, uint32_t frames, int channel);

// The name a split stereo wave's halves build on: a trailing " S" or "-S"
// goes (names longer than 2), then trailing blanks, and it is cut at 126.
std::string StereoSplitBase(std::string_view name);

}  // namespace kv

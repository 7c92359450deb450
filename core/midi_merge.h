// Several track bodies merged into one by time, as a format 0 file holds a
// song: the song operations convert with it and the player flattens format 2
// songs with it, so both order events alike.
//
// Order: by absolute tick; at equal ticks the earlier track first, then the
// order within the track (a stable merge, as mido's merge_tracks). Every End
// of Track is left out and one closes the result at the latest end of any
// track. The result is standard: running status only between channel
// messages. Sources are read, never changed.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "core/items.h"

namespace kv {

// `out` is replaced by the merged body. Tracks may be empty or truncated: a
// track ends at its End of Track or its last whole event.
void MergeTrackBodies(std::span<const std::span<const uint8_t>> tracks, std::vector<uint8_t>& out);

// The tracks of `song`, in its track order, merged into `out`.
void MergeSongTracks(const Song& song, std::vector<uint8_t>& out);

}  // namespace kv

// Standard MIDI files and RIFF-MIDI. A song's tracks keep the bytes of their
// MTrk chunks exactly; nothing here parses events into another form.
#pragma once

#include <cstdint>

#include "formats/modules/module.h"

namespace kv {

class Song;
class Track;

// Takes what the events at tick 0 say of a track: its channel group (meta
// 21), sequence number (meta 00 of two bytes), name (meta 03, else the first
// meta 01) and, with a song given, the song's copyright (meta 02).
void ScanTickZero(Track& track, Song* song);

// Reads the chunks in [start, end) of the file into a Song in `collection`
// (named after the file) and points `song` at it. Fails when no header chunk
// lies in the range.
bool mid_Parse(Collection& collection, FileRef& file, Song*& song, uint64_t start, uint64_t end);
bool mid_Read(Collection& collection, FileRef& file, uint32_t parameter);
// Writes the Song `item` is, or the first Song of a collection.
bool mid_Exp(Item& item, FileRef& file, ExportRequest& request);
int mid_Detect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);

bool rmid_Imp(Collection& collection, FileRef& file, uint32_t parameter);
// The request's parameter is the DLS level of the instruments that go with
// the song: 0 none, 1 or 2 a DLS bank appended to the RIFF form.
bool rmid_Exp(Item& item, FileRef& file, ExportRequest& request);
int rmid_Detect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);

}  // namespace kv

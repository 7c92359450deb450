// DLS and GigaStudio module: DLS banks, MLS collections, GigaStudio files,
// split sets and compressed waves.
#pragma once

#include <cstdint>

namespace kv {

class Collection;
class FileRef;
class Item;
class Waveform;
struct ExportRequest;

int dls_Detect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int dls_MlsDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int dls_GigDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int dls_GigSplitDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int dls_GigWaveDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);

// DLS banks of levels 1, 2, 2+ and 2++. Waves stay in the file and read on
// first use. Context "dls_Parse".
bool dls_Imp(Collection& collection, FileRef& file, uint32_t parameter);
// GigaStudio files (versions 2 and 3, plain and block-coded waves): the DLS
// walk with the dimension regions. Context "gig_Parse".
bool gig_Imp(Collection& collection, FileRef& file, uint32_t parameter);
// A lone block-coded wave (.wa!). Context "wa!_Imp"; its read callback is
// wa_ImpWave, context "wa!_ImpWave".
bool wa_Imp(Collection& collection, FileRef& file, uint32_t parameter);
bool wa_ImpWave(Waveform& wave, FileRef& file);
// One wave as a .wa!: fmt (tag 1), INFO with INAM, block-coded data, smpl,
// the 68-byte extension. Context "gigwav_Exp".
bool gigwav_Exp(Item& item, FileRef& file, ExportRequest& request);

// Miles Sound System collections: the same walk on the form "MLS ".
bool mls_Imp(Collection& collection, FileRef& file, uint32_t parameter);
// A RIFF "DLS " form lying in [start, end) of another file (RIFF-MIDI),
// read into `collection` beside what it holds.
bool dls_Read(Collection& collection, FileRef& file, uint64_t start, uint64_t end);

// The writer of the four level rows: request.parameter 1 (level 1), 2
// (level 2), 3 (2+) or 4 (2++). Context "dls_Exp".
bool dls_Exp(Item& item, FileRef& file, ExportRequest& request);
// The GigaStudio writer: request.parameter 0 (v1 normal), 1 (v1
// compressed), 2 (v3 normal) or 3 (v3 compressed). Context "gig_Exp".
bool gig_Exp(Item& item, FileRef& file, ExportRequest& request);

// The bank of `item` (an instrument or a collection) as a whole RIFF "DLS "
// form, appended at the file's position: RIFF-MIDI calls it with the option
// word 0x100004 (the capability word of what the waves may be) and the DLS
// level, 1 or 2.
bool dls_Write(Item& item, FileRef& file, uint32_t options, int level);

// Level 1 banks ask before they drop regions past its limits (16 per
// melodic instrument, 128 per drum kit).
inline constexpr const char* kDlsLevel1Question =
    "The collection contains instruments with more regions than what is allowed by the DLS level 1 "
    "specification.\n\nDo you want to write all regions anyway?\n(if you answer No, then some regions will be "
    "skipped)";
inline constexpr const char* kDlsNoPtblWarning =
    "DLS parser warning: Mandatory 'ptbl' chunk is missing, will attempt to read file anyway, but may not be "
    "correct!";

}  // namespace kv

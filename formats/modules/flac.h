// FLAC files through the libFLAC add-on. The head (STREAMINFO, comments,
// the WAV chunks `flac --keep-foreign-metadata` stores) is read here without
// the add-on; the samples decode on first use.
#pragma once

#include <cstdint>

namespace kv {

class Collection;
class FileRef;
class Item;
class Waveform;
struct ExportRequest;

int flac_Detect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
// One Waveform. Context "flac_Imp".
bool flac_Imp(Collection& collection, FileRef& file, uint32_t parameter);
// The lazy read. Context "flac_ImpWave".
bool flac_ImpWave(Waveform& wave, FileRef& file);
// PCM 8-24 bit with verification; request.parameter is the compression
// level. Context "flac_Exp".
bool flac_Exp(Item& item, FileRef& file, ExportRequest& request);

}  // namespace kv

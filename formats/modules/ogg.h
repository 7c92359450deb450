// Ogg Vorbis and Ogg Opus files through the Xiph add-ons. The import opens
// the stream for its head; the samples decode into float on first use.
#pragma once

#include <cstdint>

namespace kv {

class Collection;
class FileRef;
class Item;
class Waveform;
struct ExportRequest;

int ogg_Detect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int opus_Detect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);

bool ogg_Imp(Collection& collection, FileRef& file, uint32_t parameter);
bool ogg_ImpWave(Waveform& wave, FileRef& file);
bool opus_Imp(Collection& collection, FileRef& file, uint32_t parameter);
bool opus_ImpWave(Waveform& wave, FileRef& file);

// Vorbis at the request's kbit/s.
bool ogg_Exp(Item& item, FileRef& file, ExportRequest& request);
// Opus; request.parameter 0 is music (the audio application), 1 voice (VoIP).
bool opus_Exp(Item& item, FileRef& file, ExportRequest& request);

// The rate lists and their describers, "OGG %d kbit/s" and "Opus %d kbit/s".
float ogg_Rate(int index, uint32_t parameter, char* text);
float opus_Rate(int index, uint32_t parameter, char* text);

}  // namespace kv

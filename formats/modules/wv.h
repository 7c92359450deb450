// WavPack files through the libwavpack add-on, and Monkey's Audio, whose
// encoder the system doesn't have.
#pragma once

#include <cstdint>

namespace kv {

class Collection;
class FileRef;
class Item;
class Waveform;
struct ExportRequest;

int wv_Detect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
// One Waveform; a hybrid file reads lossless with its .wvc beside it.
bool wv_Imp(Collection& collection, FileRef& file, uint32_t parameter);
bool wv_ImpWave(Waveform& wave, FileRef& file);
// Lossless PCM 8-32 bit or float 32, with the WAV chunks kept as wrapper.
bool wv_Exp(Item& item, FileRef& file, ExportRequest& request);

int ape_Detect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
// Fails: no Monkey's Audio encoder is packaged for this system.
bool ape_Exp(Item& item, FileRef& file, ExportRequest& request);

}  // namespace kv

// SoundFont module: SoundFont 2 and 3 banks, SoundFont 1 (sbk), sfArk archives
// and MIDI Converter Studio packs.
#pragma once

#include <cstdint>

namespace kv {

// parameter: 0 SoundFont 2, 1 SoundFont 1, 3 SoundFont 3 (the ifil major wanted).
int sf2_Detect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int sf2_SfArkDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int sf2_PackDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);

class Collection;
class FileRef;
class Item;
struct ExportRequest;

// SoundFont 2 banks (parameter 0) and compressed ones with Ogg samples (3).
// Samples stay in the file; waves read them on first use.
bool sf2_Imp(Collection& collection, FileRef& file, uint32_t parameter);
// Mono samples, 16-bit or, when the request allows it, 24-bit.
bool sf2_Exp(Item& item, FileRef& file, ExportRequest& request);
// SoundFont 1.
bool sbk_Imp(Collection& collection, FileRef& file, uint32_t parameter);
bool sbk_Exp(Item& item, FileRef& file, ExportRequest& request);

// What a bank holds by its headers, without building items: the version and
// the number of presets, instruments and samples (terminal records not
// counted). False when the file is no RIFF sfbk form.
struct Sf2Summary {
  int major = -1, minor = 0;
  int presets = 0, instruments = 0, samples = 0;
};
bool sf2_Summary(FileRef& file, Sf2Summary& out);

}  // namespace kv

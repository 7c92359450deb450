// AIFF family: AIFF, AIFC and MAUD through one IFF walker; the 8SVX scorer for
// the plain IFF rows lives here too since it reads the same FORM header.
#pragma once

#include <cstdint>

namespace kv {

class Collection;
class FileRef;
class Item;
class Waveform;
struct ExportRequest;

// parameter: 0 AIFF, 1 AIFC, 2 MAUD (the FORM type wanted).
int aiff_Detect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int aiff_IffDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);

// AIFF, AIFC and MAUD (any of the three FORM types, whatever the row): one
// Waveform, samples left on disk. Context "aiff_Imp".
bool aiff_Imp(Collection& collection, FileRef& file, uint32_t parameter);
// The lazy read of AIFC codings without a decoder yet; fails naming it.
bool aiff_ImpWave(Waveform& wave, FileRef& file);
// Plain AIFF, PCM 8/16/24/32, mono or stereo. Context "aiff_Exp".
bool aiff_Exp(Item& item, FileRef& file, ExportRequest& request);

// The 80-bit extended sample rate of COMM, by integer arithmetic: fractions
// are dropped, an infinite or too-large exponent gives 0x7FFFFFFF, negative
// rates give 0.
uint32_t aiff_Rate80(const uint8_t* bytes);
void aiff_PutRate80(uint32_t rate, uint8_t* bytes);

}  // namespace kv

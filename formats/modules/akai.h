// AKAI S-series module: S900/S950, S1000 and S3000 samples and programs, floppy
// images and S5000 programs.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kv {

class Collection;
class FileRef;
class Item;
struct ExportRequest;

// parameter: 1 S1000, 3 S3000, 9 S900/S950.
int akai_SampleDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int akai_ProgramDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
// parameter: 0 plain image, 1 ChkSys image with its 24576-byte header.
int akai_DiskDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int akai_AkpDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);

// ---- registry functions ----

// S1000/S3000 sample: one Waveform, samples left on disk. Context "akais_Imp".
bool akais_Imp(Collection& collection, FileRef& file, uint32_t parameter);
// One mono wave as an S1000 (parameter 1) or S3000 (3) sample, PCM 16-bit;
// a stereo wave as two files, the left in `file`, the right beside it with
// "-R" added to the name. Context "akais_Exp".
bool akais_Exp(Item& item, FileRef& file, ExportRequest& request);

// S1000/S3000 program with its samples, found beside it. Context "akaip_Imp".
bool akaip_Imp(Collection& collection, FileRef& file, uint32_t parameter);
// One instrument as an S1000 (1) or S3000 (3) program, its waves beside it as
// samples of the same series. Context "akaip_Exp".
bool akaip_Exp(Item& item, FileRef& file, ExportRequest& request);

// Floppy image (parameter 0 plain, 1 ChkSys): every file through the reader
// of its type. Context "akafd_Imp".
bool akafd_Imp(Collection& collection, FileRef& file, uint32_t parameter);
// The names of an image's files as the file lists show them; false with a
// failure set when the image can't be read.
bool akafd_List(FileRef& file, uint32_t parameter, std::vector<std::string>& names);

// ---- the machines' character code ----

// Codes 0-40 of "0123456789 ABCDEFGHIJKLMNOPQRSTUVWXYZ#+-."; others read as a
// blank. Trailing blanks are kept.
std::string akai_DecodeName(std::span<const uint8_t> codes);
// Upper-cased, other characters as blanks, padded with blanks to 12.
void akai_EncodeName(std::string_view text, uint8_t (&out)[12]);

}  // namespace kv

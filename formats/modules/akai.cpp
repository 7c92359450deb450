// AKAI S-series module: S900/S950, S1000 and S3000 samples and programs, floppy
// images and S5000 programs. Little-endian throughout.
#include "formats/modules/akai.h"

#include "formats/detect_bytes.h"

namespace kv {

using namespace detect;

namespace {

constexpr uint32_t kS1000 = 1;
constexpr uint32_t kS3000 = 3;
constexpr uint32_t kS900 = 9;

constexpr uint64_t kS1000SampleHeader = 150;
constexpr uint64_t kS3000SampleHeader = 192;
constexpr uint64_t kS900SampleHeader = 60;

// Machine names use codes 0-40 of "0123456789 ABC...#+-.".
bool AkaiName(const uint8_t* data, uint32_t size, uint64_t offset) {
  if (!Has(size, offset, 12)) return false;
  for (int i = 0; i < 12; ++i)
    if (data[offset + i] > 40) return false;
  return true;
}

// Which header an S1000/S3000 sample file has: 3, 1 or 0 for none. A file
// whose size is exactly one header plus its frames settles it (S3000 files
// from the machines carry non-zero fields in the 42 extra bytes). Otherwise
// the 42 bytes from 150 decide: all zero is the S3000 header, unless its
// data wouldn't fit while the S1000 size would.
uint32_t SampleForm(const uint8_t* data, uint32_t size, uint64_t fileSize) {
  if (fileSize < kS3000SampleHeader || !Has(size, 0, kS3000SampleHeader) || data[0] != 3) return 0;
  const uint64_t bytes = uint64_t{U32le(data + 26)} * 2;
  if (kS3000SampleHeader + bytes == fileSize) return kS3000;
  if (kS1000SampleHeader + bytes == fileSize) return kS1000;
  bool zeros = true;
  for (uint64_t i = kS1000SampleHeader; i < kS3000SampleHeader; ++i) zeros = zeros && data[i] == 0;
  if (!zeros) return kS1000;
  if (kS3000SampleHeader + bytes > fileSize && kS1000SampleHeader + bytes <= fileSize) return kS1000;
  return kS3000;
}

bool S900SampleShape(const uint8_t* data, uint32_t size, uint64_t fileSize) {
  if (fileSize < kS900SampleHeader || !Has(size, 0, kS900SampleHeader)) return false;
  for (int i = 0; i < 10; ++i)  // plain-text name, blank or nul padded
    if (data[i] != 0 && (data[i] < 0x20 || data[i] > 0x7E)) return false;
  const uint32_t count = U32le(data + 16);
  const uint32_t end = U32le(data + 28);
  const uint32_t start = U32le(data + 32);
  const uint32_t loopLength = U32le(data + 36);
  return U16le(data + 20) != 0 && count >= start && count >= loopLength && start <= end;
}

bool S1000ProgramShape(const uint8_t* data, uint32_t size, uint64_t fileSize, uint64_t minimum) {
  return fileSize >= minimum && Has(size, 0, 15) && data[0] == 1 && AkaiName(data, size, 3);
}

}  // namespace

int akai_SampleDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize) {
  if (parameter == kS900) return S900SampleShape(data, size, fileSize) ? 2 : 0;
  const uint32_t form = SampleForm(data, size, fileSize);
  if (form == 0) return 0;
  const uint64_t header = form == kS3000 ? kS3000SampleHeader : kS1000SampleHeader;
  const bool dataFits = header + uint64_t{U32le(data + 26)} * 2 <= fileSize;
  return form == parameter && dataFits ? 4 : 2;
}

int akai_ProgramDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize) {
  if (parameter == kS900) {
    // The S900 program layout isn't known here: no objection, unless the
    // file is plainly an S1000/S3000 program.
    return size > 0 && !S1000ProgramShape(data, size, fileSize, 72) ? 2 : 0;
  }
  const uint64_t minimum = parameter == kS3000 ? 113 : 72;
  const uint64_t keygroup = parameter == kS3000 ? 192 : 150;
  if (!S1000ProgramShape(data, size, fileSize, minimum)) return 0;
  // The first keygroup starts with the block type 2.
  return Has(size, keygroup, 1) && data[keygroup] == 2 ? 4 : 2;
}

int akai_DiskDetect(const uint8_t*, uint32_t parameter, uint32_t size, uint64_t fileSize) {
  // Floppies are 800 or 1600 KiB; the ChkSys form has a 24576-byte head.
  const uint64_t head = parameter == 1 ? 24576 : 0;
  if (size == 0 || fileSize < head) return 0;
  const uint64_t kib = (fileSize - head) / 1024;
  return kib == 800 || kib == 1600 ? 2 : 0;
}

int akai_AkpDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  // RIFF-like: the size field is not reliable in S5000 files, the form is.
  return fileSize >= 12 && FourCC(data, size, 0, "RIFF") && FourCC(data, size, 8, "APRG") ? 6 : 0;
}

}  // namespace kv

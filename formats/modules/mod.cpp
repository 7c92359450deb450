// Tracker modules: MOD (patterns become a Song), S3M, XM, IT and the
// sample-only readers of the other module formats. Signatures follow each
// format's published layout.
#include "formats/modules/mod.h"

#include "formats/detect_bytes.h"

namespace kv {

using namespace detect;

namespace {

int Signature(const uint8_t* data, uint32_t size, uint64_t fileSize, uint64_t minimum, uint64_t offset,
              const char* tag, std::size_t length, int score = 6) {
  return fileSize >= minimum && Tag(data, size, offset, tag, length) ? score : 0;
}

bool Printable(const uint8_t* data, uint64_t offset, uint64_t length) {
  for (uint64_t i = 0; i < length; ++i) {
    const uint8_t c = data[offset + i];
    if (c != 0 && (c < 0x20 || c > 0x7E)) return false;
  }
  return true;
}

// Sample records of a MOD header: 30 bytes each from byte 20; finetune is a
// nibble and volume at most 64.
bool ModSamplesSane(const uint8_t* data, int samples) {
  for (int i = 0; i < samples; ++i) {
    const uint8_t* rec = data + 20 + 30 * i;
    if (rec[24] > 15 || rec[25] > 64) return false;
  }
  return true;
}

constexpr const char* kModTags[] = {"M.K.", "M!K!", "4CHN", "FLT4", "6CHN", "8CHN", "FLT8", "CD81", "EX08",
                                    "OCTA", "10CH", "12CH", "14CH", "16CH", "24CH", "32CH"};

}  // namespace

int mod_Detect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  if (fileSize >= 1084 && Has(size, 0, 1084)) {
    for (const char* tag : kModTags) {
      if (!Tag(data, size, 1080, tag, 4)) continue;
      const uint8_t positions = data[950];
      return positions >= 1 && positions <= 128 && ModSamplesSane(data, 31) ? 6 : 4;
    }
  }
  // The old 15-sample form has no signature at all: a plausible header is
  // all there is, and the extension has to decide.
  if (fileSize < 600 || !Has(size, 0, 600)) return 0;
  const uint8_t positions = data[470];
  if (positions < 1 || positions > 128 || !Printable(data, 0, 20) || !ModSamplesSane(data, 15)) return 0;
  for (int i = 0; i < 15; ++i)
    if (!Printable(data, 20 + 30 * i, 22)) return 0;
  for (int i = 0; i < 128; ++i)
    if (data[472 + i] >= 128) return 0;
  return 2;
}

int mod_669Detect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  // Two-letter magic ("if" Composer 669, "JN" UNIS 669): weak, so the
  // counts must be in range too.
  if (fileSize < 0x1F1 || !Has(size, 0, 0x71)) return 0;
  if (!Tag(data, size, 0, "if", 2) && !Tag(data, size, 0, "JN", 2)) return 0;
  return data[0x6E] <= 64 && data[0x6F] <= 128 && data[0x70] < 128 ? 4 : 0;
}

int mod_AmsDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize) {
  if (parameter == 1) return Signature(data, size, fileSize, 8, 0, "AMShdr\x1A", 7);
  return Signature(data, size, fileSize, 8, 0, "Extreme", 7);
}

int mod_DmfDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  return Signature(data, size, fileSize, 66, 0, "DDMF", 4);
}

int mod_DsmDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  if (Signature(data, size, fileSize, 12, 0, "RIFF", 4) && FourCC(data, size, 8, "DSMF")) return 6;
  return Signature(data, size, fileSize, 12, 0, "DSMF", 4);  // the headerless variant
}

int mod_FarDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  if (!Signature(data, size, fileSize, 98, 0, "FAR\xFE", 4)) return 0;
  return Tag(data, size, 44, "\r\n\x1A", 3) ? 6 : 4;
}

int mod_GdmDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  return Signature(data, size, fileSize, 0x9E, 0, "GDM\xFE", 4) && FourCC(data, size, 0x47, "GMFS") ? 6 : 0;
}

int mod_ItDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  return Signature(data, size, fileSize, 0xC0, 0, "IMPM", 4);
}

int mod_MdlDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  return Signature(data, size, fileSize, 5, 0, "DMDL", 4);
}

int mod_MedDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  // The reader takes the MMD0-MMD3 forms only, not the older MED forms.
  if (fileSize < 52 || !Tag(data, size, 0, "MMD", 3) || !Has(size, 3, 1)) return 0;
  return data[3] >= '0' && data[3] <= '3' ? 6 : 0;
}

int mod_Mt2Detect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  return Signature(data, size, fileSize, 126, 0, "MT20", 4);
}

int mod_MtmDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  // "MTM" and a version byte 1.x.
  if (!Signature(data, size, fileSize, 66, 0, "MTM", 3) || !Has(size, 3, 1)) return 0;
  return data[3] >= 0x10 && data[3] < 0x20 ? 6 : 4;
}

int mod_OktDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  return Signature(data, size, fileSize, 16, 0, "OKTASONG", 8);
}

int mod_PsmDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  if (Signature(data, size, fileSize, 146, 0, "PSM\xFE", 4)) return 6;
  // The later chunked form of the same name.
  return Signature(data, size, fileSize, 12, 0, "PSM ", 4) && FourCC(data, size, 8, "FILE") ? 6 : 0;
}

int mod_PtmDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  return Signature(data, size, fileSize, 608, 44, "PTMF", 4);
}

int mod_S3mDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  return Signature(data, size, fileSize, 96, 44, "SCRM", 4);
}

int mod_StmDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  // Byte 28 is 0x1A and byte 29 the file type, 2 for a module; the tracker
  // name in bytes 20-27 varies, the known ones make it certain.
  if (fileSize < 48 || !Has(size, 0, 48) || data[28] != 0x1A || data[29] != 2) return 0;
  if (!Printable(data, 20, 8)) return 0;
  return Tag(data, size, 20, "!Scream!", 8) || Tag(data, size, 20, "BMOD2STM", 8) ? 6 : 4;
}

int mod_UltDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  if (!Signature(data, size, fileSize, 48, 0, "MAS_UTrack_V00", 14) || !Has(size, 14, 1)) return 0;
  return data[14] >= '1' && data[14] <= '4' ? 6 : 4;
}

int mod_UmxDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  // The Unreal package tag; sound packages carry it too, so only the
  // extension tells music from sound.
  return Signature(data, size, fileSize, 36, 0, "\xC1\x83\x2A\x9E", 4, 4);
}

int mod_UniDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  if (fileSize < 8 || !Has(size, 0, 4)) return 0;
  if (Tag(data, size, 0, "APUN", 4)) return 4;
  return Tag(data, size, 0, "UN0", 3) && data[3] >= '0' && data[3] <= '9' ? 4 : 0;
}

int mod_XmDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  if (!Signature(data, size, fileSize, 64, 0, "Extended Module: ", 17) || !Has(size, 60, 4)) return 0;
  // The header size counts from byte 60 and covers at least the counts.
  const uint64_t headerSize = U32le(data + 60);
  return headerSize >= 20 && fileSize >= 60 + headerSize ? 6 : 0;
}

}  // namespace kv

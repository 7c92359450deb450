// Tracker modules: MOD, S3M, XM, IT and the sample-only readers of the other
// module formats.
#pragma once

#include <cstdint>

#include "formats/modules/module.h"

namespace kv {

// A MOD becomes a Song (format 1, 96 ticks per quarter note, a control track
// and one track per channel) and one Instrument per sample with its Waveform.
bool mod_Imp(Collection& collection, FileRef& file, uint32_t parameter);
int mod_Detect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int mod_669Detect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
// parameter: 0 Extreme's Tracker, 1 Velvet Studio.
int mod_AmsDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int mod_DmfDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int mod_DsmDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int mod_FarDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int mod_GdmDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int mod_ItDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int mod_MdlDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int mod_MedDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int mod_Mt2Detect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int mod_MtmDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int mod_OktDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int mod_PsmDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int mod_PtmDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int mod_S3mDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int mod_StmDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int mod_UltDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int mod_UmxDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int mod_UniDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int mod_XmDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);

}  // namespace kv

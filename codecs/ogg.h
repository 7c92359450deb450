// Ogg Vorbis decoding through the libvorbisfile/libvorbis add-ons, on data
// held in memory. Failures report under the helper's name as ErrorContext.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "codecs/stream.h"

namespace kv {

class FileRef;

struct OggDecoded {
  std::vector<float> samples;  // interleaved, nominal -1..1
  uint64_t frames = 0;
  int channels = 0;
  uint32_t rate = 0;
};

// Decodes a whole Ogg Vorbis stream (libvorbisfile's ov_open_callbacks over
// the block). Fails with "Unknown Ogg length" for a stream without a total.
bool kvOggDecHelper(std::span<const uint8_t> block, OggDecoded& out);

// Decodes raw Vorbis packets taken out of another container: the three
// header packets, then the audio packets (libvorbis and libogg).
bool kvOggDecRawHelper(std::span<const std::span<const uint8_t>> headers,
                       std::span<const std::span<const uint8_t>> packets, OggDecoded& out);

// Reads what a listing needs without decoding and without the add-on:
// channels and rate from the identification header in `head` (the stream's
// first bytes), the frame count from the granule position of the last page
// found in `tail` (the stream's last bytes). False when `head` isn't Vorbis.
bool kvOggProbe(std::span<const uint8_t> head, std::span<const uint8_t> tail, int& channels, uint32_t& rate,
                uint64_t& frames);

// The same over a file from its current position, streamed: fills `head`
// (rate, channels, total, comments), then hands the samples to `sink` in
// blocks; a null sink reads the head only. More than two channels keep the
// first two.
bool kvOggDecHelper(FileRef& file, CodecHead& head, FloatSink sink, void* user);

// Encodes Ogg Vorbis at setup.kbps nominal (libvorbisenc, libvorbis, libogg).
bool kvOggEncHelper(FileRef& file, const LossyEncodeSetup& setup, FloatSource source, void* user);
bool kvOggEncoderAvailable();

// Whether the decoder add-on can be bound (tries again on every call).
bool kvOggDecoderAvailable();

// The texts of a missing add-on.
inline constexpr const char* kOggMissing =
    "You need to install the Ogg Vorbis libraries (Debian package libvorbisfile3)";
inline constexpr const char* kVorbisRawMissing =
    "You need to install the Vorbis Ogg libraries (Debian packages libvorbis0a, libogg0)";

inline constexpr const char* kOggEncMissing =
    "You need to install the Ogg Vorbis libraries (Debian packages libvorbisenc2, libvorbis0a, libogg0)";

}  // namespace kv

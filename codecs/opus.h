// Ogg Opus through the opusfile and libopusenc add-ons. Opus decodes at
// 48000 Hz whatever rate went in; totals come with the pre-skip applied.
#pragma once

#include "codecs/stream.h"

namespace kv {

class FileRef;

inline constexpr const char* kOpusMissing =
    "You need to install the Opus libraries (Debian packages libopusfile0, libopusenc0)";

// Fills `head` and hands the samples to `sink` in blocks (a null sink reads
// the head only). More than two channels come down-mixed to stereo.
bool kvOpusDecHelper(FileRef& file, CodecHead& head, FloatSink sink, void* user);
// Encodes at setup.kbps with the audio or VoIP application.
bool kvOpusEncHelper(FileRef& file, const LossyEncodeSetup& setup, FloatSource source, void* user);

bool kvOpusDecoderAvailable();
bool kvOpusEncoderAvailable();

}  // namespace kv

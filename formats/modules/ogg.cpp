// Ogg Vorbis and Opus: heads, lazy decoding and writers over the codec
// wrappers of codecs/ogg and codecs/opus.
#include "formats/modules/ogg.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

#include "codecs/ogg.h"
#include "codecs/opus.h"
#include "core/error.h"
#include "core/fileref.h"
#include "core/items.h"
#include "core/wavestore.h"
#include "formats/modules/module.h"
#include "formats/modules/xiph_common.h"

namespace kv {

namespace {

// The first page's packet: "OggS", 27 bytes of header, the segment table.
bool FirstPacketIs(const uint8_t* data, uint32_t size, const char* magic, std::size_t n) {
  if (size < 28 || std::memcmp(data, "OggS", 4) != 0) return false;
  const std::size_t packet = 27 + std::size_t{data[26]};
  return packet + n <= size && std::memcmp(data + packet, magic, n) == 0;
}

using DecodeFn = bool (*)(FileRef&, CodecHead&, FloatSink, void*);

bool AddFloat(void* user, const float* interleaved, uint32_t frames) {
  auto* out = static_cast<GrowingWave*>(user);
  if (!out->AddFloat(interleaved, frames)) return FailMessage("Out of memory");
  return true;
}

bool Import(Collection& collection, FileRef& file, DecodeFn decode, WaveReadCallback read) {
  CodecHead head;
  if (!file.Seek(0) || !decode(file, head, nullptr, nullptr)) return false;
  if (head.frames == 0) return Fail(ErrorContext[0] ? ErrorContext : "ogg_Imp", "Zero length");
  Waveform* wave = Create<Waveform>(collection);
  const std::string stem = file.Path().stem().string();
  wave->SetName(stem.data(), stem.size(), TextEncoding::Foreign);
  wave->sampleRate = head.rate;
  wave->channels = static_cast<uint8_t>(head.channels);
  wave->bits = 16;
  wave->length = static_cast<uint32_t>(std::min<uint64_t>(head.frames, 0xFFFFFFFF));
  if (head.nominalKbps > 0) wave->preferredFormat = static_cast<uint8_t>(PreferredFormatForRate(head.nominalKbps));
  wave->fileOffset = 0;
  wave->sourcePath = file.Path();
  wave->readCallback = read;
  ApplyVorbisComments(head.comments, *wave, false);
  return true;
}

bool Decode(Waveform& wave, FileRef& file, DecodeFn decode, const char* name) {
  char status[64];
  std::snprintf(status, sizeof status, "-- Decoding %s: %%d%%%% --", name);
  GrowingWave out(wave.channels, wave.length, true, status, wave.length);
  CodecHead head;
  if (!decode(file, head, AddFloat, &out)) return false;
  if (head.channels != wave.channels) return Fail(ErrorContext, "Stream error");
  return out.Finish(wave, ErrorContext[0] ? ErrorContext : name);
}

}  // namespace

int ogg_Detect(const uint8_t* data, uint32_t, uint32_t size, uint64_t) {
  return FirstPacketIs(data, size, "\x01vorbis", 7) ? 6 : 0;
}

int opus_Detect(const uint8_t* data, uint32_t, uint32_t size, uint64_t) {
  return FirstPacketIs(data, size, "OpusHead", 8) ? 6 : 0;
}

bool ogg_Imp(Collection& collection, FileRef& file, uint32_t) {
  return Import(collection, file, kvOggDecHelper, ogg_ImpWave);
}
bool ogg_ImpWave(Waveform& wave, FileRef& file) {
  ClearError();
  return Decode(wave, file, kvOggDecHelper, "Ogg Vorbis");
}
bool opus_Imp(Collection& collection, FileRef& file, uint32_t) {
  return Import(collection, file, kvOpusDecHelper, opus_ImpWave);
}
bool opus_ImpWave(Waveform& wave, FileRef& file) {
  ClearError();
  return Decode(wave, file, kvOpusDecHelper, "Opus");
}

// ---------------------------------------------------------------- writers

namespace {

constexpr int kOggRates[] = {48, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320};
constexpr int kOpusRates[] = {6, 8, 12, 16, 24, 32, 48, 64, 96, 128, 160, 192, 256};

float RateAt(std::span<const int> list, int index, const char* describer, char* text) {
  if (index < 0 || index >= static_cast<int>(list.size())) return -1.0f;
  if (text) std::snprintf(text, 64, describer, list[index]);
  return static_cast<float>(list[index]);
}

bool SourceFloat(void* user, uint64_t first, uint32_t frames, float* interleaved) {
  auto* w = static_cast<Waveform*>(user);
  const uint64_t from = first * w->channels;
  const uint64_t count = uint64_t{frames} * w->channels;
  if (w->samplesF) {
    std::memcpy(interleaved, w->samplesF.get() + from, count * sizeof(float));
  } else {
    const int16_t* p = w->samples16.get() + from;
    for (uint64_t i = 0; i < count; ++i) interleaved[i] = p[i] * 3.0517578e-5f;
  }
  return true;
}

using EncodeFn = bool (*)(FileRef&, const LossyEncodeSetup&, FloatSource, void*);

bool Export(Item& item, FileRef& file, ExportRequest& request, const char* context, FormatRateFn rateFn,
            EncodeFn encode, bool voice) {
  auto* wave = dynamic_cast<Waveform*>(&item);
  if (!wave) return Fail(context, "The file format can not save this item");
  DataFormatChoice choice;
  choice.own = PreferredFormatDataFormat(wave->preferredFormat);
  choice.ownRate = static_cast<float>(PreferredFormatRate(wave->preferredFormat));
  choice.request = kCapCompressed;
  choice.wantedRate = request.rate;
  choice.rateFn = rateFn;
  float kbps = 0;
  if (ChooseDataFormat(choice, kbps) != kDataFormatCompressed || kbps <= 0) kbps = request.rate;
  if (kbps <= 0) return Fail(context, "No bitrate");

  int channels = 0;
  if (request.request & (kCapMono | kCapStereo)) {
    if (wave->channels == 2 && !(request.request & kCapStereo)) channels = 1;
    else if (wave->channels == 1 && !(request.request & kCapMono)) channels = 2;
  }
  ClearError();
  if (!wave->EnsureData()) return false;
  Waveform* w = AdaptWaveChannels(*wave, channels);
  if (!w) return ErrorMessage[0] ? false : Fail(context, "Out of memory");
  struct Release {
    Waveform& original;
    Waveform* adapted;
    ~Release() { ReleaseAdapted(original, adapted); }
  } release{*wave, w};
  if (!w->HasData() && !w->EnsureData()) return false;

  LossyEncodeSetup setup;
  setup.rate = w->sampleRate;
  setup.channels = w->channels;
  setup.frames = w->length;
  setup.kbps = static_cast<int>(kbps);
  setup.voice = voice;
  setup.tags = VorbisCommentsOf(*w, false);
  return encode(file, setup, SourceFloat, w);
}

}  // namespace

float ogg_Rate(int index, uint32_t, char* text) { return RateAt(kOggRates, index, "OGG %d kbit/s", text); }
float opus_Rate(int index, uint32_t, char* text) { return RateAt(kOpusRates, index, "Opus %d kbit/s", text); }

bool ogg_Exp(Item& item, FileRef& file, ExportRequest& request) {
  return Export(item, file, request, "kvOggEncHelper", ogg_Rate, kvOggEncHelper, false);
}

bool opus_Exp(Item& item, FileRef& file, ExportRequest& request) {
  return Export(item, file, request, "kvOpusEncHelper", opus_Rate, kvOpusEncHelper, request.parameter == 1);
}

}  // namespace kv

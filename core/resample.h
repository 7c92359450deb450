// The one sample-rate converter of the program: the "Resample" page, saving
// at another rate, inserting a wave of another rate and everything else that
// needs a wave at a new length. Three short interpolators and six settings of
// one Kaiser-windowed sinc filter, chosen by an algorithm number 0-8.
//
// In core, not processing, because the export pipeline (below processing)
// converts rates when a format asks for one.
#pragma once

#include <cstdint>
#include <memory>

namespace kv {

class Collection;
class Waveform;

inline constexpr int kResampleAlgorithmCount = 9;
inline constexpr int kResampleAuto = 8;  // FIR 20 on float data, else 16
extern const char* const kResampleAlgorithmLabels[kResampleAlgorithmCount];

// The rates the "Resample" page lists.
inline constexpr uint32_t kResampleRates[] = {6000,  8000,  11025, 12000,  16000,  22050,  24000,
                                              32000, 44100, 48000, 88200, 96000, 176400, 192000};

// The core: `destination` (which may be `source`) gets `newLength` frames of
// float data read from `source` at steps of 1 / `ratio`, the source's
// channels, `newRate` and the source's loop scaled by `ratio`. Ratio exactly
// 1 onto the same wave changes nothing; onto another wave it copies the
// samples unfiltered. Algorithms outside 0-8 work as 1. False with
// ErrorContext "kvResample2" and "Out of memory" when the data doesn't fit
// (the destination is then untouched), or with the loader's texts.
bool kvResample2(Waveform& destination, Waveform& source, double ratio, uint32_t newLength, uint32_t newRate,
                 int algorithm);

// kvResample2 with ratio = newLength / source length and the rate scaled to
// match (truncated); with a collection, an in-place run also scales the loop
// overrides of the regions that play the wave.
bool resampleToLength(Waveform& destination, Waveform& source, uint32_t newLength, int algorithm,
                      Collection* collection);
// kvResample2 with ratio = newRate / source rate and the length scaled to
// match (truncated), regions as for resampleToLength.
bool resampleToRate(Waveform& destination, Waveform& source, uint32_t newRate, int algorithm,
                    Collection* collection);
// The length resampleToRate gives a wave of `length` frames.
uint32_t ResampledLength(uint32_t length, uint32_t fromRate, uint32_t toRate);

// The region-level loop start and end overrides of every region playing
// `wave`, where set, multiplied by `ratio`.
void AdjustRegionLoops(Collection& collection, const Waveform& wave, double ratio);

// ---- the pieces, for tests and other signal code ----

// The filter quality (bits of S/N) of an algorithm, 0 for the interpolators.
int ResampleQuality(int algorithm, bool floatSource);

struct FirDesign {
  double cutoff = 0.0;
  double beta = 0.0;
  double fc = 0.0;      // min(ratio, 1): the frequency scale
  uint32_t taps = 0;    // L, the half length at full bandwidth
  uint32_t half = 0;    // N = ceil(L / fc); 0 when it would not fit in 32 bits
  uint32_t stride = 0;  // N rounded up to a multiple of 4
};
FirDesign DesignFir(int quality, double ratio);

// The zeroth-order modified Bessel function by its power series, stopped
// once a term falls below 1e-21 of the sum.
double BesselI0(double x);

inline constexpr double kFirPi = 3.1415926535897922;
inline constexpr int kFirPhases = 2048;  // rows 0..2048 of the coefficient table

// Reads a wave's samples as normalised float, one zero-padded row per
// channel, at any position between frames.
class Interpolator {
 public:
  virtual ~Interpolator() = default;
  virtual float sample(unsigned channel, uint32_t index, float fraction) = 0;
  // A table row could not be had (FIR only): later samples are not valid.
  bool failed() const { return failed_; }

 protected:
  bool failed_ = false;
};

// The interpolator the core would use for `source` (loaded) at `ratio`; null
// with "Out of memory" when its rows don't fit. `memoryBudget` bounds the
// bytes its rows and table may take (0: what the system has free).
std::unique_ptr<Interpolator> MakeInterpolator(const Waveform& source, int algorithm, double ratio,
                                               uint64_t memoryBudget = 0);
// The number of coefficient rows an FIR interpolator has filled; -1 for the
// other kinds.
int FilledRows(const Interpolator& interpolator);

// Bounds the memory of later resampling runs (bytes; 0: the system's free
// memory decides). For tests of the out-of-memory path.
void SetResampleMemoryBudget(uint64_t bytes);

}  // namespace kv

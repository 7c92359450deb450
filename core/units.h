// Unit laws that several formats (and the synthesizer) share. Each law is one
// pair of functions, so a reader and a writer of any format invert each other
// by construction.
#pragma once

namespace kv {

inline constexpr double kLn2 = 0.69314718055994530942;

// A shift in semitones as a frequency ratio.
double SemitonesToRatio(double semitones);

// ---- time: timecents, 1200 per doubling of the time in seconds ----
double TimecentsToSeconds(double timecents);
// 1200 * log2(seconds); not defined for 0 and below, which each format
// writes as its own "zero time" value.
double SecondsToTimecents(double seconds);

// ---- frequency: absolute cents, 0 at 8.176 Hz (MIDI key 0) ----
double AbsoluteCentsToHz(double cents);
double HzToAbsoluteCents(double hz);

// ---- level: centibels, a tenth of a decibel ----
constexpr double CentibelsToDb(double centibels) { return centibels * 0.1; }
constexpr double DbToCentibels(double db) { return db * 10.0; }

// ---- filter cutoff and its tracking ----
//
// The model's cutoff (row 24) is the cutoff at mid velocity and middle C:
// velocity to cutoff (row 25) is the shift in semitones from there to either
// end of the velocity range, key number to cutoff (row 26) the shift per
// octave from middle C. A format states its cutoff at one end of its velocity
// range and at a reference key of its own, with the whole span of the
// velocity tracking.
struct FormatCutoff {
  double hz = 0.0;            // at the format's reference velocity and key
  double velocitySpan = 0.0;  // semitones from the lowest velocity to the highest
  double keyPerOctave = 0.0;  // semitones per octave
};
struct ModelCutoff {
  double hz = 0.0;             // row 24
  double velocityDepth = 0.0;  // row 25
  double keyDepth = 0.0;       // row 26
};
// `referenceKey` is the key at which the format's cutoff holds.
ModelCutoff CutoffToModel(const FormatCutoff& format, double referenceKey);
FormatCutoff CutoffFromModel(const ModelCutoff& model, double referenceKey);

}  // namespace kv

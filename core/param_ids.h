// Names of the parameter numbers: 0-188 the articulation rows, 189-228 the
// trigger, loop, text, wave, override and location parameters, then the
// channel effect slots. Code names a parameter by these, never by its number;
// numbers stay only where a file format fixes them.
#pragma once

namespace kv {

enum ParamId : int {
#define KV_ROW(id, ...) kRow##id,
#define KV_LFO(id, prefix) kRow##id##LfoShape, kRow##id##LfoFrequency, kRow##id##LfoDelay, kRow##id##LfoRamp,
#define KV_ENV(id, ...)                                                                            \
  kRow##id##EnvInitial, kRow##id##EnvA1Time, kRow##id##EnvA1Vel, kRow##id##EnvA1Key,               \
  kRow##id##EnvA1Level, kRow##id##EnvA2Time, kRow##id##EnvA2Vel, kRow##id##EnvA2Key,               \
  kRow##id##EnvA2Level, kRow##id##EnvD1Time, kRow##id##EnvD1Vel, kRow##id##EnvD1Key,               \
  kRow##id##EnvD1Level, kRow##id##EnvD2Time, kRow##id##EnvD2Vel, kRow##id##EnvD2Key,               \
  kRow##id##EnvSustain, kRow##id##EnvR1Rate, kRow##id##EnvR1Level, kRow##id##EnvR2Time,            \
  kRow##id##EnvR2Level, kRow##id##EnvR3Time, kRow##id##EnvR3Level, kRow##id##EnvRelVel,            \
  kRow##id##EnvRelKey, kRow##id##EnvReleaseMode, kRow##id##EnvShutdown,
#include "core/param_rows.inc"
#undef KV_ROW
#undef KV_LFO
#undef KV_ENV
  // Four effect slots of eight parameters: the type, then seven whose
  // meaning the type decides (see FxParam).
  kRowFxSlots,
};

static_assert(kRowTriggerType == 189 && kRowLoopType == 204 && kRowName == 209 && kRowSampleRate == 215 &&
                  kRowRootKeyOverride == 220 && kRowDrumKit == 225 && kRowFxSlots == 229,
              "parameter blocks start where the numbering puts them");

// Effect slot s (0-3): its type parameter, and its place p (0-6) after it.
constexpr int FxTypeParam(int slot) { return kRowFxSlots + 8 * slot; }
constexpr int FxParam(int slot, int place) { return kRowFxSlots + 8 * slot + 1 + place; }

}  // namespace kv

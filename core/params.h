// Parameter routing for the item classes: which level holds which parameter
// number, with the catalogue's rounding and limits, presence bits, resets
// that walk down, and texts. The item classes' parameter slots call these.
//
// Rows 189-203 live on Layer and Region, 204-208 and 220-224 on Region (and
// 204-208 on Waveform), 215-219 on Waveform, 225-228 and 229-260 on
// Instrument. A row of another level answers through its owner: a Region
// asked for a wave row answers with its waveform's, a Layer or Region asked
// for a location or effect row with its instrument's. Text rows 209-214 are
// the item classes' own and are not handled here.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "core/articulation.h"

namespace kv {

class Item;
class Instrument;
class Layer;
class Region;
class Waveform;

namespace params {

bool IsSet(const Region& r, int p);
bool IsSet(const Layer& l, int p);
bool IsSet(const Instrument& i, int p);
bool IsSet(const Waveform& w, int p);

float Get(const Region& r, int p);
float Get(const Layer& l, int p);
float Get(const Instrument& i, int p);
float Get(const Waveform& w, int p);

// Rounds and limits by the row, stores and marks the value set. Changing an
// effect slot's type gives its other rows the new type's defaults.
void Set(Region& r, int p, float v);
void Set(Layer& l, int p, float v);
void Set(Instrument& i, int p, float v);
void Set(Waveform& w, int p, float v);

// Clears the mark and restores the inherited value (the layer's, the
// instrument's, the waveform's) or the default. An articulation reset on an
// Instrument also refreshes every Layer and Region below that doesn't set it.
void Reset(Region& r, int p);
void Reset(Layer& l, int p);
void Reset(Instrument& i, int p);
void Reset(Waveform& w, int p);

// The row as the item shows it under the parameter set `features`; an
// effect row by its slot's type. Null where the item has no such parameter.
const ParameterRow* Descriptor(const Item& item, int p, uint64_t features = kAllFeatures);
// The descriptor's default, 0 without one.
float Default(const Item& item, int p, uint64_t features = kAllFeatures);

// The value with its unit, "" for a text row or a parameter the item lacks.
std::string GetText(const Item& item, int p, const ParamDisplay& display, uint64_t features = kAllFeatures);
// Parses as the pane shows and sets; false for a text row, a parameter the
// item lacks, or text that doesn't parse (nothing changes then).
bool SetText(Item& item, int p, std::string_view text, const ParamDisplay& display,
             uint64_t features = kAllFeatures);

// A user's edit with "Propagate down param edit delta" on: sets the value
// and adds the change to every Layer and Region below that has it set.
void SetPropagating(Item& item, int p, float v);

}  // namespace params
}  // namespace kv

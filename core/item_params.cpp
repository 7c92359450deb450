// The parameter slots of the item classes, routed to the level rules of the
// parameter model with the user's display and parameter-set settings.
#include "core/items.h"
#include "core/params.h"
#include "core/settings.h"

namespace kv {

namespace {

ParamDisplay Display() {
  const auto& app = Settings().app;
  return {app.bShowNoteNames != 0, app.cOctMidC};
}

uint64_t Features() { return Settings().features; }

// Text rows (name to product) are the items' own fields; the rest go through the model.
bool IsTextRow(int p) { return p >= kFirstTextParam && p <= kLastTextParam; }

}  // namespace

float Item::GetParamDefault(int parameter) const { return params::Default(*this, parameter, Features()); }

const ParameterRow* Item::GetParamDescriptor(int parameter) const {
  return params::Descriptor(*this, parameter, Features());
}

void Item::SetParamText(int parameter, std::string_view text) {
  if (parameter == kRowName) SetName(text.data(), text.size(), TextEncoding::Utf8);
  else if (!IsTextRow(parameter)) params::SetText(*this, parameter, text, Display(), Features());
}

std::string Item::GetParamText(int parameter) const {
  if (parameter == kRowName) return name;
  if (IsTextRow(parameter)) return {};
  return params::GetText(*this, parameter, Display(), Features());
}

#define KV_ROUTE_PARAMS(Class)                                                   \
  bool Class::IsParamSet(int p) const { return params::IsSet(*this, p); }       \
  float Class::GetParam(int p) const { return params::Get(*this, p); }          \
  void Class::SetParam(int p, float v) { params::Set(*this, p, v); }            \
  void Class::ResetParam(int p) { params::Reset(*this, p); }

KV_ROUTE_PARAMS(Region)
KV_ROUTE_PARAMS(Layer)
KV_ROUTE_PARAMS(Instrument)
KV_ROUTE_PARAMS(Waveform)

#undef KV_ROUTE_PARAMS

const char* NoteName(int key) {
  static thread_local std::string buffers[4];
  static thread_local int next = 0;
  std::string& out = buffers[next];
  next = (next + 1) & 3;
  out = NoteName(key, Display());
  return out.c_str();
}

}  // namespace kv

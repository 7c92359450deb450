#include "ui/processing_cli.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdarg>
#include <cmath>
#include <cstdlib>
#include <optional>
#include <tuple>

#include "core/app.h"
#include "core/error.h"
#include "core/items.h"
#include "core/text.h"
#include "processing/wizard.h"

namespace kv {

namespace {

// The tables with rows: audio and songs (the instrument operations aren't
// written yet).
constexpr int kTableKinds[] = {0, 6};

bool IsAssignment(std::string_view token) {
  const std::size_t eq = token.find('=');
  if (eq == 0 || eq == std::string_view::npos) return false;
  for (char c : token.substr(0, eq))
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '_') return false;
  return true;
}

// A usage error: "--op NAME: message" on stderr, exit code 2.
int Usage(const char* format, ...) __attribute__((format(printf, 1, 2)));
int Usage(const char* format, ...) {
  char text[1024];
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(text, sizeof text, format, ap);
  va_end(ap);
  std::fprintf(stderr, "%s\n", text);
  return 2;
}

std::string NumberText(double v) {
  char text[48];
  std::snprintf(text, sizeof text, "%g", v);
  return text;
}

const char* TypeName(ControlType type) {
  switch (type) {
    case ControlType::Number: return "number";
    case ControlType::Integer: return "integer";
    case ControlType::Choice: return "choice";
    case ControlType::Flag: return "flag";
    case ControlType::Text: return "text";
  }
  return "?";
}

// The accepted values of a control, for --ops and for messages.
std::string RangeText(const PageControl& c) {
  switch (c.type) {
    case ControlType::Number:
    case ControlType::Integer: return NumberText(c.minimum) + ".." + NumberText(c.maximum);
    case ControlType::Choice: return "0.." + std::to_string(c.choiceCount - 1);
    case ControlType::Flag: return "on or off";
    case ControlType::Text: return "at most " + NumberText(c.maximum) + " characters";
  }
  return {};
}

bool ParseDouble(const std::string& text, double& out) {
  if (text.empty()) return false;
  errno = 0;
  char* end = nullptr;
  out = std::strtod(text.c_str(), &end);
  return errno == 0 && end && *end == 0 && std::isfinite(out);
}

bool ParseInt64(const std::string& text, int64_t& out) {
  if (text.empty()) return false;
  errno = 0;
  char* end = nullptr;
  out = std::strtoll(text.c_str(), &end, 10);
  return errno == 0 && end && *end == 0;
}

// A value of a control from its text; false when it is not one.
bool ParseValue(const PageControl& c, const std::string& text, SettingValue& value) {
  switch (c.type) {
    case ControlType::Text:
      if (text.size() > static_cast<std::size_t>(c.maximum)) return false;
      value.text = text;
      return true;
    case ControlType::Flag:
      for (const char* on : {"1", "on", "yes", "true"})
        if (EqualsNoCase(text, on)) return (value.number = 1.0, true);
      for (const char* off : {"0", "off", "no", "false"})
        if (EqualsNoCase(text, off)) return (value.number = 0.0, true);
      return false;
    case ControlType::Choice:
      for (int i = 0; i < c.choiceCount; ++i)
        if (EqualsNoCase(text, c.choices[i]) || (c.choiceKeys && EqualsNoCase(text, c.choiceKeys[i])))
          return (value.number = i, true);
      [[fallthrough]];
    case ControlType::Integer: {
      int64_t v;
      if (!ParseInt64(text, v)) return false;
      const double lo = c.type == ControlType::Choice ? 0 : c.minimum;
      const double hi = c.type == ControlType::Choice ? c.choiceCount - 1 : c.maximum;
      if (v < lo || v > hi) return false;
      value.number = static_cast<double>(v);
      return true;
    }
    case ControlType::Number: {
      double v;
      if (!ParseDouble(text, v) || v < c.minimum || v > c.maximum) return false;
      value.number = v;
      return true;
    }
  }
  return false;
}

// One --op, checked against its row before anything runs.
struct ParsedRequest {
  int kind = 0;
  uint32_t row = 0;
  std::vector<std::pair<int, SettingValue>> values;  // control index, value
  std::optional<std::pair<int32_t, int32_t>> range;
};

int ParseRequest(const OperationRequest& request, ParsedRequest& parsed) {
  uint32_t count = 0, found = 0;
  const WizardOperation* rows = nullptr;
  for (int kind : kTableKinds) {
    rows = OperationTable(kind, &count);
    for (found = 0; found < count; ++found)
      if (EqualsNoCase(request.name, rows[found].key) || EqualsNoCase(request.name, rows[found].name)) break;
    parsed.kind = kind;
    if (found < count) break;
  }
  if (found == count) return Usage("--op: unknown operation \"%s\" (kelvo --ops lists them)", request.name.c_str());
  const WizardOperation& row = rows[found];
  parsed.row = found;
  for (const std::string& assignment : request.assignments) {
    const std::size_t eq = assignment.find('=');
    const std::string key = assignment.substr(0, eq), text = assignment.substr(eq + 1);
    if (EqualsNoCase(key, "range")) {
      if (!(row.flags & kOpRange))
        return Usage("--op %s: \"%s\" takes no range=", row.key, row.name);
      const std::size_t colon = text.find(':');
      int64_t a = -1, b = -1;
      if (colon == std::string::npos || !ParseInt64(text.substr(0, colon), a) ||
          !ParseInt64(text.substr(colon + 1), b) || a < 0 || b <= a || b > INT32_MAX)
        return Usage("--op %s: range must be START:END in frames, 0 <= START < END <= %d, not \"%s\"", row.key,
                     INT32_MAX, text.c_str());
      parsed.range = {static_cast<int32_t>(a), static_cast<int32_t>(b)};
      continue;
    }
    int control = -1;
    for (int i = 0; i < row.controlCount && control < 0; ++i)
      if (EqualsNoCase(key, row.controls[i].key)) control = i;
    if (control < 0) {
      std::string keys;
      for (int i = 0; i < row.controlCount; ++i) keys += std::string(keys.empty() ? "" : ", ") + row.controls[i].key;
      if (row.flags & kOpRange) keys += std::string(keys.empty() ? "" : ", ") + "range";
      return Usage("--op %s: unknown key \"%s\" (%s)", row.key, key.c_str(),
                   keys.empty() ? "this operation takes none" : ("it takes " + keys).c_str());
    }
    const PageControl& c = row.controls[control];
    SettingValue value;
    if (c.type == ControlType::Text && c.check && c.check(text))
      return Usage("--op %s: %s must be %s, not \"%s\"", row.key, c.key, c.check(text), text.c_str());
    if (!ParseValue(c, text, value))
      return Usage("--op %s: %s must be %s %s, not \"%s\"", row.key, c.key,
                   c.type == ControlType::Text ? "a text of" : c.type == ControlType::Flag ? "" : "a value in",
                   RangeText(c).c_str(), text.c_str());
    parsed.values.emplace_back(control, std::move(value));
  }
  if (row.refusal) {
    std::vector<SettingValue> values;
    for (int i = 0; i < row.controlCount; ++i) values.push_back(OperationSetting(row.controls[i]));
    for (const auto& [control, value] : parsed.values) values[control] = value;
    if (const char* why = row.refusal(values.data())) return Usage("--op %s: %s", row.key, why);
  }
  return 0;
}

}  // namespace

bool TakeOperationArgs(const std::vector<std::string>& args, std::size_t& i, ProcessingOptions& options) {
  if (args[i] != "--op") return false;
  if (i + 1 >= args.size() || args[i + 1].starts_with("-")) {
    if (options.usageError.empty()) options.usageError = "--op needs the name of an operation (kelvo --ops lists them)";
    return true;
  }
  OperationRequest request{args[++i], {}};
  while (i + 1 < args.size() && IsAssignment(args[i + 1])) request.assignments.push_back(args[++i]);
  options.operations.push_back(std::move(request));
  return true;
}

void AddProcessingOptions(CLI::App& app, ProcessingOptions& options) {
  options.listOption = app.add_option("--ops", options.listFilter,
                                      "List the processing operations and their keys, optionally filtered")
                           ->expected(0, 1)
                           ->default_str("");
  app.add_option("--select", options.select,
                 "With --op: the item to process, by name or 0xID (repeatable; default all waveforms)")
      ->allow_extra_args(false);
}

void PrintOperationList(std::FILE* out, const std::string& filter) {
  auto contains = [&](std::string_view text) {
    if (filter.empty()) return true;
    for (std::size_t at = 0; at + filter.size() <= text.size(); ++at)
      if (EqualsNoCase(text.substr(at, filter.size()), filter)) return true;
    return false;
  };
  for (int kind : kTableKinds) {
  uint32_t count = 0;
  const WizardOperation* rows = OperationTable(kind, &count);
  for (uint32_t r = 0; r < count; ++r) {
    const WizardOperation& row = rows[r];
    if (!contains(row.key) && !contains(row.name)) continue;
    const char* flags = (row.flags & kOpRange) && (row.flags & kOpNoPage) ? "range, no page"
                        : (row.flags & kOpRange)                        ? "range"
                        : (row.flags & kOpNoPage)                       ? "no page"
                                                                        : "-";
    const std::string name = std::string("\"") + row.name + "\"";
    char line[256];
    std::snprintf(line, sizeof line, "%-20s %-36s page %u  %-12s %-14s%s", row.key, name.c_str(), row.page,
                  AvailabilityName(row.available), flags, OperationInBuild(row) ? "" : "  not in this build");
    std::string text = line;
    text.erase(text.find_last_not_of(' ') + 1);
    std::fprintf(out, "%s\n", text.c_str());
    for (int i = 0; i < row.controlCount; ++i) {
      const PageControl& c = row.controls[i];
      const std::string def = c.type == ControlType::Text ? std::string("\"") + (c.defaultText ? c.defaultText : "") + "\""
                              : c.type == ControlType::Flag ? (c.defaultValue != 0 ? "on" : "off")
                                                            : NumberText(c.defaultValue);
      std::fprintf(out, "    %-10s %-8s default %-6s %-24s \"%s\"\n", c.key, TypeName(c.type), def.c_str(),
                   c.type == ControlType::Choice ? "choices below" : RangeText(c).c_str(), c.label);
      for (int k = 0; k < (c.type == ControlType::Choice ? c.choiceCount : 0); ++k)
        if (c.choiceKeys) std::fprintf(out, "        %d  %-10s \"%s\"\n", k, c.choiceKeys[k], c.choices[k]);
        else std::fprintf(out, "        %d  \"%s\"\n", k, c.choices[k]);
    }
    if (row.flags & kOpRange)
      std::fprintf(out, "    %-10s %-8s frames START:END, end exclusive\n", "range", "range");
  }
  }
}

int RunOperationRequests(Collection& c, const std::vector<Item*>& selection,
                         const std::vector<OperationRequest>& requests, std::FILE* out) {
  if (requests.empty()) return 0;
  // Every request is checked before the first one runs.
  std::vector<ParsedRequest> parsed(requests.size());
  for (std::size_t i = 0; i < requests.size(); ++i)
    if (int code = ParseRequest(requests[i], parsed[i])) return code;

  // The range of the waveform view: kept from one operation to the next, as
  // a selection in the window stays until changed. None at first.
  int32_t rangeStart = 0, rangeEnd = 0;
  int status = 0;
  for (const ParsedRequest& request : parsed) {
    const WizardOperation& row = OperationTable(request.kind)[request.row];
    const bool songs = request.kind == 6;
    ProcessingWizard wizard(c, static_cast<uint8_t>(request.kind));
    if (!selection.empty()) {
      for (Item* item : selection) wizard.items.push_back(item);
    } else if (songs) {
      for (Song* song : c.All<Song>()) wizard.items.push_back(song);
    } else {
      for (Waveform* wave : c.All<Waveform>()) wizard.items.push_back(wave);
    }
    if (wizard.items.empty())
      return Usage("--op %s: there are no %s to process", row.key, songs ? "songs" : "waveforms");
    const ItemType first = wizard.items[0]->Type();
    if (songs ? first != ItemType::Song && first != ItemType::Track && first != ItemType::Collection
              : first != ItemType::Waveform)
      return Usage("--op %s: \"%s\" is not available for this selection", row.key, row.name);

    if (request.range) std::tie(rangeStart, rangeEnd) = *request.range;
    // A row that must have a range has the view's; one that may have it only
    // when this --op gives it.
    wizard.useRange = (row.flags & kOpRange) && (request.range || row.available == RangeActive);
    wizard.rangeStart = rangeStart;
    wizard.rangeEnd = rangeEnd;
    if (!row.available(wizard))
      return Usage("--op %s: \"%s\" is not available for this selection", row.key, row.name);

    for (const auto& [control, value] : request.values) OperationSetting(row.controls[control]) = value;
    wizard.run(row.name, true);
    for (const std::string& line : wizard.pageTexts) std::fprintf(out, "%s\n", line.c_str());
    if (wizard.failed) status = 1;
  }
  return status;
}

int RunProcessingOptions(const ProcessingOptions& options, ItemLookup lookup) {
  if (options.listOption && options.listOption->count() > 0) PrintOperationList(stdout, options.listFilter);
  if (!options.usageError.empty()) return Usage("%s", options.usageError.c_str());
  if (options.operations.empty()) {
    if (!options.select.empty()) return Usage("--select is for --op");
    return 0;
  }
  Collection& main = MainCollection();
  std::vector<Item*> selection;
  for (const std::string& text : options.select) {
    Item* item = lookup ? lookup(main, text) : nullptr;
    if (!item || item == &main) return Usage("--select: no item \"%s\"", text.c_str());
    selection.push_back(item);
  }
  return RunOperationRequests(main, selection, options.operations, stdout);
}

}  // namespace kv

#include "ui/listing.h"

#include <algorithm>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "core/midi_text.h"
#include "core/settings.h"
#include "formats/registry.h"

namespace kv {

namespace {

const char* TypeWord(ItemType t) {
  static const char* const kWords[] = {"waveform", "synth", "region", "layer", "instrument", "track", "song", "collection"};
  return kWords[static_cast<int>(t)];
}

// The listing of a large bank runs to ten thousand lines: they are built in
// one buffer and written in large pieces rather than through printf.
class Lines {
 public:
  explicit Lines(std::FILE* out) : out_(out) { text_.reserve(kFlushAt + 1024); }
  ~Lines() { Flush(); }
  Lines(const Lines&) = delete;
  Lines& operator=(const Lines&) = delete;

  Lines& operator<<(std::string_view s) {
    text_.append(s);
    return *this;
  }
  Lines& operator<<(const char* s) { return *this << std::string_view(s); }
  Lines& operator<<(char c) {
    text_.push_back(c);
    return *this;
  }
  Lines& operator<<(unsigned v) {
    char digits[16];
    text_.append(digits, std::to_chars(digits, digits + sizeof digits, v).ptr);
    return *this;
  }
  Lines& operator<<(int v) {
    char digits[16];
    text_.append(digits, std::to_chars(digits, digits + sizeof digits, v).ptr);
    return *this;
  }
  Lines& Hex8(uint32_t v) {
    static constexpr char kHex[] = "0123456789abcdef";
    for (int shift = 28; shift >= 0; shift -= 4) text_.push_back(kHex[(v >> shift) & 0xF]);
    return *this;
  }
  // printf's %.6g, for the rare loop points.
  Lines& General(float v) {
    char digits[32];
    const int n = std::snprintf(digits, sizeof digits, "%.6g", v);
    text_.append(digits, static_cast<std::size_t>(std::max(n, 0)));
    return *this;
  }
  // A whole line, newline included.
  void AppendLine(std::string_view line) {
    text_.append(line);
    if (text_.size() >= kFlushAt) Flush();
  }
  void EndLine() {
    text_.push_back('\n');
    if (text_.size() >= kFlushAt) Flush();
  }
  void Flush() {
    if (!text_.empty()) std::fwrite(text_.data(), 1, text_.size(), out_);
    text_.clear();
  }

  // Indent, type word, id and quoted name: the head of every line.
  Lines& Head(int depth, const Item& item) {
    text_.append(static_cast<std::size_t>(depth) * 2, ' ');
    *this << TypeWord(item.Type()) << ' ';
    Hex8(item.id) << " \"" << item.name << '"';
    return *this;
  }

 private:
  static constexpr std::size_t kFlushAt = 64 * 1024;
  std::FILE* out_;
  std::string text_;
};

}  // namespace

void PrintItemTree(std::FILE* out, const Collection& c, bool events) {
  Lines lines(out);
  lines.Head(0, c).EndLine();
  // Instruments in bank and program order, as a sampler shows them.
  std::vector<Instrument*> instruments = c.All<Instrument>();
  std::stable_sort(instruments.begin(), instruments.end(),
                   [](const Instrument* a, const Instrument* b) { return a->location < b->location; });
  for (Instrument* inst : instruments) {
    lines.Head(1, *inst) << " bank=" << unsigned{LocationMajorBank(inst->location)} << ':'
                         << unsigned{LocationMinorBank(inst->location)}
                         << " program=" << unsigned{LocationProgram(inst->location)}
                         << " drum=" << (LocationIsDrum(inst->location) ? 1 : 0);
    // What the file said that the model has no parameter for, never dropped
    // in silence.
    if (inst->unreadArticulation) lines << " unread_connections=" << unsigned{inst->unreadArticulation};
    lines.EndLine();
    for (ItemId layerId : inst->children) {
      auto* layer = c.FindAs<Layer>(layerId);
      if (!layer) continue;
      lines.Head(2, *layer).EndLine();
      for (ItemId regionId : layer->children) {
        auto* region = c.FindAs<Region>(regionId);
        if (!region) continue;
        const TriggerRecord& t = region->trigger;
        Waveform* wave = RegionWaveform(*region);
        lines.Head(3, *region) << " key=" << int{t.loKey} << '-' << int{t.hiKey} << " vel=" << int{t.loVel} << '-'
                               << int{t.hiVel} << " wave=\"" << (wave ? wave->name : "") << '"';
        // The link of a stereo or phase-locked group (a DLS wlnk).
        if (region->phaseGroup) {
          lines << " phase=" << unsigned{region->phaseGroup} << (region->phaseMaster ? " master" : "");
          const float pan = region->art.value[kRowPan];
          if (pan <= -1.0f) lines << " channel=left";
          if (pan >= 1.0f) lines << " channel=right";
        }
        lines.EndLine();
      }
    }
  }
  for (Waveform* wave : c.All<Waveform>()) {
    lines.Head(1, *wave) << " frames=" << unsigned{wave->length} << " rate=" << unsigned{wave->sampleRate}
                         << " channels=" << unsigned{wave->channels} << " bits=" << unsigned{wave->bits}
                         << " root=" << unsigned{wave->rootKey};
    if (wave->loopType) {
      lines << " loop=" << int{wave->loopType} << ':';
      lines.General(wave->loopStart) << '-';
      lines.General(wave->loopEnd);
    }
    if (const std::string coding = WaveCodingText(*wave); !coding.empty()) lines << " coding=\"" << coding << '"';
    lines.EndLine();
  }
  const auto& app = Settings().app;
  const ParamDisplay display{app.bShowNoteNames != 0, app.cOctMidC};
  for (Song* song : c.All<Song>()) {
    lines.Head(1, *song) << ' ' << MidiSongInfoText(song->format, song->division);
    lines.EndLine();
    for (ItemId trackId : song->children) {
      auto* track = c.FindAs<Track>(trackId);
      if (!track) continue;
      // The pane's text on one line.
      std::string info = MidiTrackInfoText(track->EventCount(), static_cast<uint32_t>(track->Events().size()),
                                           track->channelGroup, track->sequenceNumber);
      for (std::size_t at; (at = info.find("\n\n")) != std::string::npos;) info.replace(at, 2, "\n");
      std::replace(info.begin(), info.end(), '\n', ',');
      for (std::size_t at = 0; (at = info.find(',', at)) != std::string::npos; at += 2) info.insert(at + 1, " ");
      lines.Head(2, *track) << ' ' << info;
      lines.EndLine();
      if (!events) continue;
      lines << "      " << kMidiColumnTitles[0] << '\t' << kMidiColumnTitles[1] << '\t' << kMidiColumnTitles[2] << '\t'
            << kMidiColumnTitles[3];
      lines.EndLine();
      // A terminal or a pipe takes the whole track; the window's cap is for
      // an interactive list.
      ListMidiTrack(track->Events(), display, false, [&](const MidiEventRow& row) {
        char line[256];
        char* p = line;
        auto put = [&p](const char* text, std::size_t n, char after) {
          std::memcpy(p, text, n);
          p += n;
          *p++ = after;
        };
        put("      ", 6, '\0');
        --p;
        put(row.ticks, row.ticksLength, '\t');
        put(row.channel, row.channelLength, '\t');
        put(row.event, row.eventLength, '\t');
        put(row.parameters, row.parametersLength, '\n');
        lines.AppendLine(std::string_view(line, static_cast<std::size_t>(p - line)));
      });
    }
  }
}

void PrintSummary(std::FILE* out, const Collection& c) {
  std::fprintf(out, "Collection \"%s\"", c.name);
  if (!c.sourcePath.empty()) std::fprintf(out, " from %s", c.sourcePath.c_str());
  std::fprintf(out, "\n");
  static const ItemType kShown[] = {ItemType::Instrument, ItemType::Layer, ItemType::Region, ItemType::Waveform,
                                    ItemType::Song, ItemType::Track};
  for (ItemType t : kShown)
    if (c.Count(t)) std::fprintf(out, "  %u %s%s\n", c.Count(t), TypeWord(t), c.Count(t) == 1 ? "" : "s");
  std::vector<Instrument*> instruments = c.All<Instrument>();
  std::stable_sort(instruments.begin(), instruments.end(),
                   [](const Instrument* a, const Instrument* b) { return a->location < b->location; });
  for (Instrument* inst : instruments)
    std::fprintf(out, "  %s%3u:%-3u %3u  %s\n", LocationIsDrum(inst->location) ? "drum " : "bank ",
                 LocationMajorBank(inst->location), LocationMinorBank(inst->location), LocationProgram(inst->location),
                 inst->name);
}

std::vector<std::string> ItemCountLines(const Collection& c) {
  auto line = [](const char* title, uint32_t count, const std::string& detail) {
    return std::string(title) + (count ? std::to_string(count) + "\t" + detail : std::string("none"));
  };
  char text[160];
  std::snprintf(text, sizeof text, "(%u layers, %u regions)", c.Count(ItemType::Layer), c.Count(ItemType::Region));
  std::vector<std::string> lines{line("Instruments:\t", c.Count(ItemType::Instrument), text)};
  uint64_t bytes = 0;
  for (const Waveform* w : c.All<Waveform>()) bytes += w->SampleCount() * (w->samplesF || w->bits > 16 ? 4 : 2);
  // Thousands grouped by commas, whatever the locale.
  std::string kb = std::to_string(bytes / 1024);
  for (int at = static_cast<int>(kb.size()) - 3; at > 0; at -= 3) kb.insert(static_cast<std::size_t>(at), ",");
  std::snprintf(text, sizeof text, "(total %s KB / %.1f MB)", kb.c_str(), static_cast<double>(bytes) / 1048576.0);
  lines.push_back(line("Waveforms:\t", c.Count(ItemType::Waveform), text));
  std::snprintf(text, sizeof text, "(%u tracks)", c.Count(ItemType::Track));
  lines.push_back(line("Songs:\t", c.Count(ItemType::Song), text));
  return lines;
}

}  // namespace kv

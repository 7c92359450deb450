// The table of song operations and their pages. A selected Track is worked
// on alone, a Song means its tracks, a Collection its songs; other items are
// skipped. Tick rate and format work on whole songs only.
#include <cmath>
#include <cstdio>
#include <cstring>
#include <unordered_set>

#include "core/app.h"
#include "core/error.h"
#include "core/midi_merge.h"
#include "processing/midi_ops.h"
#include "processing/wizard.h"

namespace kv {

namespace {

template <typename Apply>
bool Page(ProcessingWizard& w, WizardPhase phase, Apply&& apply) {
  switch (phase) {
    case WizardPhase::Init: w.LoadPage(); return true;
    case WizardPhase::Command: return true;
    case WizardPhase::Run: w.StorePage(); return apply();
  }
  return true;
}

int ControlInt(const ProcessingWizard& w, int control) { return static_cast<int>(std::lround(w.Control(control).number)); }
bool ControlOn(const ProcessingWizard& w, int control) { return w.Control(control).number != 0.0; }

std::vector<Track*> TracksOf(const Song& song) {
  std::vector<Track*> out;
  for (ItemId id : song.children)
    if (Track* t = song.collection ? song.collection->FindAs<Track>(id) : nullptr) out.push_back(t);
  return out;
}

// The songs an item stands for: itself, or a collection's.
std::vector<Song*> SongsOf(Item* item) {
  if (item->Type() == ItemType::Song) return {static_cast<Song*>(item)};
  if (item->Type() == ItemType::Collection) return static_cast<Collection*>(item)->All<Song>();
  return {};
}

// Runs `fn` (Track& -> bool changed) over the tracks the items stand for;
// each song or lone track counts once in `modified`: always when
// `countAll`, else when a track of it changed.
template <typename Fn>
void ForEachTrackGroup(ProcessingWizard& w, bool countAll, Fn&& fn) {
  for (std::size_t i = 0; i < w.items.size(); ++i) {
    Item* item = w.items[i];
    if (item->Type() == ItemType::Track) {
      if (fn(*static_cast<Track*>(item)) || countAll) ++w.modified;
      continue;
    }
    for (Song* song : SongsOf(item)) {
      bool changed = false;
      for (Track* t : TracksOf(*song)) changed |= fn(*t);
      if (changed || countAll) ++w.modified;
    }
  }
}

// A track rewritten by `op` (span, TrackBytes&) -> bool; its data replaced
// only when something changed.
template <typename Op>
bool Rewrite(Track& track, Op&& op) {
  TrackBytes out;
  if (!op(std::span<const uint8_t>(track.Events()), out)) return false;
  track.SetEvents(std::move(out));
  return true;
}

// ---- Change tick rate ----

const PageControl kTickRateControls[] = {
    {"to", "to:", ControlType::Integer, 0, 65535, nullptr, 0, 480, nullptr},
};

// "Change tick rate from:" shows the first song's division.
bool TickRatePage(ProcessingWizard& w, WizardPhase phase, int) {
  if (phase == WizardPhase::Init) {
    w.LoadPage();
    if (w.direct) return true;
    for (Item* item : w.items)
      for (Song* song : SongsOf(item)) {
        char text[64];
        std::snprintf(text, sizeof text, "Change tick rate from: %d", song->division);
        w.pageTexts.assign(1, text);
        return true;
      }
    return true;
  }
  return Page(w, phase, [&] {
    const int rate = ControlInt(w, 0);
    if (rate < 1 || rate > 65535) return true;
    for (Item* item : w.items)
      for (Song* song : SongsOf(item)) {
        if (song->division & 0x8000) {
          MessageBox(std::string("\"") + std::string(song->Name()) +
                         "\" counts time in SMPTE frames and is left as it is.",
                     "Change tick rate");
          continue;
        }
        if (song->division == rate) continue;
        const double ratio = static_cast<double>(rate) / song->division;
        for (Track* t : TracksOf(*song))
          Rewrite(*t, [&](auto in, TrackBytes& out) { return RescaleTrackTicks(in, ratio, out); });
        song->division = static_cast<uint16_t>(rate);
        ++w.modified;
      }
    return true;
  });
}

// ---- Convert MIDI format ----

// The list shows one line a choice; the page's caption of the second is
// kFormat1PageText.
const char* const kFormatChoices[] = {"Format 0 (single track)", "Format 1 (multiple tracks)"};
const PageControl kFormatControls[] = {
    {"format", "", ControlType::Choice, 0, 0, kFormatChoices, 2, 0, nullptr},
};

void Adopt(Song& song, Track& track) {
  track.parentId = song.id;
  AddChild(song, track.id);
}

// All tracks merged into "Combined track".
bool ToFormat0(Song& song) {
  const std::vector<Track*> tracks = TracksOf(song);
  if (song.format == 0 || tracks.size() < 2) return false;
  TrackBytes merged;
  MergeSongTracks(song, merged);
  Track* combined = Create<Track>(*song.collection, "Combined track");
  combined->SetEvents(std::move(merged));
  for (Track* t : tracks) {
    song.children.remove(t->id);
    DeleteItem(t);
  }
  Adopt(song, *combined);
  song.format = 0;
  return true;
}

// The single track split: "Control Track", then "Track %d" per channel.
bool ToFormat1(Song& song) {
  const std::vector<Track*> tracks = TracksOf(song);
  if (tracks.size() != 1) return false;
  Track& source = *tracks[0];
  TrackBytes control;
  std::vector<TrackBytes> channels;
  SplitTrackByChannel(source.Events(), control, channels);
  if (!control.empty()) {
    Track* t = Create<Track>(*song.collection, "Control Track");
    t->channelGroup = source.channelGroup;
    t->SetEvents(std::move(control));
    Adopt(song, *t);
  }
  int number = 0;
  for (TrackBytes& bytes : channels) {
    if (bytes.empty()) continue;
    char name[32];
    std::snprintf(name, sizeof name, "Track %d", ++number);
    Track* t = Create<Track>(*song.collection, name);
    t->channelGroup = source.channelGroup;
    t->SetEvents(std::move(bytes));
    Adopt(song, *t);
  }
  song.children.remove(source.id);
  DeleteItem(&source);
  song.format = 1;
  return true;
}

bool FormatPage(ProcessingWizard& w, WizardPhase phase, int) {
  if (phase == WizardPhase::Init) {
    w.LoadPage();
    // For one song the page proposes the format it does not have.
    if (!w.direct && w.items.size() == 1 && w.items[0]->Type() == ItemType::Song && !w.pageValues.empty())
      w.pageValues[0].number = static_cast<Song*>(w.items[0])->format == 0 ? 1 : 0;
    if (!w.direct) w.pageTexts.assign(1, kFormat1PageText);
    return true;
  }
  return Page(w, phase, [&] {
    const int format = ControlInt(w, 0);
    for (Item* item : w.items)
      for (Song* song : SongsOf(item))
        if (format == 0 ? ToFormat0(*song) : ToFormat1(*song)) ++w.modified;
    return true;
  });
}

// ---- Filter MIDI messages ----

const PageControl kFilterControls[] = {
    {"sysex", "System Exclusive messages", ControlType::Flag, 0, 1, nullptr, 0, 0, nullptr},
    {"meta", "Meta events (except tempo && track name)", ControlType::Flag, 0, 1, nullptr, 0, 0, nullptr},
    {"aftertouch", "Aftertouch (both channel and poly)", ControlType::Flag, 0, 1, nullptr, 0, 0, nullptr},
    {"from", "From ch", ControlType::Integer, -999, 999, nullptr, 0, 1, nullptr},
    {"to", "to ch", ControlType::Integer, -999, 999, nullptr, 0, 16, nullptr},
};

bool FilterPage(ProcessingWizard& w, WizardPhase phase, int) {
  return Page(w, phase, [&] {
    MidiFilter f;
    f.sysEx = ControlOn(w, 0);
    f.meta = ControlOn(w, 1);
    f.aftertouch = ControlOn(w, 2);
    const int from = ControlInt(w, 3), to = ControlInt(w, 4);
    if (from < 1 || from > to || to > 16) return Fail("Filter MIDI messages", "Invalid channel range");
    f.firstChannel = from - 1;
    f.lastChannel = to - 1;
    ForEachTrackGroup(w, false, [&](Track& t) {
      return Rewrite(t, [&](auto in, TrackBytes& out) { return FilterTrack(in, f, out); });
    });
    return true;
  });
}

// ---- Compact MIDI file size ----

const PageControl kCompactControls[] = {
    {"duplicates", "Removing duplicate messages", ControlType::Flag, 0, 1, nullptr, 0, 1, nullptr},
    {"noteon", "Replacing Note-Off with Note-On + Vel 0", ControlType::Flag, 0, 1, nullptr, 0, 0, nullptr},
    {"merge", "Merging tracks (Convert to MIDI format 0)", ControlType::Flag, 0, 1, nullptr, 0, 0, nullptr},
};

bool CompactPage(ProcessingWizard& w, WizardPhase phase, int) {
  if (phase == WizardPhase::Init && !w.direct)
    w.pageTexts.assign(1, kCompactNote);
  return Page(w, phase, [&] {
    const bool duplicates = ControlOn(w, 0), noteOn = ControlOn(w, 1), merge = ControlOn(w, 2);
    ForEachTrackGroup(w, true, [&](Track& t) {
      return Rewrite(t, [&](auto in, TrackBytes& out) { return CompactTrack(in, duplicates, noteOn, out); });
    });
    // The merge option is off for lone tracks and for format 0 songs.
    if (merge)
      for (Item* item : w.items)
        for (Song* song : SongsOf(item)) ToFormat0(*song);
    return true;
  });
}

// ---- Fix compatibility issues & improve portability ----

const PageControl kFixControls[] = {
    {"banklsb",
     "Ensure that there are a 'Bank LSB' (CC 32) message to complement every 'Bank MSB' (CC 0) message. [Many synths "
     "require that both are present before to work correctly]",
     ControlType::Flag, 0, 1, nullptr, 0, 1, nullptr},
    {"program",
     "Ensure that there are a 'Program change' message before the first note of each MIDI channel. [Some synths wont "
     "play without it]",
     ControlType::Flag, 0, 1, nullptr, 0, 1, nullptr},
    {"nosysex", "Remove all MIDI System Exclusive messages. [Synthesizer specific messages]", ControlType::Flag, 0, 1,
     nullptr, 0, 0, nullptr},
    {"noteoff", "Replace Note-On velocity 0 messages with Note-Off messages. [Wider compatiblity]", ControlType::Flag,
     0, 1, nullptr, 0, 1, nullptr},
};

bool FixPage(ProcessingWizard& w, WizardPhase phase, int) {
  return Page(w, phase, [&] {
    FixOptions o;
    o.bankLsb = ControlOn(w, 0);
    o.programFirst = ControlOn(w, 1);
    o.dropSysEx = ControlOn(w, 2);
    o.noteOff = ControlOn(w, 3);
    std::unordered_set<uint32_t> locations;
    if (w.owner)
      for (Instrument* ins : w.owner->All<Instrument>()) locations.insert(ins->location);
    o.known = [&](uint32_t location) { return locations.count(location) != 0; };
    ForEachTrackGroup(w, true, [&](Track& t) {
      return Rewrite(t, [&](auto in, TrackBytes& out) { return FixTrack(in, o, out); });
    });
    return true;
  });
}

// ---- Replace Note-On with velocity 0 with Note-Off ----

bool NoteOffPage(ProcessingWizard& w, WizardPhase phase, int) {
  return Page(w, phase, [&] {
    ForEachTrackGroup(w, false, [](Track& t) { return Rewrite(t, VelocityZeroToNoteOff); });
    return true;
  });
}

// ---- Transpose notes ----

const PageControl kTransposeControls[] = {
    {"semitones", "Semitones:", ControlType::Integer, -9999, 9999, nullptr, 0, 0, nullptr},
    {"nodrums", "Exclude channel 10 (usually drums)", ControlType::Flag, 0, 1, nullptr, 0, 1, nullptr},
};

bool TransposePage(ProcessingWizard& w, WizardPhase phase, int) {
  return Page(w, phase, [&] {
    const int semitones = ControlInt(w, 0);
    const bool spareDrums = ControlOn(w, 1);
    if (semitones < -127 || semitones > 127)
      return Fail("Transpose notes", "The transpose value must be in the range of -127..127 semi-tones!");
    ForEachTrackGroup(w, true, [&](Track& t) {
      return Rewrite(t, [&](auto in, TrackBytes& out) { return TransposeTrack(in, semitones, spareDrums, out); });
    });
    return true;
  });
}

// ---- Trim start and/or length ----

const PageControl kTrimControls[] = {
    {"first-note", "Trim (cut) from start until first note event", ControlType::Flag, 0, 1, nullptr, 0, 1, nullptr},
    {"cut", "Trim (cut) the first:", ControlType::Flag, 0, 1, nullptr, 0, 0, nullptr},
    {"cut-seconds", "seconds", ControlType::Number, -1e9, 1e9, nullptr, 0, 0, nullptr},
    {"length", "Trim the length (duration) to:", ControlType::Flag, 0, 1, nullptr, 0, 0, nullptr},
    {"length-seconds", "seconds", ControlType::Number, -1e9, 1e9, nullptr, 0, 60, nullptr},
};

constexpr const char* kCropMessage = "The crop length must be larger than 0!";

// One cut for all `tracks`, timed through the tempo changes of `timing`
// (the whole song's tracks, also when one track alone is cut).
bool TrimTracks(const std::vector<Track*>& tracks, const std::vector<Track*>& timing, uint16_t division,
                bool firstNote, double cutSeconds, double lengthSeconds) {
  std::vector<std::span<const uint8_t>> bodies;
  for (Track* t : timing) bodies.emplace_back(t->Events());
  const TempoMap map(bodies, division);
  double start = cutSeconds > 0 ? cutSeconds : 0.0;
  if (firstNote) {
    double first = 1e10;
    for (const Track* t : tracks) {
      const uint64_t tick = FirstNoteTick(t->Events());
      if (tick != UINT64_MAX) first = std::min(first, map.Seconds(tick));
    }
    start = first < 1e10 ? first : 0.0;
  }
  const uint64_t cut = map.TickAt(start);
  const uint64_t end = lengthSeconds > 0 ? map.TickAt(map.Seconds(cut) + lengthSeconds) : kNoEnd;
  if (cut == 0 && end == kNoEnd) return false;
  bool changed = false;
  for (Track* t : tracks)
    changed |= Rewrite(*t, [&](auto in, TrackBytes& out) { return TrimTrack(in, cut, end, out); });
  return changed;
}

bool TrimPage(ProcessingWizard& w, WizardPhase phase, int control) {
  if (phase == WizardPhase::Command && control == 4 && w.pageValues.size() > 4 && w.pageValues[4].number <= 0) {
    w.pageValues[4].number = 1;
    MessageBox(kCropMessage, "Trim start and/or length");
    return true;
  }
  return Page(w, phase, [&] {
    const bool firstNote = ControlOn(w, 0), lengthOn = ControlOn(w, 3);
    const double cut = ControlOn(w, 1) ? w.Control(2).number : 0.0;
    double length = w.Control(4).number;
    if (lengthOn && length <= 0) {
      w.pageValues[4].number = 1;
      OperationSetting(kTrimControls[4]).number = 1;
      return Fail("Trim start and/or length", "%s", kCropMessage);
    }
    if (!lengthOn) length = 0;
    for (Item* item : w.items) {
      if (item->Type() == ItemType::Track) {
        auto* track = static_cast<Track*>(item);
        const Song* song = track->collection ? track->collection->FindAs<Song>(track->parentId) : nullptr;
        if (TrimTracks({track}, song ? TracksOf(*song) : std::vector<Track*>{track}, song ? song->division : 480,
                       firstNote, cut, length))
          ++w.modified;
        continue;
      }
      for (Song* song : SongsOf(item))
        if (TrimTracks(TracksOf(*song), TracksOf(*song), song->division, firstNote, cut, length)) ++w.modified;
    }
    return true;
  });
}

#define KV_CONTROLS(table) table, static_cast<int>(std::size(table))

const WizardOperation kSongOperations[] = {
    {"Change tick rate", 380, TickRatePage, AnySongs, 0, "tick-rate", KV_CONTROLS(kTickRateControls)},
    {"Compact MIDI file size", 387, CompactPage, AnySongsOrTracks, 0, "compact", KV_CONTROLS(kCompactControls)},
    {"Convert MIDI format", 381, FormatPage, AnySongs, 0, "midi-format", KV_CONTROLS(kFormatControls)},
    {"Filter MIDI messages", 382, FilterPage, AnySongsOrTracks, 0, "filter", KV_CONTROLS(kFilterControls)},
    {"Fix compatibility issues & improve portability", 385, FixPage, AnySongsOrTracks, 0, "fix-compatibility",
     KV_CONTROLS(kFixControls)},
    {"Replace Note-On with velocity 0 with Note-Off", 386, NoteOffPage, AnySongsOrTracks, kOpNoPage, "note-off",
     nullptr, 0},
    {"Transpose notes", 383, TransposePage, AnySongsOrTracks, 0, "transpose", KV_CONTROLS(kTransposeControls)},
    {"Trim start and/or length", 384, TrimPage, AnySongsOrTracks, 0, "trim-song", KV_CONTROLS(kTrimControls)},
    {nullptr, 0, nullptr, nullptr, 0, nullptr, nullptr, 0},
};

#undef KV_CONTROLS

}  // namespace

const WizardOperation* SongOperationTable() { return kSongOperations; }

// "song or collection with songs".
bool AnySongs(const ProcessingWizard& w) {
  for (Item* item : w.items)
    if (item->Type() == ItemType::Song ||
        (item->Type() == ItemType::Collection && static_cast<Collection*>(item)->Count(ItemType::Song)))
      return true;
  return false;
}

// "track, song or collection with songs".
bool AnySongsOrTracks(const ProcessingWizard& w) {
  for (Item* item : w.items)
    if (item->Type() == ItemType::Track) return true;
  return AnySongs(w);
}

}  // namespace kv

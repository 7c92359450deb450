#include "core/midi_text.h"

#include <algorithm>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "core/error.h"

namespace kv {
namespace {

// Appends into a fixed buffer, cutting what does not fit; always leaves room
// for the closing nul.
class TextOut {
 public:
  TextOut(char* out, std::size_t size) : begin_(out), p_(out), last_(out + size - 1) {}

  void Put(std::string_view s) {
    const std::size_t n = std::min(s.size(), static_cast<std::size_t>(last_ - p_));
    if (n == 0) return;
    std::memcpy(p_, s.data(), n);
    p_ += n;
  }
  void Int(long long v) {
    char text[24];
    Put(std::string_view(text, static_cast<std::size_t>(std::to_chars(text, text + sizeof text, v).ptr - text)));
  }
  void Printf(const char* format, ...) __attribute__((format(printf, 2, 3))) {
    va_list ap;
    va_start(ap, format);
    const int n = std::vsnprintf(p_, static_cast<std::size_t>(last_ - p_) + 1, format, ap);
    va_end(ap);
    if (n > 0) p_ += std::min(static_cast<std::size_t>(n), static_cast<std::size_t>(last_ - p_));
  }
  std::size_t Finish() {
    *p_ = 0;
    return static_cast<std::size_t>(p_ - begin_);
  }

 private:
  char* begin_;
  char* p_;
  char* last_;
};

// A payload byte, 0 past the end.
uint8_t At(const uint8_t* data, uint32_t length, uint32_t i) { return i < length ? data[i] : 0; }

const char* MakerText(uint8_t maker) {
  switch (maker) {
    case 0x07: return "<Kurzweil";
    case 0x18: return "<E-mu";
    case 0x41: return "<Roland";
    case 0x42: return "<Korg";
    case 0x43: return "<Yamaha";
    case 0x44: return "<Casio";
    case 0x47: return "<AKAI";
    default: return nullptr;
  }
}

void SysExText(TextOut& out, const uint8_t* data, uint32_t n) {
  const uint8_t maker = At(data, n, 0);
  const uint8_t sub = At(data, n, 2);
  if (maker == 0x7E && n >= 5 && sub == 9) {
    const uint8_t mode = data[3];
    out.Printf("<GM Reset: %s>", mode == 1 ? "GM1" : mode == 2 ? "Off" : mode == 3 ? "GM2" : "");
  } else if (maker == 0x7E && n == 5) {
    out.Printf("<GM message %2X, %2X>", sub, data[3]);
  } else if (maker == 0x7E && n > 5) {
    out.Printf("<GM message %2X, %u Bytes>", sub, n);
  } else if (maker == 0x7F) {
    out.Printf("<GM realtime, %u Bytes>", n);
  } else if (maker == 0x43 && n >= 7 && sub == 76) {
    out.Printf("<Yamaha XG, %u Bytes>", n);
  } else if (maker == 0x41 && n >= 8 && sub == 66) {
    // Bytes counted from 1 at the maker, as the sub-id is the third: a
    // data-set (0x12) at 40 0p 15, with the mode after it.
    if (data[3] == 0x12 && data[4] == 0x40 && data[5] < 16 && data[6] == 21)
      out.Printf("<Roland GS, Part %d mode=%d>", data[5], data[7]);
    else
      out.Printf("<Roland GS, %u Bytes>", n);
  } else {
    if (const char* text = MakerText(maker)) out.Put(text);
    else out.Printf("<Mfid: %2X", maker);
    out.Printf(" %2X, %u Bytes>", sub, n);
  }
}

void MetaValueText(TextOut& out, uint8_t type, const uint8_t* data, uint32_t n) {
  switch (type) {
    case 0x00:
      out.Int(At(data, n, 0) << 8 | At(data, n, 1));
      return;
    case 0x01: case 0x02: case 0x03: case 0x04: case 0x05: case 0x06: case 0x07: {
      // The column is a C string: a nul in the text ends it.
      const uint32_t cut = std::min<uint32_t>(n, 99);
      if (cut == 0) return;
      const void* nul = std::memchr(data, 0, cut);
      out.Put(std::string_view(reinterpret_cast<const char*>(data),
                               nul ? static_cast<const uint8_t*>(nul) - data : cut));
      return;
    }
    case 0x20:
    case 0x21:
      out.Int(At(data, n, 0));
      return;
    case 0x2F:
      return;
    case 0x51: {
      const uint32_t micros = At(data, n, 0) << 16 | At(data, n, 1) << 8 | At(data, n, 2);
      out.Printf("%.5f ms/4th", micros / 1000.0);
      if (micros != 0) out.Printf(" (%d bpm)", static_cast<int>(60000000.0 / micros + 0.499));
      return;
    }
    case 0x54:
      out.Printf("%d:%d:%d:%d:%d", At(data, n, 0), At(data, n, 1), At(data, n, 2), At(data, n, 3),
                 At(data, n, 4));
      return;
    case 0x58: {
      // A denominator past 30 has no power of two in an int; it shows as 0.
      const uint8_t d = At(data, n, 1);
      out.Printf("%d/%d, %d ticks/click, %d", At(data, n, 0), d < 31 ? 1 << d : 0, At(data, n, 2),
                 At(data, n, 3));
      return;
    }
    case 0x59: {
      const int sf = static_cast<int8_t>(At(data, n, 0));
      if (sf < 0) out.Printf("%d flats ", -sf);
      else if (sf > 0) out.Printf("%d sharps ", sf);
      else out.Put("C ");
      out.Put(At(data, n, 1) == 0 ? "major" : "minor");
      return;
    }
    default:
      out.Printf("<%u Bytes>", n);
      return;
  }
}

void NoteText(TextOut& out, int key, int value, const ParamDisplay& display) {
  char name[kNoteNameSize];
  out.Put(std::string_view(name, NoteNameTo(name, key, display)));
  out.Put(", ");
  out.Int(value);
}

}  // namespace

const char* MidiStatusName(uint8_t status) {
  switch (status) {
    case 0x80: return "Note Off";
    case 0x90: return "Note On";
    case 0xA0: return "Poly Press";
    case 0xB0: return "Control Chg";
    case 0xC0: return "Program Chg";
    case 0xD0: return "Ch Pressure";
    case 0xE0: return "Pitch Bend";
    case 0xF0: return "SysEx";
    case 0xF1: return "Time Code";
    case 0xF2: return "Song Pos";
    case 0xF3: return "Song Select";
    case 0xF6: return "Tune Req";
    case 0xF7: return "SysEx Cont";
    case 0xFF: return "Meta event";
    default: return "";
  }
}

const char* MidiControllerName(int controller) {
  switch (controller) {
    case 0: return "Bank MSB";
    case 1: return "Modulation";
    case 2: return "Breath";
    case 4: return "Foot pedal";
    case 5: return "Porta. time";
    case 6: return "Data MSB";
    case 7: return "Volume";
    case 8: return "Balance";
    case 10: return "Pan";
    case 11: return "Expression";
    case 32: return "Bank LSB";
    case 33: return "Modulation LSB";
    case 34: return "Breath LSB";
    case 36: return "Foot pedal LSB";
    case 37: return "Porta. time LSB";
    case 38: return "Data LSB";
    case 39: return "Volume LSB";
    // 40 stays a number: the list has never named it.
    case 42: return "Pan LSB";
    case 43: return "Expression LSB";
    case 64: return "Hold 1 Pedal";
    case 65: return "Portamento Pedal";
    case 66: return "Sostenuto Pedal";
    case 67: return "Soft Pedal";
    case 68: return "Legato Pedal";
    case 69: return "Hold 2 Pedal";
    case 91: return "Effect 1 (reverb) depth";
    case 92: return "Effect 2 (tremolo) depth";
    case 93: return "Effect 3 (chorus) depth";
    case 94: return "Effect 4 (celeste) depth";
    case 95: return "Effect 5 (phaser) depth";
    case 96: return "Data Inc";
    case 97: return "Data Dec";
    case 98: return "NRPN LSB";
    case 99: return "NRPN MSB";
    case 100: return "RPN LSB";
    case 101: return "RPN MSB";
    case 120: return "All Sounds Off";
    case 121: return "Reset All Ctrls";
    case 122: return "Local keyboard";
    case 123: return "All Notes Off";
    case 124: return "Omni Off";
    case 125: return "Omni On";
    case 126: return "Monophonic";
    case 127: return "Polyphonic";
    default: return nullptr;
  }
}

const char* MidiMetaName(uint8_t type) {
  switch (type) {
    case 0x00: return "Sequence no";
    case 0x01: return "Text";
    case 0x02: return "Copyright";
    case 0x03: return "Track name";
    case 0x04: return "Instrument";
    case 0x05: return "Lyric";
    case 0x06: return "Marker";
    case 0x07: return "Cue point";
    case 0x20: return "Channel prefix";
    case 0x21: return "Channel group";
    case 0x2F: return "End of Track";
    case 0x51: return "Tempo";
    case 0x54: return "SMPTE Offset";
    case 0x58: return "Time signature";
    case 0x59: return "Key signature";
    case 0x7F: return "Seq. specific";
    default: return nullptr;
  }
}

std::size_t MidiSysExText(char* out, std::size_t size, const uint8_t* data, uint32_t length) {
  TextOut text(out, size);
  SysExText(text, data, length);
  return text.Finish();
}

std::size_t MidiMetaValueText(char* out, std::size_t size, uint8_t type, const uint8_t* data,
                              uint32_t length) {
  TextOut text(out, size);
  MetaValueText(text, type, data, length);
  return text.Finish();
}

namespace {

// "%.5f" of v / 8192 without printf, which a listing of millions of bends
// feels: v / 8192 * 1e5 is v * 3125 / 256 exactly, rounded half to even as
// printf rounds.
void BendText(TextOut& text, int v) {
  const bool negative = v < 0;
  const int64_t scaled = int64_t{negative ? -v : v} * 3125;
  int64_t q = scaled / 256;
  const int64_t r = scaled % 256;
  if (r > 128 || (r == 128 && (q & 1))) ++q;
  char digits[16];
  int n = 0;
  for (int i = 0; i < 5; ++i, q /= 10) digits[n++] = static_cast<char>('0' + q % 10);
  digits[n++] = '.';
  do digits[n++] = static_cast<char>('0' + q % 10);
  while ((q /= 10) > 0);
  if (negative) digits[n++] = '-';
  char forward[16];
  for (int i = 0; i < n; ++i) forward[i] = digits[n - 1 - i];
  text.Put(std::string_view(forward, static_cast<std::size_t>(n)));
}

}  // namespace

std::size_t MidiParameterText(char* out, std::size_t size, const MidiEvent& e, const ParamDisplay& display) {
  TextOut text(out, size);
  switch (e.status) {
    case 0x80:
    case 0x90:
    case 0xA0:
      NoteText(text, e.data1, e.data2, display);
      break;
    case 0xB0:
      if (const char* name = MidiControllerName(e.data1)) {
        text.Put(name);
      } else {
        text.Put("CC");
        text.Int(e.data1);
      }
      text.Put(", ");
      text.Int(e.data2);
      break;
    case 0xC0:
    case 0xD0:
    case 0xF3:
      text.Int(e.data1);
      break;
    case 0xE0:
      BendText(text, (e.data2 - 64) * 128 + e.data1);
      break;
    case 0xF0:
    case 0xF7:
      SysExText(text, e.payload, e.length);
      break;
    case 0xF1:
      text.Printf("msg: %d, value: %d", e.data1 >> 4, e.data1 & 0x0F);
      break;
    case 0xF2:
      // First byte high: the order the list has always shown.
      text.Int(e.data1 * 128 + e.data2);
      break;
    case 0xFF:
      if (const char* name = MidiMetaName(e.metaType)) text.Put(name);
      else text.Printf("<id %d>", e.metaType);
      if (e.metaType != 0x2F) {
        text.Put(": ");
        MetaValueText(text, e.metaType, e.payload, e.length);
      }
      break;
    default:
      break;
  }
  return text.Finish();
}

void FillMidiEventRow(MidiEventRow& row, uint64_t ticks, const MidiEvent& e, const ParamDisplay& display) {
  char* end = std::to_chars(row.ticks, row.ticks + sizeof row.ticks - 1, ticks).ptr;
  *end = 0;
  row.ticksLength = static_cast<uint8_t>(end - row.ticks);
  end = row.channel;
  if (e.status < 0xF0) end = std::to_chars(row.channel, row.channel + sizeof row.channel - 1, e.channel + 1).ptr;
  *end = 0;
  row.channelLength = static_cast<uint8_t>(end - row.channel);
  row.event = MidiStatusName(e.status);
  row.eventLength = static_cast<uint8_t>(std::strlen(row.event));
  row.parametersLength = static_cast<uint16_t>(MidiParameterText(row.parameters, sizeof row.parameters, e, display));
}

void FillMidiMoreRow(MidiEventRow& row) {
  auto put = [](char* field, std::size_t size, const char* text) {
    const int n = std::snprintf(field, size, "%s", text);
    return static_cast<std::size_t>(std::clamp(n, 0, static_cast<int>(size) - 1));
  };
  row.ticksLength = static_cast<uint8_t>(put(row.ticks, sizeof row.ticks, kMidiMoreTicks));
  row.channelLength = static_cast<uint8_t>(put(row.channel, sizeof row.channel, "..."));
  row.event = "...";
  row.eventLength = 3;
  row.parametersLength = static_cast<uint16_t>(put(row.parameters, sizeof row.parameters, kMidiMoreText));
}

std::string MidiTrackInfoText(uint32_t events, uint32_t bytes, int channelGroup, int sequenceNumber) {
  char text[96];
  std::snprintf(text, sizeof text, "%u events\n%u Bytes\n\nCh-group: %d\nSeq-no: %d", events, bytes, channelGroup,
                sequenceNumber);
  return text;
}

std::string MidiSongInfoText(int format, uint16_t division) {
  static constexpr const char* kFormats[] = {"single track", "multi track", "patterns"};
  char text[96];
  TextOut out(text, sizeof text);
  out.Printf("Format %d (%s), ", format, format >= 0 && format <= 2 ? kFormats[format] : "unknown");
  if (division & 0x8000) out.Printf("%d ticks/frame, %d frames/s", division & 0xFF, (division >> 8) & 0x7F);
  else out.Printf("%d ticks/4th", division);
  return std::string(text, out.Finish());
}

bool ParseMidiHex(std::string_view text, std::vector<uint8_t>& out) {
  out.clear();
  int high = -1;  // the first digit of a pair under way
  for (const char c : text) {
    int digit = -1;
    if (c >= '0' && c <= '9') digit = c - '0';
    else if (c >= 'a' && c <= 'f') digit = c - 'a' + 10;
    else if (c >= 'A' && c <= 'F') digit = c - 'A' + 10;
    if (digit < 0) {
      // A blank may stand between pairs, never inside one.
      const bool blank = c == ' ' || c == '\t' || c == '\n' || c == '\r';
      if (blank && high < 0) continue;
      out.clear();
      return Fail("Edit event", "Malformed Hex data!");
    }
    if (high < 0) {
      high = digit;
    } else {
      out.push_back(static_cast<uint8_t>(high << 4 | digit));
      high = -1;
    }
  }
  if (high < 0) return true;
  out.clear();
  return Fail("Edit event", "Malformed Hex data!");
}

bool CheckEventEdit(uint8_t status, uint8_t metaType) {
  if (status == 0xFF && metaType == 0x2F) return Fail("Edit event", "%s", kMidiEndOfTrackRefusal);
  return true;
}

}  // namespace kv

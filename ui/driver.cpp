// The command-line driver: `kelvo [switches] FILE... [command options]`.
//
// Arguments follow the program's own rules first: "-NOMSG" and "-BATCH"
// (also "/NOMSG", "/BATCH", any case) are switches, any other "/..." is a
// path, "--" ends the options. Long options ("--list") are parsed by CLI11.
#include "ui/driver.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cmath>
#include <cstdlib>
#include <new>

#include "core/app.h"
#include "core/error.h"
#include "core/settings.h"
#include "core/text.h"
#include "formats/import.h"
#include "formats/modules/txt.h"
#include "formats/export.h"
#include "formats/import.h"
#include "formats/registry.h"
#include "ui/commands.h"
#include "ui/listing.h"
#include "ui/playback_cli.h"
#include "ui/processing_cli.h"
#include "ui/interrupt.h"
#include "ui/song_render.h"

namespace kv {

namespace fs = std::filesystem;

namespace {

void OutOfMemory() {
  if (MessageBoxesEnabled) std::fputs("Out of memory - Kelvo Studio will terminate\n", stderr);
  std::_Exit(0);
}

void PrintStatus(const std::string& text) {
  // Progress texts are noise on a terminal; results are not.
  static const char* const kProgress[] = {"Reading", "Fixing up", "Opened:", "Merged:", "Writing",
                                          "Saving",  "Rendering", "Normalizing", "Finding loop"};
  if (text.empty() || text.ends_with(" %")) return;
  for (const char* word : kProgress)
    if (text.starts_with(word)) return;
  std::printf("%s\n", text.c_str());
}

bool IsProgramSwitch(std::string_view arg, std::string_view word) {
  if (arg.size() != word.size() + 1 || (arg[0] != '-' && arg[0] != '/')) return false;
  return EqualsNoCase(arg.substr(1), word);
}

// A small collection for a first run: one instrument on a generated sine.
void BuildDemoCollection(Collection& c) {
  c.Clear();
  c.SetName("Demo collection");
  auto* wave = Create<Waveform>(c, "Sine A4");
  wave->sampleRate = 44100;
  wave->length = 44100;
  wave->channels = 1;
  wave->rootKey = 69;
  wave->loopType = 1;
  wave->loopStart = 0.0f;
  wave->loopEnd = 44100.0f;
  wave->samples16 = std::make_unique<int16_t[]>(wave->length);
  for (uint32_t i = 0; i < wave->length; ++i) {
    double phase = 2.0 * 3.14159265358979323846 * 440.0 * i / 44100.0;
    wave->samples16[i] = static_cast<int16_t>(16000.0 * std::sin(phase));
  }
  auto* inst = Create<Instrument>(c, "Sine lead");
  inst->location = MakeLocation(0, 0, 80, false);
  Layer* layer = AddLayer(*inst);
  AddRegion(*layer, wave->id, MakeRange(0, 127), MakeRange(0, 127), 255);
  FixUpItems(c, 0xFF, false);
}

Item* FindItemByText(Collection& c, const std::string& text) {
  if (text.starts_with("0x") || text.starts_with("0X")) {
    char* end = nullptr;
    unsigned long id = std::strtoul(text.c_str() + 2, &end, 16);
    if (end && *end == 0) return c.Find(static_cast<ItemId>(id));
  }
  Item* found = nullptr;
  c.Map().ForEach([&](Item* item) {
    if (!found && item != &c && item->Name() == text) found = item;
  });
  return found;
}

// --replace-waves, --save and --save-all, in that order. False when one failed
// (its error already shown).
bool RunSaveOptions(const std::string& saveOut, const std::string& saveItem, SaveOptions saveOptions,
                    const std::string& saveAllBase, int mode, bool subdirs, const std::string& onExistsText,
                    const std::vector<std::string>& replaceWaves) {
  Collection& main = MainCollection();
  OnExists policy = OnExists::Overwrite;
  if (!ParseOnExists(onExistsText, policy)) {
    Fail("File Export", "--on-exists must be overwrite, skip or cancel, not \"%s\"", onExistsText.c_str());
    ShowErrorBox();
    return false;
  }
  saveOptions.onExists = policy;
  bool ok = true;
  if (!replaceWaves.empty()) {
    int replaced = 0;
    for (const std::string& f : replaceWaves) {
      if (OpenFile(f, OpenMode::ReplaceWaves, false)) {
        replaced += TakeReplacedCount();
      } else {
        ShowErrorBox();
        ok = false;
      }
    }
    StatusText("Replaced %d waveform%s", replaced, replaced == 1 ? "" : "s");
  }
  if (!saveOut.empty()) {
    Item* item = nullptr;
    if (!saveItem.empty() && !(item = FindItemByText(main, saveItem))) {
      Fail("File Export", "No item \"%s\"", saveItem.c_str());
      ShowErrorBox();
      return false;
    }
    if (!SaveCollectionOrItem(main, item, saveOut, saveOptions)) {
      ShowErrorBox();
      ok = false;
    }
  }
  if (!saveAllBase.empty()) {
    int saved = 0;
    if (!SaveAllItems(main, saveAllBase, mode, subdirs, policy, saved, saveOptions.format)) {
      ShowErrorBox();
      ok = false;
    }
  }
  return ok;
}

}  // namespace

int RunDriver(std::vector<std::string> args) {
  std::set_new_handler(OutOfMemory);
  SetStatusSink(PrintStatus);
  InstallInterruptHandler();
  // Ctrl+C is the command line's Esc key for long searches.
  SetCancelPoll(Interrupted);
  InstallSongRendering();
  LoadSettings();

  // The program's own argument scan. argv[0] is skipped by position.
  std::vector<std::string> cliArgs;
  std::vector<fs::path> files;
  bool batch = false;
  ProcessingOptions processing;
  bool endOfOptions = false;
  for (std::size_t i = 1; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (endOfOptions) {
      files.emplace_back(arg);
      continue;
    }
    if (arg == "--") {
      endOfOptions = true;
      continue;
    }
    if (TakeOperationArgs(args, i, processing)) continue;
    if (IsProgramSwitch(arg, "NOMSG")) {
      // Only before -BATCH, as the first scan stops there.
      if (!batch) MessageBoxesEnabled = 0;
      continue;
    }
    if (IsProgramSwitch(arg, "BATCH")) {
      batch = true;
      continue;
    }
    if (arg.starts_with("--") || arg == "-h") {
      cliArgs.push_back(arg);
      continue;
    }
    if (arg.starts_with("-")) {
      std::fprintf(stderr, "Ignored: %s\n", arg.c_str());
      continue;
    }
    cliArgs.push_back(arg);
  }
  SetSkippedBoxesQuiet(MessageBoxesEnabled == 0);

  CLI::App app{"Kelvo Studio: converts, edits and plays sampler instruments and sounds.", "kelvo"};
  app.set_version_flag("--version", std::string(kProgramTitle) + " (build " + BuildVersion() + ")");
  DriverOptions opt;
  std::vector<std::string> positional;
  app.add_option("files", positional, "Files or folders to open (the first replaces, later ones merge)");
  app.add_flag("--list", opt.list, "Print the item tree of the loaded collection");
  app.add_flag("--events", opt.listEvents, "With --list: every event of every track");
  app.add_flag("--params", opt.listParams, "With --list: every parameter set at each level, as the txt writer puts it");
  app.add_option("--formats", opt.formatsFilter, "List the known formats, optionally filtered")
      ->expected(0, 1)
      ->default_str("");
  app.add_flag("--info", opt.info, "Detect each file's format instead of loading it");
  app.add_flag("--count", opt.count, "Print the item counts of the loaded collection, as the window's Item count shows them");
  app.add_flag("--demo", opt.demo, "Load the default General MIDI bank, or a built-in demo, and list it");
  app.add_option("--command", opt.commands,
                 "Run a collection command by its menu number after loading (109-111, 115, 128, 138, 149, 154, 155, 185)");
  app.add_flag("--settings", opt.printSettings, "Print the effective settings");
  app.add_option("--set", opt.settings, "Change a setting for this run (name=value)");
  app.add_flag("--save-settings", opt.saveSettings, "Write the settings back to the settings file");
  // Saving, after loading and commands.
  std::string saveOut, saveItem, saveAllBase, onExistsText = "overwrite";
  SaveOptions saveOptions;
  int saveAllMode = Settings().sall.iMode;
  bool saveAllSubdirs = Settings().sall.bSubDirs != 0;
  std::vector<std::string> replaceWaves;
  app.add_option("--save", saveOut, "Save the collection (or --item) to this file");
  app.add_option("--format", saveOptions.format, "With --save or --save-all: writer row number, extension or name");
  app.add_option("--data-format", saveOptions.dataFormat, "With --save: sample coding, e.g. \"PCM 16-bit\"");
  app.add_option("--channels", saveOptions.channels, "With --save: auto, mono or stereo");
  app.add_option("--rate", saveOptions.rateKbps, "With --save: kbit/s for compressed formats");
  app.add_option("--item", saveItem, "With --save: the item to save, by id (0x...) or name");
  app.add_option("--save-all", saveAllBase, "Save all items in multiple files named from BASE.EXT");
  app.add_option("--mode", saveAllMode, "With --save-all: naming mode 210-218");
  app.add_flag("--subdirs", saveAllSubdirs, "With --save-all: each file in a folder of its own name");
  bool linkShared = false;
  app.add_flag("--link-shared-waves", linkShared,
               "With --save-all: a wave that several files keep in their own folders is one file hard-linked into "
               "each, where the file system can't clone it (an in-place edit then shows in every folder)");
  app.add_option("--on-exists", onExistsText, "When a target exists: overwrite, skip or cancel");
  app.add_option("--replace-waves", replaceWaves, "Replace loaded waveforms by those of the same name in these files");
  AddProcessingOptions(app, processing);
  PlaybackOptions playback;
  AddPlaybackOptions(app, playback);
  try {
    app.parse(static_cast<int>(cliArgs.size() + 1), [&] {
      static std::vector<const char*> argv;
      argv.clear();
      argv.push_back("kelvo");
      for (const std::string& a : cliArgs) argv.push_back(a.c_str());
      return argv.data();
    }());
  } catch (const CLI::ParseError& e) {
    // CLI11 reports through exceptions; they end here and go no further.
    int code = app.exit(e);
    return code == 0 ? 0 : 2;
  }
  opt.formatsRequested = app.count("--formats") > 0;

  if (batch) {
    Fail("Batch conversion", "Batch conversion is not available in this build.");
    ShowErrorBox();
    return 1;
  }

  for (const std::string& p : positional) {
    // Anything with ".exe" in its path is a program, not data: a desktop launcher
    // may hand one over as the first argument.
    if (p.find(".exe") != std::string::npos) {
      std::fprintf(stderr, "Ignored: %s\n", p.c_str());
      continue;
    }
    files.emplace_back(p);
  }

  for (const std::string& assignment : opt.settings) {
    std::size_t eq = assignment.find('=');
    if (eq == std::string::npos || !SetSettingText(assignment.substr(0, eq), assignment.substr(eq + 1))) {
      if (eq == std::string::npos) Fail("Settings", "Expected name=value, got \"%s\"", assignment.c_str());
      std::fprintf(stderr, "%s: %s\n", ErrorContext, ErrorMessage);
      return 2;
    }
  }

  int status = 0;
  if (opt.formatsRequested) PrintFormatList(stdout, opt.formatsFilter);
  if (opt.printSettings) PrintSettings(stdout);

  if (opt.info) {
    for (const fs::path& f : files)
      if (!PrintFileInfo(stdout, f)) {
        ShowErrorBox();
        status = 1;
      }
  } else if (opt.demo) {
    Collection& main = MainCollection();
    fs::path bank = Settings().mid2wav.wszGMBank;
    bool loaded = false;
    if (!bank.empty() && fs::exists(bank) && FindReaderByPath(bank.string()) >= 0) {
      loaded = OpenFile(bank, OpenMode::Replace, true);
      if (!loaded) ShowErrorBox();
    }
    if (!loaded) BuildDemoCollection(main);
    PrintSummary(stdout, main);
  } else {
    if (OpenFileList(files) > 0) status = 1;
    for (int number : opt.commands) {
      if (!RunCollectionCommand(number)) {
        ShowErrorBox();
        status = 1;
      }
    }
    if (const int code = RunProcessingOptions(processing, FindItemByText); code == 2) return 2;
    else if (code) status = code;
    SetHardLinkSharedFiles(linkShared);
    if (!RunSaveOptions(saveOut, saveItem, saveOptions, saveAllBase, saveAllMode, saveAllSubdirs, onExistsText,
                        replaceWaves))
      status = 1;
    Item* chosen = saveItem.empty() ? nullptr : FindItemByText(MainCollection(), saveItem);
    if (const int code = RunPlaybackOptions(playback, MainCollection(), chosen)) status = code;
    if (opt.list && opt.listParams) {
      std::string text = ParameterDescription(MainCollection());
      std::fwrite(text.data(), 1, text.size(), stdout);
    } else if (opt.list) {
      PrintItemTree(stdout, MainCollection(), opt.listEvents);
    }
    if (opt.count)
      for (const std::string& line : ItemCountLines(MainCollection())) std::printf("%s\n", line.c_str());
  }

  if (opt.saveSettings && !SaveSettings()) {
    std::fprintf(stderr, "%s: %s\n", ErrorContext, ErrorMessage);
    status = 1;
  }
  return status;
}

}  // namespace kv

// The fix-up: one pass that makes a collection consistent after a reader or
// an edit, and the hand-overs through which a reader of a large bank lets
// finished instrument trees be settled on other cores while it reads on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "core/items.h"

namespace kv {

class EarlySettle;

// Removal bits are 1 << ItemType; an import passes 0xFF, an export the types
// below the saved item's own. `loadOptions` applies the load settings; of
// them, merging mono pairs into stereo waves is skipped when the file the
// items came from can hold stereo (its halves were kept apart on purpose).
void FixUpItems(Collection& collection, uint8_t removal, bool loadOptions, bool sourceHoldsStereo = false);

// The same normalising and removal for one item's own tree (an instrument
// with its layers and regions, and the waveforms it plays) when only that
// item is about to be written: a save of one instrument needn't walk the
// whole collection. A collection goes through FixUpItems.
void FixUpItemTree(Item& root, uint8_t removal);

// For readers of large banks, to be called while their read function runs.
// ExpectItems tells about how many items the reader is about to make;
// InstrumentDone hands over an instrument whose layers and regions are
// complete and that the reader won't touch again. While it reads on, the
// fix-up settles such trees on the machine's other cores. Outside a read
// session, or for a collection other than the session's, both do nothing.
void ExpectItems(Collection& collection, std::size_t count);
void InstrumentDone(Collection& collection, Instrument& instrument);

// One reader's run over `collection` on this thread, for the import route:
// made before the read function is called, told how the read went, then
// (after a good read) the fix-up with the load options. Sessions nest when a
// reader imports a referenced file.
class ReadSession {
 public:
  explicit ReadSession(Collection& collection);
  ~ReadSession();
  ReadSession(const ReadSession&) = delete;
  ReadSession& operator=(const ReadSession&) = delete;

  // Ends the hand-overs: after a good read the trees still queued are
  // settled, after a failed one the workers just stop.
  void ReadDone(bool ok);
  // FixUpItems(collection, 0xFF, true, sourceHoldsStereo), skipping the trees
  // already settled.
  void FixUp(bool sourceHoldsStereo);

 private:
  std::unique_ptr<EarlySettle> early_;
  EarlySettle* outer_;
  bool reading_ = true;
};

// A large collection whose instruments share no layers or regions has its
// instrument trees fixed up side by side on the machine's cores. Turned off,
// every item goes one by one; the results are the same either way.
void SetSideBySideFixUp(bool enabled);

// Sort modes the load options ask of the views: the collection tree's (1
// after a load with load.bAutoSortColl) and the waveform list's (2 with
// load.bAutoSortWaves); 0 until a load sets them. The views read them.
int& CollectionSortMode();
int& WaveformSortMode();

}  // namespace kv

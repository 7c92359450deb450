// The processing wizard on the command line: `--ops [FILTER]` lists the
// operation tables, `--op NAME [key=value ...]` runs an operation after
// loading and before saving, `--select ITEM` chooses what it works on.
//
// Each --op is ProcessingWizard::run(name, direct) with its keys put into the
// operation's settings first: the path of the window's Finish, not a second
// implementation of any operation.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace kv {

class Collection;
class Item;

// One --op: the operation's key or exact name (any case) and its key=value
// tokens, as given.
struct OperationRequest {
  std::string name;
  std::vector<std::string> assignments;
};

struct ProcessingOptions {
  std::vector<OperationRequest> operations;
  std::vector<std::string> select;  // --select, in order
  std::string listFilter;           // --ops FILTER
  CLI::Option* listOption = nullptr;
  std::string usageError;           // a --op the pre-scan couldn't take
};

// The driver's pre-scan: when args[i] is "--op", takes it, the NAME after it
// and the key=value tokens behind that (so files may stand anywhere), and
// leaves `i` on the last token taken. True when it took something.
bool TakeOperationArgs(const std::vector<std::string>& args, std::size_t& i, ProcessingOptions& options);

// Adds --ops and --select to the driver's argument table.
void AddProcessingOptions(CLI::App& app, ProcessingOptions& options);

// How the driver finds an item by name or 0xID.
using ItemLookup = Item* (*)(Collection& collection, const std::string& text);

// After loading, before saving: prints the --ops list, then runs every --op in
// order on the main collection. Returns 0; 1 when an item failed (reported as
// "Context: message" on stderr, the run goes on); 2 for bad usage (an unknown
// operation or key, a bad or out-of-range value, a row the selection doesn't
// offer, no waves), with nothing run after it.
int RunProcessingOptions(const ProcessingOptions& options, ItemLookup lookup);

// The --op entry on any collection (the fuzzer's too): runs `requests` in
// order on `selection`, or, when it is empty, on all waveforms of `collection`
// as they are at each operation's turn. Statistics go to `out`. Return codes
// as above.
int RunOperationRequests(Collection& collection, const std::vector<Item*>& selection,
                         const std::vector<OperationRequest>& requests, std::FILE* out);

// --ops: per row its key, name, page, availability and flags, and per control
// its key, type, default and range or choices. `filter` (any case) keeps rows
// whose key or name contains it.
void PrintOperationList(std::FILE* out, const std::string& filter);

}  // namespace kv

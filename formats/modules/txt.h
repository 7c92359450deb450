// Plain-text parameter descriptions: a readable dump of any item's tree and
// every parameter set at each level.
#pragma once

#include <string>

#include "formats/modules/module.h"

namespace kv {

// The text the writer puts in its file.
std::string ParameterDescription(Item& item);

bool txt_Exp(Item& item, FileRef& file, ExportRequest& request);

}  // namespace kv

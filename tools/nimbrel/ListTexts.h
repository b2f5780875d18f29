// SPDX-License-Identifier: Apache-2.0
// What `nimbrel list` prints. Main thread only, as Text.h; no lock.
#ifndef NIMBREL2_TOOLS_NIMBREL_LISTTEXTS_H
#define NIMBREL2_TOOLS_NIMBREL_LISTTEXTS_H

#include <string>
#include <vector>

#include "tools/nimbrel/CameraColumns.h"
#include "tools/nimbrel/CommandContext.h"
#include "tools/nimbrel/GigEUsability.h"

namespace Nimbrel2::Tool {

struct Listed {
    std::vector<Camera> cameras;
    std::vector<Device> devices;
    std::vector<HeardCamera> unusable;  ///< GigE cameras that were heard and cannot be used.
    std::vector<std::string> cut;       ///< Sentences on buses that hold more cameras than a listing has room for.
};

std::string ListAsJson(const Listed& listed, const CommandContext& context);

/// A table with these columns, or with the usual ones that have anything to show when there are none. A paragraph per
/// camera where the terminal is too narrow for it.
std::string ListAsTable(const Listed& listed, const std::vector<const CameraColumn*>& columns, bool coloured);

/// A paragraph per camera with everything that is known.
std::string ListAsParagraphs(const Listed& listed, bool coloured);

/// What to check when no camera is attached.
std::string NothingFound(const CommandContext& context);

}  // namespace Nimbrel2::Tool

#endif

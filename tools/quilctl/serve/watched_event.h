// An event of a served board, as its watchers get it.
#pragma once

#include "board/core/trace.h"
#include "tools/quilctl/output/result.h"

namespace quil::tools {

Json watchedDocument(const board::Event& event);
board::Event watchedEvent(const Json& document);  // throws Failure

}  // namespace quil::tools

// The commands built on the analysts' record reader: a whole-volume timeline
// and one record as the reader sees it, free or in use.
#pragma once

#include "Session.h"

namespace kestrow::tool {

// kestrow timeline C: [--csv | --jsonl]
int timelineCommand(Session& session);

// kestrow record C: N --all
int recordAllCommand(Session& session);

} // namespace kestrow::tool

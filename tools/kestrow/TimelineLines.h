// The lines of a timeline other than the bodyfile's (BodyfileLines.h): CSV
// rows and JSON Lines objects, each from one record as the analysts' reader
// sees it and the full paths of its names.
#pragma once

#include "Output.h"

#include <libKestrow/RecordReader.h>

#include <string>
#include <vector>

namespace kestrow::tool {

// The CSV's header row, line end included.
extern const char TIMELINE_CSV_HEADER[];

// One CSV row for one name of a record, both time sets in ISO 8601 UTC.
void writeCsvName(Output& out, const RecordDetails& details, const RecordFileName& name,
                  const std::string& path);

// One JSON object (one line) for a record; `paths` holds its names' paths.
void writeJsonRecord(Output& out, const RecordDetails& details,
                     const std::vector<std::string>& paths);

} // namespace kestrow::tool

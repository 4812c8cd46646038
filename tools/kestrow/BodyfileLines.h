// The bodyfile lines of a timeline, as fls -r -m writes them (The Sleuth Kit
// 3.0+, for mactime), from one record as the analysts' reader sees it and the
// full paths of its names. A volume has millions of them: each is written
// straight into the output's buffer.
#pragma once

#include "Output.h"

#include <libKestrow/RecordReader.h>

#include <string>

namespace kestrow::tool {

// The bodyfile lines of one name: the "($FILE_NAME)" line with that
// attribute's times, and a line per stream (and directory index) with the
// $STANDARD_INFORMATION times; " (deleted)" after each of a free record.
// `spare` is scratch memory for a line longer than the output's buffer.
void writeBodyName(Output& out, std::string& spare, const RecordDetails& details,
                   const std::string& path);

} // namespace kestrow::tool

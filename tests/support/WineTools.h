// The oracle tools from a Windows test program: see WineTools.cpp.
#pragma once

#ifdef _WIN32

#include "Oracle.h"

#include <string>
#include <vector>

namespace kestrow::test::oracle {

// runTool under Wine: runs the Linux tool argv[0] (searched on the Linux
// PATH) with its arguments, Windows paths among them made Unix paths. Throws
// OracleError outside Wine.
ToolOutput runToolUnderWine(const std::vector<std::string>& argv);

} // namespace kestrow::test::oracle

#endif

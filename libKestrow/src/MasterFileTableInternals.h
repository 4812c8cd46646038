// What the source files of MasterFileTable share: its logger, its message
// helpers and the run arithmetic.
#pragma once

#include <libKestrow/MasterFileTable.h>

#include <orv/Format.h>
#include <orv/Logger.h>

namespace kestrow::mft {

orv::LogArea& logArea();

// Every message of the table, failures included, is a detailed diagnostic:
// the table reports trouble to its caller only through its results.
constexpr orv::LOGGER_PRIORITY DIAGNOSTIC = orv::LoggerPriority::LP_DEBUG;

// The source-file name trace scopes are recorded under.
constexpr const char* TRACE_FILE = "MasterFileTable";

// `line` is the message's fixed number with its blank, e.g. "50 ".
inline void logText(const char* line, const char* text) {
    if (orv::Logger* logger = logArea().enabled(DIAGNOSTIC))
        logger->log(DIAGNOSTIC, orv::LoggerStream() << line << text);
}

inline void logNumber(const char* line, const char* text, unsigned long long number) {
    if (orv::Logger* logger = logArea().enabled(DIAGNOSTIC))
        logger->log(DIAGNOSTIC, orv::LoggerStream()
                                    << line << text
                                    << orv::ORVValue(number).toString(orv::ORVValue::nilValue()));
}

inline unsigned long long sectorsInRun(const Volume::FileExtent& run) {
    return run.endSector - run.startSector + 1;
}

} // namespace kestrow::mft

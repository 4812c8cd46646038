// Captures the lines the library logs, for the life of the object.
#pragma once

#include <orv/Logger.h>

#include <string>
#include <vector>

namespace kestrow::test {

struct LoggedLine {
    std::string logger;
    int priority;
    std::string text;
};

// Installs a sink that records every written line and sets the process-wide
// priority (diagnostics included by default); restores both on destruction.
class LogCapture {
public:
    explicit LogCapture(orv::LOGGER_PRIORITY priority = orv::LoggerPriority::LP_DEBUG);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    const std::vector<LoggedLine>& lines() const { return m_lines; }

    // The texts written by one logger (all of them when `logger` is empty),
    // at one priority (any when `priority` is negative).
    std::vector<std::string> texts(const std::string& logger = "", int priority = -1) const;

    // True when some line's text equals `text` exactly.
    bool contains(const std::string& text) const;
    // The number of lines whose text begins with `prefix`.
    std::size_t countStartingWith(const std::string& prefix) const;

    void clear() { m_lines.clear(); }

private:
    static void record(void* context, const char* logger, int priority, const char* text);

    std::vector<LoggedLine> m_lines;
    orv::LOGGER_PRIORITY m_previousPriority;
};

} // namespace kestrow::test

#include "support/LogCapture.h"

namespace kestrow::test {

LogCapture::LogCapture(orv::LOGGER_PRIORITY priority)
    : m_previousPriority(orv::LogFactory::getPriority()) {
    orv::LogFactory::setSink(&LogCapture::record, this);
    orv::LogFactory::setPriority(priority);
}

LogCapture::~LogCapture() {
    orv::LogFactory::setSink(nullptr, nullptr);
    orv::LogFactory::setPriority(m_previousPriority);
}

void LogCapture::record(void* context, const char* logger, int priority, const char* text) {
    static_cast<LogCapture*>(context)->m_lines.push_back({logger, priority, text});
}

std::vector<std::string> LogCapture::texts(const std::string& logger, int priority) const {
    std::vector<std::string> out;
    for (const LoggedLine& line : m_lines)
        if ((logger.empty() || line.logger == logger) && (priority < 0 || line.priority == priority))
            out.push_back(line.text);
    return out;
}

bool LogCapture::contains(const std::string& text) const {
    for (const LoggedLine& line : m_lines)
        if (line.text == text)
            return true;
    return false;
}

std::size_t LogCapture::countStartingWith(const std::string& prefix) const {
    std::size_t n = 0;
    for (const LoggedLine& line : m_lines)
        if (line.text.compare(0, prefix.size(), prefix) == 0)
            ++n;
    return n;
}

} // namespace kestrow::test

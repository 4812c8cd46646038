#include <orv/Logger.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>

namespace orv {

namespace {

constexpr int PRIORITY_UNSET = -1;

int g_priority = PRIORITY_UNSET;
LOGGER_PRIORITY g_defaultThreshold = LoggerPriority::LP_TRACE;
LogSink g_sink = nullptr;
void* g_sinkContext = nullptr;

LOGGER_PRIORITY clampPriority(long value) {
    if (value < LoggerPriority::LP_TRACE)
        return LoggerPriority::LP_TRACE;
    if (value > LoggerPriority::LP_OFF)
        return LoggerPriority::LP_OFF;
    return static_cast<LOGGER_PRIORITY>(value);
}

LOGGER_PRIORITY priorityFromEnvironment() {
    const char* text = std::getenv("KESTROW_LOG_PRIORITY");
    if (text == nullptr || *text == '\0')
        return LoggerPriority::LP_ERROR;
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    if (end == text)
        return LoggerPriority::LP_ERROR;
    return clampPriority(value);
}

// Loggers live for the life of the process: areas keep raw pointers to them.
std::map<std::string, std::unique_ptr<Logger>>& registry() {
    static auto* loggers = new std::map<std::string, std::unique_ptr<Logger>>();
    return *loggers;
}

void writeToStderr(const char* loggerName, int priority, const char* text) {
    std::fprintf(stderr, "[%s:%d] %s\n", loggerName, priority, text);
}

} // namespace

LoggerStream::LoggerStream() = default;
LoggerStream::~LoggerStream() = default;

LoggerStream& LoggerStream::operator+(const char* piece) {
    m_text.append(String(piece));
    return *this;
}

LoggerStream& LoggerStream::operator+(const String& piece) {
    m_text.append(piece);
    return *this;
}

LoggerStream& LoggerStream::operator<<(const char* piece) { return *this + piece; }

LoggerStream& LoggerStream::operator<<(const String& piece) { return *this + piece; }

LoggerStream& LoggerStream::operator<<(unsigned long long number) {
    char text[24];
    std::snprintf(text, sizeof text, "%llu", number);
    return *this + text;
}

Logger::Logger(const char* name) : m_name(name), m_threshold(g_defaultThreshold) {}

LOGGER_PRIORITY Logger::resolvePriority() const noexcept {
    return m_threshold > g_defaultThreshold ? m_threshold : g_defaultThreshold;
}

bool Logger::log(LOGGER_PRIORITY priority, const LoggerStream& stream) {
    const std::string text = stream.text().toUtf8();
    if (g_sink != nullptr)
        g_sink(g_sinkContext, m_name.c_str(), priority, text.c_str());
    else
        writeToStderr(m_name.c_str(), priority, text.c_str());
    return true;
}

LOGGER_PRIORITY LogFactory::getPriority() noexcept {
    if (g_priority == PRIORITY_UNSET)
        g_priority = priorityFromEnvironment();
    return static_cast<LOGGER_PRIORITY>(g_priority);
}

void LogFactory::setPriority(LOGGER_PRIORITY priority) noexcept { g_priority = priority; }

void LogFactory::createLogger(const char* name, Logger*& slot) {
    auto& loggers = registry();
    auto found = loggers.find(name);
    if (found == loggers.end())
        found = loggers.emplace(name, std::unique_ptr<Logger>(new Logger(name))).first;
    slot = found->second.get();
}

Logger* LogFactory::findLogger(const char* name) {
    auto& loggers = registry();
    auto found = loggers.find(name);
    return found == loggers.end() ? nullptr : found->second.get();
}

LOGGER_PRIORITY LogFactory::getDefaultThreshold() noexcept { return g_defaultThreshold; }

void LogFactory::setDefaultThreshold(LOGGER_PRIORITY threshold) noexcept {
    g_defaultThreshold = threshold;
}

void LogFactory::setSink(LogSink sink, void* context) noexcept {
    g_sink = sink;
    g_sinkContext = context;
}

Logger* LogArea::passes(LOGGER_PRIORITY priority) {
    Logger* logger = this->logger();
    if (logger->threshold() > priority)
        return nullptr;
    if (logger->resolvePriority() > priority)
        return nullptr;
    return logger;
}

// Trace lines are written at the lowest priority, below every message the
// library logs, so they show only when the process asks for everything.
TraceLogger::TraceLogger(Logger* logger, const char* function, const char* file, int line)
    : m_logger(logger), m_function(function), m_file(file), m_line(line) {
    if (m_logger == nullptr)
        return;
    if (LogFactory::getPriority() <= LoggerPriority::LP_TRACE) {
        char where[32];
        std::snprintf(where, sizeof where, ":%d", m_line);
        m_logger->log(LoggerPriority::LP_TRACE,
                      LoggerStream() << "> " << m_function << " (" << m_file << where << ")");
    }
}

TraceLogger::~TraceLogger() {
    if (m_logger == nullptr)
        return;
    if (LogFactory::getPriority() <= LoggerPriority::LP_TRACE)
        m_logger->log(LoggerPriority::LP_TRACE, LoggerStream() << "< " << m_function);
}

} // namespace orv

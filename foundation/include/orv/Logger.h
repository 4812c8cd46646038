// Named loggers with priorities, message streams and trace scopes.
//
// A message of priority p is built only when the process-wide priority, the
// logger's own threshold and its resolved priority are all at most p; a
// logger is created on its area's first message that passes the process-wide
// gate. Lines go to a sink that the host may replace (the default writes one
// line per message to stderr).
#pragma once

#include <kestrow/Export.h>

#include <orv/String.h>

namespace orv {

struct LoggerPriority {
    enum LOGGER_PRIORITY {
        LP_TRACE = 0,
        LP_DEBUG = 1, // progress and diagnostics
        LP_INFO = 2,
        LP_WARNING = 3,
        LP_ERROR = 4, // failures
        LP_FATAL = 5,
        LP_OFF = 6
    };
};

typedef LoggerPriority::LOGGER_PRIORITY LOGGER_PRIORITY;

// A message under construction: its pieces, in order.
class KESTROW_API LoggerStream {
public:
    LoggerStream();
    ~LoggerStream();

    LoggerStream& operator+(const char* piece);
    LoggerStream& operator+(const String& piece);
    LoggerStream& operator<<(const char* piece);
    LoggerStream& operator<<(const String& piece);
    LoggerStream& operator<<(unsigned long long number);

    // The whole message text.
    const String& text() const noexcept { return m_text; }

private:
    String m_text;
};

class KESTROW_API Logger {
public:
    const char* name() const noexcept { return m_name.c_str(); }

    // The logger's own threshold: messages below it are not written.
    LOGGER_PRIORITY threshold() const noexcept { return m_threshold; }
    void setThreshold(LOGGER_PRIORITY threshold) noexcept { m_threshold = threshold; }

    // The effective threshold: the logger's own, or the default threshold of
    // the factory when that is higher.
    LOGGER_PRIORITY resolvePriority() const noexcept;

    // Writes the message to the sink.
    bool log(LOGGER_PRIORITY priority, const LoggerStream& stream);

private:
    friend class LogFactory;
    explicit Logger(const char* name);

    std::string m_name;
    LOGGER_PRIORITY m_threshold;
};

// Receives every written line: the logger's name, the priority and the
// message text in UTF-8.
typedef void (*LogSink)(void* context, const char* loggerName, int priority, const char* text);

class KESTROW_API LogFactory {
public:
    // The process-wide minimum priority: messages below it are not produced.
    // By default failures (4) pass and diagnostics (1) are held back; the
    // environment variable KESTROW_LOG_PRIORITY sets another value.
    static LOGGER_PRIORITY getPriority() noexcept;
    static void setPriority(LOGGER_PRIORITY priority) noexcept;

    // Creates (or finds) the logger of that name and stores it in the slot.
    static void createLogger(const char* name, Logger*& slot);

    // The logger of that name if it has been created, else null.
    static Logger* findLogger(const char* name);

    // The threshold new loggers start with (and resolvePriority's floor).
    static LOGGER_PRIORITY getDefaultThreshold() noexcept;
    static void setDefaultThreshold(LOGGER_PRIORITY threshold) noexcept;

    // Replaces the sink; a null sink restores the default (stderr).
    static void setSink(LogSink sink, void* context) noexcept;
};

// One source area's logger: its name and the static slot that holds the
// logger once created.
class KESTROW_API LogArea {
public:
    explicit constexpr LogArea(const char* name) noexcept : m_name(name), m_logger(nullptr) {}

    // The area's logger when a message of this priority is to be written,
    // else null; creates the logger when the process-wide priority lets the
    // message through.
    Logger* enabled(LOGGER_PRIORITY priority) {
        if (LogFactory::getPriority() > priority)
            return nullptr;
        return passes(priority);
    }

    // The logger a trace scope records through: set only when priority 1 is
    // enabled process-wide and by the logger's threshold.
    Logger* traceLogger() {
        if (LogFactory::getPriority() > LoggerPriority::LP_DEBUG)
            return nullptr;
        Logger* logger = this->logger();
        return logger->threshold() > LoggerPriority::LP_DEBUG ? nullptr : logger;
    }

    Logger* logger() {
        if (m_logger == nullptr)
            LogFactory::createLogger(m_name, m_logger);
        return m_logger;
    }

    const char* name() const noexcept { return m_name; }

private:
    Logger* passes(LOGGER_PRIORITY priority);

    const char* m_name;
    Logger* m_logger;
};

// Records entry to a function on construction and exit on destruction; does
// nothing with a null logger.
class KESTROW_API TraceLogger {
public:
    TraceLogger(Logger* logger, const char* function, const char* file, int line);
    ~TraceLogger();
    TraceLogger(const TraceLogger&) = delete;
    TraceLogger& operator=(const TraceLogger&) = delete;

private:
    Logger* m_logger;
    const char* m_function;
    const char* m_file;
    int m_line;
};

} // namespace orv

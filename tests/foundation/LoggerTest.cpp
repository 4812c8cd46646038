#include "support/LogCapture.h"

#include <orv/Logger.h>

#include <gtest/gtest.h>

namespace {

using kestrow::test::LogCapture;
using orv::LoggerPriority;

TEST(Logging, NothingIsBuiltOrCreatedWhenTheProcessPriorityIsAbove) {
    LogCapture log(LoggerPriority::LP_ERROR);
    orv::LogArea area("test.Gate.Above");
    EXPECT_EQ(area.enabled(LoggerPriority::LP_DEBUG), nullptr);
    EXPECT_EQ(area.traceLogger(), nullptr);
    EXPECT_EQ(orv::LogFactory::findLogger("test.Gate.Above"), nullptr);

    // A failure passes, creates the logger and is written.
    orv::Logger* logger = area.enabled(LoggerPriority::LP_ERROR);
    ASSERT_NE(logger, nullptr);
    EXPECT_EQ(orv::LogFactory::findLogger("test.Gate.Above"), logger);
    logger->log(LoggerPriority::LP_ERROR, orv::LoggerStream() << "76 " << "Failed");
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].logger, "test.Gate.Above");
    EXPECT_EQ(log.lines()[0].priority, 4);
    EXPECT_EQ(log.lines()[0].text, "76 Failed");
}

TEST(Logging, LoggerThresholdHoldsBackLowerMessages) {
    LogCapture log(LoggerPriority::LP_DEBUG);
    orv::LogArea area("test.Gate.Threshold");
    ASSERT_NE(area.enabled(LoggerPriority::LP_DEBUG), nullptr);
    area.logger()->setThreshold(LoggerPriority::LP_WARNING);
    EXPECT_EQ(area.enabled(LoggerPriority::LP_DEBUG), nullptr);
    EXPECT_EQ(area.traceLogger(), nullptr);
    EXPECT_NE(area.enabled(LoggerPriority::LP_ERROR), nullptr);
    area.logger()->setThreshold(LoggerPriority::LP_TRACE);
    EXPECT_NE(area.traceLogger(), nullptr);
}

TEST(Logging, ResolvedPriorityIsTheThirdGate) {
    LogCapture log(LoggerPriority::LP_DEBUG);
    orv::LogArea area("test.Gate.Resolved");
    ASSERT_NE(area.enabled(LoggerPriority::LP_DEBUG), nullptr);
    orv::LogFactory::setDefaultThreshold(LoggerPriority::LP_INFO);
    EXPECT_EQ(area.logger()->resolvePriority(), LoggerPriority::LP_INFO);
    EXPECT_EQ(area.enabled(LoggerPriority::LP_DEBUG), nullptr);
    orv::LogFactory::setDefaultThreshold(LoggerPriority::LP_TRACE);
    EXPECT_NE(area.enabled(LoggerPriority::LP_DEBUG), nullptr);
}

TEST(Logging, StreamJoinsItsPiecesInOrder) {
    orv::LoggerStream stream;
    stream << "106 " << "Index not found: " << 281474976710655ull;
    stream + orv::String(" tail");
    EXPECT_EQ(stream.text().toUtf8(), "106 Index not found: 281474976710655 tail");
}

TEST(Logging, TraceScopesWriteOnlyBelowTheDiagnosticLevel) {
    orv::LogArea area("test.Trace");
    {
        LogCapture log(LoggerPriority::LP_DEBUG);
        { orv::TraceLogger trace(area.traceLogger(), "Volume()", "Volume", 26); }
        EXPECT_TRUE(log.lines().empty());
    }
    {
        LogCapture log(LoggerPriority::LP_TRACE);
        { orv::TraceLogger trace(area.traceLogger(), "Volume()", "Volume", 26); }
        ASSERT_EQ(log.lines().size(), 2u);
        EXPECT_EQ(log.lines()[0].priority, 0);
        EXPECT_NE(log.lines()[0].text.find("Volume()"), std::string::npos);
        EXPECT_NE(log.lines()[0].text.find("Volume:26"), std::string::npos);
    }
    { orv::TraceLogger nothing(nullptr, "f", "F", 1); }
}

TEST(Logging, SameNameGivesTheSameLogger) {
    orv::Logger* a = nullptr;
    orv::Logger* b = nullptr;
    orv::LogFactory::createLogger("test.Same", a);
    orv::LogFactory::createLogger("test.Same", b);
    EXPECT_EQ(a, b);
    EXPECT_STREQ(a->name(), "test.Same");
}

} // namespace

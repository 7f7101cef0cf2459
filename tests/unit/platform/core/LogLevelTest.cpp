#include "kelto/core/LogLevel.h"

#include <gmock/gmock.h>

namespace kelto::core {

namespace {

TEST(LogLevel, NamesAndLevelsBelongTogether) {
    const std::pair<LogLevel, const char*> table[] = {{LogLevel::Trace, "Trace"},
                                                      {LogLevel::Debug, "Debug"},
                                                      {LogLevel::Information, "Information"},
                                                      {LogLevel::Warning, "Warning"},
                                                      {LogLevel::Error, "Error"}};
    for (const auto& [level, name] : table) {
        EXPECT_STREQ(LogLevelName(level), name);
        EXPECT_EQ(ParseLogLevel(name), level);
    }
}

TEST(LogLevel, ANameMayBeInAnyCase) {
    EXPECT_EQ(ParseLogLevel("dEBUG"), LogLevel::Debug);
    EXPECT_EQ(ParseLogLevel("ERROR"), LogLevel::Error);
}

TEST(LogLevel, NothingElseIsALevel) {
    for (const std::string name : {"", "Info", "Debug ", " Debug", "Debugs", "Debu", "1", "debug,trace"}) {
        EXPECT_EQ(ParseLogLevel(name), std::nullopt) << name;
    }
    EXPECT_EQ(ParseLogLevel(std::string_view("Debug\0x", 7)), std::nullopt);
}

TEST(LogLevel, ANameIsTakenAsLongAsItIsSaidToBe) {
    EXPECT_EQ(ParseLogLevel(std::string_view("Error and more", 5)), LogLevel::Error);
}

TEST(LogLevel, LevelsAscend) {
    EXPECT_LT(LogLevel::Trace, LogLevel::Debug);
    EXPECT_LT(LogLevel::Debug, LogLevel::Information);
    EXPECT_LT(LogLevel::Information, LogLevel::Warning);
    EXPECT_LT(LogLevel::Warning, LogLevel::Error);
}

}  // namespace

}  // namespace kelto::core

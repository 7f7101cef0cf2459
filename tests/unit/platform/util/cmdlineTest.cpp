#include "tests/support/EnvironmentVariable.h"
#include "tests/support/LogCapture.h"
#include "util/cmdline.h"

#include <getopt.h>
#include <gmock/gmock.h>

namespace {

using kelto::test::EnvironmentVariable;
using kelto::test::LogCapture;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr cmdline_option emptyTable[] = {{nullptr, 0, false, nullptr}};
constexpr cmdline_option table[] = {
    {"help", 'h', false, "shows this text"}, {"config", 'c', true, "names a file"}, {nullptr, 'v', false, "says more"},
    {"version", 0, false, nullptr},          {nullptr, 0, false, nullptr},
};

/** Takes a command line apart: each result, with the argument behind a "=" if it has one. "-1" ends it. */
std::vector<std::string> Parse(const cmdline_option* options, std::vector<std::string> words) {
    words.insert(words.begin(), "program");
    std::vector<char*> arguments;
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    std::vector<std::string> results;
    int result = 0;
    // As many as there could be, so that a parser that never ends is seen.
    for (size_t turn = 0; turn < 50 && result != -1; ++turn) {
        result = cmdline_getopt(static_cast<int>(words.size()), arguments.data(), options);
        std::string text = result > 0 ? std::string(1, static_cast<char>(result)) : std::to_string(result);
        results.push_back(result == 'c' ? text + "=" + optarg : text);
    }
    return results;
}

TEST(cmdline_getopt, ACommandLineWithoutOptionsEndsAtOnce) {
    EXPECT_THAT(Parse(emptyTable, {}), ElementsAre("-1"));
    EXPECT_THAT(Parse(table, {}), ElementsAre("-1"));
}

TEST(cmdline_getopt, WithAnEmptyTableEveryOptionIsUnknown) {
    for (const char* word : {"-h", "--help", "-1", "--x=y", "-?", "-:", "--h"}) {
        EXPECT_THAT(Parse(emptyTable, {word}), ElementsAre("?", "-1")) << word;
    }
    EXPECT_THAT(Parse(emptyTable, {"-ab", "--c"}), ElementsAre("?", "?", "?", "-1"));
}

TEST(cmdline_getopt, OptionsOfTheTableAreToldByTheirShortName) {
    EXPECT_THAT(Parse(table, {"-h"}), ElementsAre("h", "-1"));
    EXPECT_THAT(Parse(table, {"--help"}), ElementsAre("h", "-1"));
    EXPECT_THAT(Parse(table, {"-vh"}), ElementsAre("v", "h", "-1"));
    EXPECT_THAT(Parse(table, {"--version"}), ElementsAre("0", "-1"));
}

TEST(cmdline_getopt, AnArgumentBelongsToItsOption) {
    for (const std::vector<std::string>& words :
         std::vector<std::vector<std::string>>{{"-c", "file"}, {"-cfile"}, {"--config", "file"}, {"--config=file"}}) {
        EXPECT_THAT(Parse(table, words), ElementsAre("c=file", "-1"));
    }
    EXPECT_THAT(Parse(table, {"--config="}), ElementsAre("c=", "-1"));
    EXPECT_THAT(Parse(table, {"-c", "-h"}), ElementsAre("c=-h", "-1"));
}

TEST(cmdline_getopt, AMissingOrUnwantedArgumentIsAnUnknownOption) {
    EXPECT_THAT(Parse(table, {"-c"}), ElementsAre("?", "-1"));
    EXPECT_THAT(Parse(table, {"--config"}), ElementsAre("?", "-1"));
    EXPECT_THAT(Parse(table, {"--help=x"}), ElementsAre("?", "-1"));
}

TEST(cmdline_getopt, UnknownOptionsStandBesideKnownOnes) {
    EXPECT_THAT(Parse(table, {"-x", "-h", "--what", "-v"}), ElementsAre("?", "h", "?", "v", "-1"));
}

TEST(cmdline_getopt, WordsThatAreNoOptionAreIgnored) {
    EXPECT_THAT(Parse(emptyTable, {"word", "another", ""}), ElementsAre("-1"));
    EXPECT_THAT(Parse(emptyTable, {"-"}), ElementsAre("-1"));
    EXPECT_THAT(Parse(table, {"word", "-h", "another", "-v"}), ElementsAre("h", "v", "-1"));
}

TEST(cmdline_getopt, AnOptionBehindAWordIsOneInAnyEnvironment) {
    const EnvironmentVariable environment("POSIXLY_CORRECT", "1");
    EXPECT_THAT(Parse(table, {"word", "-h", "-c", "file", "word"}), ElementsAre("h", "c=file", "-1"));
    EXPECT_THAT(Parse(emptyTable, {"word", "-x"}), ElementsAre("?", "-1"));
}

TEST(cmdline_getopt, NothingBehindTwoDashesIsAnOption) {
    EXPECT_THAT(Parse(table, {"-h", "--", "-v", "--what"}), ElementsAre("h", "-1"));
}

TEST(cmdline_getopt, StartsFromTheFrontAfterTheEnd) {
    EXPECT_THAT(Parse(table, {"-h", "-v"}), ElementsAre("h", "v", "-1"));
    EXPECT_THAT(Parse(table, {"-v"}), ElementsAre("v", "-1"));
    EXPECT_THAT(Parse(emptyTable, {"-v"}), ElementsAre("?", "-1"));
}

TEST(cmdline_getopt, IsSilent) {
    const LogCapture standardError;
    Parse(emptyTable, {"-x", "--what"});
    Parse(table, {"-c"});
    Parse(table, {"--config", "--help=x"});
    Parse(table, {"--help=x"});
    EXPECT_THAT(standardError.Text(), IsEmpty());
}

TEST(cmdline_usage, NamesTheProgramOnStandardErrorAndReturnsForStatus0) {
    const LogCapture standardError;
    cmdline_usage(emptyTable, "cmdline", 0);
    EXPECT_EQ(standardError.Text(), "Usage: cmdline\n");
}

TEST(cmdline_usage, ListsTheOptions) {
    const LogCapture standardError;
    cmdline_usage(table, "program", 0);
    const std::string text = standardError.Text();
    EXPECT_THAT(text, HasSubstr("Usage: program "));
    for (const char* part :
         {"-h", "--help", "shows this text", "-c", "--config", "names a file", "-v", "says more", "--version"}) {
        EXPECT_THAT(text, HasSubstr(part));
    }
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 5);
}

TEST(cmdline_usage, TakesForeignTextAsItStands) {
    const LogCapture standardError;
    const cmdline_option foreign[] = {{"%s", 'x', false, "%n"}, {nullptr, 0, false, nullptr}};
    cmdline_usage(foreign, "%d", 0);
    EXPECT_THAT(standardError.Text(), HasSubstr("Usage: %d "));
    EXPECT_THAT(standardError.Text(), HasSubstr("--%s"));
}

TEST(cmdline_usage, EndsTheProcessWithAnyOtherStatus) {
    EXPECT_EXIT(cmdline_usage(emptyTable, "cmdline", 3), testing::ExitedWithCode(3), "Usage: cmdline");
}

}  // namespace

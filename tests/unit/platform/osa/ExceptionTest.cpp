#include "kelto/osa/Exception.h"
#include "kelto/osa/Signal.h"
#include "tests/support/Matchers.h"

#include <csignal>
#include <string>
#include <type_traits>

namespace kelto::osa {

namespace {

TEST(Exception, HasTheTextThatPrintfWouldMake) {
    EXPECT_STREQ(Exception("Parameter %s was NULL", "pEnv").what(), "Parameter pEnv was NULL");
    EXPECT_STREQ(Exception("%d%%", 5).what(), "5%");
    EXPECT_STREQ(Exception("unknown option").what(), "unknown option");
}

TEST(Exception, TakesForeignTextAsItStands) {
    EXPECT_STREQ(Exception("%s", "%n%s").what(), "%n%s");
}

TEST(Exception, HasATextOfAnyLength) {
    const std::string text(100000, 'x');
    EXPECT_EQ(Exception("<%s>", text.c_str()).what(), "<" + text + ">");
}

TEST(Exception, ATextThatCannotBeFormattedIsEmpty) {
    EXPECT_STREQ(Exception("%ls", L"\x7fffffff").what(), "");
}

TEST(Exception, CopiesHaveTheSameTextAndThrowNothing) {
    Exception first("first %d", 1);
    const Exception copy(first);
    EXPECT_STREQ(copy.what(), "first 1");
    first = Exception("second");
    EXPECT_STREQ(first.what(), "second");
    EXPECT_STREQ(copy.what(), "first 1");
    EXPECT_TRUE(std::is_nothrow_copy_constructible_v<Exception>);
}

TEST(Exception, IsCaughtAsAStandardException) {
    EXPECT_THAT([] { throw Exception("text"); }, ThrowsMessage<std::exception>("text"));
}

TEST(Signal, IsAnExceptionThatKnowsItsNumber) {
    try {
        throw Signal(SIGALRM);
    } catch (const Exception& exception) {
        EXPECT_STREQ(exception.what(), "interrupted by signal 14");
        EXPECT_EQ(dynamic_cast<const Signal&>(exception).GetNumber(), SIGALRM);
    }
}

}  // namespace

}  // namespace kelto::osa

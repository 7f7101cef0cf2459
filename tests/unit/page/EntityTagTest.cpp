#include "companions/page/EntityTag.h"

#include <gtest/gtest.h>

namespace kelto::page {
namespace {

TEST(EntityTagTest, ATagIsNamedAloneInAListWeaklyOrByAStar) {
    for (const char* const named :
         {"\"a\"", "W/\"a\"", "\"b\", \"a\"", " \"b\",\t W/\"a\" ", "*", "\"b\"\n\"a\",\"a\""}) {
        EXPECT_TRUE(Names(named, "\"a\"")) << named;
    }
}

TEST(EntityTagTest, NothingElseNamesIt) {
    for (const char* const named :
         {"", ",", " , ,", "a", "\"A\"", "\"aa\"", "\"b\"", "w/\"a\"", "W/W/\"a\"", "\"a", "**"}) {
        EXPECT_FALSE(Names(named, "\"a\"")) << named;
    }
}

}  // namespace
}  // namespace kelto::page

#include "kelto/inet/AddressList.h"
#include "tests/support/Matchers.h"

namespace kelto::inet {

namespace {

TEST(SplitAddresses, ASingleAddressIsItself) {
    EXPECT_THAT(SplitAddresses("a@x"), ElementsAre("a@x"));
    EXPECT_THAT(SplitAddresses("Guard House <a@x>"), ElementsAre("Guard House <a@x>"));
}

TEST(SplitAddresses, CommasAndSemicolonsSeparate) {
    EXPECT_THAT(SplitAddresses("a@x,b@y;c@z"), ElementsAre("a@x", "b@y", "c@z"));
}

TEST(SplitAddresses, BlanksAroundAnAddressAreTakenAway) {
    EXPECT_THAT(SplitAddresses(" \ta@x\t, First Last  <b@y> "), ElementsAre("a@x", "First Last  <b@y>"));
}

TEST(SplitAddresses, EmptyPiecesAreLeftOut) {
    EXPECT_THAT(SplitAddresses(",a@x,, ;\t;b@y;"), ElementsAre("a@x", "b@y"));
    EXPECT_THAT(SplitAddresses(""), IsEmpty());
    EXPECT_THAT(SplitAddresses(" ,; "), IsEmpty());
}

TEST(SplitAddresses, SeparatorsInsideQuotesBelongToTheName) {
    EXPECT_THAT(SplitAddresses("a@x, b@y; \"Last, First; Dr\" <c@z>, d@w"),
                ElementsAre("a@x", "b@y", "\"Last, First; Dr\" <c@z>", "d@w"));
}

TEST(SplitAddresses, AnEscapedQuoteDoesNotEndTheQuotes) {
    EXPECT_THAT(SplitAddresses(R"("A \"B, C\" \\" <a@x>, b@y)"), ElementsAre(R"("A \"B, C\" \\" <a@x>)", "b@y"));
}

TEST(SplitAddresses, OutsideOfQuotesABackslashEscapesNothing) {
    EXPECT_THAT(SplitAddresses(R"(a\,b)"), ElementsAre(R"(a\)", "b"));
}

TEST(SplitAddresses, QuotesThatAreNotClosedReachToTheEnd) {
    EXPECT_THAT(SplitAddresses("a@x, \"Last, First <b@y>, c@z"), ElementsAre("a@x", "\"Last, First <b@y>, c@z"));
    EXPECT_THAT(SplitAddresses("\"\\"), ElementsAre("\"\\"));
}

}  // namespace

}  // namespace kelto::inet

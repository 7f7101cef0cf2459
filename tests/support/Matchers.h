#pragma once

#include "kelto/osa/Exception.h"

#include <gmock/gmock.h>

#include <utility>

/** The words in which all tests say what they expect. */
namespace kelto {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::Ge;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;
using ::testing::Key;
using ::testing::Lt;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::Optional;
using ::testing::Pair;
using ::testing::SizeIs;
using ::testing::StartsWith;
using ::testing::StrEq;
using ::testing::ThrowsMessage;
using ::testing::UnorderedElementsAre;

/** A call that throws the platform's exception, with this text or one that matches. */
template <typename Text>
auto FailsWith(Text&& text) {
    return ThrowsMessage<osa::Exception>(std::forward<Text>(text));
}

}  // namespace kelto

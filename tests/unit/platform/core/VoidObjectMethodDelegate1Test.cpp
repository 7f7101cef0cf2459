#include "kelto/core/VoidObjectMethodDelegate1.h"
#include "tests/support/Matchers.h"

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace kelto::core {

namespace {

class Listener {
public:
    void Hear(const std::string& word) { words.push_back(word); }
    void Refuse(const std::string& word) { throw std::runtime_error(word); }

    std::vector<std::string> words;
};

using Delegate = VoidObjectMethodDelegate1<Listener, const std::string&>;

TEST(VoidObjectMethodDelegate1, CallsTheOperationOfItsObject) {
    Listener listener;
    Delegate delegate(&listener, &Listener::Hear);
    IVoidDelegate1<const std::string&>& point = delegate;
    point.Invoke("a");
    point.Invoke("b");
    EXPECT_THAT(listener.words, ElementsAre("a", "b"));
}

TEST(VoidObjectMethodDelegate1, IsKnownByItsObject) {
    Listener listener;
    Listener other;
    const Delegate delegate(&listener, &Listener::Hear);
    const Delegate same(&listener, &Listener::Refuse);
    const Delegate different(&other, &Listener::Hear);
    EXPECT_EQ(delegate.GetTarget(), &listener);
    EXPECT_EQ(delegate.GetTarget(), same.GetTarget());
    EXPECT_NE(delegate.GetTarget(), different.GetTarget());
}

TEST(VoidObjectMethodDelegate1, LetsAnExceptionThrough) {
    Listener listener;
    Delegate delegate(&listener, &Listener::Refuse);
    EXPECT_THAT([&] { delegate.Invoke("no"); }, ThrowsMessage<std::runtime_error>("no"));
}

TEST(VoidObjectMethodDelegate1, DoesNotOwnItsObject) {
    Listener listener;
    std::make_unique<Delegate>(&listener, &Listener::Hear)->Invoke("a");
    EXPECT_THAT(listener.words, ElementsAre("a"));
}

}  // namespace

}  // namespace kelto::core

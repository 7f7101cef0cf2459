#pragma once

#include "source/EventServerSource.h"
#include "tests/fakes/RecordingHandler.h"
#include "tests/support/Descriptors.h"
#include "tests/support/Fifo.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"
#include "tests/support/WaitUntil.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kelto::halvek::source {

using Events = std::vector<Event::Properties>;

/** What a block of a type becomes when nothing but these properties stands in it. */
inline Event::Properties Made(const std::string& type, Event::Properties properties = {}) {
    properties.insert({{"eventType", type}, {"eventId", type}});
    return properties;
}

/** A server on a pipe of its own, with one handler. */
class EventServerSourceTest : public ::testing::Test {
protected:
    EventServerSourceTest() {
        source.Configure({{"Path", path}});
        source.AddHandler(&handler);
        log.Clear();
    }

    /** All events so far, without their stamps, once there are so many. */
    Events Received(size_t count) {
        EXPECT_TRUE(handler.WaitForCount(count));
        Events events;
        for (const test::ReceivedEvent& event : handler.Events()) {
            events.push_back(event.properties);
            events.back().erase("Timestamp");
            events.back().erase("FormattedTime");
        }
        return events;
    }

    /** What a text posted at once becomes. The block that ends it shows that nothing more came of the text. */
    Events EventsOf(const std::string& text) {
        if (source.GetCurrentThread() == nullptr) {
            source.StartListening();
        }
        const std::string last = "Last" + std::to_string(++posts);
        fifo.Write(text + "[" + last + "]\n.\n");
        EXPECT_TRUE(test::WaitUntil([&] { return EndsWith(last); }));
        Events events = Received(1);
        EXPECT_EQ(events.back(), Made(last));
        events.pop_back();
        return events;
    }

    bool EndsWith(const std::string& type) const {
        const std::vector<test::ReceivedEvent> events = handler.Events();
        return !events.empty() && events.back().properties.at("eventType") == type;
    }

    int posts = 0;
    const test::LeftDescriptorsClosed leftDescriptorsClosed;
    const test::TempDir folder;
    const std::string path = folder.PathOf("pipe");
    test::LogCapture log;
    test::RecordingHandler handler;
    EventServerSource source;
    const test::Fifo fifo{path};
};

}  // namespace kelto::halvek::source

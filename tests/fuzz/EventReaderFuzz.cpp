#include "event/Event.h"
#include "handler/EventHandler.h"
#include "kelto/core/Logger.h"
#include "source/EventServerSource.h"
#include "tests/support/Fifo.h"
#include "tests/support/TempDir.h"

#include <unistd.h>

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <stdexcept>

namespace kelto::halvek {

namespace {

// With the end block it fits into a pipe, which takes it at once or not at all.
constexpr size_t longestInput = 60000;
constexpr const char* endType = "end of fuzzing";

/** Ends the process, and so fails the run, if something does not hold. */
void Require(bool condition, const char* text) {
    if (!condition) {
        std::cerr << "does not hold: " << text << std::endl;
        std::abort();
    }
}

/** Looks at each event, and stops the source at the one that stands behind every input. */
class CheckingHandler : public EventHandler {
public:
    explicit CheckingHandler(source::EventServerSource& stoppedSource) : source(stoppedSource) {}

    bool IsConfigured() const override { return true; }

    void PerformAction(Event& event) override {
        Require(!event.GetEventType().empty(), "an event has a type");
        const Event::Properties& properties = event.GetProperties();
        for (const char* name : {"eventId", "Timestamp", "FormattedTime"}) {
            Require(properties.count(name) == 1, name);
        }
        for (const auto& [key, value] : properties) {
            Require(!key.empty() && std::isalnum(static_cast<unsigned char>(key[0])) != 0, "a key begins well");
            Require(key.find_first_of("=\n") == std::string::npos, "a key ends at the first =");
            Require(value.find('\n') == std::string::npos, "a value is on one line");
        }
        if (event.GetEventType() == endType) {
            ended = true;
            source.Stop();
        }
    }

    bool ended = false;

private:
    source::EventServerSource& source;
};

/** Reads the pipe to the end block, or to the empty line that ends the reading. The source leaves its end open. */
void ReadPipe(const std::string& path) {
    source::EventServerSource source;
    CheckingHandler handler(source);
    source.Configure({{"Path", path}});
    static_cast<EventSource&>(source).AddHandler(&handler);
    const int next = dup(STDIN_FILENO);
    close(next);
    try {
        source.Run();
        Require(handler.ended, "the end block is read");
    } catch (const std::out_of_range&) {
        Require(!handler.ended, "an empty line ends the reading");
    }
    close(next);
}

}  // namespace

}  // namespace kelto::halvek

/** Whatever is posted on the event pipe, what comes of it are whole events, and the block behind it is read. */
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace kelto;
    if (size > halvek::longestInput) {
        return 0;
    }
    static const test::TempDir folder;
    static const test::Fifo pipe(folder.PathOf("pipe"));
    core::Logger::SetLevels({.general = core::LogLevel::Error, .byLogger = {}});
    std::string text(reinterpret_cast<const char*>(data), size);
    text += text.empty() || text.back() == '\n' ? "" : "\n";
    pipe.Write(text + "[" + halvek::endType + "]\n.\n");
    halvek::ReadPipe(pipe.GetPath());
    pipe.Read();
    return 0;
}

#pragma once

#include "camera/runtime/Timer.h"
#include "companions/common/ReceivedEvent.h"
#include "companions/page/Errand.h"
#include "companions/page/HttpServer.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kelto::page {

class Options;

/**
 * What halvekctl says of the monitor's settings: the drawing of the wiring, and who acts on the last event and why not
 * the others. That program may be missing, or may not be allowed to read the settings: then the answer says so.
 *
 * A program is run only when a browser asks. All that ask while it runs are answered by its next run, and no run begins
 * within 200 ms of the one before, however many ask. One thread.
 */
class Adviser {
public:
    Adviser(vcam::EventLoop& eventLoop, const Options& options);

    /** To be called with every event. */
    void Take(const companion::ReceivedEvent& event, uint64_t seq, const std::string& isoTime);

    /** Answers {"problem","drawing"}; the drawing is SVG without a style sheet. */
    void Draw(const HttpExchangePtr& exchange);
    /** Answers {"problem","seq","type","at","rows","alwaysOn","rules"} of the last event; seq is 0 before the first. */
    void Explain(const HttpExchangePtr& exchange);

private:
    using Waiting = std::vector<HttpExchangePtr>;

    struct LastEvent {
        uint64_t seq = 0;
        std::string type;
        std::vector<std::string> words;  ///< as halvekctl takes them
        std::string time;
    };

    void RunSoon();
    void RunNext();
    void RunDraw();
    void RunExplain();
    std::vector<std::string> Command(const std::vector<std::string>& words) const;

    const std::string program;
    const std::string settings;
    LastEvent last;
    Waiting forDrawing;
    Waiting forExplanation;
    bool hasJustDrawn = false;
    uint64_t earliest = 0;
    vcam::Timer timer;
    Errand errand;
};

}  // namespace kelto::page

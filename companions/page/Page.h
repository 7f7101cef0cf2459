#pragma once

#include "camera/runtime/Timer.h"
#include "companions/page/ActionFollower.h"
#include "companions/page/Adviser.h"
#include "companions/page/Assets.h"
#include "companions/page/CameraBus.h"
#include "companions/page/CameraView.h"
#include "companions/page/EventFeed.h"
#include "companions/page/EventRing.h"
#include "companions/page/Gate.h"
#include "companions/page/HttpServer.h"
#include "companions/page/Orders.h"
#include "companions/page/PictureFile.h"

#include <deque>
#include <functional>
#include <string>
#include <vector>

namespace kelto::companion {
class Json;
}

namespace kelto::page {

class Options;

/**
 * The page: who asks for what, and what the camera, the monitor and the browsers tell each other by it.
 *
 * The camera's state is asked for when the camera has said something, at most every 10 ms, and is told to the browsers
 * if it has changed. While nobody looks, nothing is asked for. One thread.
 */
class Page {
public:
    /** @param socket listens for browsers
     *  @param token  what a page has to know to change anything
     *  @param ready  called once, when browsers are answered and the camera is heard, if there is one */
    Page(vcam::EventLoop& eventLoop, int socket, const Options& options, const std::string& token,
         std::function<void()> ready);

    /** Why events are not shown; empty if they are. */
    const std::string& EventProblem() const { return feed.Problem(); }

private:
    /** The latest of one kind, each an object of JSON. */
    using Recent = std::deque<std::string>;

    void Handle(const HttpExchangePtr& exchange);
    void HandleState(const HttpExchangePtr& exchange);
    void HandleStream(const HttpExchangePtr& exchange);

    void OnCamera(bool isThere);
    void OnSaid(uint64_t time, const std::string& line);
    void OnAlarm(const std::string& bank, int32_t index, bool active);
    void OnEvent(const companion::ReceivedEvent& event);
    void OnActions(const std::vector<ActionFollower::Action>& actions, size_t leftOut);

    void AskForState();
    void AskNow();
    void TakeState(const CameraBus::Result& result);
    void AnswerWithState(const std::vector<HttpExchangePtr>& exchanges);
    void TellState();
    std::string StateForAll() const;
    std::string StateForOne() const;

    void Watch();
    void Tell(const std::string& name, const std::string& data);
    void TellAndKeep(const std::string& name, const std::string& data, Recent& recent);

    EventRing ring;
    const Gate gate;
    const Assets assets;
    const PictureFile picture;
    CameraView view;
    Recent said;
    Recent actions;
    Recent events;
    uint64_t eventCount = 0;
    std::string pictureTag;
    std::string toldState;
    bool isAsking = false;
    bool isAskedAgain = false;
    uint64_t earliest = 0;                 ///< when the camera may be asked for its state again
    std::vector<HttpExchangePtr> waiting;  ///< for a state that has not been asked for yet
    std::vector<HttpExchangePtr> served;   ///< by the state that is being asked for
    vcam::Timer stateTimer;
    vcam::Timer watchTimer;
    CameraBus camera;
    ActionFollower follower;
    EventFeed feed;
    Orders orders;
    Adviser adviser;
    HttpServer server;
};

}  // namespace kelto::page

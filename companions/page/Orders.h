#pragma once

#include "companions/common/EventPipe.h"
#include "companions/page/HttpServer.h"

#include <string>

namespace kelto::page {

class BodyReader;
class CameraBus;

/**
 * What a person does on the page: each POST is one call of the camera, or one event into the event pipe. It is answered
 * when the camera has answered: 204; 400 with what the camera, or the grammar of events, has against it; 502 if there
 * is nobody to do it. One thread.
 */
class Orders {
public:
    Orders(CameraBus& cameraBus, std::string eventPipe) : camera(cameraBus), pipe(std::move(eventPipe)) {}

    void CarryOut(const HttpExchangePtr& exchange);

private:
    void SetAlarm(const HttpExchangePtr& exchange, BodyReader& body);
    void MoveHead(const HttpExchangePtr& exchange, BodyReader& body);
    void SetRecording(const HttpExchangePtr& exchange, BodyReader& body);
    void RaiseAlert(const HttpExchangePtr& exchange, BodyReader& body);
    void SetFault(const HttpExchangePtr& exchange, BodyReader& body);
    void Post(const HttpExchangePtr& exchange, BodyReader& body);

    CameraBus& camera;
    companion::EventPipe pipe;
};

}  // namespace kelto::page

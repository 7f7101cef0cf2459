#pragma once

#include "camera/runtime/Timer.h"
#include "companions/page/HttpMessage.h"

#include <microhttpd.h>
#include <systemd/sd-event.h>

#include <functional>
#include <memory>
#include <set>
#include <string>

namespace kelto::vcam {
class EventLoop;
}

namespace kelto::page {

class EventRing;
class HttpServer;

/**
 * One request and its answer, which may come later than the request. Whoever answers holds it until then; if the
 * browser has gone meanwhile, nothing happens.
 */
class HttpExchange {
public:
    HttpExchange(HttpServer& httpServer, MHD_Connection* httpConnection)
        : server(httpServer), connection(httpConnection) {}

    const HttpRequest& GetRequest() const { return request; }
    /** To be called once, from the loop. */
    void Answer(HttpAnswer given);

private:
    friend class HttpServer;

    HttpServer& server;
    MHD_Connection* connection;
    HttpRequest request;
    size_t received = 0;
    HttpAnswer answer;
    bool isAnswered = false;
    bool isDispatched = false;
    bool isSuspended = false;
    bool isOver = false;  ///< the connection is not ours any more
};

using HttpExchangePtr = std::shared_ptr<HttpExchange>;

/**
 * The HTTP side of the page: libmicrohttpd, whose epoll descriptor is a source of our own loop, so that everything
 * happens in one thread.
 *
 * A connection that has nothing to send is suspended: the library would ask for more without end. While suspended it
 * also does not see a browser go; the comments on the streams are for that. The library must not be stopped while
 * connections are suspended, so all are resumed first.
 */
class HttpServer {
public:
    using Handler = std::function<void(const HttpExchangePtr& exchange)>;

    /** More browsers than that at a time get 503 for their stream. */
    static constexpr size_t mostStreams = 32;

    /**
     * @param socket  listens; stays the caller's
     * @param handler answers each request at once or later
     * @throws vcam::Failure
     */
    HttpServer(vcam::EventLoop& eventLoop, int socket, const EventRing& eventRing, Handler handler);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    bool HasRoomForStream() const { return streams.size() < mostStreams; }
    bool HasStreams() const { return !streams.empty(); }
    /** To be called when something was added to the ring. */
    void WakeStreams();

private:
    friend class HttpExchange;
    struct Stream;
    struct StopDaemon {
        void operator()(MHD_Daemon* started) const { MHD_stop_daemon(started); }
    };
    struct Unref {
        void operator()(sd_event_source* added) const { sd_event_source_disable_unref(added); }
    };

    static MHD_Result OnRequest(void* self, MHD_Connection* connection, const char* url, const char* method,
                                const char* version, const char* data, size_t* size, void** state);
    static void OnCompleted(void* self, MHD_Connection* connection, void** state, MHD_RequestTerminationCode code);
    static ssize_t OnRead(void* stream, uint64_t position, char* buffer, size_t size);
    static void OnStreamEnd(void* stream);
    static int OnReady(sd_event_source*, int descriptor, uint32_t events, void* self);

    MHD_Result Take(HttpExchange& exchange, const char* data, size_t* size);
    MHD_Result Proceed(HttpExchangePtr& exchange);
    MHD_Result Send(HttpExchange& exchange);
    MHD_Response* MakeResponse(HttpExchange& exchange);
    void Resume(HttpExchange& exchange);
    void ResumeConnection(MHD_Connection* connection);
    void Run();
    unsigned CountConnections() const;
    void SendComments();

    const EventRing& ring;
    const Handler handle;
    vcam::Timer timeout;
    vcam::Timer commentTimer;
    std::set<Stream*> streams;
    std::set<HttpExchange*> waiting;
    bool isRunDue = false;
    bool isStopping = false;
    std::unique_ptr<MHD_Daemon, StopDaemon> daemon;
    std::unique_ptr<sd_event_source, Unref> source;
};

}  // namespace kelto::page

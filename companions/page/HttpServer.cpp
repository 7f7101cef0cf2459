#include "companions/page/HttpServer.h"

#include "camera/runtime/EventLoop.h"
#include "camera/runtime/Failure.h"
#include "companions/page/EventRing.h"
#include "companions/page/EventStream.h"
#include "companions/page/Gate.h"

#include <strings.h>
#include <sys/epoll.h>

#include <algorithm>
#include <exception>
#include <utility>

namespace kelto::page {

namespace {

using vcam::EventLoop;
using vcam::Failure;

// Seconds without a byte in either direction: for a browser that takes nothing, and for one that never ends its
// request. Comments come more often, so that no stream ends for having nothing to say.
constexpr unsigned patience = 25;
constexpr uint64_t commentInterval = 10'000'000;  // microseconds
constexpr unsigned mostConnections = 128;
constexpr size_t streamBlock = 16'384;
// A body that is refused is read to its end all the same, as far as this: a browser whose connection is cut while it
// still sends does not read the refusal.
constexpr size_t mostReceived = 1'048'576;

constexpr const char* policy =
    "default-src 'none'; img-src 'self'; script-src 'self'; style-src 'self'; connect-src 'self'; frame-ancestors "
    "'none'";

struct FreeResponse {
    void operator()(MHD_Response* response) const { MHD_destroy_response(response); }
};
using ResponsePtr = std::unique_ptr<MHD_Response, FreeResponse>;

MHD_Result AddField(void* collected, MHD_ValueKind, const char* name, const char* value) {
    static const std::pair<const char*, std::string HttpRequest::*> fields[] = {
        {"Host", &HttpRequest::host},
        {"Origin", &HttpRequest::origin},
        {"X-Halvek-Token", &HttpRequest::token},
        {"Content-Type", &HttpRequest::contentType},
        {"If-None-Match", &HttpRequest::ifNoneMatch},
        {"Last-Event-ID", &HttpRequest::cursor},
    };
    for (const auto& [known, member] : fields) {
        if (strcasecmp(known, name) == 0) {
            std::string& field = static_cast<HttpRequest*>(collected)->*member;
            field += (field.empty() ? "" : "\n") + std::string(value == nullptr ? "" : value);
        }
    }
    return MHD_YES;
}

void ReadHead(MHD_Connection* connection, const char* url, const char* method, HttpRequest& request) {
    request.method = method;
    request.path = url;
    MHD_get_connection_values(connection, MHD_HEADER_KIND, &AddField, &request);
    // A browser cannot set the header for its first stream, and sends both when it comes back.
    const char* const after = MHD_lookup_connection_value(connection, MHD_GET_ARGUMENT_KIND, "after");
    if (request.cursor.empty() && after != nullptr) {
        request.cursor = after;
    }
}

void AddHeaders(MHD_Response* response, const HttpAnswer& answer) {
    MHD_add_response_header(response, "Content-Security-Policy", policy);
    MHD_add_response_header(response, "X-Content-Type-Options", "nosniff");
    MHD_add_response_header(response, "Referrer-Policy", "no-referrer");
    MHD_add_response_header(response, "Cross-Origin-Resource-Policy", "same-origin");
    bool saysHowToKeep = false;
    for (const auto& [name, value] : answer.headers) {
        MHD_add_response_header(response, name.c_str(), value.c_str());
        saysHowToKeep = saysHowToKeep || name == "Cache-Control";
    }
    if (!saysHowToKeep) {
        MHD_add_response_header(response, "Cache-Control", "no-store");
    }
    if (answer.status != MHD_HTTP_NO_CONTENT && answer.status != MHD_HTTP_NOT_MODIFIED) {
        MHD_add_response_header(response, "Content-Type", answer.contentType.c_str());
    }
}

}  // namespace

/** A connection that is sent events. */
struct HttpServer::Stream {
    HttpServer& server;
    MHD_Connection* const connection;
    EventStream events;
    bool isSuspended = false;

    void Resume() {
        if (std::exchange(isSuspended, false)) {
            server.ResumeConnection(connection);
        }
    }
};

void HttpExchange::Answer(HttpAnswer given) {
    answer = std::move(given);
    isAnswered = true;
    if (!isOver) {
        server.Resume(*this);
    }
}

HttpServer::HttpServer(EventLoop& eventLoop, int socket, const EventRing& eventRing, Handler handler)
    : ring(eventRing), handle(std::move(handler)), timeout(eventLoop), commentTimer(eventLoop) {
    constexpr unsigned flags = MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME;
    daemon.reset(MHD_start_daemon(flags, 0, nullptr, nullptr, &HttpServer::OnRequest, this,  //
                                  MHD_OPTION_LISTEN_SOCKET, socket,                          //
                                  MHD_OPTION_NOTIFY_COMPLETED, &HttpServer::OnCompleted, this,
                                  MHD_OPTION_CONNECTION_LIMIT, mostConnections,  //
                                  MHD_OPTION_CONNECTION_TIMEOUT, patience,       //
                                  MHD_OPTION_END));
    if (!daemon) {
        throw Failure("Cannot serve HTTP");
    }
    const MHD_DaemonInfo* const info = MHD_get_daemon_info(daemon.get(), MHD_DAEMON_INFO_EPOLL_FD);
    sd_event_source* added = nullptr;
    vcam::Check(sd_event_add_io(eventLoop.Get(), &added, info->epoll_fd, EPOLLIN, &HttpServer::OnReady, this),
                "Cannot serve HTTP");
    source.reset(added);
}

HttpServer::~HttpServer() {
    isStopping = true;
    const std::set<HttpExchange*> unanswered = waiting;
    for (HttpExchange* const exchange : unanswered) {
        exchange->Answer(HttpAnswer::Of(MHD_HTTP_SERVICE_UNAVAILABLE, "The page is going away"));
    }
    WakeStreams();
    MHD_run(daemon.get());
    // The library closes the socket that it listens at, which is not its own.
    MHD_quiesce_daemon(daemon.get());
}

void HttpServer::WakeStreams() {
    for (Stream* const stream : streams) {
        stream->Resume();
    }
}

MHD_Result HttpServer::OnRequest(void* self, MHD_Connection* connection, const char* url, const char* method,
                                 const char*, const char* data, size_t* size, void** state) {
    HttpServer& server = *static_cast<HttpServer*>(self);
    auto* exchange = static_cast<HttpExchangePtr*>(*state);
    try {
        if (exchange == nullptr) {
            *state = new HttpExchangePtr(std::make_shared<HttpExchange>(server, connection));
            ReadHead(connection, url, method, (*static_cast<HttpExchangePtr*>(*state))->request);
            return MHD_YES;
        }
        return *size > 0 ? server.Take(**exchange, data, size) : server.Proceed(*exchange);
    } catch (const std::exception&) {
        // The library is C. Memory is short, and this connection is what it costs.
        return MHD_NO;
    }
}

MHD_Result HttpServer::Take(HttpExchange& exchange, const char* data, size_t* size) {
    std::string& body = exchange.request.body;
    body.append(data, std::min(*size, Gate::largestBody + 1 - body.size()));
    exchange.received += *size;
    *size = 0;
    return exchange.received > mostReceived ? MHD_NO : MHD_YES;
}

MHD_Result HttpServer::Proceed(HttpExchangePtr& exchange) {
    if (!std::exchange(exchange->isDispatched, true)) {
        handle(exchange);
    }
    if (exchange->isAnswered) {
        return Send(*exchange);
    }
    exchange->isSuspended = true;
    waiting.insert(exchange.get());
    MHD_suspend_connection(exchange->connection);
    return MHD_YES;
}

MHD_Result HttpServer::Send(HttpExchange& exchange) {
    const ResponsePtr response(MakeResponse(exchange));
    AddHeaders(response.get(), exchange.answer);
    return MHD_queue_response(exchange.connection, static_cast<unsigned>(exchange.answer.status), response.get());
}

MHD_Response* HttpServer::MakeResponse(HttpExchange& exchange) {
    if (!exchange.answer.isStream) {
        std::string& body = exchange.answer.body;
        return MHD_create_response_from_buffer(body.size(), body.data(), MHD_RESPMEM_MUST_COPY);
    }
    auto* const stream = new Stream{
        .server = *this, .connection = exchange.connection, .events = EventStream(ring, exchange.request.cursor)};
    streams.insert(stream);
    if (!commentTimer.IsStarted()) {
        commentTimer.StartAt(EventLoop::Now() + commentInterval, [this] { SendComments(); });
    }
    return MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, streamBlock, &HttpServer::OnRead, stream,
                                             &HttpServer::OnStreamEnd);
}

ssize_t HttpServer::OnRead(void* self, uint64_t, char* buffer, size_t size) {
    Stream& stream = *static_cast<Stream*>(self);
    const size_t length = stream.events.Read({buffer, size});
    if (length > 0) {
        return static_cast<ssize_t>(length);
    }
    if (stream.server.isStopping) {
        return MHD_CONTENT_READER_END_OF_STREAM;
    }
    stream.isSuspended = true;
    MHD_suspend_connection(stream.connection);
    return 0;
}

void HttpServer::OnStreamEnd(void* self) {
    auto* const stream = static_cast<Stream*>(self);
    stream->server.streams.erase(stream);
    delete stream;
}

void HttpServer::OnCompleted(void*, MHD_Connection*, void** state, MHD_RequestTerminationCode) {
    auto* const exchange = static_cast<HttpExchangePtr*>(*state);
    if (exchange != nullptr) {
        (*exchange)->isOver = true;
        (*exchange)->server.waiting.erase(exchange->get());
        delete exchange;
        *state = nullptr;
    }
}

void HttpServer::Resume(HttpExchange& exchange) {
    if (std::exchange(exchange.isSuspended, false)) {
        waiting.erase(&exchange);
        ResumeConnection(exchange.connection);
    }
}

void HttpServer::ResumeConnection(MHD_Connection* connection) {
    MHD_resume_connection(connection);
    // Its descriptor does not tell of that, and the library may be running right now.
    isRunDue = true;
    if (!isStopping) {
        timeout.StartAt(EventLoop::Now(), [this] { Run(); });
    }
}

int HttpServer::OnReady(sd_event_source*, int, uint32_t, void* self) {
    static_cast<HttpServer*>(self)->Run();
    return 0;
}

void HttpServer::Run() {
    isRunDue = false;
    const unsigned before = CountConnections();
    MHD_run(daemon.get());
    if (CountConnections() < before) {
        // There may have been too many: the library listens again as the first thing of the next run.
        MHD_run(daemon.get());
    }
    MHD_UNSIGNED_LONG_LONG milliseconds = 0;
    if (isRunDue) {
        return;
    }
    if (MHD_get_timeout(daemon.get(), &milliseconds) == MHD_YES) {
        timeout.StartAt(EventLoop::Now() + milliseconds * 1'000, [this] { Run(); });
    } else {
        timeout.Cancel();
    }
}

unsigned HttpServer::CountConnections() const {
    return MHD_get_daemon_info(daemon.get(), MHD_DAEMON_INFO_CURRENT_CONNECTIONS)->num_connections;
}

void HttpServer::SendComments() {
    for (Stream* const stream : streams) {
        stream->events.RequestComment();
    }
    WakeStreams();
    if (!streams.empty()) {
        commentTimer.StartAt(EventLoop::Now() + commentInterval, [this] { SendComments(); });
    }
}

}  // namespace kelto::page

#include "companions/page/Gate.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace kelto::page {
namespace {

constexpr const char* pageToken = "0123456789abcdef0123456789abcdef";

HttpRequest Get(const std::string& path) {
    HttpRequest request;
    request.method = "GET";
    request.path = path;
    request.host = "localhost:8077";
    return request;
}

HttpRequest Order(const std::string& path) {
    HttpRequest request = Get(path);
    request.method = "POST";
    request.origin = "http://localhost:8077";
    request.token = pageToken;
    request.contentType = "application/json";
    request.body = "{}";
    return request;
}

class GateTest : public ::testing::Test {
protected:
    /** 0 if the request comes through. */
    int StatusOf(const HttpRequest& request) const {
        const std::optional<HttpAnswer> refusal = gate.Refuse(request);
        return refusal ? refusal->status : 0;
    }
    int StatusOfHost(const std::string& host) const {
        HttpRequest request = Get("/");
        request.host = host;
        return StatusOf(request);
    }
    int StatusOfOrigin(const std::string& origin) const {
        HttpRequest request = Get("/state");
        request.origin = origin;
        return StatusOf(request);
    }

    const Gate gate{{"Desk.example"}, pageToken};
};

TEST_F(GateTest, WhatThePageItselfAsksForComesThrough) {
    for (const char* const path :
         {"/", "/page.js", "/page.css", "/icon.svg", "/picture", "/state", "/stream", "/wiring", "/explain"}) {
        EXPECT_EQ(StatusOf(Get(path)), 0) << path;
    }
    for (const char* const path : {"/alarm", "/head", "/recording", "/alert", "/fault", "/post"}) {
        EXPECT_EQ(StatusOf(Order(path)), 0) << path;
    }
}

TEST_F(GateTest, AHostIsOursByItsNameWhateverItsPortAndLetters) {
    for (const char* const host :
         {"localhost", "LocalHost:1", "127.0.0.1:65535", "[::1]", "[::1]:8077", "desk.EXAMPLE", "desk.example:80"}) {
        EXPECT_EQ(StatusOfHost(host), 0) << host;
    }
}

TEST_F(GateTest, EveryOtherHostIs421) {
    for (const char* const host : {"",
                                   ":8077",
                                   "evil.example",
                                   "localhost.evil.example",
                                   "localhost.",
                                   "evil-localhost",
                                   "user@localhost",
                                   "localhost:",
                                   "localhost:x",
                                   "localhost:123456",
                                   "localhost:1:1",
                                   "localhost\nlocalhost",
                                   " localhost",
                                   "::1",
                                   "[::1",
                                   "[::1]x",
                                   "[::1]:",
                                   "[::2]",
                                   "127.0.0.1.evil.example",
                                   "0.0.0.0",
                                   "desk.example.evil"}) {
        EXPECT_EQ(StatusOfHost(host), 421) << host;
    }
}

TEST_F(GateTest, AForeignHostIsNotEvenToldWhatIsThere) {
    HttpRequest request = Order("/nothing");
    request.host = "evil.example";
    EXPECT_EQ(StatusOf(request), 421);
}

TEST_F(GateTest, AnOriginMustBeOursInSchemeHostAndPort) {
    EXPECT_EQ(StatusOfOrigin(""), 0);
    EXPECT_EQ(StatusOfOrigin("http://localhost:8077"), 0);
    for (const char* const origin :
         {"https://localhost:8077", "http://localhost", "http://localhost:8078", "http://127.0.0.1:8077",
          "http://localhost:8077/", "http://LOCALHOST:8077", "localhost:8077", "null", "file://",
          "http://localhost:8077\nhttp://evil.example"}) {
        EXPECT_EQ(StatusOfOrigin(origin), 403) << origin;
    }
}

TEST_F(GateTest, AnOrderNeedsTheWholeToken) {
    HttpRequest request = Order("/alarm");
    const std::string whole = pageToken;
    for (const std::string& wrong : {std::string(), whole.substr(1), whole + "0", whole + "\n" + whole,
                                     std::string(32, '0'), std::string("0123456789ABCDEF0123456789abcdef")}) {
        request.token = wrong;
        EXPECT_EQ(StatusOf(request), 403) << wrong;
    }
}

TEST_F(GateTest, AnOrderIsJsonHoweverItIsWritten) {
    HttpRequest request = Order("/alarm");
    for (const char* const type : {"Application/JSON", "application/json;charset=utf-8", "application/json \t; x=y"}) {
        request.contentType = type;
        EXPECT_EQ(StatusOf(request), 0) << type;
    }
    for (const char* const type : {"", "text/plain", "application/jsonp", "text/plain; application/json"}) {
        request.contentType = type;
        EXPECT_EQ(StatusOf(request), 415) << type;
    }
}

TEST_F(GateTest, AnOrderHas4096BytesAtMost) {
    HttpRequest request = Order("/alarm");
    request.body.resize(4'096, ' ');
    EXPECT_EQ(StatusOf(request), 0);
    request.body += ' ';
    EXPECT_EQ(StatusOf(request), 413);
}

TEST_F(GateTest, AnotherMethodIsToldWhichOneIsTaken) {
    HttpRequest request = Order("/state");
    ASSERT_EQ(StatusOf(request), 405);
    EXPECT_EQ(gate.Refuse(request)->headers, (decltype(HttpAnswer::headers){{"Allow", "GET, HEAD"}}));
    request = Get("/alarm");
    ASSERT_EQ(StatusOf(request), 405);
    EXPECT_EQ(gate.Refuse(request)->headers, (decltype(HttpAnswer::headers){{"Allow", "POST"}}));
    request = Get("/stream");
    request.method = "HEAD";
    EXPECT_EQ(StatusOf(request), 405);
    request = Get("/state");
    for (const char* const method : {"GET, HEAD", "get", "OPTIONS", ""}) {
        request.method = method;
        EXPECT_EQ(StatusOf(request), 405) << method;
    }
}

TEST_F(GateTest, WhatIsNotThereIs404) {
    for (const char* const path : {"", "//", "/STATE", "/page.js/", "/../state", "/favicon.ico"}) {
        EXPECT_EQ(StatusOf(Get(path)), 404) << path;
    }
}

TEST_F(GateTest, WhoeverIsRefusedIsNotToldTheToken) {
    HttpRequest request = Order("/alarm");
    request.token = "wrong";
    EXPECT_EQ(gate.Refuse(request)->body.find(pageToken), std::string::npos);
}

}  // namespace
}  // namespace kelto::page

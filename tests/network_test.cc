#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include "network/network_manager.h"
#include "pactivo/locale_utils.h"
#include "pactivo/user_default_manager.h"
#include "runtime/task_runner.h"
#include "support/test_server.h"
#include "support/test_support.h"

namespace pactivo::detail {
namespace {

using std::chrono::milliseconds;
using testing::ScopedPlatform;
using testing::TestServer;
using Kind = NetworkError::Kind;

const std::string kOk = R"({"status": 0, "message": "ok"})";

// An endpoint with a query and headers of its own, which no real one has.
class CustomEndPoint : public StoredEndPoint {
 public:
  CustomEndPoint() {
    pathURL_ = "p";
    headerParams_ = {{HeaderParam::accept, "text/plain"}, {HeaderParam::authorization, "x"}};
    queryParams_ = {{QueryParam::limit, "a b&c"}};
  }
};

TEST(RequestBuilderTest, UrlsHeadersAndETag) {
  ScopedPlatform scoped;
  LocaleUtils::setCurrentLanguageCode("fr");
  auto options = [](bool testing) {
    return ConsentSDKOptions("https://app.example/", "https://cdn.example/", "t1", "a9", testing,
                             LogLevel::debug, 60, std::nullopt, std::nullopt, std::nullopt,
                             WebViewConfig({}, {}));
  };
  GetCDNEndPoint draft(options(true), false), neutral(options(false), true),
      live(options(false), false);
  CustomEndPoint custom;
  const std::string cdn = "https://cdn.example/consent/mobile_banner/t1/a9/";
  struct Case {
    const EndPoint& endPoint;
    std::string base, url;  // "invalid: <text>" for an invalidURL error carrying the text
  } cases[] = {
      {draft, "https://cdn.example/", cdn + "draft/config_fr.json"},
      {neutral, "https://cdn.example/", cdn + "live/config.json"},
      {live, "https://cdn.example/files",
       "https://cdn.example/filesconsent/mobile_banner/t1/a9/live/config_fr.json"},
      // The path joins the base's query, which goes when the endpoint has none.
      {neutral, "https://cdn.example/?q=1", "https://cdn.example/"},
      {custom, "http://h/", "http://h/p?limit=a+b%26c"},
      {live, "", "invalid: "},
      {live, "not a url", "invalid: not a url"},
      {live, "http://[::1", "invalid: http://[::1"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.base);
    try {
      EXPECT_EQ(RequestBuilder(c.endPoint, c.base).buildRequest().url, c.url);
    } catch (const NetworkError& error) {
      EXPECT_EQ((error.kind() == Kind::invalidURL ? "invalid: " : "other: ") + error.message(),
                c.url);
    }
  }
  URLRequest plain = RequestBuilder(live, "http://h/").buildRequest();
  EXPECT_EQ(plain.method, "GET");
  EXPECT_EQ(plain.idleTimeout, std::chrono::seconds(60));
  EXPECT_EQ(plain.transferTimeout, std::chrono::minutes(10));
  EXPECT_EQ(plain.headers, (std::map<std::string, std::string>{
                               {"Accept", "*/*"}, {"Content-Type", "application/json"}}));
  EXPECT_FALSE(plain.body);
  // The upload's method, path, token and body are pinned on the wire in
  // NetworkManagerTest.RequestGoesOutAsBuilt.
  UserDefaultManager::setETag("W/\"abc\"");
  EXPECT_EQ(
      RequestBuilder(custom, "http://h/").buildRequest().headers,
      (std::map<std::string, std::string>{{"Accept", "text/plain"},  // an endpoint may override
                                          {"Authorization", "x"},
                                          {"Content-Type", "application/json"},
                                          {"If-None-Match", "W/\"abc\""}}));
}

TEST(NetworkErrorTest, Texts) {
  ScopedPlatform scoped;
  scoped.platform().setTranslation("Failed with 403 status code", "Zugriff verweigert");
  const std::string unknown = "An unknown error occurred.";
  struct Case {
    NetworkError error;
    std::string description, errorDescription;
  } cases[] = {
      {NetworkError::invalidPath("x"), "Invalid Patherror ocurred (x", "x"},
      {NetworkError::badUrl("u"), "Bad URL error ocurred\nu", "u"},
      {NetworkError::invalidStatusCode(500), "Failed with Status (500)",
       "Failed with 500 status code"},
      {NetworkError::invalidStatusCode(403), "Failed with Status (403)", "Zugriff verweigert"},
      {NetworkError::decodingError("m"), "Failed while Decoding Response.\nm", "m"},
      {NetworkError::invalidURL("v"), "Invalid URL error ocurred.\nv", "v"},
      {NetworkError::response(std::nullopt), unknown, "Unexpected Error"},
      {NetworkError::keyMapping(), unknown, "Unexpected Error"},
      {NetworkError::cdnNotModified(), unknown, "Unexpected Error"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.error.description(), c.description);
    EXPECT_EQ(std::string(c.error.what()), c.description);
    EXPECT_EQ(c.error.errorDescription(), c.errorDescription);
  }
}

TEST(ExchangeDumpTest, LayoutIsPinned) {
  const URLRequest full{.url = "http://h/p",
                        .method = "POST",
                        .headers = {{"Content-Type", "application/json"}, {"X-Auth-Token", "tok"}},
                        .body = "{\"a\":1}"};
  URLRequest binary = full, bare = full;
  binary.body = bare.body = "\xFF";
  bare.headers.clear();
  struct Case {
    const URLRequest& request;
    std::optional<HTTPResponse> response;
    std::optional<std::string> body;
    std::string file;  // the expected text, under tests/data/network
  } cases[] = {
      {full, HTTPResponse{"http://h/p", 500, {{"Server", "x"}}}, "oops", "exchange_dump_full.txt"},
      {binary, std::nullopt, std::nullopt, "exchange_dump_nil.txt"},
      {bare, std::nullopt, "\xC3\x28", "exchange_dump_non_utf8.txt"},
  };
  for (const auto& c : cases) {
    std::ifstream in(std::string(PACTIVO_TEST_DATA_DIR) + "/network/" + c.file);
    std::string expected((std::istreambuf_iterator<char>(in)), {});
    ASSERT_FALSE(expected.empty()) << c.file;
    expected.pop_back();  // the file's final newline
    EXPECT_EQ(exchangeDump(c.request, c.response, c.body), expected) << c.file;
  }
}

class NetworkManagerTest : public ::testing::Test {
 protected:
  URLRequest get(const std::string& path) {
    return {server_.baseUrl() + path,
            "GET",
            {{"Accept", "*/*"}, {"Content-Type", "application/json"}},
            std::nullopt};
  }

  ScopedPlatform scoped_;
  testing::LogCapture log_;
  TestServer server_;
  ConsentNetworkManager manager_;
};

// Rows run in order: the stored ETag carries over from one to the next.
TEST_F(NetworkManagerTest, RepliesByStatus) {
  struct Case {
    int status;
    std::string body, etagHeader, etag;
    std::optional<Kind> kind;  // none: decodes
    bool logged;
    std::string storedETag;
    std::string text;  // the decoded message, or the start of the error's
    bool asDocument = false;
  } cases[] = {
      {200, kOk, "ETag", "\"v1\"", std::nullopt, false, "\"v1\"", "ok"},
      {200, R"({"status": 1, "message": "m"})", "etag", "lower", std::nullopt, false, "lower", "m"},
      {200, kOk, "", "", std::nullopt, false, "lower", "ok"},  // no ETag keeps the stored one
      {304, "", "", "", Kind::cdnNotModified, false, "lower", ""},
      {404, "{\"error\": true}", "", "", Kind::invalidStatusCode, false, "lower", ""},
      {500, "{\"error\": true}", "", "", Kind::invalidStatusCode, true, "lower", ""},
      {302, "{\"error\": true}", "", "", Kind::invalidStatusCode, true, "lower", ""},  // no target
      // An undecodable body still leaves its ETag.
      {200, "", "ETag", "\"bad\"", Kind::decodingError, true, "\"bad\"",
       "Failed to Decode MainConfiguration : ", true},
      {200, R"({"status": 0})", "", "", Kind::decodingError, true, "\"bad\"",
       "Failed to Decode GenericResponse : missing required key \"message\""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.status) + " " + c.body);
    log_.clear();
    server_.setHandler([&c](const httplib::Request&, httplib::Response& out) {
      out.status = c.status;
      if (!c.etagHeader.empty()) out.set_header(c.etagHeader, c.etag);
      if (c.status != 304) out.set_content(c.body, "application/json");
    });
    try {
      if (c.asDocument) {
        (void)manager_.processRequest<MainConfiguration>(get("x"));
      } else {
        EXPECT_EQ(manager_.processRequest<GenericResponse>(get("x")).message, c.text);
      }
      EXPECT_FALSE(c.kind);
    } catch (const NetworkError& error) {
      EXPECT_EQ(error.kind(), c.kind);
      if (c.kind == Kind::invalidStatusCode) {
        EXPECT_EQ(error.code(), c.status);
      }
      EXPECT_EQ(error.message().substr(0, c.text.size()), c.text);
    }
    EXPECT_EQ(UserDefaultManager::getETag(), c.storedETag);
    EXPECT_EQ(log_.contains("URLRequest: {"), c.logged);
    if (!c.logged) continue;
    EXPECT_TRUE(log_.contains("[ERROR] [consent_network_manager.cc:"));
    EXPECT_TRUE(
        log_.contains("processRequest(_:) - \nURLRequest: {\n  URL: " + server_.baseUrl() + "x\n"));
    EXPECT_TRUE(log_.contains("  Status Code: " + std::to_string(c.status) + "\n"));
    EXPECT_TRUE(log_.contains("Data: { " + c.body + " }"));
  }
}

TEST_F(NetworkManagerTest, RequestGoesOutAsBuilt) {
  PostConsentsRequest record("u", "a", "d", false, 1, {}, {}, false, "", "opt-in");
  // An empty token or ETag still goes out, as an empty header.
  for (std::string value : {"secret", ""}) {
    testing::RawServer server(kOk);
    UserDefaultManager::setETag(value);
    manager_.processRequest<GenericResponse>(
        RequestBuilder(PostConsentsEndPoint(value, record), server.baseUrl()).buildRequest());
    std::string sent = server.request();
    EXPECT_EQ(sent.rfind("POST /lumari/v1/consent/mobile/singleupload HTTP/1.1\r\n", 0), 0u);
    for (std::string line :
         {"X-Auth-Token:", "If-None-Match:", "Content-Type: application/json", "Accept: */*"}) {
      if (line.back() == ':' && !value.empty()) line += " " + value;
      EXPECT_NE(sent.find("\r\n" + line + "\r\n"), std::string::npos) << line << " in " << sent;
    }
    EXPECT_EQ(sent.find("Expect:"), std::string::npos);
    EXPECT_EQ(sent.substr(sent.find("\r\n\r\n") + 4), encode(record));
  }
}

TEST(RedirectActionTest, HttpsNeverFallsBackToHttpAndCredentialsStayOnTheirHost) {
  using enum RedirectAction;
  struct Case {
    const char *from, *to;
    RedirectAction action;
  } cases[] = {
      {"https://a.example/x", "http://a.example/y", refuse},
      {"HTTPS://a.example/x", "http://b.example/y", refuse},
      {"http://a.example/x", "file:///etc/passwd", refuse},
      {"http://a.example/x", "https://a.example/y", follow},
      {"https://a.example/x", "https://A.Example/y?q", follow},
      {"http://a.example/x", "http://a.example:8080/y", follow},
      {"http://a.example/x", "https://b.example/y", followWithoutCredentials},
      {"https://a.example/x", "https://a.example.b.example/", followWithoutCredentials},
      {"http://127.0.0.1:1/x", "http://localhost:1/x", followWithoutCredentials},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(redirectAction(c.from, c.to), c.action) << c.from << " -> " << c.to;
  }
}

TEST_F(NetworkManagerTest, RedirectsKeepCredentialsOnTheSameHostOnly) {
  TestServer other;
  other.respond(200, kOk);
  const std::string elsewhere = "http://localhost:" + std::to_string(other.port()) + "/b";
  struct Case {
    int status;
    std::string location;
    TestServer* target;
    std::string method;  // as the target receives it
    bool keepsBodyAndToken;
  } cases[] = {
      {307, "/b", &server_, "POST", true},
      {308, server_.baseUrl() + "b", &server_, "POST", true},
      {303, "b", &server_, "GET", false},
      {302, "/b", &server_, "GET", false},
      {307, elsewhere, &other, "POST", true},
      {301, elsewhere, &other, "GET", false},
  };
  URLRequest request = get("a");
  request.method = "POST";
  request.headers["X-Auth-Token"] = "secret";
  request.body = R"({"uuid":"u"})";
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.status) + " to " + c.location);
    server_.clearRequests();
    other.clearRequests();
    server_.setHandler([&](const httplib::Request& in, httplib::Response& out) {
      if (in.path == "/b") return out.set_content(kOk, "application/json");
      out.status = c.status;
      out.set_header("Location", c.location);
    });
    manager_.processRequest<GenericResponse>(request);
    auto received = c.target->requests();
    ASSERT_FALSE(received.empty());
    const auto& last = received.back();
    EXPECT_EQ(last.method + " " + last.path, c.method + " /b");
    EXPECT_EQ(last.body, c.keepsBodyAndToken ? *request.body : "");
    EXPECT_EQ(last.hasHeader("X-Auth-Token") ? last.header("X-Auth-Token") : "(none)",
              c.target == &server_ ? "secret" : "(none)");
  }
  // A redirect loop ends after ten redirects.
  server_.clearRequests();
  server_.setHandler([](const httplib::Request&, httplib::Response& out) {
    out.status = 302;
    out.set_header("Location", "/loop");
  });
  EXPECT_THROW(manager_.processRequest<GenericResponse>(get("loop")), TransportError);
  EXPECT_EQ(server_.requestCount(), 11u);
}

// Declares `length` bytes and sends pieces of `piece` spaces; `more` false
// closes the connection after the first.
TestServer::Handler declared(std::size_t length, std::size_t piece, bool more) {
  return [=](const httplib::Request&, httplib::Response& response) {
    response.set_content_provider(
        length, "application/json",
        [=, chunk = std::string(piece, ' ')](size_t, size_t left, httplib::DataSink& sink) {
          sink.write(chunk.data(), std::min(left, chunk.size()));
          return more;
        });
  };
}

// A reply whose message is `pieces` x's, each sent `pauseMs` after the last.
TestServer::Handler trickle(int pauseMs, int pieces) {
  return [=](const httplib::Request&, httplib::Response& response) {
    // Not a type the server compresses, which would hold the pieces back.
    response.set_chunked_content_provider("application/octet-stream",
                                          [=](size_t, httplib::DataSink& sink) {
                                            sink.write(R"({"status":0,"message":")", 23);
                                            for (int i = 0; i < pieces; ++i) {
                                              std::this_thread::sleep_for(milliseconds(pauseMs));
                                              if (!sink.write("x", 1)) return false;
                                            }
                                            sink.write(R"("})", 2);
                                            sink.done();
                                            return true;
                                          });
  };
}

TEST_F(NetworkManagerTest, TransportFailures) {
  const milliseconds tenMinutes = std::chrono::minutes(10);
  struct Case {
    std::string name;
    TestServer::Handler handler;
    milliseconds transferTimeout;
    std::optional<std::string> error;  // the start of the TransportError's text; none: succeeds
  } cases[] = {
      {"cut mid-body", declared(1000, 10, false), tenMinutes, ""},
      {"over the size cap", declared(kMaxResponseBodyBytes + 1, 1 << 20, true), tenMinutes,
       "response body larger than 67108864 bytes refused"},
      {"nothing listens on port 9", nullptr, tenMinutes, ""},
      // Still trickling in outlasts the idle limit; going quiet for longer
      // fails, and the cap on the whole transfer still holds.
      {"trickling", trickle(250, 8), tenMinutes, std::nullopt},
      {"quiet too long", trickle(1500, 1), tenMinutes, "nothing sent or received for 1000 ms"},
      {"over the transfer cap", trickle(250, 8), milliseconds(1000), "Operation timed out after "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    URLRequest request = get("x");
    if (c.handler) server_.setHandler(c.handler);
    if (!c.handler) request.url = "http://127.0.0.1:9/x";
    request.idleTimeout = std::chrono::seconds(1);
    request.transferTimeout = c.transferTimeout;
    try {
      EXPECT_EQ(manager_.processRequest<GenericResponse>(request).message, std::string(8, 'x'));
      EXPECT_FALSE(c.error);
    } catch (const TransportError& error) {
      ASSERT_TRUE(c.error) << error.what();
      EXPECT_EQ(std::string(error.what()).substr(0, c.error->size()), *c.error) << error.what();
    }
  }
}

TEST_F(NetworkManagerTest, CancellingTheTaskAbortsPromptly) {
  server_.setHandler([](const httplib::Request&, httplib::Response& response) {
    std::this_thread::sleep_for(std::chrono::seconds(3));
    response.set_content("{}", "application/json");
  });
  std::atomic<bool> threw{false};
  auto runner = std::make_unique<TaskRunner>();
  runner->start([&] {
    try {
      manager_.processRequest<GenericResponse>(get("slow"));
    } catch (const TransportError& error) {
      threw = std::string(error.what()) == "request cancelled";
    }
  });
  ASSERT_TRUE(testing::eventually([&] { return server_.requestCount() == 1; }));
  auto start = std::chrono::steady_clock::now();
  runner.reset();  // cancels and joins
  // The transfer waits on its sockets some 200 ms at a time (up to a second);
  // the stop request must wake that wait rather than let it run out. Under a
  // sanitizer everything is slower, so only the plain build holds the line.
#ifdef PACTIVO_SANITIZED
  constexpr milliseconds kPrompt{1000};
#else
  constexpr milliseconds kPrompt{100};
#endif
  EXPECT_LT(std::chrono::steady_clock::now() - start, kPrompt);
  EXPECT_TRUE(threw);
}

}  // namespace
}  // namespace pactivo::detail

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
using Headers = std::map<std::string, std::string>;

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

TEST(RequestBuilderTest, UrlsHeadersETagAndErrorTexts) {
  ScopedPlatform scoped;
  LocaleUtils::setCurrentLanguageCode("fr");
  ConsentSDKOptions o("https://app.example/", "https://cdn.example/", "t1", "a9", false,
                      LogLevel::debug, 60, std::nullopt, std::nullopt, std::nullopt,
                      WebViewConfig({}, {}));
  GetCDNEndPoint neutral(o, true), live(o, false);
  o.mode = Mode::draft;
  GetCDNEndPoint draft(o, false);
  CustomEndPoint custom;
  const std::string cdn = "https://cdn.example/consent/mobile_banner/t1/a9/",
                    invalid = "Invalid URL error ocurred.\n";
  // The URL, or the description of the error.
  const std::tuple<const EndPoint&, std::string, std::string> urls[] = {
      {draft, "https://cdn.example/", cdn + "draft/config_fr.json"},
      {neutral, "https://cdn.example/", cdn + "live/config.json"},
      {live, "https://cdn.example/files",
       "https://cdn.example/filesconsent/mobile_banner/t1/a9/live/config_fr.json"},
      // The path joins the base's query, which goes when the endpoint has none.
      {neutral, "https://cdn.example/?q=1", "https://cdn.example/"},
      {custom, "http://h/", "http://h/p?limit=a+b%26c"},
      {live, "", invalid},
      {live, "not a url", invalid + "not a url"},
      {live, "http://[::1", invalid + "http://[::1"},
  };
  for (const auto& [endPoint, base, url] : urls) {
    try {
      EXPECT_EQ(RequestBuilder(endPoint, base).buildRequest().url, url);
    } catch (const NetworkError& error) {
      EXPECT_EQ(error.description(), url);
    }
  }
  URLRequest plain = RequestBuilder(live, "http://h/").buildRequest();
  EXPECT_EQ(std::tuple(plain.method, plain.idleTimeout, plain.transferTimeout, plain.body),
            std::tuple("GET", std::chrono::seconds(60), std::chrono::minutes(10), std::nullopt));
  EXPECT_EQ(plain.headers, (Headers{{"Accept", "*/*"}, {"Content-Type", "application/json"}}));
  // An endpoint may override a header. The upload's method, path, token and
  // body are pinned on the wire in NetworkManagerTest.RequestGoesOutAsBuilt.
  UserDefaultManager::setETag("W/\"abc\"");
  EXPECT_EQ(RequestBuilder(custom, "http://h/").buildRequest().headers,
            (Headers{{"Accept", "text/plain"},
                     {"Authorization", "x"},
                     {"Content-Type", "application/json"},
                     {"If-None-Match", "W/\"abc\""}}));

  // The errors' description() and what(), then errorDescription().
  scoped.platform().setTranslation("Failed with 403 status code", "Zugriff verweigert");
  const std::string unknown = "An unknown error occurred. | Unexpected Error";
  const std::pair<NetworkError, std::string> cases[] = {
      {NetworkError::invalidPath("x"), "Invalid Patherror ocurred (x | x"},
      {NetworkError::badUrl("u"), "Bad URL error ocurred\nu | u"},
      {NetworkError::invalidStatusCode(500),
       "Failed with Status (500) | Failed with 500 status code"},
      {NetworkError::invalidStatusCode(403), "Failed with Status (403) | Zugriff verweigert"},
      {NetworkError::decodingError("m"), "Failed while Decoding Response.\nm | m"},
      {NetworkError::invalidURL("v"), invalid + "v | v"},
      {NetworkError::response(std::nullopt), unknown},
      {NetworkError::keyMapping(), unknown},
      {NetworkError::cdnNotModified(), unknown},
  };
  for (const auto& [error, texts] : cases) {
    EXPECT_EQ(std::string(error.what()), error.description());
    EXPECT_EQ(error.description() + " | " + error.errorDescription(), texts);
  }
}

TEST(ExchangeDumpTest, LayoutIsPinned) {
  const URLRequest full{"http://h/p",
                        "POST",
                        {{"Content-Type", "application/json"}, {"X-Auth-Token", "tok"}},
                        "{\"a\":1}"};
  URLRequest binary = full, bare = full;
  binary.body = bare.body = "\xFF";
  bare.headers.clear();
  // The expected texts, under tests/data/network.
  const std::tuple<const URLRequest&, std::optional<HTTPResponse>, std::optional<std::string>,
                   std::string>
      cases[] = {
          {full, HTTPResponse{"http://h/p", 500, {{"Server", "x"}}}, "oops",
           "exchange_dump_full.txt"},
          {binary, std::nullopt, std::nullopt, "exchange_dump_nil.txt"},
          {bare, std::nullopt, "\xC3\x28", "exchange_dump_non_utf8.txt"},
      };
  for (const auto& [request, response, body, file] : cases) {
    std::ifstream in(std::string(PACTIVO_TEST_DATA_DIR) + "/network/" + file);
    const std::string expected((std::istreambuf_iterator<char>(in)), {});
    // The file ends in a newline that the dump has not.
    EXPECT_EQ(exchangeDump(request, response, body) + "\n", expected) << file;
  }
}

class NetworkManagerTest : public ::testing::Test {
 protected:
  URLRequest get(const std::string& path) {
    return {server_.baseUrl() + path, "GET", {{"Accept", "*/*"}}, std::nullopt};
  }
  // The reply's message, or the error's description ("transport: " and the
  // text for a TransportError).
  std::string outcome(const URLRequest& request) {
    try {
      return manager_.processRequest<GenericResponse>(request).message;
    } catch (const NetworkError& error) {
      return error.description();
    } catch (const TransportError& error) {
      return std::string("transport: ") + error.what();
    }
  }

  ScopedPlatform scoped_;
  testing::LogCapture log_;
  TestServer server_;
  ConsentNetworkManager manager_;
};

// Rows run in order: the stored ETag carries over from one to the next.
// Each gives the outcome, then the stored ETag, then whether the exchange was
// logged at error level (its layout is pinned in ExchangeDumpTest).
TEST_F(NetworkManagerTest, RepliesByStatus) {
  const std::string error = R"({"error": true})", failed = "Failed with Status (",
                    undecoded =
                        "Failed while Decoding Response.\nFailed to Decode GenericResponse : ";
  struct Case {
    int status;
    std::string body, etagHeader, etag, outcome;
  } cases[] = {
      {200, kOk, "ETag", "\"v1\"", "ok \"v1\""},
      {200, R"({"status": 1, "message": "m"})", "etag", "lower", "m lower"},
      {200, kOk, "", "", "ok lower"},  // no ETag keeps the stored one
      {304, "", "", "", "An unknown error occurred. lower"},
      {404, error, "", "", failed + "404) lower"},
      {500, error, "", "", failed + "500) lower logged"},
      {302, error, "", "", failed + "302) lower logged"},  // no target
      // An undecodable body still leaves its ETag.
      {200, "", "ETag", "\"bad\"", undecoded + "invalid JSON: Empty: no JSON found \"bad\" logged"},
      {200, R"({"status": 0})", "", "",
       undecoded + "missing required key \"message\" \"bad\" logged"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.status) + " " + c.body);
    log_.clear();
    server_.setHandler([&c](const httplib::Request&, httplib::Response& out) {
      out.status = c.status;
      if (!c.etagHeader.empty()) out.set_header(c.etagHeader, c.etag);
      if (c.status != 304) out.set_content(c.body, "application/json");
    });
    const std::string got = outcome(get("x"));
    const bool dumped =
        log_.count("[ERROR] [consent_network_manager.cc:") == 1 &&
        log_.contains("processRequest(_:) - \nURLRequest: {\n  URL: " + server_.baseUrl() +
                      "x\n") &&
        log_.contains("  Status Code: " + std::to_string(c.status) + "\n") &&
        log_.contains("Data: { " + c.body + " }");
    const std::string logged = !log_.contains("URLRequest: {") ? "" : dumped ? " logged" : " ?";
    EXPECT_EQ(got + " " + UserDefaultManager::getETag().value_or("none") + logged, c.outcome)
        << log_.text();
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
  const std::tuple<const char*, const char*, RedirectAction> cases[] = {
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
  for (const auto& [from, to, action] : cases) {
    EXPECT_EQ(redirectAction(from, to), action) << from << " -> " << to;
  }
}

// Rows: the redirect, the requests its target receives, the outcome and
// what the last of them carries. A 303, 302 or 301 turns the POST into a
// bodyless GET, the token goes to the same host only, and a loop ends after
// ten redirects.
TEST_F(NetworkManagerTest, RedirectsKeepCredentialsOnTheSameHostOnly) {
  TestServer other;
  other.respond(200, kOk);
  const std::string elsewhere = "http://localhost:" + std::to_string(other.port()) + "/b";
  const std::string body = R"({"uuid":"u"})", post = "ok: POST /b " + body, get = "ok: GET /b ";
  const std::tuple<int, std::string, std::size_t, std::string> cases[] = {
      {307, "/b", 2, post + " secret"},
      {308, server_.baseUrl() + "b", 2, post + " secret"},
      {303, "b", 2, get + " secret"},
      {302, "/b", 2, get + " secret"},
      {307, elsewhere, 1, post + " "},
      {301, elsewhere, 1, get + " "},
      {302, "/a", 11, "transport: more than 10 redirects: GET /a  secret"},
  };
  URLRequest request = this->get("a");
  request.method = "POST";
  request.headers["X-Auth-Token"] = "secret";
  request.body = body;
  for (const auto& [status, location, count, got] : cases) {
    SCOPED_TRACE(std::to_string(status) + " to " + location);
    server_.clearRequests();
    other.clearRequests();
    server_.setHandler([&, status = status, location = location](const httplib::Request& in,
                                                                 httplib::Response& out) {
      if (in.path == "/b") return out.set_content(kOk, "application/json");
      out.status = status;
      out.set_header("Location", location);
    });
    const std::string result = outcome(request);
    const auto received = (location == elsewhere ? other : server_).requests();
    ASSERT_EQ(received.size(), count);
    const auto& last = received.back();
    EXPECT_EQ(result + ": " + last.method + " " + last.path + " " + last.body + " " +
                  last.header("X-Auth-Token"),
              got);
  }
}

// Declares `length` bytes and sends pieces of `piece` spaces; `more` false
// closes the connection after the first.
TestServer::Handler declared(std::size_t length, std::size_t piece, bool more) {
  return [=](const httplib::Request&, httplib::Response& response) {
    const auto send = [=, chunk = std::string(piece, ' ')](size_t, size_t left, auto& sink) {
      sink.write(chunk.data(), std::min(left, chunk.size()));
      return more;
    };
    response.set_content_provider(length, "application/json", send);
  };
}

// A reply whose message is `pieces` x's, each sent `pauseMs` after the last.
TestServer::Handler trickle(int pauseMs, int pieces) {
  return [=](const httplib::Request&, httplib::Response& response) {
    const auto send = [=](size_t, httplib::DataSink& sink) {
      sink.write(R"({"status":0,"message":")", 23);
      for (int i = 0; i < pieces; ++i) {
        std::this_thread::sleep_for(milliseconds(pauseMs));
        if (!sink.write("x", 1)) return false;
      }
      sink.write(R"("})", 2);
      sink.done();
      return true;
    };
    // Not a type the server compresses, which would hold the pieces back.
    response.set_chunked_content_provider("application/octet-stream", send);
  };
}

TEST_F(NetworkManagerTest, TransportFailures) {
  struct Case {
    TestServer::Handler handler;  // none: nothing listens on port 9
    std::string outcome;          // its start
    milliseconds transferTimeout = std::chrono::minutes(10);
  } cases[] = {
      {declared(1000, 10, false), "transport: "},  // cut mid-body
      {declared(kMaxResponseBodyBytes + 1, 1 << 20, true),
       "transport: response body larger than 67108864 bytes refused"},
      {nullptr, "transport: "},
      // Still trickling in outlasts the idle limit; going quiet for longer
      // fails, and the cap on the whole transfer still holds.
      {trickle(250, 8), "xxxxxxxx"},
      {trickle(1500, 1), "transport: nothing sent or received for 1000 ms"},
      {trickle(250, 8), "transport: Operation timed out after ", milliseconds(1000)},
  };
  for (const auto& c : cases) {
    URLRequest request = get("x");
    server_.setHandler(c.handler);
    if (!c.handler) request.url = "http://127.0.0.1:9/x";
    request.idleTimeout = std::chrono::seconds(1);
    request.transferTimeout = c.transferTimeout;
    const std::string got = outcome(request);
    EXPECT_EQ(got.substr(0, c.outcome.size()), c.outcome) << "row " << &c - cases << ": " << got;
  }
}

TEST_F(NetworkManagerTest, CancellingTheTaskAbortsPromptly) {
  server_.setHandler([](const httplib::Request&, httplib::Response& response) {
    std::this_thread::sleep_for(std::chrono::seconds(3));
    response.set_content("{}", "application/json");
  });
  std::atomic<bool> cancelled{false};
  auto runner = std::make_unique<TaskRunner>();
  runner->start([&] { cancelled = outcome(get("slow")) == "transport: request cancelled"; });
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
  EXPECT_TRUE(cancelled);
}

}  // namespace
}  // namespace pactivo::detail

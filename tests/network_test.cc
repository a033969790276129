#include <gtest/gtest.h>

#include <thread>

#include "network/network_manager.h"
#include "pactivo/locale_utils.h"
#include "pactivo/user_default_manager.h"
#include "sdk/task_runner.h"
#include "support/test_server.h"
#include "support/test_support.h"

namespace pactivo::detail {
namespace {

using testing::LogCapture;
using testing::ScopedPlatform;
using testing::TestServer;

ConsentSDKOptions options(std::string cdnUrl, bool testing = false) {
  return ConsentSDKOptions("https://app.example/", std::move(cdnUrl), "t1", "a9", testing,
                           LogLevel::debug, 60, std::nullopt, std::nullopt, std::nullopt,
                           WebViewConfig({}, std::nullopt));
}

class TestEndPoint : public StoredEndPoint {
 public:
  TestEndPoint(HttpMethod method, std::string path) {
    httpMethod_ = method;
    pathURL_ = std::move(path);
  }
  void setQuery(std::map<QueryParam, std::string> query) { queryParams_ = std::move(query); }
  void setHeaders(std::map<HeaderParam, std::string> headers) {
    headerParams_ = std::move(headers);
  }
};

TEST(RequestBuilderTest, PathsAndInvalidUrls) {
  ScopedPlatform scoped;
  LocaleUtils::setCurrentLanguageCode("fr");
  struct Case {
    std::string base;
    bool languageNeutral;
    bool testing;
    std::string url;  // empty: invalidURL expected
    std::string invalidPayload;
  } cases[] = {
      {"https://cdn.example/", false, true,
       "https://cdn.example/consent/mobile_banner/t1/a9/draft/config_fr.json", ""},
      {"https://cdn.example/", true, false,
       "https://cdn.example/consent/mobile_banner/t1/a9/live/config.json", ""},
      {"https://cdn.example/files", false, false,
       "https://cdn.example/filesconsent/mobile_banner/t1/a9/live/config_fr.json", ""},
      {"https://cdn.example/?q=1", true, false,
       "https://cdn.example/?q=1consent/mobile_banner/t1/a9/live/config.json", ""},
      {"", false, false, "", ""},
      {"not a url", false, false, "", "not a url"},
      {"http://[::1", false, false, "", "http://[::1"},
  };
  for (const auto& c : cases) {
    GetCDNEndPoint endPoint(options(c.base, c.testing), c.languageNeutral);
    if (c.url.empty()) {
      try {
        RequestBuilder(endPoint, c.base).buildRequest();
        ADD_FAILURE() << "no error for " << c.base;
      } catch (const NetworkError& error) {
        EXPECT_EQ(error.kind(), NetworkError::Kind::invalidURL) << c.base;
        EXPECT_EQ(error.message(), c.invalidPayload) << c.base;
      }
      continue;
    }
    URLRequest request = RequestBuilder(endPoint, c.base).buildRequest();
    // The query of a base URL is dropped when the endpoint has none.
    if (c.base.find('?') != std::string::npos) {
      EXPECT_EQ(request.url.find('?'), std::string::npos) << request.url;
    } else {
      EXPECT_EQ(request.url, c.url);
    }
    EXPECT_EQ(request.method, "GET");
    EXPECT_EQ(request.idleTimeout, std::chrono::seconds(60));
    EXPECT_EQ(request.transferTimeout, std::chrono::minutes(10));
  }
}

TEST(RequestBuilderTest, MethodsHeadersQueryAndETag) {
  ScopedPlatform scoped;
  struct Case {
    HttpMethod method;
    std::string text;
  } methods[] = {{HttpMethod::get, "GET"},     {HttpMethod::post, "POST"},
                 {HttpMethod::put, "PUT"},     {HttpMethod::delete_, "delete"},
                 {HttpMethod::patch, "patch"}, {HttpMethod::head, "head"}};
  for (const auto& c : methods) {
    TestEndPoint endPoint(c.method, "p");
    EXPECT_EQ(RequestBuilder(endPoint, "http://h/").buildRequest().method, c.text);
  }

  TestEndPoint endPoint(HttpMethod::get, "p");
  URLRequest plain = RequestBuilder(endPoint, "http://h/").buildRequest();
  EXPECT_EQ(plain.headers, (std::map<std::string, std::string>{
                               {"Accept", "*/*"}, {"Content-Type", "application/json"}}));
  EXPECT_FALSE(plain.body);

  UserDefaultManager::setETag("W/\"abc\"");
  endPoint.setHeaders({{HeaderParam::accept, "text/plain"}, {HeaderParam::authorization, "x"}});
  endPoint.setQuery({{QueryParam::limit, "5"}});
  URLRequest full = RequestBuilder(endPoint, "http://h/").buildRequest();
  EXPECT_EQ(full.url, "http://h/p?limit=5");
  EXPECT_EQ(full.headers.at("Accept"), "text/plain");  // an endpoint may override
  EXPECT_EQ(full.headers.at("Authorization"), "x");
  EXPECT_EQ(full.headers.at("If-None-Match"), "W/\"abc\"");

  endPoint.setQuery({{QueryParam::limit, "a b&c"}});
  EXPECT_EQ(RequestBuilder(endPoint, "http://h/").buildRequest().url, "http://h/p?limit=a+b%26c");

  PostConsentsRequest record("u", "a", "d", false, 1, {}, {}, false, "", "opt-in");
  PostConsentsEndPoint upload("", record);
  URLRequest post = RequestBuilder(upload, "http://app/").buildRequest();
  EXPECT_EQ(post.url, "http://app/lumari/v1/consent/mobile/singleupload");
  EXPECT_EQ(post.method, "POST");
  EXPECT_EQ(post.headers.at("X-Auth-Token"), "");
  EXPECT_EQ(post.headers.at("If-None-Match"), "W/\"abc\"");
  EXPECT_EQ(post.body, encode(record));

  GetCurrentLocationEndPoint location;
  EXPECT_EQ(RequestBuilder(location, "http://geo/").buildRequest().url,
            "http://geo/core/v1/utils/geo/location");
}

TEST(NetworkErrorTest, Texts) {
  ScopedPlatform scoped;
  scoped.platform().setTranslation("Failed with 403 status code", "Zugriff verweigert");
  struct Case {
    NetworkError error;
    std::string description;
    std::string errorDescription;
  } cases[] = {
      {NetworkError::invalidPath("x"), "Invalid Patherror ocurred (x", "x"},
      {NetworkError::badUrl("u"), "Bad URL error ocurred\nu", "u"},
      {NetworkError::invalidStatusCode(500), "Failed with Status (500)",
       "Failed with 500 status code"},
      {NetworkError::invalidStatusCode(403), "Failed with Status (403)", "Zugriff verweigert"},
      {NetworkError::decodingError("m"), "Failed while Decoding Response.\nm", "m"},
      {NetworkError::invalidURL("v"), "Invalid URL error ocurred.\nv", "v"},
      {NetworkError::response(std::nullopt), "An unknown error occurred.", "Unexpected Error"},
      {NetworkError::keyMapping(), "An unknown error occurred.", "Unexpected Error"},
      {NetworkError::cdnNotModified(), "An unknown error occurred.", "Unexpected Error"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.error.description(), c.description);
    EXPECT_EQ(std::string(c.error.what()), c.description);
    EXPECT_EQ(c.error.errorDescription(), c.errorDescription);
  }
}

TEST(ExchangeDumpTest, LayoutIsPinned) {
  URLRequest request;
  request.url = "http://h/p";
  request.method = "POST";
  request.headers = {{"Content-Type", "application/json"}, {"X-Auth-Token", "tok"}};
  request.body = "{\"a\":1}";
  HTTPResponse response{"http://h/p", 500, {{"Server", "x"}}};
  EXPECT_EQ(exchangeDump(request, response, std::string("oops")),
            "\nURLRequest: {\n"
            "  URL: http://h/p\n"
            "  HTTP Method: POST\n"
            "  Headers: [\"Content-Type\": \"application/json\", \"X-Auth-Token\": \"tok\"]\n"
            "  Body: {\"a\":1}\n"
            "}\n"
            "URLResponse: {\n"
            "  URL: http://h/p\n"
            "  Status Code: 500\n"
            "  Headers: [\"Server\": \"x\"]\n"
            "}\n"
            "Data: { oops }");
  request.body = std::string("\xFF");
  EXPECT_EQ(exchangeDump(request, std::nullopt, std::nullopt),
            "\nURLRequest: {\n  URL: http://h/p\n  HTTP Method: POST\n"
            "  Headers: [\"Content-Type\": \"application/json\", \"X-Auth-Token\": \"tok\"]\n"
            "  Body: nil\n}\nURLResponse: nil\nData: nil");
  request.headers.clear();
  EXPECT_NE(exchangeDump(request, std::nullopt, std::string("\xC3\x28")).find("  Headers: [:]\n"),
            std::string::npos);
  EXPECT_NE(
      exchangeDump(request, std::nullopt, std::string("\xC3\x28")).find("Data: { Non-UTF8 data }"),
      std::string::npos);
}

class NetworkManagerTest : public ::testing::Test {
 protected:
  URLRequest get(const std::string& path) {
    URLRequest request;
    request.url = server_.baseUrl() + path;
    request.method = "GET";
    request.headers = {{"Accept", "*/*"}, {"Content-Type", "application/json"}};
    return request;
  }
  template <typename T>
  NetworkError expectNetworkError(const URLRequest& request) {
    try {
      manager_.processRequest<T>(request);
    } catch (const NetworkError& error) {
      return error;
    }
    ADD_FAILURE() << "no NetworkError";
    return NetworkError::keyMapping();
  }

  ScopedPlatform scoped_;
  LogCapture log_;
  TestServer server_;
  ConsentNetworkManager manager_;
};

TEST_F(NetworkManagerTest, SuccessKeepsETagWhateverItsCase) {
  server_.respond(200, R"({"status": 0, "message": "ok"})", "\"v1\"");
  EXPECT_EQ(manager_.processRequest<GenericResponse>(get("a")).message, "ok");
  EXPECT_EQ(UserDefaultManager::getETag(), "\"v1\"");

  server_.setHandler([](const httplib::Request&, httplib::Response& response) {
    response.set_header("etag", "lower");
    response.set_content(R"({"status": 1, "message": "m"})", "application/json");
  });
  manager_.processRequest<GenericResponse>(get("b"));
  EXPECT_EQ(UserDefaultManager::getETag(), "lower");

  server_.respond(200, R"({"status": 1, "message": "m"})");
  manager_.processRequest<GenericResponse>(get("c"));
  EXPECT_EQ(UserDefaultManager::getETag(), "lower");  // a reply without one keeps it
  EXPECT_FALSE(log_.contains("processRequest"));
}

TEST_F(NetworkManagerTest, QuietAndLoggedStatuses) {
  struct Case {
    int status;
    NetworkError::Kind kind;
    bool logged;
  } cases[] = {
      {304, NetworkError::Kind::cdnNotModified, false},
      {404, NetworkError::Kind::invalidStatusCode, false},
      {500, NetworkError::Kind::invalidStatusCode, true},
      {401, NetworkError::Kind::invalidStatusCode, true},
      {302, NetworkError::Kind::invalidStatusCode, true},  // a redirect without a target
  };
  for (const auto& c : cases) {
    log_.clear();
    server_.respond(c.status, c.status == 304 ? "" : "{\"error\": true}");
    NetworkError error = expectNetworkError<GenericResponse>(get("x"));
    EXPECT_EQ(error.kind(), c.kind) << c.status;
    if (c.kind == NetworkError::Kind::invalidStatusCode) {
      EXPECT_EQ(error.code(), c.status);
    }
    EXPECT_EQ(log_.contains("URLRequest: {"), c.logged) << c.status;
    if (c.logged) {
      EXPECT_TRUE(log_.contains("[ERROR] [consent_network_manager.cc:"));
      EXPECT_TRUE(log_.contains(
          "processRequest(_:) - \nURLRequest: {\n  URL: " + server_.baseUrl() + "x\n"));
      EXPECT_TRUE(log_.contains("  Status Code: " + std::to_string(c.status) + "\n"));
    }
  }
}

TEST_F(NetworkManagerTest, UndecodableBodyStillStoresETag) {
  server_.respond(200, "", "\"bad\"");
  NetworkError error = expectNetworkError<MainConfiguration>(get("cdn"));
  EXPECT_EQ(error.kind(), NetworkError::Kind::decodingError);
  EXPECT_EQ(error.message().rfind("Failed to Decode MainConfiguration : ", 0), 0u)
      << error.message();
  EXPECT_EQ(UserDefaultManager::getETag(), "\"bad\"");
  EXPECT_TRUE(log_.contains("Data: {  }"));

  server_.respond(200, R"({"status": 0})");
  error = expectNetworkError<GenericResponse>(get("g"));
  EXPECT_EQ(error.message(), "Failed to Decode GenericResponse : missing required key \"message\"");
}

TEST_F(NetworkManagerTest, RequestGoesOutAsBuilt) {
  PostConsentsRequest record("u", "a", "d", false, 1, {}, {}, false, "", "opt-in");
  // An empty token or ETag still goes out, as an empty header.
  for (std::string value : {"secret", ""}) {
    testing::RawServer server(R"({"status": 0, "message": "ok"})");
    UserDefaultManager::setETag(value);
    PostConsentsEndPoint upload(value, record);
    manager_.processRequest<GenericResponse>(
        RequestBuilder(upload, server.baseUrl()).buildRequest());
    std::string sent = server.request();
    EXPECT_EQ(sent.rfind("POST /lumari/v1/consent/mobile/singleupload HTTP/1.1\r\n", 0), 0u);
    for (std::string name : {"X-Auth-Token:", "If-None-Match:"}) {
      std::string line = "\r\n" + name + (value.empty() ? "" : " " + value) + "\r\n";
      EXPECT_NE(sent.find(line), std::string::npos) << line << " not in " << sent;
    }
    EXPECT_NE(sent.find("\r\nContent-Type: application/json\r\n"), std::string::npos);
    EXPECT_NE(sent.find("\r\nAccept: */*\r\n"), std::string::npos);
    EXPECT_EQ(sent.find("Expect:"), std::string::npos);
    EXPECT_EQ(sent.substr(sent.find("\r\n\r\n") + 4), encode(record));
  }
}

TEST(RedirectActionTest, HttpsNeverFallsBackToHttpAndCredentialsStayOnTheirHost) {
  struct Case {
    const char* from;
    const char* to;
    RedirectAction action;
  } cases[] = {
      {"https://a.example/x", "http://a.example/y", RedirectAction::refuse},
      {"HTTPS://a.example/x", "http://b.example/y", RedirectAction::refuse},
      {"http://a.example/x", "ftp://a.example/y", RedirectAction::refuse},
      {"http://a.example/x", "file:///etc/passwd", RedirectAction::refuse},
      {"http://a.example/x", "https://a.example/y", RedirectAction::follow},
      {"https://a.example/x", "https://A.Example/y?q", RedirectAction::follow},
      {"http://a.example/x", "http://a.example:8080/y", RedirectAction::follow},
      {"http://a.example/x", "https://b.example/y", RedirectAction::followWithoutCredentials},
      {"https://a.example/x", "https://a.example.b.example/",
       RedirectAction::followWithoutCredentials},
      {"http://127.0.0.1:1/x", "http://localhost:1/x", RedirectAction::followWithoutCredentials},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(redirectAction(c.from, c.to), c.action) << c.from << " -> " << c.to;
  }
}

TEST_F(NetworkManagerTest, RedirectsKeepCredentialsOnTheSameHostOnly) {
  const std::string ok = R"({"status": 0, "message": "ok"})";
  TestServer other;
  other.respond(200, ok);
  const std::string elsewhere = "http://localhost:" + std::to_string(other.port()) + "/b";
  struct Case {
    int status;
    std::string location;
    TestServer* target;
    std::string method;  // as the target receives it
    bool keepsBody;
    bool keepsToken;
  } cases[] = {
      {307, "/b", &server_, "POST", true, true},
      {308, server_.baseUrl() + "b", &server_, "POST", true, true},
      {303, "b", &server_, "GET", false, true},
      {302, "/b", &server_, "GET", false, true},
      {307, elsewhere, &other, "POST", true, false},
      {301, elsewhere, &other, "GET", false, false},
  };
  for (const auto& c : cases) {
    server_.clearRequests();
    other.clearRequests();
    server_.setHandler([&](const httplib::Request& in, httplib::Response& out) {
      if (in.path == "/b") return out.set_content(ok, "application/json");
      out.status = c.status;
      out.set_header("Location", c.location);
    });
    URLRequest request = get("a");
    request.method = "POST";
    request.headers["X-Auth-Token"] = "secret";
    request.body = R"({"uuid":"u"})";
    manager_.processRequest<GenericResponse>(request);
    auto received = c.target->requests();
    ASSERT_FALSE(received.empty()) << c.status << " " << c.location;
    EXPECT_EQ(received.back().path, "/b");
    EXPECT_EQ(received.back().method, c.method) << c.status;
    EXPECT_EQ(received.back().body, c.keepsBody ? *request.body : "") << c.status;
    EXPECT_EQ(received.back().header("X-Auth-Token"), c.keepsToken ? "secret" : "") << c.location;
    EXPECT_EQ(received.back().hasHeader("X-Auth-Token"), c.keepsToken) << c.location;
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

TEST_F(NetworkManagerTest, TransportFailures) {
  // A connection that closes in the middle of the body.
  server_.setHandler([](const httplib::Request&, httplib::Response& response) {
    response.set_content_provider(1000, "application/json",
                                  [](size_t, size_t, httplib::DataSink& sink) {
                                    sink.write("{\"status\":", 10);
                                    return false;
                                  });
  });
  EXPECT_THROW(manager_.processRequest<GenericResponse>(get("cut")), TransportError);

  // A body over the size limit is refused, not held.
  server_.setHandler([](const httplib::Request&, httplib::Response& response) {
    response.set_content_provider(
        kMaxResponseBodyBytes + 1, "application/json",
        [chunk = std::string(1 << 20, ' ')](size_t offset, size_t length, httplib::DataSink& sink) {
          sink.write(chunk.data(), std::min(length, chunk.size()));
          (void)offset;
          return true;
        });
  });
  try {
    manager_.processRequest<GenericResponse>(get("huge"));
    ADD_FAILURE() << "huge body accepted";
  } catch (const TransportError& error) {
    EXPECT_EQ(std::string(error.what()), "response body larger than 67108864 bytes refused");
  }

  // Nothing listens on port 9 of loopback.
  URLRequest refused = get("x");
  refused.url = "http://127.0.0.1:9/x";
  EXPECT_THROW(manager_.processRequest<GenericResponse>(refused), TransportError);

  // A reply still trickling in outlasts the idle limit; one that goes quiet
  // for longer fails, and the cap on the whole transfer still holds.
  struct Timing {
    int pauseMs;
    int pieces;
    std::chrono::milliseconds transferTimeout;
    std::string error;  // empty: succeeds
  } timings[] = {
      {250, 8, std::chrono::minutes(10), ""},
      {1500, 1, std::chrono::minutes(10), "nothing sent or received for 1000 ms"},
      {250, 8, std::chrono::milliseconds(1000), "Operation timed out after "},
  };
  for (const auto& t : timings) {
    server_.setHandler([&t](const httplib::Request&, httplib::Response& response) {
      // Not a type the server compresses, which would hold the pieces back.
      response.set_chunked_content_provider(
          "application/octet-stream", [&t](size_t, httplib::DataSink& sink) {
            sink.write(R"({"status":0,"message":")", 23);
            for (int i = 0; i < t.pieces; ++i) {
              std::this_thread::sleep_for(std::chrono::milliseconds(t.pauseMs));
              if (!sink.write("x", 1)) return false;
            }
            sink.write(R"("})", 2);
            sink.done();
            return true;
          });
    });
    URLRequest slow = get("slow");
    slow.idleTimeout = std::chrono::seconds(1);
    slow.transferTimeout = t.transferTimeout;
    try {
      EXPECT_EQ(manager_.processRequest<GenericResponse>(slow).message, std::string(8, 'x'));
      EXPECT_EQ(t.error, "");
    } catch (const TransportError& error) {
      EXPECT_EQ(std::string(error.what()).substr(0, t.error.size()), t.error) << error.what();
      EXPECT_NE(t.error, "") << error.what();
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
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  EXPECT_TRUE(threw);
}

}  // namespace
}  // namespace pactivo::detail

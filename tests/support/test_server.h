// An HTTP server on 127.0.0.1 whose every answer the test scripts, and which
// records every request it receives.
#ifndef PACTIVO_TESTS_SUPPORT_TEST_SERVER_H_
#define PACTIVO_TESTS_SUPPORT_TEST_SERVER_H_

#include <httplib.h>

#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace pactivo::testing {

struct RecordedRequest {
  std::string method;
  std::string path;
  httplib::Headers headers;  // found in any letter case
  std::string body;

  // The value of header `name` (any letter case), or "" when absent.
  std::string header(const std::string& name) const {
    return hasHeader(name) ? headers.find(name)->second : "";
  }
  bool hasHeader(const std::string& name) const { return headers.count(name) > 0; }
};

// Neither server can be copied: each owns a listening thread.
class TestServer {
 public:
  // Answers a request; the default answers 404.
  using Handler = std::function<void(const httplib::Request&, httplib::Response&)>;

  TestServer();
  ~TestServer();

  // "http://127.0.0.1:PORT/".
  std::string baseUrl() const { return "http://127.0.0.1:" + std::to_string(port_) + "/"; }
  int port() const { return port_; }

  void setHandler(Handler handler);
  // Serves `body` with `status` (and an ETag when given) for every request.
  void respond(int status, std::string body, std::string etag = "");

  std::vector<RecordedRequest> requests() const;
  std::size_t requestCount() const { return requests().size(); }
  void clearRequests();

 private:
  httplib::Server server_;
  int port_ = 0;
  std::thread thread_;
  mutable std::mutex mutex_;
  Handler handler_;                        // guarded by mutex_
  std::vector<RecordedRequest> requests_;  // guarded by mutex_
};

// A one-request HTTP server on 127.0.0.1 that keeps the request's bytes as
// they arrived, for what a parsing server hides (a header whose value is
// empty, say). Answers 200 with `body`.
class RawServer {
 public:
  explicit RawServer(std::string body);
  ~RawServer();

  std::string baseUrl() const { return "http://127.0.0.1:" + std::to_string(port_) + "/"; }
  // The request, head and body; waits for it to arrive.
  std::string request();

 private:
  int port_ = 0;  // before listener_, which sets it
  int listener_ = -1;
  std::string received_;
  std::thread thread_;
};

}  // namespace pactivo::testing

#endif  // PACTIVO_TESTS_SUPPORT_TEST_SERVER_H_

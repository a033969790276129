#include "support/test_server.h"

#include <sys/socket.h>
#include <unistd.h>

#include "support/test_support.h"

namespace pactivo::testing {

TestServer::TestServer() {
  auto on = [this](const httplib::Request& request, httplib::Response& response) {
    std::unique_lock lock(mutex_);
    requests_.push_back({request.method, request.path, request.headers, request.body});
    Handler handler = handler_;
    lock.unlock();
    if (handler) return handler(request, response);
    response.status = 404;
  };
  server_.Get(".*", on).Post(".*", on).Put(".*", on).Delete(".*", on).Patch(".*", on);
  // Headers and body go out in separate writes; without nodelay, Nagle's
  // algorithm holds the body back for the client's delayed ACK.
  server_.set_keep_alive_max_count(1).set_tcp_nodelay(true);
  port_ = server_.bind_to_any_port("127.0.0.1");
  thread_ = std::thread([this] { server_.listen_after_bind(); });
  eventually([this] { return server_.is_running(); });
}

TestServer::~TestServer() {
  server_.stop();
  thread_.join();
}

void TestServer::setHandler(Handler handler) {
  std::lock_guard lock(mutex_);
  handler_ = std::move(handler);
}

void TestServer::respond(int status, std::string body, std::string etag) {
  setHandler([=](const httplib::Request&, httplib::Response& response) {
    response.status = status;
    if (!etag.empty()) response.set_header("ETag", etag);
    if (!body.empty()) response.set_content(body, "application/json");
  });
}

std::vector<RecordedRequest> TestServer::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

void TestServer::clearRequests() {
  std::lock_guard lock(mutex_);
  requests_.clear();
}

RawServer::RawServer(std::string body) : listener_(loopbackSocket(port_, true)) {
  if (port_ < 0 || listen(listener_, 1) != 0) throw std::runtime_error("cannot listen");
  thread_ = std::thread([this, body = std::move(body)] {
    int connection = accept(listener_, nullptr, nullptr);
    if (connection < 0) return;
    // The head, then as many body bytes as Content-Length announces.
    std::size_t expected = std::string::npos;
    char buffer[4096];
    for (ssize_t n; received_.size() < expected && (n = recv(connection, buffer, 4096, 0)) > 0;) {
      received_.append(buffer, static_cast<std::size_t>(n));
      std::size_t end = received_.find("\r\n\r\n"), field = received_.find("\r\nContent-Length: ");
      if (end == std::string::npos) continue;
      expected = end + 4 + (field < end ? std::stoul(received_.substr(field + 18)) : 0);
    }
    std::string reply = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
                        std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
    (void)send(connection, reply.data(), reply.size(), MSG_NOSIGNAL);
    close(connection);
  });
}

RawServer::~RawServer() {
  shutdown(listener_, SHUT_RDWR);  // ends an accept still waiting
  if (thread_.joinable()) thread_.join();
  close(listener_);
}

std::string RawServer::request() {
  if (thread_.joinable()) thread_.join();
  return received_;
}

}  // namespace pactivo::testing

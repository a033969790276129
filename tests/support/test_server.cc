#include "support/test_server.h"

#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

namespace pactivo::testing {

std::string RecordedRequest::header(const std::string& name) const {
  for (const auto& [key, value] : headers) {
    if (strcasecmp(key.c_str(), name.c_str()) == 0) return value;
  }
  return "";
}

bool RecordedRequest::hasHeader(const std::string& name) const {
  for (const auto& [key, value] : headers) {
    if (strcasecmp(key.c_str(), name.c_str()) == 0) return true;
  }
  return false;
}

TestServer::TestServer() {
  auto route = [this](const httplib::Request& request, httplib::Response& response) {
    handle(request, response);
  };
  server_.Get(".*", route);
  server_.Post(".*", route);
  server_.Put(".*", route);
  server_.Delete(".*", route);
  server_.Patch(".*", route);
  server_.set_keep_alive_max_count(1);
  // Headers and body go out in separate writes; without this, Nagle's
  // algorithm holds the body back for the client's delayed ACK.
  server_.set_tcp_nodelay(true);
  port_ = server_.bind_to_any_port("127.0.0.1");
  thread_ = std::thread([this] { server_.listen_after_bind(); });
  while (!server_.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

TestServer::~TestServer() {
  server_.stop();
  thread_.join();
}

std::string TestServer::baseUrl() const {
  return "http://127.0.0.1:" + std::to_string(port_) + "/";
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

std::size_t TestServer::requestCount() const {
  std::lock_guard lock(mutex_);
  return requests_.size();
}

void TestServer::clearRequests() {
  std::lock_guard lock(mutex_);
  requests_.clear();
}

void TestServer::handle(const httplib::Request& request, httplib::Response& response) {
  Handler handler;
  {
    std::lock_guard lock(mutex_);
    RecordedRequest recorded;
    recorded.method = request.method;
    recorded.path = request.path;
    for (const auto& [name, value] : request.headers) recorded.headers.emplace(name, value);
    recorded.body = request.body;
    requests_.push_back(std::move(recorded));
    handler = handler_;
  }
  if (handler) {
    handler(request, response);
  } else {
    response.status = 404;
  }
}

RawServer::RawServer(std::string body) {
  listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      ::listen(listener_, 1) != 0 ||
      ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    throw std::runtime_error("cannot listen on 127.0.0.1");
  }
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this, body = std::move(body)] {
    int connection = ::accept(listener_, nullptr, nullptr);
    if (connection < 0) return;
    // The head, then as many body bytes as Content-Length announces.
    std::size_t expected = std::string::npos;
    char buffer[4096];
    while (received_.size() < expected) {
      ssize_t count = ::recv(connection, buffer, sizeof(buffer), 0);
      if (count <= 0) break;
      received_.append(buffer, static_cast<std::size_t>(count));
      std::size_t end = received_.find("\r\n\r\n");
      if (expected == std::string::npos && end != std::string::npos) {
        std::size_t field = received_.find("\r\nContent-Length: ");
        expected = end + 4 + (field < end ? std::stoul(received_.substr(field + 18)) : 0);
      }
    }
    std::string reply = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
                        std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
    (void)::send(connection, reply.data(), reply.size(), MSG_NOSIGNAL);
    ::close(connection);
  });
}

RawServer::~RawServer() {
  ::shutdown(listener_, SHUT_RDWR);  // ends an accept still waiting
  if (thread_.joinable()) thread_.join();
  ::close(listener_);
}

std::string RawServer::baseUrl() const { return "http://127.0.0.1:" + std::to_string(port_) + "/"; }

std::string RawServer::request() {
  if (thread_.joinable()) thread_.join();
  return received_;
}

}  // namespace pactivo::testing

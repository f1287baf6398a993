#pragma once
// A cpp-httplib server on 127.0.0.1 at a free port, run on its own thread
// for the lifetime of the object.

#include <httplib.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>

namespace symlift::testing {

class LoopbackHTTPServer {
 public:
  // server: an httplib::Server or SSLServer with its routes set.
  explicit LoopbackHTTPServer(std::unique_ptr<httplib::Server> server, std::string scheme = "http")
      : server_(std::move(server)), scheme_(std::move(scheme)) {
    port_ = server_->bind_to_any_port("127.0.0.1");
    // Once bound the socket already queues connections; the loop accepts them.
    if (port_ > 0) thread_ = std::thread([this] { server_->listen_after_bind(); });
  }
  ~LoopbackHTTPServer() {
    if (!thread_.joinable()) return;
    // stop() only takes effect once the accept loop runs.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!server_->is_running() && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    server_->stop();
    thread_.join();
  }
  LoopbackHTTPServer(const LoopbackHTTPServer&) = delete;
  LoopbackHTTPServer& operator=(const LoopbackHTTPServer&) = delete;

  bool bound() const { return port_ > 0; }
  std::string url() const { return scheme_ + "://127.0.0.1:" + std::to_string(port_); }

 private:
  std::unique_ptr<httplib::Server> server_;
  std::string scheme_;
  int port_ = -1;
  std::thread thread_;
};

}  // namespace symlift::testing

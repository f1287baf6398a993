#pragma once
// Shared by the network tests: the outcome of a transfer, and servers on
// 127.0.0.1 at a free port, each run on its own thread for the lifetime of
// the object: a cpp-httplib server with routes, and a bare TCP listener
// whose handler misbehaves below HTTP (a handshake cut off, a trickling
// answer) and which counts the connections it accepted.

#include <httplib.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "network/url_session.h"

namespace symlift::testing {

// The one outcome of a transfer, and how many times its completion ran.
struct Outcome {
  std::mutex mutex;
  std::condition_variable changed;
  int calls = 0;
  std::optional<network::Data> data;
  std::optional<network::HTTPURLResponse> response;
  support::ErrorPtr error;

  network::DataTaskCompletion handler() {
    return [this](std::optional<network::Data> d, std::optional<network::HTTPURLResponse> r, support::ErrorPtr e) {
      std::lock_guard<std::mutex> guard(mutex);
      ++calls, data = std::move(d), response = std::move(r), error = std::move(e);
      changed.notify_all();
    };
  }
  bool wait(std::chrono::seconds limit = std::chrono::seconds(30)) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, limit, [&] { return calls > 0; });
  }
};

class LoopbackHTTPServer {
 public:
  // server: an httplib::Server or SSLServer with its routes set.
  explicit LoopbackHTTPServer(std::unique_ptr<httplib::Server> server, std::string scheme = "http")
      : server_(std::move(server)), scheme_(std::move(scheme)) {
    port_ = server_->bind_to_any_port("127.0.0.1");
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
  bool bound() const { return port_ > 0; }
  std::string url() const { return scheme_ + "://127.0.0.1:" + std::to_string(port_); }

 private:
  std::unique_ptr<httplib::Server> server_;
  std::string scheme_;
  int port_ = -1;
  std::thread thread_;
};

class RawLoopbackServer {
 public:
  // The server closes the socket once the handler returns; a handler that
  // waits long watches `stopping`.
  using Handler = std::function<void(int socket, const std::atomic<bool>& stopping)>;

  explicit RawLoopbackServer(Handler handler) : handler_(std::move(handler)) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::listen(listener_, 16) != 0 || ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0)
      return;
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] {
      while (!stopping_) {
        pollfd entry{listener_, POLLIN, 0};
        if (::poll(&entry, 1, 20) <= 0) continue;
        int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection < 0) continue;
        ++connections_;
        handler_(connection, stopping_);
        ::close(connection);
      }
    });
  }
  ~RawLoopbackServer() {
    stopping_ = true;
    if (thread_.joinable()) thread_.join();
    if (listener_ >= 0) ::close(listener_);
  }
  bool bound() const { return port_ > 0; }
  std::string url(const std::string& scheme, const std::string& path = "/") const {
    return scheme + "://127.0.0.1:" + std::to_string(port_) + path;
  }
  int connections() const { return connections_; }

  // Reads what has arrived, waiting up to the limit for the first bytes.
  static std::string readSome(int socket, std::chrono::milliseconds limit = std::chrono::milliseconds(5000)) {
    pollfd entry{socket, POLLIN, 0};
    if (::poll(&entry, 1, static_cast<int>(limit.count())) <= 0) return {};
    char buffer[16384];
    ssize_t count = ::recv(socket, buffer, sizeof buffer, 0);
    return count > 0 ? std::string(buffer, static_cast<std::size_t>(count)) : std::string();
  }
  // Reads and answers nothing until the peer hangs up or the server stops.
  static void holdSilently(int socket, const std::atomic<bool>& stopping) {
    char buffer[16384];
    for (pollfd entry{socket, POLLIN, 0}; !stopping;)
      if (::poll(&entry, 1, 20) > 0 && ::recv(socket, buffer, sizeof buffer, 0) <= 0) return;
  }
  // Makes the coming close() send a reset instead of an orderly end.
  static void resetOnClose(int socket) {
    linger immediate{1, 0};
    ::setsockopt(socket, SOL_SOCKET, SO_LINGER, &immediate, sizeof immediate);
  }

 private:
  Handler handler_;
  int listener_ = -1;
  int port_ = -1;
  std::atomic<bool> stopping_{false};
  std::atomic<int> connections_{0};
  std::thread thread_;
};

}  // namespace symlift::testing

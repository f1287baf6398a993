#pragma once
// A TCP listener on 127.0.0.1 at a free port that hands every connection, one
// after the other, to a handler working on the bare socket: for peers that
// misbehave below HTTP (a handshake cut off, a trickling answer). It counts
// the connections it accepted.

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

namespace symlift::testing {

class RawLoopbackServer {
 public:
  // handler(socket, stopping): the server closes the socket once the handler
  // returns; a handler that waits long watches `stopping`.
  using Handler = std::function<void(int socket, const std::atomic<bool>& stopping)>;

  explicit RawLoopbackServer(Handler handler) : handler_(std::move(handler)) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener_ < 0) return;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 || ::listen(listener_, 16) != 0 ||
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0)
      return;
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { acceptLoop(); });
  }
  ~RawLoopbackServer() {
    stopping_ = true;
    if (thread_.joinable()) thread_.join();
    if (listener_ >= 0) ::close(listener_);
  }
  RawLoopbackServer(const RawLoopbackServer&) = delete;
  RawLoopbackServer& operator=(const RawLoopbackServer&) = delete;

  bool bound() const { return port_ > 0; }
  int port() const { return port_; }
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
  // Makes the coming close() send a reset instead of an orderly end.
  static void resetOnClose(int socket) {
    linger immediate{1, 0};
    ::setsockopt(socket, SOL_SOCKET, SO_LINGER, &immediate, sizeof immediate);
  }

 private:
  void acceptLoop() {
    while (!stopping_) {
      pollfd entry{listener_, POLLIN, 0};
      if (::poll(&entry, 1, 20) <= 0) continue;
      int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (connection < 0) continue;
      ++connections_;
      handler_(connection, stopping_);
      ::close(connection);
    }
  }

  Handler handler_;
  int listener_ = -1;
  int port_ = -1;
  std::atomic<bool> stopping_{false};
  std::atomic<int> connections_{0};
  std::thread thread_;
};

}  // namespace symlift::testing

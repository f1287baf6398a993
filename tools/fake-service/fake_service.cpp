#include "fake_service.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <httplib.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <memory>
#include <mutex>
#include <regex>
#include <thread>

#include <fmt/format.h>

#include "upload_check.h"

namespace symlift::fakeservice {

namespace fs = std::filesystem;

namespace {

bool parseUnsigned(const std::string& text, std::uint64_t& value) {
  auto result = std::from_chars(text.data(), text.data() + text.size(), value);
  return result.ec == std::errc() && result.ptr == text.data() + text.size() && !text.empty();
}

bool isLoopback(const std::string& address) {
  in_addr v4{};
  if (inet_pton(AF_INET, address.c_str(), &v4) == 1) return (ntohl(v4.s_addr) >> 24) == 127;
  return address == "::1";
}

// Headers the server library adds to a request for its handlers.
bool isLibraryHeader(const std::string& name) {
  return name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" || name == "LOCAL_PORT";
}

std::string fileNamePart(const std::string& text) {
  std::string name;
  for (char c : text) {
    bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
                 c == '_' || c == ':' || c == '-';
    name.push_back(plain ? c : '_');
  }
  if (name.empty() || name == "." || name == "..") name = "_";
  return name;
}

int socketPort(const sockaddr_storage& address) {
  if (address.ss_family == AF_INET) return ntohs(reinterpret_cast<const sockaddr_in&>(address).sin_port);
  if (address.ss_family == AF_INET6) return ntohs(reinterpret_cast<const sockaddr_in6&>(address).sin6_port);
  return -1;
}

// The socket of the connection a request came in on. The server library
// does not hand it to handlers: for TLS it is the SSL object's, otherwise it
// is found among our open descriptors by its two port numbers.
int connectionSocket(const httplib::Request& request) {
  if (request.ssl) return SSL_get_fd(request.ssl);
  DIR* fds = opendir("/proc/self/fd");
  if (!fds) return -1;
  int found = -1;
  while (dirent* entry = readdir(fds)) {
    int fd = -1;
    auto name = std::string_view(entry->d_name);
    if (std::from_chars(name.data(), name.data() + name.size(), fd).ec != std::errc()) continue;
    sockaddr_storage local{}, peer{};
    socklen_t localLength = sizeof local, peerLength = sizeof peer;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &localLength) != 0) continue;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peerLength) != 0) continue;
    if (socketPort(local) == request.local_port && socketPort(peer) == request.remote_port) {
      found = fd;
      break;
    }
  }
  closedir(fds);
  return found;
}

// Reads the request body, or its first `limit` bytes and whatever came with
// them. Without a reader the server library has read it already.
std::string readBody(const httplib::Request& request, const httplib::ContentReader* reader,
                     std::uint64_t limit = UINT64_MAX) {
  if (!reader) return limit == 0 ? std::string() : request.body;
  std::string body;
  if (limit == 0) return body;
  (*reader)([&](const char* data, std::size_t length) {
    body.append(data, length);
    return body.size() < limit;
  });
  return body;
}

void discardBody(const httplib::ContentReader* reader) {
  if (reader) (*reader)([](const char*, std::size_t) { return true; });
}

// Ends the connection with a reset (RST) rather than an orderly close. The
// descriptor number stays open, on /dev/null, for the server library, which
// closes it in its own time.
void resetConnection(int fd) {
  if (fd < 0) return;
  linger abort{1, 0};
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
  int devNull = open("/dev/null", O_RDWR | O_CLOEXEC);
  if (devNull < 0) {
    shutdown(fd, SHUT_RDWR);
    return;
  }
  dup2(devNull, fd);  // closes the socket: with linger 0 that sends the reset
  close(devNull);
}

class Service {
 public:
  explicit Service(const ServiceOptions& options) : options_(options) {}

  int run();

 private:
  void handle(const httplib::Request& request, httplib::Response& response,
              const httplib::ContentReader* reader = nullptr);
  // Holds a request unanswered until the client hangs up or the service stops.
  void holdSilently(int fd);
  void answerUpload(const std::string& app, const std::string& uuid, const std::string& body,
                    httplib::Response& response);
  void appendToLog(const std::string& entry);
  // Waits the configured delay, or less when the service is stopping.
  void delay();
  void stop();
  bool writePortFile(int port);

  ServiceOptions options_;
  std::unique_ptr<httplib::Server> server_;

  std::mutex countMutex_;  // guards requestCount_
  std::uint64_t requestCount_ = 0;
  std::mutex logMutex_;  // serialises writes to the request log and the store
  std::mutex stopMutex_;  // guards stopping_
  std::condition_variable stopChanged_;
  bool stopping_ = false;
};

void Service::appendToLog(const std::string& entry) {
  if (!options_.storeDirectory) return;
  std::lock_guard<std::mutex> guard(logMutex_);
  std::ofstream log(*options_.storeDirectory / "requests.log", std::ios::app | std::ios::binary);
  log << entry;
}

void Service::delay() {
  if (options_.delayMilliseconds == 0) return;
  std::unique_lock<std::mutex> lock(stopMutex_);
  stopChanged_.wait_for(lock, std::chrono::milliseconds(options_.delayMilliseconds), [&] { return stopping_; });
}

void Service::stop() {
  {
    std::lock_guard<std::mutex> guard(stopMutex_);
    stopping_ = true;
  }
  stopChanged_.notify_all();
  server_->stop();
}

void Service::holdSilently(int fd) {
  for (;;) {
    {
      std::unique_lock<std::mutex> lock(stopMutex_);
      if (stopping_) return;
    }
    if (fd < 0) {
      std::unique_lock<std::mutex> lock(stopMutex_);
      stopChanged_.wait_for(lock, std::chrono::milliseconds(100), [&] { return stopping_; });
      continue;
    }
    pollfd watch{fd, POLLRDHUP, 0};
    if (poll(&watch, 1, 100) < 0 && errno != EINTR) return;
    if (watch.revents & (POLLRDHUP | POLLHUP | POLLERR | POLLNVAL)) return;
  }
}

void Service::handle(const httplib::Request& request, httplib::Response& response,
                     const httplib::ContentReader* reader) {
  std::uint64_t index;
  {
    std::lock_guard<std::mutex> guard(countMutex_);
    index = requestCount_++;
  }
  // One block per request: the request line, its headers, the outcome.
  std::string entry = fmt::format("#{} {} {}\n", index, request.method, request.target);
  for (const auto& [name, value] : request.headers)
    if (!isLibraryHeader(name)) entry += fmt::format("{}: {}\n", name, value);

  delay();

  if (index < options_.dropFirst) {
    appendToLog(entry + "=> dropped\n\n");
    int fd = connectionSocket(request);
    // Shutting the socket down (rather than closing it) leaves the
    // descriptor to the server library, which fails writing the answer.
    if (fd >= 0) shutdown(fd, SHUT_RDWR);
    response.status = 500;
    return;
  }

  std::uint64_t rank = index - options_.dropFirst;
  if (rank < options_.resetFirst) {
    std::string partial = readBody(request, reader, options_.resetAfterBytes);
    appendToLog(entry + fmt::format("=> reset after {} bytes\n\n", partial.size()));
    resetConnection(connectionSocket(request));
    response.status = 500;
    return;
  }
  rank -= options_.resetFirst;
  if (rank < options_.silentFirst) {
    readBody(request, reader);
    appendToLog(entry + "=> silent\n\n");
    holdSilently(connectionSocket(request));
    response.status = 500;
    return;
  }
  rank -= options_.silentFirst;

  response.set_header("X-Request-Id", fmt::format("fake-{}", index));
  // A stand-in that neither checks nor stores uploads reads their bodies
  // off the connection and keeps nothing, as a remote service would cost
  // this machine nothing for them.
  const bool keepsBody = options_.checkUploads || options_.storeDirectory;
  const std::string body = keepsBody ? readBody(request, reader) : (discardBody(reader), std::string());
  if (rank < options_.redirectFirst) {
    response.status = 307;
    response.set_header("Location", request.target);
    response.set_content("redirected to itself\n", "text/plain");
  } else if (rank - options_.redirectFirst < options_.failFirst) {
    response.status = options_.failStatus;
    if (options_.retryAfter) response.set_header("Retry-After", *options_.retryAfter);
    response.set_content(fmt::format("injected failure {}\n", options_.failStatus), "text/plain");
  } else {
    static const std::regex uploadPath(R"(^/v1/project/-/app/([^/]+)/upload/native/([^/]+)$)");
    std::smatch match;
    if (request.method == "PUT" && std::regex_match(request.path, match, uploadPath)) {
      answerUpload(match[1].str(), match[2].str(), body, response);
    } else {
      response.status = 404;
      response.set_content("not found\n", "text/plain");
    }
  }
  appendToLog(entry + fmt::format("=> {}\n\n", response.status));
}

void Service::answerUpload(const std::string& app, const std::string& uuid, const std::string& body,
                           httplib::Response& response) {
  UploadVerdict verdict = options_.checkUploads ? checkUpload(body, uuid) : UploadVerdict{true, {}};
  if (!verdict.accepted) {
    response.status = 400;
    response.set_content(verdict.reason + "\n", "text/plain");
    return;
  }
  if (options_.storeDirectory) {
    std::lock_guard<std::mutex> guard(logMutex_);
    std::ofstream out(*options_.storeDirectory / (fileNamePart(app) + "-" + fileNamePart(uuid) + ".csym.gz"),
                      std::ios::binary | std::ios::trunc);
    out.write(body.data(), static_cast<std::streamsize>(body.size()));
  }
  response.status = 200;
  response.set_content("{}", "application/json");
}

bool Service::writePortFile(int port) {
  if (!options_.portFile) return true;
  // Written whole, then renamed, so that a reader never sees half of it.
  fs::path temporary = options_.portFile->string() + ".tmp";
  {
    std::ofstream out(temporary, std::ios::trunc);
    out << port << "\n";
    if (!out) return false;
  }
  std::error_code ec;
  fs::rename(temporary, *options_.portFile, ec);
  return !ec;
}

int Service::run() {
  if (options_.storeDirectory) {
    std::error_code ec;
    fs::create_directories(*options_.storeDirectory, ec);
    if (ec) {
      fmt::print(stderr, "fake-service: cannot create {}: {}\n", options_.storeDirectory->string(), ec.message());
      return 1;
    }
  }
  if (options_.tlsCertificate) {
    auto server = std::make_unique<httplib::SSLServer>(options_.tlsCertificate->c_str(), options_.tlsKey->c_str());
    if (!server->is_valid()) {
      fmt::print(stderr, "fake-service: cannot use the TLS certificate or key\n");
      return 1;
    }
    server_ = std::move(server);
  } else {
    server_ = std::make_unique<httplib::Server>();
  }
  auto handler = [this](const httplib::Request& request, httplib::Response& response) { handle(request, response); };
  // Bodies are read by the handler, so that a connection can be reset
  // half-way through one.
  auto readingHandler = [this](const httplib::Request& request, httplib::Response& response,
                               const httplib::ContentReader& reader) { handle(request, response, &reader); };
  server_->Get(".*", handler);
  server_->Put(".*", readingHandler);
  server_->Post(".*", readingHandler);
  server_->Delete(".*", readingHandler);
  server_->Patch(".*", readingHandler);
  server_->Options(".*", handler);
  // A response goes out as two writes (head, then body); with Nagle's
  // algorithm on, the body waits for the client's delayed ACK of the head,
  // about 40 ms per response on a kept-alive connection. Services answer
  // at once, so the stand-in does too.
  server_->set_tcp_nodelay(true);
  server_->set_keep_alive_timeout(1);
  server_->set_payload_max_length(512u * 1024 * 1024);

  int port = options_.port;
  if (port == 0) {
    port = server_->bind_to_any_port(options_.bindAddress);
  } else if (!server_->bind_to_port(options_.bindAddress, port)) {
    port = -1;
  }
  if (port <= 0) {
    fmt::print(stderr, "fake-service: cannot listen on {}:{}\n", options_.bindAddress, options_.port);
    return 1;
  }
  if (!writePortFile(port)) {
    fmt::print(stderr, "fake-service: cannot write the port file\n");
    return 1;
  }
  fmt::print("{}\n", port);
  std::fflush(stdout);
  fmt::print(stderr, "fake-service: listening on {}://{}:{} for at most {} s\n",
             options_.tlsCertificate ? "https" : "http", options_.bindAddress, port, options_.maxSeconds);

  // The watcher ends the service on a signal or when its time is up.
  std::atomic<bool> listening{true};
  std::thread watcher([&] {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    auto deadline = std::chrono::steady_clock::now() +
                    std::chrono::milliseconds(static_cast<std::int64_t>(options_.maxSeconds * 1000));
    while (listening && std::chrono::steady_clock::now() < deadline) {
      timespec slice{0, 100 * 1000 * 1000};
      if (sigtimedwait(&signals, nullptr, &slice) > 0) break;
    }
    stop();
  });
  bool served = server_->listen_after_bind();
  listening = false;
  watcher.join();
  return served ? 0 : 1;
}

}  // namespace

std::optional<ServiceOptions> parseServiceOptions(int argc, char** argv, std::string& error) {
  ServiceOptions options;
  for (int i = 1; i < argc; ++i) {
    std::string option = argv[i];
    if (option == "--help" || option == "-h") {
      error = "help";
      return std::nullopt;
    }
    if (i + 1 >= argc) {
      error = "missing value for " + option;
      return std::nullopt;
    }
    std::string value = argv[++i];
    std::uint64_t number = 0;
    bool numeric = parseUnsigned(value, number);
    auto needNumber = [&](std::uint64_t maximum) {
      if (numeric && number <= maximum) return true;
      error = fmt::format("bad value for {}: {}", option, value);
      return false;
    };
    if (option == "--port") {
      if (!needNumber(65535)) return std::nullopt;
      options.port = static_cast<int>(number);
    } else if (option == "--bind") {
      if (!isLoopback(value)) {
        error = "only loopback addresses may be bound: " + value;
        return std::nullopt;
      }
      options.bindAddress = value;
    } else if (option == "--tls-cert") {
      options.tlsCertificate = value;
    } else if (option == "--tls-key") {
      options.tlsKey = value;
    } else if (option == "--store") {
      options.storeDirectory = value;
    } else if (option == "--check-uploads") {
      if (value != "yes" && value != "no") {
        error = fmt::format("bad value for {}: {}", option, value);
        return std::nullopt;
      }
      options.checkUploads = value == "yes";
    } else if (option == "--fail-first") {
      if (!needNumber(UINT32_MAX)) return std::nullopt;
      options.failFirst = number;
    } else if (option == "--fail-status") {
      if (!needNumber(999) || number < 100) {
        error = fmt::format("bad value for {}: {}", option, value);
        return std::nullopt;
      }
      options.failStatus = static_cast<int>(number);
    } else if (option == "--retry-after") {
      options.retryAfter = value;
    } else if (option == "--delay-ms") {
      if (!needNumber(3600 * 1000)) return std::nullopt;
      options.delayMilliseconds = number;
    } else if (option == "--drop-first") {
      if (!needNumber(UINT32_MAX)) return std::nullopt;
      options.dropFirst = number;
    } else if (option == "--reset-first") {
      if (!needNumber(UINT32_MAX)) return std::nullopt;
      options.resetFirst = number;
    } else if (option == "--reset-after-bytes") {
      if (!needNumber(UINT32_MAX)) return std::nullopt;
      options.resetAfterBytes = number;
    } else if (option == "--silent-first") {
      if (!needNumber(UINT32_MAX)) return std::nullopt;
      options.silentFirst = number;
    } else if (option == "--redirect-first") {
      if (!needNumber(UINT32_MAX)) return std::nullopt;
      options.redirectFirst = number;
    } else if (option == "--port-file") {
      options.portFile = value;
    } else if (option == "--max-seconds") {
      if (!needNumber(24 * 3600) || number == 0) {
        error = fmt::format("bad value for {}: {}", option, value);
        return std::nullopt;
      }
      options.maxSeconds = static_cast<double>(number);
    } else {
      error = "unknown option " + option;
      return std::nullopt;
    }
  }
  if (options.tlsCertificate.has_value() != options.tlsKey.has_value()) {
    error = "--tls-cert and --tls-key go together";
    return std::nullopt;
  }
  return options;
}

int runService(const ServiceOptions& options) { return Service(options).run(); }

}  // namespace symlift::fakeservice

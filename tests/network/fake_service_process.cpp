#include "fake_service_process.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

extern char** environ;

namespace symlift::testing {

using Clock = std::chrono::steady_clock;

FakeServiceProcess::FakeServiceProcess(const std::vector<std::string>& options, bool tls) : tls_(tls) {
  // Loopback traffic must never go through a proxy from the environment.
  for (const char* name : {"http_proxy", "https_proxy", "HTTP_PROXY", "HTTPS_PROXY", "ALL_PROXY", "all_proxy"})
    if (std::getenv(name)) setenv("no_proxy", "127.0.0.1,localhost", 1), setenv("NO_PROXY", "127.0.0.1,localhost", 1);
  std::string portFile = (directory_.path() / "port").string();
  // The service's own limit only ends one left behind by a test process that
  // died; it is generous, so that a slow machine never loses it half-way.
  std::vector<std::string> argv{FAKE_SERVICE_PATH, "--port",     "0", "--port-file", portFile, "--store",
                                storePath(),       "--max-seconds", "600"};
  argv.insert(argv.end(), options.begin(), options.end());
  std::vector<char*> args;
  for (auto& a : argv) args.push_back(a.data());
  args.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  std::string outPath = (directory_.path() / "service.out").string();
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, outPath.c_str(), O_WRONLY | O_APPEND, 0600);
  int rc = posix_spawn(&pid_, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) {
    pid_ = -1;
    return;
  }
  for (auto deadline = Clock::now() + std::chrono::seconds(10); Clock::now() < deadline;) {
    std::ifstream in(portFile);
    int port = 0, status = 0;
    if (in >> port && port > 0) {
      port_ = port;
      return;
    }
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

FakeServiceProcess::~FakeServiceProcess() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  int status = 0;
  for (auto deadline = Clock::now() + std::chrono::seconds(10); waitpid(pid_, &status, WNOHANG) != pid_;) {
    if (Clock::now() > deadline) {
      kill(pid_, SIGKILL);
      waitpid(pid_, &status, 0);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

std::string FakeServiceProcess::baseURL() const {
  return std::string(tls_ ? "https" : "http") + "://127.0.0.1:" + std::to_string(port_);
}

std::string FakeServiceProcess::requestLog() const { return readFile(directory_.path() / "store" / "requests.log"); }

std::vector<std::string> FakeServiceProcess::loggedHeaderValues(const std::string& header) const {
  std::vector<std::string> values;
  std::istringstream lines(requestLog());
  for (std::string line; std::getline(lines, line);)
    if (line.starts_with(header + ": ")) values.push_back(line.substr(header.size() + 2));
  return values;
}

std::size_t FakeServiceProcess::loggedRequestCount() const {
  std::size_t count = 0;
  std::istringstream lines(requestLog());
  for (std::string line; std::getline(lines, line);) count += line.starts_with("#");
  return count;
}

TestCertificates::TestCertificates() {
  if (!haveProgram("openssl")) return;
  auto dir = directory.path();
  caCertificate = (dir / "ca.pem").string();
  serverCertificate = (dir / "server.pem").string();
  serverKey = (dir / "server.key").string();
  std::string caKey = (dir / "ca.key").string(), request = (dir / "server.csr").string();
  std::string extensions =
      directory.write("ext.cnf", "subjectAltName=IP:127.0.0.1\nbasicConstraints=CA:FALSE\n").string();
  auto run = [](std::vector<std::string> argv) {
    argv.insert(argv.begin(), "/usr/bin/openssl");
    RunOptions options;
    options.timeoutSeconds = 60;
    return runProgram(argv, options).status == 0;
  };
  made = run({"req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", caKey, "-out", caCertificate, "-days", "2",
              "-subj", "/CN=symlift test CA"}) &&
         run({"req", "-newkey", "rsa:2048", "-nodes", "-keyout", serverKey, "-out", request, "-subj",
              "/CN=127.0.0.1"}) &&
         run({"x509", "-req", "-in", request, "-CA", caCertificate, "-CAkey", caKey, "-CAcreateserial", "-out",
              serverCertificate, "-days", "2", "-extfile", extensions});
}

int unusedLoopbackPort() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  int port = -1;
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0)
    port = ntohs(address.sin_port);
  close(fd);
  return port;
}

std::string gzipText(const std::string& text) {
  z_stream stream{};
  deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 16 + MAX_WBITS, 8, Z_DEFAULT_STRATEGY);
  std::string out(deflateBound(&stream, text.size()) + 64, '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  stream.avail_in = static_cast<uInt>(text.size());
  stream.next_out = reinterpret_cast<Bytef*>(out.data());
  stream.avail_out = static_cast<uInt>(out.size());
  deflate(&stream, Z_FINISH);
  out.resize(stream.total_out);
  deflateEnd(&stream);
  return out;
}

}  // namespace symlift::testing

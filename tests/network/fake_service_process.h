#pragma once
// Runs the stand-in upload service as a child process on an ephemeral
// loopback port, with its store in a temporary folder. The child stops by
// itself after ten minutes; the destructor stops it at once.

#include <sys/types.h>

#include <string>
#include <vector>

#include "support/test_support.h"

namespace symlift::testing {

class FakeServiceProcess {
 public:
  // Extra options as on the service's command line. Starts the service and
  // waits until it listens; started() tells whether it did.
  explicit FakeServiceProcess(const std::vector<std::string>& options = {}, bool tls = false);
  ~FakeServiceProcess();
  FakeServiceProcess(const FakeServiceProcess&) = delete;
  FakeServiceProcess& operator=(const FakeServiceProcess&) = delete;

  bool started() const { return port_ > 0; }
  int port() const { return port_; }
  std::string baseURL() const;
  std::string uploadURL(const std::string& app, const std::string& uuid) const;
  const TempDir& directory() const { return directory_; }
  std::string storePath() const { return (directory_.path() / "store").string(); }

  // The request log, one block per request ("#<n> <method> <target>",
  // "<Header>: <value>" lines, "=> <outcome>").
  std::string requestLog() const;
  // The values of one header across the logged requests, in order.
  std::vector<std::string> loggedHeaderValues(const std::string& header) const;
  std::size_t loggedRequestCount() const;

 private:
  TempDir directory_;
  pid_t pid_ = -1;
  int port_ = -1;
  bool tls_ = false;
};

// A TLS test CA and a server certificate for 127.0.0.1 signed by it, made
// with the openssl command in a temporary folder.
struct TestCertificates {
  TempDir directory;
  std::string caCertificate;
  std::string serverCertificate;
  std::string serverKey;
  bool made = false;
  TestCertificates();
};

// A port on 127.0.0.1 with nothing listening on it (it was free a moment ago).
int unusedLoopbackPort();

// gzip of the text (zlib's gzip wrapper).
std::string gzipText(const std::string& text);

}  // namespace symlift::testing

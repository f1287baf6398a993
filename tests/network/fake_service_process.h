#pragma once
// The stand-in upload service run as a child process on an ephemeral
// loopback port, with its store in a temporary folder (shared with the e2e
// and operations tests); and the test certificates for TLS peers.

#include <sys/types.h>

#include <string>
#include <vector>

#include "support/test_support.h"

namespace symlift::testing {

class FakeServiceProcess {
 public:
  // Options as on the service's command line. Waits until it listens;
  // started() tells whether it did. The destructor stops it.
  explicit FakeServiceProcess(const std::vector<std::string>& options = {}, bool tls = false);
  ~FakeServiceProcess();
  FakeServiceProcess(const FakeServiceProcess&) = delete;
  FakeServiceProcess& operator=(const FakeServiceProcess&) = delete;

  bool started() const { return port_ > 0; }
  std::string baseURL() const;
  std::string storePath() const { return (directory_.path() / "store").string(); }
  // One block per request: "#<n> <method> <target>", "<Header>: <value>"
  // lines, "=> <outcome>".
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
  std::string caCertificate, serverCertificate, serverKey;
  bool made = false;
  TestCertificates();
};

// A port on 127.0.0.1 with nothing listening on it (it was free a moment ago).
int unusedLoopbackPort();

// gzip of the text (zlib's gzip wrapper).
std::string gzipText(const std::string& text);

}  // namespace symlift::testing

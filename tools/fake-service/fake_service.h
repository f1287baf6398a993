#pragma once
// A local stand-in for the symbol upload service, for tests and the demo.
// It listens on loopback only, answers cSYM uploads after checking them,
// can misbehave on request (failures, silence, dropped connections) and
// stops by itself.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace symlift::fakeservice {

struct ServiceOptions {
  int port = 0;  // 0: any free port
  std::string bindAddress = "127.0.0.1";
  std::optional<std::string> tlsCertificate;
  std::optional<std::string> tlsKey;
  std::optional<std::filesystem::path> storeDirectory;
  // Whether an upload's body is decoded and checked before it is accepted;
  // off, every well-addressed upload is accepted as received (benchmarks, so
  // that the stand-in's own work does not share the cores being measured).
  bool checkUploads = true;
  std::uint64_t failFirst = 0;  // answer this many requests (after the dropped ones) with failStatus
  int failStatus = 503;
  std::optional<std::string> retryAfter;  // sent with every injected failure
  std::uint64_t delayMilliseconds = 0;    // before answering any request
  std::uint64_t dropFirst = 0;            // close this many connections without an answer
  // After the dropped ones, in this order: requests whose connection is
  // reset once resetAfterBytes of the body have arrived; requests never
  // answered (held until the client hangs up); requests redirected to
  // themselves with 307; then the failFirst failures.
  std::uint64_t resetFirst = 0;
  std::uint64_t resetAfterBytes = 1;
  std::uint64_t silentFirst = 0;
  std::uint64_t redirectFirst = 0;
  std::optional<std::filesystem::path> portFile;
  double maxSeconds = 300;
};

// Parses the command line; on a bad one, the message is in error.
std::optional<ServiceOptions> parseServiceOptions(int argc, char** argv, std::string& error);

// Serves until SIGTERM or SIGINT arrives or maxSeconds have passed. The
// caller must have blocked both signals in every thread. Returns the exit
// status.
int runService(const ServiceOptions& options);

}  // namespace symlift::fakeservice

// fake-service: the stand-in upload service on loopback. See fake_service.h.

#include <signal.h>

#include <cstdio>
#include <string>

#include "fake_service.h"

int main(int argc, char** argv) {
  // Signals are taken by the service's watcher, never by a handler.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);

  std::string error;
  auto options = symlift::fakeservice::parseServiceOptions(argc, argv, error);
  if (!options) {
    std::fprintf(stderr, "fake-service: %s\n", error.c_str());
    std::fprintf(stderr,
                 "usage: fake-service [--port N] [--bind 127.0.0.1] [--tls-cert F --tls-key F] [--store DIR]\n"
                 "                    [--fail-first N] [--fail-status S] [--retry-after V] [--delay-ms M]\n"
                 "                    [--drop-first N] [--reset-first N] [--reset-after-bytes B] [--silent-first N]\n"
                 "                    [--redirect-first N] [--check-uploads yes|no] [--port-file F] [--max-seconds T]\n");
    return 2;
  }
  return symlift::fakeservice::runService(*options);
}

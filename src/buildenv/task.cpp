#include "buildenv/task.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <string>
#include <vector>

extern char** environ;

namespace symlift::buildenv {

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kPollInterval = std::chrono::milliseconds(100);
// How often an exited child's pipes being closed makes us look for its exit.
constexpr auto kReapInterval = std::chrono::milliseconds(10);
constexpr auto kKillGrace = std::chrono::seconds(5);

// A file descriptor closed when it goes out of scope.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int fd) : fd_(fd) {}
  ~FileDescriptor() { reset(); }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

struct Pipe {
  FileDescriptor read;
  FileDescriptor write;
};

// Both ends close on exec, so other children started at the same time never
// inherit them; the child gets its own ends through dup2 file actions.
bool makePipe(Pipe& pipe) {
  int fds[2];
#if defined(__linux__)
  if (::pipe2(fds, O_CLOEXEC) != 0) return false;
#else
  if (::pipe(fds) != 0) return false;
  ::fcntl(fds[0], F_SETFD, FD_CLOEXEC);
  ::fcntl(fds[1], F_SETFD, FD_CLOEXEC);
#endif
  pipe.read.reset(fds[0]);
  pipe.write.reset(fds[1]);
  return true;
}

void setNonBlocking(int fd) {
  int flags = ::fcntl(fd, F_GETFL);
  if (flags >= 0) ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

// Reads what is available now; closes the descriptor at end of file or on a
// hard error.
void drainAvailable(FileDescriptor& fd, std::string& into) {
  char buffer[65536];
  while (fd.valid()) {
    ssize_t count = ::read(fd.get(), buffer, sizeof buffer);
    if (count > 0) {
      into.append(buffer, static_cast<std::size_t>(count));
    } else if (count == 0) {
      fd.reset();
    } else if (errno == EINTR) {
      continue;
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      return;
    } else {
      fd.reset();
    }
  }
}

std::int32_t statusFromWaitStatus(int waitStatus) {
  if (WIFEXITED(waitStatus)) return WEXITSTATUS(waitStatus);
  if (WIFSIGNALED(waitStatus)) return 128 + WTERMSIG(waitStatus);
  return waitStatus;
}

// The child gets default handling of the signals a parent commonly ignores
// or catches (a network library ignoring SIGPIPE, for instance), an empty
// signal mask and a session of its own: without a controlling terminal it
// cannot stop to ask the user anything (unzip asking for the password of an
// encrypted archive would wait for ever).
bool prepareAttributes(posix_spawnattr_t& attributes) {
  if (posix_spawnattr_init(&attributes) != 0) return false;
  sigset_t defaults;
  sigemptyset(&defaults);
  for (int signal : {SIGPIPE, SIGINT, SIGQUIT, SIGHUP, SIGTERM, SIGCHLD, SIGUSR1, SIGUSR2})
    sigaddset(&defaults, signal);
  sigset_t mask;
  sigemptyset(&mask);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setsigmask(&attributes, &mask);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSID);
  return true;
}

}  // namespace

bool SUPTask::launchWithPath(const std::string& path, const std::optional<std::string>& workingDirectory,
                             const std::optional<Arguments>& arguments,
                             const std::optional<EnvironmentMap>& environment, double timeout,
                             const SUPTaskCompletion& completion) {
  Pipe output, input, error;
  if (!makePipe(output) || !makePipe(input) || !makePipe(error)) return false;

  posix_spawn_file_actions_t actions;
  if (posix_spawn_file_actions_init(&actions) != 0) return false;
  posix_spawn_file_actions_adddup2(&actions, input.read.get(), STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output.write.get(), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, error.write.get(), STDERR_FILENO);
  if (workingDirectory) posix_spawn_file_actions_addchdir_np(&actions, workingDirectory->c_str());

  posix_spawnattr_t attributes;
  if (!prepareAttributes(attributes)) {
    posix_spawn_file_actions_destroy(&actions);
    return false;
  }

  // argv[0] is the program path, as the platform's task launcher sets it.
  std::vector<std::string> argumentStrings{path};
  if (arguments) argumentStrings.insert(argumentStrings.end(), arguments->begin(), arguments->end());
  std::vector<char*> argv;
  for (auto& argument : argumentStrings) argv.push_back(argument.data());
  argv.push_back(nullptr);

  std::vector<std::string> environmentStrings;
  std::vector<char*> envp;
  if (environment) {
    for (const auto& [key, value] : *environment) environmentStrings.push_back(key + "=" + value);
    for (auto& entry : environmentStrings) envp.push_back(entry.data());
    envp.push_back(nullptr);
  }

  pid_t pid = -1;
  int spawnError = posix_spawn(&pid, path.c_str(), &actions, &attributes, argv.data(),
                               environment ? envp.data() : environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  if (spawnError != 0) return false;

  // Only the child writes these and reads standard input; with our writing
  // end of standard input closed the child sees end of file there.
  output.write.reset();
  error.write.reset();
  input.read.reset();
  input.write.reset();
  setNonBlocking(output.read.get());
  setNonBlocking(error.read.get());

  std::string standardOutput, standardError;
  const bool limited = timeout > 0;
  // Capped at about 30 years so that the deadline cannot overflow the clock.
  const double seconds = limited ? std::min(timeout, 1e9) : 0;
  const auto deadline =
      Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  int waitStatus = 0;
  bool exited = false;
  bool unknownStatus = false;

  while (!exited) {
    auto wait = kPollInterval;
    if (limited) {
      auto now = Clock::now();
      if (now > deadline) {
        ::kill(pid, now > deadline + kKillGrace ? SIGKILL : SIGTERM);
      } else {
        wait = std::min(wait, std::chrono::ceil<std::chrono::milliseconds>(deadline - now));
      }
    }
    pollfd fds[2];
    nfds_t count = 0;
    for (FileDescriptor* fd : {&error.read, &output.read})
      if (fd->valid()) fds[count++] = pollfd{fd->get(), POLLIN, 0};
    if (count > 0) {
      int ready = ::poll(fds, count, static_cast<int>(wait.count()));
      if (ready > 0) {
        drainAvailable(error.read, standardError);
        drainAvailable(output.read, standardOutput);
      }
    }

    // Once both pipes are at end of file the child is done writing; without
    // a time limit it is then simply waited for.
    bool pipesClosed = !error.read.valid() && !output.read.valid();
    int options = (pipesClosed && !limited) ? 0 : WNOHANG;
    pid_t result = ::waitpid(pid, &waitStatus, options);
    if (result == pid) {
      exited = true;
    } else if (result < 0 && errno != EINTR) {
      // The child was reaped elsewhere (SIGCHLD set to be ignored, for
      // instance): its status is lost.
      unknownStatus = true;
      exited = true;
    } else if (pipesClosed && count == 0 && limited) {
      // Nothing to poll: the child has closed its output and is about to
      // exit (or runs on silently); pace the loop ourselves.
      auto now = Clock::now();
      auto pause = now > deadline ? kReapInterval : std::min<Clock::duration>(kReapInterval, deadline - now);
      struct timespec sleepFor {
        0, static_cast<long>(std::chrono::duration_cast<std::chrono::nanoseconds>(pause).count())
      };
      ::nanosleep(&sleepFor, nullptr);
    }
  }

  // Whatever the child wrote before it exited is in the pipes now; a
  // grandchild that still holds them open does not keep us waiting.
  drainAvailable(error.read, standardError);
  drainAvailable(output.read, standardOutput);

  completion(standardError, standardOutput, unknownStatus ? -1 : statusFromWaitStatus(waitStatus));
  return true;
}

bool SUPTask::launchWithPath(const std::string& path, const std::optional<std::string>& workingDirectory,
                             const std::optional<Arguments>& arguments,
                             const std::optional<EnvironmentMap>& environment, const SUPTaskCompletion& completion) {
  return launchWithPath(path, workingDirectory, arguments, environment, 0, completion);
}

bool SUPTask::launchWithPath(const std::string& path, const std::optional<std::string>& workingDirectory,
                             const std::optional<Arguments>& arguments, const SUPTaskCompletion& completion) {
  return launchWithPath(path, workingDirectory, arguments, std::nullopt, 0, completion);
}

std::optional<std::string> SUPTask::stdoutWithLaunchPath(const std::string& path, const Arguments& arguments) {
  std::optional<std::string> text;
  launchWithPath(path, std::nullopt, arguments, [&](const std::string&, const std::string& out, std::int32_t) {
    if (isValidUTF8(out)) text = out;
  });
  return text;
}

std::optional<std::string> SUPTask::stderrWithLaunchPath(const std::string& path, const Arguments& arguments) {
  std::optional<std::string> text;
  launchWithPath(path, std::nullopt, arguments, [&](const std::string& err, const std::string&, std::int32_t) {
    if (isValidUTF8(err)) text = err;
  });
  return text;
}

bool SUPTask::runTaskWithLaunchPath(const std::string& path, const std::optional<std::string>& currentDirectoryPath,
                                    const Arguments& arguments) {
  bool succeeded = false;
  launchWithPath(path, currentDirectoryPath, arguments,
                 [&](const std::string&, const std::string&, std::int32_t status) { succeeded = status == 0; });
  return succeeded;
}

bool SUPTask::runTaskWithLaunchPath(const std::string& path, const Arguments& arguments) {
  return runTaskWithLaunchPath(path, std::nullopt, arguments);
}

bool SUPTask::isValidUTF8(const std::string& bytes) {
  std::size_t i = 0;
  const std::size_t n = bytes.size();
  while (i < n) {
    auto c = static_cast<unsigned char>(bytes[i]);
    if (c < 0x80) {
      ++i;
      continue;
    }
    std::size_t length;
    std::uint32_t codePoint;
    if ((c & 0xE0) == 0xC0) {
      length = 2;
      codePoint = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
      length = 3;
      codePoint = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
      length = 4;
      codePoint = c & 0x07;
    } else {
      return false;
    }
    if (n - i < length) return false;
    for (std::size_t k = 1; k < length; ++k) {
      auto next = static_cast<unsigned char>(bytes[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      codePoint = (codePoint << 6) | (next & 0x3F);
    }
    static constexpr std::uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (codePoint < kSmallest[length] || codePoint > 0x10FFFF) return false;
    if (codePoint >= 0xD800 && codePoint <= 0xDFFF) return false;
    i += length;
  }
  return true;
}

}  // namespace symlift::buildenv

#include "macho/mapped_file.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <utility>

namespace symlift::macho {

namespace {

// The mappings the bus-error handler may mend: a fixed table, since the
// handler can neither lock nor allocate. A slot is free while its end is 0.
struct GuardedMapping {
  std::atomic<std::uintptr_t> begin{0};
  std::atomic<std::uintptr_t> end{0};
  std::atomic<bool> cutShort{false};
};
constexpr int kGuardedMappings = 256;
GuardedMapping guarded[kGuardedMappings];
std::atomic<std::uintptr_t> pageSize{4096};
struct sigaction previousBusAction {};

// Runs on the thread that read past the file's end: the page becomes a page
// of zeros and the read is retried. A fault anywhere else is not ours.
void onBusError(int signal, siginfo_t* info, void* context) {
  const auto address = reinterpret_cast<std::uintptr_t>(info->si_addr);
  for (GuardedMapping& mapping : guarded) {
    if (address < mapping.begin.load() || address >= mapping.end.load()) continue;
    const std::uintptr_t page = address & ~(pageSize.load() - 1);
    if (::mmap(reinterpret_cast<void*>(page), pageSize.load(), PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED,
               -1, 0) != MAP_FAILED) {
      mapping.cutShort.store(true);
      return;
    }
    break;
  }
  // Not a mapping of ours, or not mendable: what would have happened.
  if (previousBusAction.sa_flags & SA_SIGINFO) {
    previousBusAction.sa_sigaction(signal, info, context);
  } else {
    ::sigaction(SIGBUS, &previousBusAction, nullptr);  // the fault repeats and ends the process
  }
}

int guard(void* address, std::size_t size) {
  static std::once_flag installed;
  std::call_once(installed, [] {
    pageSize.store(static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE)));
    struct sigaction action {};
    action.sa_sigaction = onBusError;
    action.sa_flags = SA_SIGINFO;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGBUS, &action, &previousBusAction);
  });
  const auto begin = reinterpret_cast<std::uintptr_t>(address);
  for (int slot = 0; slot < kGuardedMappings; ++slot) {
    std::uintptr_t free = 0;
    if (guarded[slot].end.compare_exchange_strong(free, begin + size)) {
      guarded[slot].cutShort.store(false);
      guarded[slot].begin.store(begin);
      return slot;
    }
  }
  return -1;  // more mappings at once than the table holds: this one unguarded
}

void unguard(int slot) {
  if (slot < 0) return;
  guarded[slot].begin.store(0);
  guarded[slot].end.store(0);
}

}  // namespace

std::optional<MappedFile> MappedFile::open(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return std::nullopt;
  struct stat status {};
  if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    ::close(fd);
    return std::nullopt;
  }
  const auto size = static_cast<std::size_t>(status.st_size);
  void* address = nullptr;
  if (size > 0) {
    // Private and read-only: released pages come back from the file.
    address = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
    if (address == MAP_FAILED) {
      ::close(fd);
      return std::nullopt;
    }
  }
  ::close(fd);  // the mapping keeps the file
  return MappedFile(address, size, size > 0 ? guard(address, size) : -1);
}

MappedFile::MappedFile(MappedFile&& other) noexcept
    : address_(std::exchange(other.address_, nullptr)),
      size_(std::exchange(other.size_, 0)),
      guard_(std::exchange(other.guard_, -1)) {}

MappedFile& MappedFile::operator=(MappedFile&& other) noexcept {
  if (this != &other) {
    unguard(guard_);
    if (address_) ::munmap(address_, size_);
    address_ = std::exchange(other.address_, nullptr);
    size_ = std::exchange(other.size_, 0);
    guard_ = std::exchange(other.guard_, -1);
  }
  return *this;
}

MappedFile::~MappedFile() {
  unguard(guard_);
  if (address_) ::munmap(address_, size_);
}

bool MappedFile::cutShort() const { return guard_ >= 0 && guarded[guard_].cutShort.load(); }

void MappedFile::release(Bytes range) const {
  const auto begin = reinterpret_cast<std::uintptr_t>(address_);
  const auto first = reinterpret_cast<std::uintptr_t>(range.data());
  if (range.empty() || first < begin || first + range.size() > begin + size_) return;
  const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
  const std::uintptr_t from = (first + page - 1) / page * page;
  const std::uintptr_t to = (first + range.size()) / page * page;
  if (to > from) ::madvise(reinterpret_cast<void*>(from), to - from, MADV_DONTNEED);
}

}  // namespace symlift::macho

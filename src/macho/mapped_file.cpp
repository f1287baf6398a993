#include "macho/mapped_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

namespace symlift::macho {

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
  return MappedFile(address, size);
}

MappedFile::MappedFile(MappedFile&& other) noexcept
    : address_(std::exchange(other.address_, nullptr)), size_(std::exchange(other.size_, 0)) {}

MappedFile& MappedFile::operator=(MappedFile&& other) noexcept {
  if (this != &other) {
    if (address_) ::munmap(address_, size_);
    address_ = std::exchange(other.address_, nullptr);
    size_ = std::exchange(other.size_, 0);
  }
  return *this;
}

MappedFile::~MappedFile() {
  if (address_) ::munmap(address_, size_);
}

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

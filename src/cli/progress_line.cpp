#include "cli/progress_line.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <filesystem>

#include <fmt/format.h>

#include "support/files.h"

namespace symlift::cli {

namespace {

// Carriage return and "erase the whole line".
constexpr std::string_view kErase = "\r\x1b[2K";
// Redraws for bytes sent come at most this often.
constexpr std::chrono::milliseconds kRedrawInterval{100};

std::string bytesText(std::uint64_t bytes) {
  if (bytes < 1024) return fmt::format("{} B", bytes);
  if (bytes < 1024 * 1024) return fmt::format("{:.1f} KB", static_cast<double>(bytes) / 1024);
  return fmt::format("{:.1f} MB", static_cast<double>(bytes) / (1024 * 1024));
}

std::size_t terminalColumns(int fd) {
  winsize size{};
  if (::ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 1) return size.ws_col;
  return 80;
}

}  // namespace

ProgressLine::ProgressLine(int fd, bool convertOnly)
    : fd_(fd), enabled_(::isatty(fd) == 1), convertOnly_(convertOnly) {
  if (enabled_) console::SYLLogging::addListener(this);
}

ProgressLine::~ProgressLine() {
  if (!enabled_) return;
  console::SYLLogging::removeListener(this);
  clear();
}

void ProgressLine::dsymStarted(const std::string& bundlePath, const std::vector<std::string>& architectures) {
  std::lock_guard<std::mutex> guard(mutex_);
  dsymName_ = std::filesystem::path(bundlePath).filename().string();
  architectures_ = architectures;
  converted_ = 0;
  found_ += architectures.size();
  uploading_ = false;
  retry_.clear();
  drawLocked(true);
}

void ProgressLine::clear() {
  std::lock_guard<std::mutex> guard(mutex_);
  eraseLocked();
  cleared_ = true;
}

void ProgressLine::sliceConverted(const std::string&, const operations::CSYMHeader&, std::uint64_t) {
  std::lock_guard<std::mutex> guard(mutex_);
  ++converted_;
  if (convertOnly_) ++done_;
  drawLocked(true);
}

void ProgressLine::uploadStarted(const std::string&, std::uint64_t bodyBytes) {
  std::lock_guard<std::mutex> guard(mutex_);
  uploading_ = true;
  uploadTotal_ = bodyBytes;
  uploadSent_ = 0;
  retry_.clear();
  drawLocked(true);
}

void ProgressLine::uploadProgress(const std::string&, std::uint64_t sent) {
  std::lock_guard<std::mutex> guard(mutex_);
  uploadSent_ = sent;
  retry_.clear();
  drawLocked(false);
}

void ProgressLine::uploadRetrying(const std::string&, std::uint64_t nextAttempt, std::chrono::nanoseconds delay) {
  std::lock_guard<std::mutex> guard(mutex_);
  retry_ = fmt::format("waiting {:.0f} s before attempt {}",
                       std::chrono::duration<double>(delay).count(), nextAttempt);
  drawLocked(true);
}

void ProgressLine::uploadFinished(const std::string&, long, std::uint64_t, const support::ErrorPtr&) {
  std::lock_guard<std::mutex> guard(mutex_);
  ++done_;
  retry_.clear();
  drawLocked(true);
}

void ProgressLine::willWriteLine() {
  std::lock_guard<std::mutex> guard(mutex_);
  eraseLocked();
}

void ProgressLine::didWriteLine(std::uint64_t, std::string_view) {
  std::lock_guard<std::mutex> guard(mutex_);
  drawLocked(true);
}

std::string ProgressLine::text() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return textLocked();
}

std::string ProgressLine::textLocked() const {
  if (dsymName_.empty()) return {};
  std::string text = fmt::format("[{}/{} slices] ", done_, found_);
  if (!retry_.empty()) return text + fmt::format("{}: {}", dsymName_, retry_);
  if (uploading_) return text + fmt::format("Uploading {}: {} of {}", dsymName_, bytesText(uploadSent_),
                                            bytesText(uploadTotal_));
  if (converted_ < architectures_.size())
    return text + fmt::format("Converting {} of {}", architectures_[converted_], dsymName_);
  return text + fmt::format("Converted {}", dsymName_);
}

void ProgressLine::drawLocked(bool force) {
  if (!enabled_ || cleared_) return;
  const auto now = std::chrono::steady_clock::now();
  if (!force && now - lastDraw_ < kRedrawInterval) return;
  lastDraw_ = now;
  std::string text = textLocked();
  if (text.empty()) return;
  // One line, never wrapping: a wrapped line cannot be erased in place.
  const std::size_t columns = terminalColumns(fd_) - 1;
  if (text.size() > columns) text.resize(columns);
  std::string line(kErase);
  line += text;
  support::writeAll(fd_, std::string_view(line));
  shown_ = true;
}

void ProgressLine::eraseLocked() {
  if (!enabled_ || !shown_) return;
  support::writeAll(fd_, kErase);
  shown_ = false;
}

}  // namespace symlift::cli

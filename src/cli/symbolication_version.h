#pragma once
// The highest symbolication framework version a run may use. The process-wide
// default is 0.0 (no limit chosen); the -x option overrides it for one run
// without changing the default.

#include <atomic>
#include <optional>
#include <string>

namespace symlift::cli {

// Header-only, so that the symbol side can read the default without
// linking the command line.
inline std::atomic<float>& defaultMaxSymbolicationVersionStorage() {
  static std::atomic<float> version{0.0f};
  return version;
}
inline float defaultMaxSymbolicationVersion() {
  return defaultMaxSymbolicationVersionStorage().load(std::memory_order_relaxed);
}
inline void setDefaultMaxSymbolicationVersion(float version) {
  defaultMaxSymbolicationVersionStorage().store(version, std::memory_order_relaxed);
}

// The option's text as a decimal float: leading white space and an optional
// sign are accepted and the longest numeric prefix is used; text that is no
// number, or no text at all, gives 0.0.
float maxSymbolicationVersionFromText(const std::optional<std::string>& text);

}  // namespace symlift::cli

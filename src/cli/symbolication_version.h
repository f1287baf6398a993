#pragma once
// The highest symbolication framework version a run may use. The process-wide
// default is 0.0 (no limit chosen); the -x option overrides it for one run
// without changing the default.

#include <optional>
#include <string>

namespace symlift::cli {

// The process-wide default, kept by the symbol side (the framework loader
// reads the same setting).
float defaultMaxSymbolicationVersion();

// The option's text as a decimal float: leading white space and an optional
// sign are accepted and the longest numeric prefix is used; text that is no
// number, or no text at all, gives 0.0.
float maxSymbolicationVersionFromText(const std::optional<std::string>& text);

}  // namespace symlift::cli

#pragma once
// Error domains and codes of the dSYM pipeline's own steps.

#include <cstdint>

namespace symlift::operations {

inline constexpr const char* kProcessDSYMErrorDomain = "com.vantrel.mac.error-domain.process-dsym";
inline constexpr std::int64_t kProcessDSYMErrorCodeProcessingFailed = 0;
inline constexpr std::int64_t kProcessDSYMErrorCodeFileMissing = 2;
inline constexpr std::int64_t kProcessDSYMErrorCodeUnsupportedSystem = 3;

inline constexpr const char* kGenerateCSYMErrorDomain = "com.vantrel.mac.error-domain.generate-csym-operation";
inline constexpr std::int64_t kGenerateCSYMErrorCodeMissingCSYMs = 1;

inline constexpr const char* kCompressCSYMErrorDomain = "com.vantrel.mac.error-domain.compress-csym";
inline constexpr std::int64_t kCompressCSYMErrorCodeFailed = 0;

inline constexpr const char* kSubmitCSYMErrorDomain = "com.vantrel.mac.error-domain.submit-csym";
inline constexpr std::int64_t kSubmitCSYMErrorCodeFailed = 0;

}  // namespace symlift::operations

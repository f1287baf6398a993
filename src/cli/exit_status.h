#pragma once
// The fixed exit statuses of a run.

namespace symlift::cli {

inline constexpr int kExitSuccess = 0;
inline constexpr int kExitMissingPlatform = 1;
inline constexpr int kExitDSYMWaitTimedOut = 1;  // a dSYM did not become complete in time
inline constexpr int kExitNoDSYMPaths = 2;
inline constexpr int kExitHelp = 5;
inline constexpr int kExitVersion = 6;
inline constexpr int kExitProcessingFailed = 8;
inline constexpr int kExitUnpackFolderNotCreatable = 9;
inline constexpr int kExitNoUnzip = 10;
inline constexpr int kExitUnzipFailed = 11;
inline constexpr int kExitNoAppID = 13;
inline constexpr int kExitInvalidBuildEnvironment = 15;  // also: upload recorder not creatable
inline constexpr int kExitRetiredAPIKey = 18;
// Only with --strict:
inline constexpr int kExitUnknownOption = 3;
inline constexpr int kExitNothingUploaded = 4;

}  // namespace symlift::cli

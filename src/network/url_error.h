#pragma once
// The URL-loading error domain and the codes the transport reports in it.
// Transport failures keep the platform's codes so that the retry policy
// (which codes are worth another attempt) reads the same everywhere.

#include <cstdint>

namespace symlift::network {

inline constexpr const char* kURLErrorDomain = "NSURLErrorDomain";
inline constexpr const char* kURLErrorFailingURLErrorKey = "NSErrorFailingURLKey";
inline constexpr const char* kURLErrorFailingURLStringErrorKey = "NSErrorFailingURLStringKey";
inline constexpr const char* kURLErrorBackgroundTaskCancelledReasonKey =
    "NSURLErrorBackgroundTaskCancelledReasonKey";

enum URLErrorCode : std::int64_t {
  URLErrorUnknown = -1,
  URLErrorCancelled = -999,
  URLErrorBackgroundSessionRequiresSharedContainer = -995,
  URLErrorBadURL = -1000,
  URLErrorTimedOut = -1001,
  URLErrorUnsupportedURL = -1002,
  URLErrorCannotFindHost = -1003,
  URLErrorCannotConnectToHost = -1004,
  URLErrorNetworkConnectionLost = -1005,
  URLErrorHTTPTooManyRedirects = -1007,
  URLErrorNotConnectedToInternet = -1009,
  URLErrorRedirectToNonExistentLocation = -1010,
  URLErrorUserCancelledAuthentication = -1012,
  URLErrorUserAuthenticationRequired = -1013,
  URLErrorCannotDecodeContentData = -1016,
  URLErrorCannotParseResponse = -1017,
  URLErrorAppTransportSecurityRequiresSecureConnection = -1022,
  URLErrorFileDoesNotExist = -1100,
  URLErrorFileIsDirectory = -1101,
  URLErrorNoPermissionsToReadFile = -1102,
  URLErrorDataLengthExceedsMaximum = -1103,
  URLErrorSecureConnectionFailed = -1200,
  URLErrorServerCertificateHasBadDate = -1201,
  URLErrorServerCertificateUntrusted = -1202,
  URLErrorServerCertificateHasUnknownRoot = -1203,
  URLErrorServerCertificateNotYetValid = -1204,
  URLErrorClientCertificateRejected = -1205,
  URLErrorClientCertificateRequired = -1206,
};

}  // namespace symlift::network

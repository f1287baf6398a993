#pragma once
// Maps libcurl's failures to the URL-loading error codes, so transport
// failures keep the platform's meaning (and its retry policy).

#include <curl/curl.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "support/error.h"

namespace symlift::network {

// osErrno: CURLINFO_OS_ERRNO; verifyResult: CURLINFO_SSL_VERIFYRESULT (an
// OpenSSL X509_V_ERR_* value); transportDetail: libcurl's error buffer, which
// tells a handshake cut off by the peer from one that failed on its merits.
std::int64_t urlErrorCodeForCurlCode(CURLcode code, long osErrno, long verifyResult,
                                     std::string_view transportDetail = {});

// An error of the URL-loading domain with the platform's wording, the
// failing URL, and libcurl's own account as the underlying error.
support::ErrorPtr makeURLError(std::int64_t code, const std::string& url, const std::string& transportDetail = {},
                               long transportCode = 0);

}  // namespace symlift::network

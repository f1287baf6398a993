#include "network/curl_error_mapping.h"

#include <gtest/gtest.h>
#include <openssl/x509_vfy.h>

#include <cerrno>

#include "network/network_response_handler.h"
#include "network/url_error.h"

namespace symlift::network {
namespace {

bool retryable(std::int64_t code) {
  return SUPNetworkResponseHandler::retryableURLError(support::makeError(kURLErrorDomain, code));
}

TEST(CurlErrorMappingTest, TransportFailuresKeepTheirRetryGroup) {
  struct Case {
    CURLcode curl;
    long osErrno;
    long verify;
    std::int64_t code;
    bool retryable;
  };
  const Case cases[] = {
      {CURLE_OPERATION_TIMEDOUT, 0, 0, URLErrorTimedOut, true},
      {CURLE_COULDNT_RESOLVE_HOST, 0, 0, URLErrorCannotFindHost, true},
      {CURLE_COULDNT_CONNECT, ECONNREFUSED, 0, URLErrorCannotConnectToHost, true},
      {CURLE_COULDNT_CONNECT, ENETUNREACH, 0, URLErrorNotConnectedToInternet, true},
      {CURLE_GOT_NOTHING, 0, 0, URLErrorNetworkConnectionLost, true},
      {CURLE_RECV_ERROR, 0, 0, URLErrorNetworkConnectionLost, true},
      {CURLE_PARTIAL_FILE, 0, 0, URLErrorNetworkConnectionLost, true},
      {CURLE_HTTP2_STREAM, 0, 0, URLErrorNetworkConnectionLost, true},
      {CURLE_URL_MALFORMAT, 0, 0, URLErrorBadURL, false},
      {CURLE_UNSUPPORTED_PROTOCOL, 0, 0, URLErrorUnsupportedURL, false},
      {CURLE_TOO_MANY_REDIRECTS, 0, 0, URLErrorHTTPTooManyRedirects, false},
      {CURLE_PEER_FAILED_VERIFICATION, 0, X509_V_ERR_CERT_HAS_EXPIRED, URLErrorServerCertificateHasBadDate, false},
      {CURLE_PEER_FAILED_VERIFICATION, 0, X509_V_ERR_CERT_NOT_YET_VALID, URLErrorServerCertificateNotYetValid, false},
      {CURLE_PEER_FAILED_VERIFICATION, 0, X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT,
       URLErrorServerCertificateHasUnknownRoot, false},
      {CURLE_PEER_FAILED_VERIFICATION, 0, X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY,
       URLErrorServerCertificateHasUnknownRoot, false},
      {CURLE_PEER_FAILED_VERIFICATION, 0, X509_V_ERR_HOSTNAME_MISMATCH, URLErrorServerCertificateUntrusted, false},
      {CURLE_SSL_CERTPROBLEM, 0, 0, URLErrorClientCertificateRequired, false},
      {CURLE_OUT_OF_MEMORY, 0, 0, URLErrorUnknown, true},
  };
  for (const auto& c : cases) {
    std::int64_t code = urlErrorCodeForCurlCode(c.curl, c.osErrno, c.verify);
    EXPECT_EQ(code, c.code) << curl_easy_strerror(c.curl);
    EXPECT_EQ(retryable(code), c.retryable) << curl_easy_strerror(c.curl);
  }
}

// A handshake that fails on its merits is final; one the peer cut off is a
// lost connection, whether libcurl saw the reset's errno or only wrote it.
TEST(CurlErrorMappingTest, HandshakeCutOffIsALostConnection) {
  struct Case {
    long osErrno;
    const char* detail;
    std::int64_t code;
  };
  const Case cases[] = {
      {ECONNRESET, "", URLErrorNetworkConnectionLost},
      {0, "OpenSSL SSL_connect: Connection reset by peer in connection to 127.0.0.1:4433 ",
       URLErrorNetworkConnectionLost},
      {0, "OpenSSL SSL_connect: SSL_ERROR_SYSCALL in connection to 127.0.0.1:4433 ", URLErrorNetworkConnectionLost},
      {0, "error:0A000126:SSL routines::unexpected eof while reading", URLErrorNetworkConnectionLost},
      {0, "", URLErrorSecureConnectionFailed},
      {0, "error:0A00010B:SSL routines::wrong version number", URLErrorSecureConnectionFailed},
      {0, "error:0A000410:SSL routines::sslv3 alert handshake failure", URLErrorSecureConnectionFailed},
  };
  for (const auto& c : cases) {
    std::int64_t code = urlErrorCodeForCurlCode(CURLE_SSL_CONNECT_ERROR, c.osErrno, 0, c.detail);
    EXPECT_EQ(code, c.code) << c.osErrno << " " << c.detail;
    EXPECT_EQ(retryable(code), code == URLErrorNetworkConnectionLost) << c.detail;
  }
  // A refused certificate stays a certificate failure whatever the text says.
  EXPECT_EQ(urlErrorCodeForCurlCode(CURLE_PEER_FAILED_VERIFICATION, ECONNRESET,
                                    X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY, "connection reset"),
            URLErrorServerCertificateHasUnknownRoot);
}

TEST(CurlErrorMappingTest, ErrorNamesTheFailingURLAndKeepsTheTransportAccount) {
  auto error = makeURLError(URLErrorTimedOut, "http://127.0.0.1:1/x", "Operation timed out after 1000 ms", 28);
  EXPECT_EQ(error->domain, "NSURLErrorDomain");
  EXPECT_EQ(error->userInfo.at(kURLErrorFailingURLStringErrorKey), "http://127.0.0.1:1/x");
  EXPECT_EQ(error->localizedDescription(), "The request timed out.");
  ASSERT_EQ(error->underlyingErrors.size(), 1u);
  EXPECT_EQ(error->underlyingErrors[0]->code, 28);
}

}  // namespace
}  // namespace symlift::network

#include "network/curl_error_mapping.h"

#include <gtest/gtest.h>
#include <openssl/x509_vfy.h>

#include <cerrno>

#include "network/url_error.h"

namespace symlift::network {
namespace {

// The codes that need more than the curl code to map: the certificate
// checks, errno and the handshake's own words. Which are retried:
// NetworkResponseHandlerTest; the plain ones show through the transport
// (CurlURLSessionTest) and the binary (NetworkFaultsTest).
TEST(CurlErrorMappingTest, CurlCodesBecomeURLLoadingErrors) {
  struct Case {
    CURLcode curl;
    long osErrno;
    long verify;
    const char* detail;
    std::int64_t code;
  };
  const Case cases[] = {
      // A refused connection and an unreachable network differ only by errno.
      {CURLE_COULDNT_CONNECT, ECONNREFUSED, 0, "", URLErrorCannotConnectToHost},
      {CURLE_COULDNT_CONNECT, ENETUNREACH, 0, "", URLErrorNotConnectedToInternet},
      {CURLE_PEER_FAILED_VERIFICATION, 0, X509_V_ERR_CERT_HAS_EXPIRED, "", URLErrorServerCertificateHasBadDate},
      {CURLE_PEER_FAILED_VERIFICATION, 0, X509_V_ERR_CERT_NOT_YET_VALID, "", URLErrorServerCertificateNotYetValid},
      {CURLE_PEER_FAILED_VERIFICATION, 0, X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT, "",
       URLErrorServerCertificateHasUnknownRoot},
      {CURLE_PEER_FAILED_VERIFICATION, 0, X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY, "",
       URLErrorServerCertificateHasUnknownRoot},
      {CURLE_PEER_FAILED_VERIFICATION, 0, X509_V_ERR_HOSTNAME_MISMATCH, "", URLErrorServerCertificateUntrusted},
      // A refused certificate stays a certificate failure whatever the transport says.
      {CURLE_PEER_FAILED_VERIFICATION, ECONNRESET, X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY, "connection reset",
       URLErrorServerCertificateHasUnknownRoot},
      {CURLE_SSL_CERTPROBLEM, 0, 0, "", URLErrorClientCertificateRequired},
      {CURLE_OUT_OF_MEMORY, 0, 0, "", URLErrorUnknown},
      // A handshake that fails on its merits is final; one the peer cut off is
      // a lost connection, whether libcurl saw the reset's errno or only wrote it.
      {CURLE_SSL_CONNECT_ERROR, ECONNRESET, 0, "", URLErrorNetworkConnectionLost},
      {CURLE_SSL_CONNECT_ERROR, EPIPE, 0, "", URLErrorNetworkConnectionLost},
      {CURLE_SSL_CONNECT_ERROR, 0, 0, "OpenSSL SSL_connect: Connection reset by peer in connection to 127.0.0.1:4433 ",
       URLErrorNetworkConnectionLost},
      {CURLE_SSL_CONNECT_ERROR, 0, 0, "OpenSSL SSL_connect: SSL_ERROR_SYSCALL in connection to 127.0.0.1:4433 ",
       URLErrorNetworkConnectionLost},
      {CURLE_SSL_CONNECT_ERROR, 0, 0, "error:0A000126:SSL routines::unexpected eof while reading",
       URLErrorNetworkConnectionLost},
      {CURLE_SSL_CONNECT_ERROR, 0, 0, "", URLErrorSecureConnectionFailed},
      {CURLE_SSL_CONNECT_ERROR, 0, 0, "error:0A00010B:SSL routines::wrong version number",
       URLErrorSecureConnectionFailed},
      {CURLE_SSL_CONNECT_ERROR, 0, 0, "error:0A000410:SSL routines::sslv3 alert handshake failure",
       URLErrorSecureConnectionFailed},
  };
  for (const auto& c : cases)
    EXPECT_EQ(urlErrorCodeForCurlCode(c.curl, c.osErrno, c.verify, c.detail), c.code)
        << curl_easy_strerror(c.curl) << " " << c.osErrno << " " << c.detail;
}

}  // namespace
}  // namespace symlift::network

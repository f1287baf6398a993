#include "network/curl_error_mapping.h"

#include <openssl/x509_vfy.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <memory>

#include "network/url_error.h"

namespace symlift::network {

namespace {

bool containsIgnoringCase(std::string_view text, std::string_view part) {
  auto lower = [](char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); };
  return std::search(text.begin(), text.end(), part.begin(), part.end(),
                     [&](char a, char b) { return lower(a) == lower(b); }) != text.end();
}

// A handshake the peer cut off (a reset, or the connection closed before the
// handshake finished) says nothing about the server's certificate: a load
// balancer dropping the connection looks like this.
bool handshakeCutOff(long osErrno, std::string_view detail) {
  if (osErrno == ECONNRESET || osErrno == EPIPE || osErrno == ECONNABORTED) return true;
  for (std::string_view sign : {"connection reset", "broken pipe", "connection aborted", "unexpected eof",
                                "SSL_ERROR_SYSCALL"})
    if (containsIgnoringCase(detail, sign)) return true;
  return false;
}

}  // namespace

std::int64_t urlErrorCodeForCurlCode(CURLcode code, long osErrno, long verifyResult,
                                     std::string_view transportDetail) {
  switch (code) {
    case CURLE_OK:
      return 0;
    case CURLE_OPERATION_TIMEDOUT:
      return URLErrorTimedOut;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return URLErrorCannotFindHost;
    case CURLE_COULDNT_CONNECT:
      // No route to any network at all reads as being offline.
      if (osErrno == ENETUNREACH || osErrno == ENETDOWN) return URLErrorNotConnectedToInternet;
      return URLErrorCannotConnectToHost;
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
    case CURLE_HTTP3:
    case CURLE_QUIC_CONNECT_ERROR:
    case CURLE_SEND_FAIL_REWIND:
    case CURLE_SSL_SHUTDOWN_FAILED:
      return URLErrorNetworkConnectionLost;
    case CURLE_SSL_CONNECT_ERROR:
      if (handshakeCutOff(osErrno, transportDetail)) return URLErrorNetworkConnectionLost;
      return URLErrorSecureConnectionFailed;
    case CURLE_WEIRD_SERVER_REPLY:
      return URLErrorCannotParseResponse;
    case CURLE_BAD_CONTENT_ENCODING:
      return URLErrorCannotDecodeContentData;
    case CURLE_FILESIZE_EXCEEDED:
      return URLErrorDataLengthExceedsMaximum;
    case CURLE_URL_MALFORMAT:
      return URLErrorBadURL;
    case CURLE_UNSUPPORTED_PROTOCOL:
      return URLErrorUnsupportedURL;
    case CURLE_TOO_MANY_REDIRECTS:
      return URLErrorHTTPTooManyRedirects;
    case CURLE_ABORTED_BY_CALLBACK:
      return URLErrorCancelled;
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_ENGINE_INITFAILED:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_CRL_BADFILE:
      return URLErrorSecureConnectionFailed;
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CLIENTCERT:
      return URLErrorClientCertificateRequired;
    case CURLE_PEER_FAILED_VERIFICATION:
      switch (verifyResult) {
        case X509_V_ERR_CERT_HAS_EXPIRED:
          return URLErrorServerCertificateHasBadDate;
        case X509_V_ERR_CERT_NOT_YET_VALID:
          return URLErrorServerCertificateNotYetValid;
        case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
        case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
          return URLErrorServerCertificateHasUnknownRoot;
        default:  // wrong host name, revoked, bad signature, ...
          return URLErrorServerCertificateUntrusted;
      }
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
      return URLErrorServerCertificateUntrusted;
    default:
      return URLErrorUnknown;
  }
}

namespace {
const char* descriptionForCode(std::int64_t code) {
  switch (code) {
    case URLErrorCancelled: return "cancelled";
    case URLErrorBadURL: return "bad URL";
    case URLErrorTimedOut: return "The request timed out.";
    case URLErrorUnsupportedURL: return "unsupported URL";
    case URLErrorCannotFindHost: return "A server with the specified hostname could not be found.";
    case URLErrorCannotConnectToHost: return "Could not connect to the server.";
    case URLErrorNetworkConnectionLost: return "The network connection was lost.";
    case URLErrorHTTPTooManyRedirects: return "too many HTTP redirects";
    case URLErrorNotConnectedToInternet: return "The Internet connection appears to be offline.";
    case URLErrorAppTransportSecurityRequiresSecureConnection:
      return "The redirect was refused: it leaves a secure connection for an insecure one.";
    case URLErrorCannotDecodeContentData: return "cannot decode content data";
    case URLErrorCannotParseResponse: return "cannot parse response";
    case URLErrorDataLengthExceedsMaximum: return "resource exceeds maximum size";
    case URLErrorSecureConnectionFailed:
      return "An SSL error has occurred and a secure connection to the server cannot be made.";
    case URLErrorServerCertificateHasBadDate: return "The certificate for this server has expired.";
    case URLErrorServerCertificateUntrusted: return "The certificate for this server is invalid.";
    case URLErrorServerCertificateHasUnknownRoot:
      return "The certificate for this server was signed by an unknown certifying authority.";
    case URLErrorServerCertificateNotYetValid: return "The certificate for this server is not yet valid.";
    case URLErrorClientCertificateRejected: return "The server did not accept the certificate.";
    case URLErrorClientCertificateRequired: return "The server requires a client certificate.";
    default: return "unknown error";
  }
}
}  // namespace

support::ErrorPtr makeURLError(std::int64_t code, const std::string& url, const std::string& transportDetail,
                               long transportCode) {
  auto error = std::make_shared<support::Error>(kURLErrorDomain, code,
                                                std::map<std::string, std::string>{
                                                    {support::kLocalizedDescriptionKey, descriptionForCode(code)},
                                                    {kURLErrorFailingURLErrorKey, url},
                                                    {kURLErrorFailingURLStringErrorKey, url},
                                                });
  if (!transportDetail.empty())
    error->underlyingErrors.push_back(support::makeError(
        "libcurl", transportCode, {{support::kLocalizedDescriptionKey, transportDetail}}));
  return error;
}

}  // namespace symlift::network

#include "network/web_client_transaction.h"
#include "dispatch/thread_pool.h"

#include <curl/curl.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <system_error>

#include "network/curl_error_mapping.h"
#include "network/url_error.h"

namespace symlift::network {

namespace {

void initialiseCurlOnce() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

std::optional<std::string> hostOfURL(const std::string& url) {
  std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> parsed(curl_url(), &curl_url_cleanup);
  if (!parsed || curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK) return std::nullopt;
  char* host = nullptr;
  if (curl_url_get(parsed.get(), CURLUPART_HOST, &host, 0) != CURLUE_OK) return std::nullopt;
  std::string text = host;
  curl_free(host);
  if (text.size() >= 2 && text.front() == '[' && text.back() == ']') text = text.substr(1, text.size() - 2);
  return text;
}

Data derOfCertificate(X509* certificate) {
  int length = i2d_X509(certificate, nullptr);
  if (length <= 0) return {};
  Data der(static_cast<std::size_t>(length));
  unsigned char* cursor = der.data();
  i2d_X509(certificate, &cursor);
  return der;
}

support::ErrorPtr missingError() { return support::makeError(kSUPWebClientMissingErrorDomain, -1); }

}  // namespace

// The state of one transfer, touched only by the thread that performs it.
// Events are handed to the transaction through `post`.
struct SUPWebClientTransaction::Transfer {
  CURL* easy = nullptr;
  curl_slist* headerList = nullptr;
  URLRequest wireRequest;
  HTTPHeaders headers;  // of the latest response head
  bool responseDelivered = false;
  std::string host;
  std::function<void(std::function<void()>)> post;
  std::function<void(long, const HTTPHeaders&)> onResponse;
  std::function<void(Data)> onData;
  std::function<bool(const SUPServerTrust&)> askTrust;
  bool trustRefused = false;
  bool trustAbsent = false;
  char errorBuffer[CURL_ERROR_SIZE] = {};

  ~Transfer() {
    if (easy) curl_easy_cleanup(easy);
    if (headerList) curl_slist_free_all(headerList);
  }

  // The response head is final once body bytes arrive or the transfer
  // ends: heads of redirects and interim responses never reach the caller.
  void deliverResponseOnce() {
    if (responseDelivered) return;
    responseDelivered = true;
    long status = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    onResponse(status, headers);
  }

  static std::size_t writeBody(char* data, std::size_t size, std::size_t count, void* context) {
    auto* transfer = static_cast<Transfer*>(context);
    std::size_t length = size * count;
    transfer->deliverResponseOnce();
    if (length > 0) transfer->onData(Data(data, data + length));
    return length;
  }

  static std::size_t writeHeaderLine(char* data, std::size_t size, std::size_t count, void* context) {
    auto* transfer = static_cast<Transfer*>(context);
    std::size_t length = size * count;
    transfer->headers.takeResponseHeaderLine(std::string_view(data, length));
    return length;
  }

  // Replaces the usual certificate check: the chain and the usual verdict go
  // to the request's handler, whose answer decides.
  static int verifyServerTrust(X509_STORE_CTX* context, void* argument) {
    auto* transfer = static_cast<Transfer*>(argument);
    X509* leaf = X509_STORE_CTX_get0_cert(context);
    if (!leaf) {
      transfer->trustAbsent = true;
      X509_STORE_CTX_set_error(context, X509_V_ERR_APPLICATION_VERIFICATION);
      return 0;
    }
    SUPServerTrust trust;
    trust.host = transfer->host;
    trust.certificateChain.push_back(derOfCertificate(leaf));
    if (STACK_OF(X509)* presented = X509_STORE_CTX_get0_untrusted(context)) {
      for (int i = 0; i < sk_X509_num(presented); ++i) {
        X509* certificate = sk_X509_value(presented, i);
        if (X509_cmp(certificate, leaf) != 0) trust.certificateChain.push_back(derOfCertificate(certificate));
      }
    }
    if (X509_verify_cert(context) == 1) {
      const std::string& host = transfer->host;
      bool isAddress = host.find_first_not_of("0123456789.") == std::string::npos || host.find(':') != std::string::npos;
      int matched = isAddress ? X509_check_ip_asc(leaf, host.c_str(), 0)
                              : X509_check_host(leaf, host.c_str(), host.size(), 0, nullptr);
      trust.defaultEvaluationSucceeded = matched == 1;
      if (matched != 1) trust.defaultEvaluationError = "the certificate does not name host " + host;
    } else {
      trust.defaultEvaluationError = X509_verify_cert_error_string(X509_STORE_CTX_get_error(context));
    }
    if (transfer->askTrust(trust)) {
      X509_STORE_CTX_set_error(context, X509_V_OK);
      return 1;
    }
    transfer->trustRefused = true;
    X509_STORE_CTX_set_error(context, X509_V_ERR_APPLICATION_VERIFICATION);
    return 0;
  }

  static CURLcode configureTLSContext(CURL*, void* sslContext, void* argument) {
    SSL_CTX_set_cert_verify_callback(static_cast<SSL_CTX*>(sslContext), &verifyServerTrust, argument);
    return CURLE_OK;
  }

  void configure(bool withTrustHandler) {
    const URLRequest& request = wireRequest;
    curl_easy_setopt(easy, CURLOPT_URL, request.URL.c_str());
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, errorBuffer);
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(easy, CURLOPT_MAXREDIRS, 16L);
    curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
    if (withTrustHandler) {
      // The handler is told whether the host matches and decides; a resumed
      // session would skip it, so none is kept.
      curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 0L);
      curl_easy_setopt(easy, CURLOPT_SSL_SESSIONID_CACHE, 0L);
      curl_easy_setopt(easy, CURLOPT_SSL_CTX_FUNCTION, &configureTLSContext);
      curl_easy_setopt(easy, CURLOPT_SSL_CTX_DATA, this);
    } else {
      curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
    }
    // The request's time-out counts silence, not the whole transfer.
    long timeout = static_cast<long>(std::max(1.0, request.timeoutInterval));
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT, timeout);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, timeout);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &writeBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, this);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &writeHeaderLine);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, this);

    const std::string& method = request.HTTPMethod;
    if (method == "HEAD") {
      curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
    } else if (method == "GET" && request.HTTPBody.empty()) {
      curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
    } else if (!request.HTTPBody.empty() || method == "POST") {
      curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.HTTPBody.size()));
      curl_easy_setopt(easy, CURLOPT_POSTFIELDS, request.HTTPBody.empty() ? "" : reinterpret_cast<const char*>(request.HTTPBody.data()));
      if (method != "POST") curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
    } else {
      curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
    }

    for (const auto& [name, value] : request.allHTTPHeaderFields.fields()) {
      std::string line = value.empty() ? name + ";" : name + ": " + value;
      headerList = curl_slist_append(headerList, line.c_str());
    }
    // libcurl must not add headers of its own about the body.
    if (!request.valueForHTTPHeaderField("Expect")) headerList = curl_slist_append(headerList, "Expect:");
    if (!request.valueForHTTPHeaderField("Content-Type"))
      headerList = curl_slist_append(headerList, "Content-Type:");
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headerList);
  }
};

std::shared_ptr<SUPWebClientTransaction> SUPWebClientTransaction::transactionWithRequest(
    dispatch::ThreadPool& pool, std::shared_ptr<SUPWebRequest> request) {
  return std::shared_ptr<SUPWebClientTransaction>(new SUPWebClientTransaction(pool, std::move(request)));
}

SUPWebClientTransaction::SUPWebClientTransaction(dispatch::ThreadPool& pool, std::shared_ptr<SUPWebRequest> request)
    : request_(std::move(request)),
      response_(std::make_shared<SUPWebResponse>()),
      queue_(dispatch::SerialDispatchQueue::create(pool, "com.vantrel.web-transaction")) {}

void SUPWebClientTransaction::startWithCompletionHandler(CompletionHandler completionHandler) {
  auto self = shared_from_this();
  queue_->async([self, completionHandler = std::move(completionHandler)]() mutable {
    self->completionHandler_ = std::move(completionHandler);
    self->response_->requestURL = self->request_->fullURL();
    // The transfer blocks for as long as it takes; the pool grows for it.
    self->queue_->pool().submit([self] { self->perform(true); });
  });
}

void SUPWebClientTransaction::syncStartWithCompletionHandler(CompletionHandler completionHandler) {
  queue_->sync([&] {
    completionHandler_ = std::move(completionHandler);
    response_->requestURL = request_->fullURL();
  });
  perform(false);
}

bool SUPWebClientTransaction::askProtectionSpaceHandler(const SUPServerTrust& trust) {
  bool accepted = false;
  queue_->sync([&] { accepted = request_->protectionSpaceHandler && request_->protectionSpaceHandler(trust); });
  return accepted;
}

void SUPWebClientTransaction::perform(bool asynchronous) {
  initialiseCurlOnce();
  auto self = shared_from_this();
  Transfer transfer;
  transfer.post = [self, asynchronous](std::function<void()> step) {
    if (asynchronous)
      self->queue_->async(std::move(step));
    else
      self->queue_->sync(step);
  };
  transfer.onResponse = [&transfer, self](long status, const HTTPHeaders& headers) {
    transfer.post([self, status, headers] { self->didReceiveResponse(status, headers); });
  };
  transfer.onData = [&transfer, self](Data data) {
    transfer.post([self, data = std::move(data)] { self->didReceiveData(data); });
  };
  transfer.askTrust = [self](const SUPServerTrust& trust) { return self->askProtectionSpaceHandler(trust); };

  // The wire request is made here, not on the transaction queue: building
  // the form body sets a header of the request, which nothing else touches
  // while the transfer runs.
  transfer.wireRequest = request_->URLRequest();
  transfer.host = hostOfURL(transfer.wireRequest.URL).value_or("");
  transfer.easy = curl_easy_init();
  if (!transfer.easy) {
    transfer.post([self] { self->didFail(missingError()); });
    return;
  }
  transfer.configure(static_cast<bool>(request_->protectionSpaceHandler));
  CURLcode result = curl_easy_perform(transfer.easy);

  if (result == CURLE_OK) {
    transfer.deliverResponseOnce();
    transfer.post([self] { self->didFinish(); });
    return;
  }
  support::ErrorPtr error;
  if (transfer.trustRefused || transfer.trustAbsent) {
    error = support::makeError(kSUPWebClientErrorDomain, kSUPWebClientTrustRefusedCode,
                               {{support::kLocalizedDescriptionKey, "The server's trust was not accepted."},
                                {kURLErrorFailingURLStringErrorKey, transfer.wireRequest.URL}});
  } else {
    long osErrno = 0, verifyResult = 0;
    curl_easy_getinfo(transfer.easy, CURLINFO_OS_ERRNO, &osErrno);
    curl_easy_getinfo(transfer.easy, CURLINFO_SSL_VERIFYRESULT, &verifyResult);
    std::string detail = transfer.errorBuffer[0] ? transfer.errorBuffer : curl_easy_strerror(result);
    error = makeURLError(urlErrorCodeForCurlCode(result, osErrno, verifyResult, detail), transfer.wireRequest.URL, detail,
                         static_cast<long>(result));
  }
  transfer.post([self, error] { self->didFail(error); });
}

void SUPWebClientTransaction::didReceiveResponse(long statusCode, const HTTPHeaders& headers) {
  response_->statusCode = statusCode > 0 ? static_cast<unsigned long>(statusCode) : 0;
  response_->responseHeaders = headers;
  std::string type = headers.valueForField("Content-Type").value_or("");
  if (type.find("application/x-plist") != std::string::npos)
    contentType_ = "application/x-plist";
  else if (type.find("application/json") != std::string::npos)
    contentType_ = "application/json";
  else
    contentType_.reset();
}

void SUPWebClientTransaction::didReceiveData(const Data& data) {
  response_->responseData.insert(response_->responseData.end(), data.begin(), data.end());
}

void SUPWebClientTransaction::didFail(support::ErrorPtr error) {
  response_->error = error ? std::move(error) : missingError();
  complete();
}

void SUPWebClientTransaction::didFinish() { complete(); }

void SUPWebClientTransaction::complete() {
  const Data& bytes = response_->responseData;
  if (bytes.empty()) {
    response_->body = std::monostate();
  } else if (contentType_ == "application/json") {
    if (auto json = decodeJSONData(bytes))
      response_->body = std::move(*json);
    else
      response_->body = std::monostate();
  } else if (contentType_ == "application/x-plist") {
    auto list = support::PropertyList::fromBytes(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
    if (list) {
      response_->body = std::move(list);
    } else {
      response_->body = std::monostate();
      if (!response_->error)
        response_->error = support::makeError(
            "NSCocoaErrorDomain", 3840,
            {{support::kLocalizedDescriptionKey, "The data couldn’t be read because it isn’t in the correct format."}});
    }
  } else {
    response_->body = bytes;
  }
  CompletionHandler handler = std::move(completionHandler_);
  completionHandler_ = nullptr;
  if (handler) handler(response_);
}

}  // namespace symlift::network

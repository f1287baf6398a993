#include "network/curl_url_session.h"
#include "dispatch/thread_pool.h"

#include <curl/curl.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <map>
#include <mutex>
#include <optional>
#include <system_error>
#include <vector>

#include "console/console_log.h"
#include "network/curl_error_mapping.h"
#include "network/test_time_limits.h"
#include "network/url_error.h"

namespace symlift::network {

namespace {

// A response body larger than this ends the transfer: nothing the tool talks
// to answers with more than a short message.
constexpr std::size_t kMaximumResponseBodySize = 16 * 1024 * 1024;

// The low-speed limit: a transfer that moves fewer bytes a second than this
// for the whole window is timed out, even though it is never idle (a peer
// trickling a byte a second would otherwise hold the upload for ever).
constexpr double kLowSpeedBytesPerSecond = 1024;
constexpr std::chrono::milliseconds kLowSpeedWindow{60000};
// The rate is sampled over intervals this long, or a quarter of the window
// when that is shorter.
constexpr std::chrono::milliseconds kLowSpeedLongestSample{1000};

void initialiseCurlOnce() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

std::optional<std::string> environmentValue(const char* name) {
  const char* value = std::getenv(name);
  if (!value || !*value) return std::nullopt;
  return std::string(value);
}

// One transfer, owned by the session thread once it has been handed over.
struct Transfer {
  CURL* easy = nullptr;
  curl_slist* headerList = nullptr;
  URLRequest request;
  std::size_t bodyOffset = 0;  // how much of the request body has been sent
  Data responseBody;
  HTTPHeaders responseHeaders;  // of the latest response head
  bool responseTooLarge = false;
  bool insecureRedirectRefused = false;  // a redirect from HTTPS to another scheme
  // The idle time-out: the transfer ends once no byte has moved for this long.
  std::chrono::milliseconds idleTimeout{60000};
  std::chrono::steady_clock::time_point lastActivity;
  curl_off_t bytesMoved = 0;
  // The low-speed limit: the current sample, and since when every sample has
  // been slow.
  std::chrono::milliseconds lowSpeedWindow = kLowSpeedWindow;
  std::chrono::steady_clock::time_point sampleStart;
  curl_off_t sampleBytes = 0;
  std::optional<std::chrono::steady_clock::time_point> slowSince;
  bool timedOut = false;
  char errorBuffer[CURL_ERROR_SIZE] = {};
  support::ErrorPtr earlyError;  // the URL was refused before any transfer
  DataTaskCompletion completion;

  ~Transfer() {
    if (easy) curl_easy_cleanup(easy);
    if (headerList) curl_slist_free_all(headerList);
  }
};

std::size_t writeBody(char* data, std::size_t size, std::size_t count, void* context) {
  auto* transfer = static_cast<Transfer*>(context);
  std::size_t length = size * count;
  if (transfer->responseBody.size() + length > kMaximumResponseBodySize) {
    transfer->responseTooLarge = true;
    return 0;  // ends the transfer with a write error
  }
  transfer->responseBody.insert(transfer->responseBody.end(), data, data + length);
  return length;
}

struct URLParts {
  std::string url, scheme, host;
};

// The URL `reference` names when read relative to `base` (base itself when
// there is no reference).
std::optional<URLParts> resolveURL(const char* base, const std::optional<std::string>& reference) {
  std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> parsed(curl_url(), &curl_url_cleanup);
  if (!parsed || curl_url_set(parsed.get(), CURLUPART_URL, base, CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK)
    return std::nullopt;
  if (reference &&
      curl_url_set(parsed.get(), CURLUPART_URL, reference->c_str(), CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK)
    return std::nullopt;
  URLParts parts;
  for (auto [part, text] : {std::pair{CURLUPART_URL, &parts.url}, std::pair{CURLUPART_SCHEME, &parts.scheme},
                            std::pair{CURLUPART_HOST, &parts.host}}) {
    char* value = nullptr;
    if (curl_url_get(parsed.get(), part, &value, 0) != CURLUE_OK) return std::nullopt;
    *text = value;
    curl_free(value);
  }
  return parts;
}

bool sameHost(const std::string& a, const std::string& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
    return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
  });
}

// At the end of a response head that libcurl is about to follow: a redirect
// away from HTTPS is refused (before anything goes to the new location), and
// one to another host is told in the debug log. False to end the transfer.
bool checkRedirect(Transfer& transfer) {
  long status = 0;
  curl_easy_getinfo(transfer.easy, CURLINFO_RESPONSE_CODE, &status);
  if (status != 301 && status != 302 && status != 303 && status != 307 && status != 308) return true;
  auto location = transfer.responseHeaders.valueForField("Location");
  if (!location || location->empty()) return true;
  char* current = nullptr;
  curl_easy_getinfo(transfer.easy, CURLINFO_EFFECTIVE_URL, &current);
  if (!current) return true;
  auto from = resolveURL(current, std::nullopt);
  auto to = resolveURL(current, *location);
  if (!from || !to) return true;  // libcurl refuses what it cannot parse
  if (from->scheme == "https" && to->scheme != "https") {
    transfer.insecureRedirectRefused = true;
    return false;
  }
  if (!sameHost(from->host, to->host)) console::SYLLogDebug("Redirected from {} to {}", from->url, to->url);
  return true;
}

std::size_t writeHeaderLine(char* data, std::size_t size, std::size_t count, void* context) {
  auto* transfer = static_cast<Transfer*>(context);
  std::size_t length = size * count;
  std::string_view line(data, length);
  if (line == "\r\n" || line == "\n") return checkRedirect(*transfer) ? length : 0;
  transfer->responseHeaders.takeResponseHeaderLine(line);
  return length;
}

std::size_t readBody(char* buffer, std::size_t size, std::size_t count, void* context) {
  auto* transfer = static_cast<Transfer*>(context);
  const Data& body = transfer->request.HTTPBody.bytes();
  std::size_t length = std::min(size * count, body.size() - transfer->bodyOffset);
  std::copy_n(body.data() + transfer->bodyOffset, length, buffer);
  transfer->bodyOffset += length;
  return length;
}

int seekBody(void* context, curl_off_t offset, int origin) {
  auto* transfer = static_cast<Transfer*>(context);
  if (origin != SEEK_SET || offset < 0 || static_cast<std::size_t>(offset) > transfer->request.HTTPBody.size())
    return CURL_SEEKFUNC_CANTSEEK;
  transfer->bodyOffset = static_cast<std::size_t>(offset);
  return CURL_SEEKFUNC_OK;
}

// Starts the idle clock and the low-speed clock of a transfer.
void startClocks(Transfer& transfer) {
  auto now = std::chrono::steady_clock::now();
  transfer.lastActivity = now;
  transfer.sampleStart = now;
  transfer.sampleBytes = transfer.bytesMoved;
  transfer.slowSince.reset();
}

// True once the transfer has stayed below the low-speed limit for its window.
bool tooSlow(Transfer& transfer, std::chrono::steady_clock::time_point now) {
  auto sample = std::min(kLowSpeedLongestSample, transfer.lowSpeedWindow / 4);
  auto elapsed = now - transfer.sampleStart;
  if (elapsed >= sample) {
    double seconds = std::chrono::duration<double>(elapsed).count();
    double rate = static_cast<double>(transfer.bytesMoved - transfer.sampleBytes) / seconds;
    if (rate >= kLowSpeedBytesPerSecond)
      transfer.slowSince.reset();
    else if (!transfer.slowSince)
      transfer.slowSince = transfer.sampleStart;
    transfer.sampleStart = now;
    transfer.sampleBytes = transfer.bytesMoved;
  }
  return transfer.slowSince && now - *transfer.slowSince >= transfer.lowSpeedWindow;
}

int watchProgress(void* context, curl_off_t downloadTotal, curl_off_t downloaded, curl_off_t uploadTotal,
                  curl_off_t uploaded) {
  (void)downloadTotal, (void)uploadTotal;
  auto* transfer = static_cast<Transfer*>(context);
  auto now = std::chrono::steady_clock::now();
  bool moved = downloaded + uploaded != transfer->bytesMoved;
  if (moved) {
    transfer->bytesMoved = downloaded + uploaded;
    transfer->lastActivity = now;
    const auto& observer = transfer->request.observer;
    if (observer && observer->bodyBytesSent && uploaded > 0)
      observer->bodyBytesSent(static_cast<std::uint64_t>(uploaded));
  }
  bool idle = !moved && now - transfer->lastActivity >= transfer->idleTimeout;
  if (!idle && !tooSlow(*transfer, now)) return 0;
  transfer->timedOut = true;
  return 1;  // ends the transfer
}

// Checks the URL before libcurl sees it: libcurl would guess a scheme for a
// bare host name, where the URL-loading system calls the text a bad URL.
support::ErrorPtr checkURL(const std::string& url) {
  std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> parsed(curl_url(), &curl_url_cleanup);
  if (!parsed) return makeURLError(URLErrorUnknown, url);
  if (curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK)
    return makeURLError(URLErrorBadURL, url);
  char* scheme = nullptr;
  if (curl_url_get(parsed.get(), CURLUPART_SCHEME, &scheme, 0) != CURLUE_OK) return makeURLError(URLErrorBadURL, url);
  std::string schemeText = scheme;
  curl_free(scheme);
  if (schemeText != "http" && schemeText != "https") return makeURLError(URLErrorUnsupportedURL, url);
  return nullptr;
}

}  // namespace

URLSessionConfiguration URLSessionConfiguration::defaultSessionConfiguration() {
  URLSessionConfiguration configuration;
  configuration.caInfoPath = environmentValue("SSL_CERT_FILE");
  if (!configuration.caInfoPath) configuration.caInfoPath = environmentValue("CURL_CA_BUNDLE");
  configuration.caPath = environmentValue("SSL_CERT_DIR");
  return configuration;
}

struct CurlURLSession::Core {
  URLSessionConfiguration configuration;
  std::shared_ptr<dispatch::DispatchQueue> delegateQueue;
  CURLM* multi = nullptr;
  std::thread::id threadId;

  std::mutex mutex;  // guards incoming, the three flags and threadId's publication
  std::condition_variable stopped;
  std::vector<std::unique_ptr<Transfer>> incoming;
  bool invalidated = false;  // no new tasks
  bool cancelling = false;   // end every transfer with the cancelled error
  bool finished = false;     // the session thread has ended

  // Touched by the session thread only.
  std::map<CURL*, std::unique_ptr<Transfer>> active;

  ~Core() {
    if (multi) curl_multi_cleanup(multi);
  }

  void wake() { curl_multi_wakeup(multi); }
  void run();
  void configure(Transfer& transfer);
  void deliver(std::unique_ptr<Transfer> transfer, std::optional<Data> data, std::optional<HTTPURLResponse> response,
               support::ErrorPtr error);
  void complete(std::unique_ptr<Transfer> transfer, CURLcode result);
};

void CurlURLSession::Core::configure(Transfer& transfer) {
  CURL* easy = transfer.easy;
  const URLRequest& request = transfer.request;
  curl_easy_setopt(easy, CURLOPT_URL, request.URL.c_str());
  curl_easy_setopt(easy, CURLOPT_PRIVATE, &transfer);
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, transfer.errorBuffer);
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  // A redirect never leaves HTTPS (checkRedirect refuses it with its own
  // error first; this keeps libcurl from connecting even so).
  auto requested = resolveURL(request.URL.c_str(), std::nullopt);
  bool secure = requested && requested->scheme == "https";
  curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, secure ? "https" : "http,https");
  curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(easy, CURLOPT_MAXREDIRS, configuration.maximumRedirects);
  curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
  if (configuration.caInfoPath) curl_easy_setopt(easy, CURLOPT_CAINFO, configuration.caInfoPath->c_str());
  if (configuration.caPath) curl_easy_setopt(easy, CURLOPT_CAPATH, configuration.caPath->c_str());

  // An idle time-out: the transfer fails once no byte has moved for the
  // request's time-out interval, however long the whole upload takes.
  // (libcurl's low-speed limit averages over a window of several seconds,
  // which would stretch a short time-out.)
  auto timeout = configuration.timeoutIntervalOverride.value_or(std::chrono::milliseconds(
      static_cast<long long>(std::max(0.001, request.timeoutInterval) * 1000)));
  transfer.idleTimeout = std::max(idleTimeoutWithTestCeiling(timeout), std::chrono::milliseconds(1));
  // The idle clock restarts with every byte; the low-speed limit catches a
  // peer that keeps it from running out.
  transfer.lowSpeedWindow = std::max(idleTimeoutWithTestCeiling(kLowSpeedWindow), std::chrono::milliseconds(4));
  startClocks(transfer);
  curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(transfer.idleTimeout.count()));
  curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, &watchProgress);
  curl_easy_setopt(easy, CURLOPT_XFERINFODATA, &transfer);

  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &writeBody);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &transfer);
  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &writeHeaderLine);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, &transfer);

  const std::string& method = request.HTTPMethod;
  if (method == "HEAD") {
    curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
  } else if (method == "GET" && request.HTTPBody.empty()) {
    curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
  } else if (method == "PUT" || method == "POST" || !request.HTTPBody.empty()) {
    // The body goes out from memory, exactly as given, with its length.
    curl_easy_setopt(easy, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(easy, CURLOPT_READFUNCTION, &readBody);
    curl_easy_setopt(easy, CURLOPT_READDATA, &transfer);
    curl_easy_setopt(easy, CURLOPT_SEEKFUNCTION, &seekBody);
    curl_easy_setopt(easy, CURLOPT_SEEKDATA, &transfer);
    curl_easy_setopt(easy, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(request.HTTPBody.size()));
    // Bodies are megabytes of gzip: sent in 512 KiB pieces rather than
    // curl's 64 KiB, a fast link needs an eighth of the calls.
    curl_easy_setopt(easy, CURLOPT_UPLOAD_BUFFERSIZE, 512L * 1024);
    if (method != "PUT") curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
  } else {
    curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
  }

  for (const auto& [name, value] : request.allHTTPHeaderFields.fields()) {
    // "Name;" is libcurl's way of sending a header with an empty value.
    std::string line = value.empty() ? name + ";" : name + ": " + value;
    transfer.headerList = curl_slist_append(transfer.headerList, line.c_str());
  }
  // libcurl must not add headers of its own to the body we send.
  if (!request.valueForHTTPHeaderField("Expect")) transfer.headerList = curl_slist_append(transfer.headerList, "Expect:");
  if (!request.valueForHTTPHeaderField("Content-Type"))
    transfer.headerList = curl_slist_append(transfer.headerList, "Content-Type:");
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, transfer.headerList);
}

void CurlURLSession::Core::deliver(std::unique_ptr<Transfer> transfer, std::optional<Data> data,
                                   std::optional<HTTPURLResponse> response, support::ErrorPtr error) {
  DataTaskCompletion completion = std::move(transfer->completion);
  transfer.reset();  // release the handle before the completion runs
  if (delegateQueue) {
    delegateQueue->async([completion = std::move(completion), data = std::move(data),
                          response = std::move(response), error = std::move(error)]() mutable {
      completion(std::move(data), std::move(response), std::move(error));
    });
  } else {
    completion(std::move(data), std::move(response), std::move(error));
  }
}

void CurlURLSession::Core::complete(std::unique_ptr<Transfer> transfer, CURLcode result) {
  if (result == CURLE_OK) {
    HTTPURLResponse response;
    long status = 0;
    curl_easy_getinfo(transfer->easy, CURLINFO_RESPONSE_CODE, &status);
    response.statusCode = status;
    char* effectiveURL = nullptr;
    curl_easy_getinfo(transfer->easy, CURLINFO_EFFECTIVE_URL, &effectiveURL);
    response.URL = effectiveURL ? effectiveURL : transfer->request.URL;
    response.allHeaderFields = std::move(transfer->responseHeaders);
    Data body = std::move(transfer->responseBody);
    deliver(std::move(transfer), std::move(body), std::move(response), nullptr);
    return;
  }
  long osErrno = 0, verifyResult = 0;
  curl_easy_getinfo(transfer->easy, CURLINFO_OS_ERRNO, &osErrno);
  curl_easy_getinfo(transfer->easy, CURLINFO_SSL_VERIFYRESULT, &verifyResult);
  std::string detail = transfer->errorBuffer[0] ? transfer->errorBuffer : curl_easy_strerror(result);
  std::int64_t code = transfer->responseTooLarge          ? std::int64_t{URLErrorDataLengthExceedsMaximum}
                      : transfer->insecureRedirectRefused ? std::int64_t{URLErrorAppTransportSecurityRequiresSecureConnection}
                      : transfer->timedOut       ? std::int64_t{URLErrorTimedOut}
                                                 : urlErrorCodeForCurlCode(result, osErrno, verifyResult, detail);
  auto error = makeURLError(code, transfer->request.URL, detail, static_cast<long>(result));
  deliver(std::move(transfer), std::nullopt, std::nullopt, std::move(error));
}

void CurlURLSession::Core::run() {
  for (;;) {
    std::vector<std::unique_ptr<Transfer>> arrived;
    bool cancel, stopWhenIdle;
    {
      std::lock_guard<std::mutex> guard(mutex);
      arrived.swap(incoming);
      cancel = cancelling;
      stopWhenIdle = invalidated;
    }
    for (auto& transfer : arrived) {
      if (cancel) {
        auto error = makeURLError(URLErrorCancelled, transfer->request.URL);
        deliver(std::move(transfer), std::nullopt, std::nullopt, std::move(error));
      } else if (transfer->earlyError) {
        auto error = transfer->earlyError;
        deliver(std::move(transfer), std::nullopt, std::nullopt, std::move(error));
      } else if (curl_multi_add_handle(multi, transfer->easy) != CURLM_OK) {
        auto error = makeURLError(URLErrorUnknown, transfer->request.URL);
        deliver(std::move(transfer), std::nullopt, std::nullopt, std::move(error));
      } else {
        CURL* easy = transfer->easy;
        startClocks(*transfer);  // the idle and low-speed clocks start now
        active.emplace(easy, std::move(transfer));
      }
    }
    if (cancel) {
      while (!active.empty()) {
        auto node = active.extract(active.begin());
        curl_multi_remove_handle(multi, node.key());
        auto error = makeURLError(URLErrorCancelled, node.mapped()->request.URL);
        deliver(std::move(node.mapped()), std::nullopt, std::nullopt, std::move(error));
      }
    }

    int running = 0;
    curl_multi_perform(multi, &running);
    int queued = 0;
    while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
      if (message->msg != CURLMSG_DONE) continue;
      CURL* easy = message->easy_handle;
      CURLcode result = message->data.result;
      curl_multi_remove_handle(multi, easy);
      auto node = active.extract(easy);
      if (node) complete(std::move(node.mapped()), result);
    }

    if (stopWhenIdle && active.empty()) {
      std::lock_guard<std::mutex> guard(mutex);
      if (incoming.empty()) break;
      continue;
    }
    curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
  }
}

std::shared_ptr<CurlURLSession> CurlURLSession::create(dispatch::ThreadPool& pool,
                                                       const URLSessionConfiguration& configuration,
                                                       std::shared_ptr<dispatch::DispatchQueue> delegateQueue) {
  initialiseCurlOnce();
  auto core = std::make_shared<Core>();
  core->configuration = configuration;
  core->delegateQueue = std::move(delegateQueue);
  core->multi = curl_multi_init();
  if (!core->multi) return nullptr;
  std::shared_ptr<CurlURLSession> session(new CurlURLSession(core));
  pool.submit([core] {
    {
      std::lock_guard<std::mutex> guard(core->mutex);
      core->threadId = std::this_thread::get_id();
    }
    core->run();
    std::lock_guard<std::mutex> guard(core->mutex);
    core->finished = true;
    core->stopped.notify_all();
  });
  return session;
}

CurlURLSession::CurlURLSession(std::shared_ptr<Core> core) : core_(std::move(core)) {}

CurlURLSession::~CurlURLSession() { finishTasksAndInvalidate(); }

bool CurlURLSession::startDataTask(const URLRequest& request, DataTaskCompletion completion) {
  auto transfer = std::make_unique<Transfer>();
  transfer->request = request;
  transfer->completion = std::move(completion);
  transfer->earlyError = checkURL(request.URL);
  if (!transfer->earlyError) {
    transfer->easy = curl_easy_init();
    if (!transfer->easy) return false;
    core_->configure(*transfer);
  }
  {
    std::lock_guard<std::mutex> guard(core_->mutex);
    if (core_->invalidated) return false;
    core_->incoming.push_back(std::move(transfer));
  }
  core_->wake();
  return true;
}

void CurlURLSession::finishTasksAndInvalidate() {
  std::unique_lock<std::mutex> lock(core_->mutex);
  core_->invalidated = true;
  lock.unlock();
  core_->wake();
  lock.lock();
  if (std::this_thread::get_id() == core_->threadId) return;  // the loop ends once this completion returns
  core_->stopped.wait(lock, [&] { return core_->finished; });
}

void CurlURLSession::invalidateAndCancel() {
  {
    std::lock_guard<std::mutex> guard(core_->mutex);
    core_->invalidated = true;
    core_->cancelling = true;
  }
  core_->wake();
}

}  // namespace symlift::network

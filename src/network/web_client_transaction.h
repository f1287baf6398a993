#pragma once
// One request of the web client, from start to its decoded response. The
// transfer runs as a task on the run's pool (or, for the blocking start, on
// the caller's thread); every step that touches the transaction's state runs on the
// transaction's serial queue, in the order: response head, data, failure or
// finish, completion.

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "network/web_request.h"
#include "network/web_response.h"
#include "dispatch/dispatch_queue.h"

namespace symlift::network {

class SUPWebClientTransaction : public std::enable_shared_from_this<SUPWebClientTransaction> {
 public:
  using CompletionHandler = std::function<void(const std::shared_ptr<SUPWebResponse>& response)>;

  static std::shared_ptr<SUPWebClientTransaction> transactionWithRequest(dispatch::ThreadPool& pool,
                                                                         std::shared_ptr<SUPWebRequest> request);
  SUPWebClientTransaction(const SUPWebClientTransaction&) = delete;
  SUPWebClientTransaction& operator=(const SUPWebClientTransaction&) = delete;

  // Starts the transfer on the pool; the handler is called once, on the
  // transaction queue.
  void startWithCompletionHandler(CompletionHandler completionHandler);
  // One blocking transfer; the handler is called before this returns.
  void syncStartWithCompletionHandler(CompletionHandler completionHandler);

  const std::shared_ptr<SUPWebRequest>& request() const { return request_; }
  const std::shared_ptr<SUPWebResponse>& response() const { return response_; }
  // "application/x-plist", "application/json" or nothing, from the
  // response's Content-Type. Read it on the transaction queue.
  const std::optional<std::string>& contentType() const { return contentType_; }
  const std::shared_ptr<dispatch::SerialDispatchQueue>& queue() const { return queue_; }

  struct Transfer;

 private:
  SUPWebClientTransaction(dispatch::ThreadPool& pool, std::shared_ptr<SUPWebRequest> request);

  // The steps, each run on the transaction queue.
  void didReceiveResponse(long statusCode, const HTTPHeaders& headers);
  void didReceiveData(const Data& data);
  void didFail(support::ErrorPtr error);
  void didFinish();
  void complete();

  void perform(bool asynchronous);
  bool askProtectionSpaceHandler(const SUPServerTrust& trust);

  std::shared_ptr<SUPWebRequest> request_;
  std::shared_ptr<SUPWebResponse> response_;
  std::optional<std::string> contentType_;
  std::shared_ptr<dispatch::SerialDispatchQueue> queue_;
  CompletionHandler completionHandler_;
};

}  // namespace symlift::network

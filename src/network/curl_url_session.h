#pragma once
// The HTTP session on libcurl: one multi handle driven by one session
// thread. Completions run on that thread, one at a time, or are handed to
// the delegate queue when one is given.

#include <memory>
#include <thread>

#include "network/url_session.h"
#include "dispatch/dispatch_queue.h"

namespace symlift::network {

class CurlURLSession : public URLSession {
 public:
  // Nothing when libcurl cannot make the multi handle or the thread.
  static std::shared_ptr<CurlURLSession> create(const URLSessionConfiguration& configuration,
                                                std::shared_ptr<dispatch::DispatchQueue> delegateQueue);
  // Finishes outstanding transfers, then stops and joins the session thread.
  ~CurlURLSession() override;
  CurlURLSession(const CurlURLSession&) = delete;
  CurlURLSession& operator=(const CurlURLSession&) = delete;

  bool startDataTask(const URLRequest& request, DataTaskCompletion completion) override;
  void finishTasksAndInvalidate() override;
  void invalidateAndCancel() override;

  struct Core;

 private:
  explicit CurlURLSession(std::shared_ptr<Core> core);
  void stopThread();

  std::shared_ptr<Core> core_;  // shared with the session thread
  std::thread thread_;
};

}  // namespace symlift::network

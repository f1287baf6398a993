#pragma once
// The HTTP session on libcurl: one multi handle driven by one long task on
// the run's pool (the session thread). Completions run on that thread, one
// at a time, or are handed to the delegate queue when one is given.

#include <memory>

#include "network/url_session.h"
#include "dispatch/dispatch_queue.h"
#include "dispatch/thread_pool.h"

namespace symlift::network {

class CurlURLSession : public URLSession {
 public:
  // Nothing when libcurl cannot make the multi handle.
  static std::shared_ptr<CurlURLSession> create(dispatch::ThreadPool& pool,
                                                const URLSessionConfiguration& configuration,
                                                std::shared_ptr<dispatch::DispatchQueue> delegateQueue);
  // Finishes outstanding transfers and waits for the session thread's loop
  // to end (unless released on that thread, whose loop then ends by itself).
  ~CurlURLSession() override;
  CurlURLSession(const CurlURLSession&) = delete;
  CurlURLSession& operator=(const CurlURLSession&) = delete;

  bool startDataTask(const URLRequest& request, DataTaskCompletion completion) override;
  void finishTasksAndInvalidate() override;
  void invalidateAndCancel() override;

  struct Core;

 private:
  explicit CurlURLSession(std::shared_ptr<Core> core);

  std::shared_ptr<Core> core_;  // shared with the session thread
};

}  // namespace symlift::network

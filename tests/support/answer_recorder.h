#ifndef VEXUPNPCP_TESTS_SUPPORT_ANSWER_RECORDER_H_
#define VEXUPNPCP_TESTS_SUPPORT_ANSWER_RECORDER_H_

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include <vexupnpcp/httpinfo.h>
#include <vexupnpcp/network_listeners.h>

#include "tests/support/stumble.h"

namespace vex_test {

// Keeps the answers that reach it, in order.
class AnswerRecorder : public vex_upnp::network_layer::ResponseListener {
 public:
  using Response = boost::shared_ptr<vex_upnp::utils::HTTPInfo>;

  static boost::shared_ptr<AnswerRecorder> Make() { return boost::make_shared<AnswerRecorder>(); }

  void OnResponseReceived(Response response, const int& session_id) override {
    const StumblingLock lock(mutex_);
    answers_.emplace_back(session_id, std::move(response));
  }

  int count() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(answers_.size());
  }
  // How many came for one session.
  int count(int session_id) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    int found = 0;
    for (const auto& answer : answers_) found += answer.first == session_id ? 1 : 0;
    return found;
  }
  int session(std::size_t index) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return answers_.at(index).first;
  }
  Response response(std::size_t index) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return answers_.at(index).second;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::pair<int, Response>> answers_;
};

// The body of a message, which is taken out of it.
inline std::string TakeBody(const AnswerRecorder::Response& response) {
  std::string body;
  response->ReadBody(body);
  return body;
}

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_ANSWER_RECORDER_H_

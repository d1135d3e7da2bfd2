#ifndef VEXUPNPCP_SRC_MESSAGE_BUDGET_H_
#define VEXUPNPCP_SRC_MESSAGE_BUDGET_H_

#include <atomic>
#include <cstddef>

#include <boost/shared_ptr.hpp>

#include <vexupnpcp/httpinfo.h>

namespace vex_upnp {
namespace network_layer {

// What messages of one kind may hold together, from their first byte until whoever handles them has
// let them go. Each has a bound of its own, but a host has not the memory for as many of the
// largest as it has connections. From any thread.
class MessageBudget {
 public:
  explicit MessageBudget(std::size_t most) : most_(most) {}

  // Changes what one message holds. False when it has grown and has no place any more; it counts
  // until it is gone all the same. A small message always has its place, so that those who send
  // without end don't take it from the others.
  bool Change(std::size_t& held, std::size_t now);
  std::size_t held() const { return held_; }

 private:
  const std::size_t most_;
  std::atomic<std::size_t> held_{0};
};

// All answers to what we have asked, and all requests to the event server.
MessageBudget& AnswerBudget();
MessageBudget& EventRequestBudget();

// A message that counts in a budget as long as anybody holds it.
class BudgetedMessage {
 public:
  using InfoPointer = boost::shared_ptr<utils::HTTPInfo>;

  explicit BudgetedMessage(MessageBudget& budget) : budget_(budget) {}
  BudgetedMessage(const BudgetedMessage&) = delete;
  BudgetedMessage& operator=(const BudgetedMessage&) = delete;
  ~BudgetedMessage() { budget_.Change(held_, 0); }

  // To be asked between two calls of the parser, before more is buffered.
  bool HasPlace() { return budget_.Change(held_, static_cast<std::size_t>(info_.GetHeldSize())); }

  // The message itself; it keeps its place.
  static InfoPointer InfoOf(const boost::shared_ptr<BudgetedMessage>& message) {
    return InfoPointer(message, &message->info_);
  }

 private:
  MessageBudget& budget_;
  utils::HTTPInfo info_;
  std::size_t held_ = 0;
};

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_MESSAGE_BUDGET_H_

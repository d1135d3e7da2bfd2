#ifndef VEXUPNPCP_SRC_PATTERN_TABLE_H_
#define VEXUPNPCP_SRC_PATTERN_TABLE_H_

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/thread/lock_guard.hpp>
#include <boost/thread/mutex.hpp>

#include "base/thread_marks.h"

namespace vex_upnp {
namespace network_layer {

// The tokens of one pattern, in lower case; all must be in a message.
using PatternTokens = std::vector<std::string>;

// Splits at commas. Empty tokens say nothing and are left out.
PatternTokens SplitPattern(const std::string& pattern);

// ASCII letters only, whatever the locale.
void ToLowerAscii(std::string& text);

// Whether every token occurs in `text`, which is in lower case. A pattern without tokens matches
// nothing.
bool HoldsAllTokens(const PatternTokens& tokens, const std::string& text);

// Registered listeners with their patterns, in order of registration.
template <typename Listener>
class PatternTable {
 public:
  using ListenerPointer = boost::shared_ptr<Listener>;

  void Append(int id, const std::vector<std::string>& patterns, const ListenerPointer& listener) {
    PatternCallbackPair pair{id, {}, listener};
    for (const std::string& pattern : patterns) pair.patterns.push_back(SplitPattern(pattern));
    boost::lock_guard<boost::mutex> lock(mutex_);
    pairs_.push_back(std::move(pair));
  }

  // False for an unknown id. The listener is let go after the lock.
  bool Remove(int id) {
    ListenerPointer removed;
    boost::lock_guard<boost::mutex> lock(mutex_);
    const auto found =
        std::find_if(pairs_.begin(), pairs_.end(),
                     [id](const PatternCallbackPair& pair) { return pair.id == id; });
    if (found == pairs_.end()) return false;
    removed.swap(found->listener);
    pairs_.erase(found);
    return true;
  }

  // The first listener of which a pattern matches, or null. `text` is the message's start line and
  // header and is left in lower case.
  ListenerPointer Match(std::string& text) const {
    ToLowerAscii(text);
    boost::lock_guard<boost::mutex> lock(mutex_);
    for (const PatternCallbackPair& pair : pairs_) {
      for (const PatternTokens& tokens : pair.patterns) {
        if (HoldsAllTokens(tokens, text)) return pair.listener;
      }
    }
    return ListenerPointer();
  }

  // Empties the table; the listeners go with the result.
  std::vector<ListenerPointer> TakeAll() {
    std::vector<ListenerPointer> all;
    boost::lock_guard<boost::mutex> lock(mutex_);
    for (PatternCallbackPair& pair : pairs_) all.push_back(std::move(pair.listener));
    pairs_.clear();
    return all;
  }

 private:
  struct PatternCallbackPair {
    int id;
    std::vector<PatternTokens> patterns;
    ListenerPointer listener;
  };

  mutable boost::mutex mutex_;
  std::vector<PatternCallbackPair> pairs_ VEX_GUARDED_BY(mutex_);
};

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_PATTERN_TABLE_H_

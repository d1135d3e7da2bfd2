#ifndef VEXSIM_FAULTS_H_
#define VEXSIM_FAULTS_H_

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace vexsim {

// What goes wrong with the answers for some paths.
struct Fault {
  // Shell pattern of the path, as "/3/*" or "*/description.xml".
  std::string pattern;
  // Requests that it still applies to; negative: all.
  int times = -1;
  unsigned delay_ms = 0;
  // Status instead of 200, with an empty body.
  int status = 0;
  // The connection ends after so many bytes of the whole answer.
  std::optional<std::size_t> cut;
  // A cut, or the end of the answer, comes as a reset.
  bool reset = false;
  // Chunked, with chunks of this size.
  std::size_t chunk = 0;
  // No length: the body ends with the connection.
  bool no_length = false;
  // So many random bytes instead of an answer.
  std::size_t garbage = 0;
  // The request is taken and never answered.
  bool silent = false;
  // Bytes per second at which the answer drips out.
  unsigned rate = 0;
};

class FaultList {
 public:
  // A later fault for the same pattern replaces the earlier one.
  void Add(const Fault& fault);
  // Takes away the fault with this pattern, or all with an empty one. Returns how many went.
  std::size_t Clear(const std::string& pattern);
  // The newest fault for the path, which counts as applied.
  std::optional<Fault> Apply(const std::string& path);
  const std::vector<Fault>& faults() const { return faults_; }

 private:
  std::vector<Fault> faults_;
};

}  // namespace vexsim

#endif  // VEXSIM_FAULTS_H_

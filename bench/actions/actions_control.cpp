// Actions through vex_upnp::cp_control, where the answer's callback sends the next one.
#include <semaphore.h>
#include <vexupnpcp/cp_control.h>
#include <vexupnpcp/cp_utils.h>

#include <atomic>
#include <list>

#include "host.h"
#include "measure.h"

namespace {

namespace control = vex_upnp::cp_control;
namespace utils = vex_upnp::cp_utils;

Measure measure;

class Caller : public control::ControlResponseListener {
 public:
  explicit Caller(const char* udn) : udn_(udn) {
    sem_init(&finished_, 0, 0);
    utils::GetHostAndControlUri(udn_, type_, host_, url_);
  }

  void Run() {
    measure_start();
    begun_ = measure.width;
    for (int i = 0; i < measure.width; ++i) Send();
    sem_wait(&finished_);
  }

 private:
  void Send() {
    std::list<utils::CPUtilsArgument> arguments;
    std::string body;
    int id = 0;
    utils::GenerateSoapRequestBody("GetStatus", type_, arguments, body);
    if (control::SendAction(udn_, host_, "SOAPACTION: \"" + type_ + "#GetStatus\"", url_, body, "",
                            this, this, id) != 0)
      measure_failed();
  }

  void OnResponseReceived(const int&, const int& status, const std::string& body, void*) override {
    std::list<utils::CPUtilsArgument> outputs;
    std::string xml;
    constexpr int kOk = 200;
    if (status != kOk || utils::GetXMLFromSoap(body, xml) != 0 ||
        utils::GetOutputArglist(xml, outputs) != 0)
      measure_failed();
    if (measure_done(&measure) != 0) sem_post(&finished_);
    if (begun_.fetch_add(1) < measure.count) Send();
  }
  void DeleteContext(void*) override {}

  const std::string udn_;
  std::string type_ = "Bench0";
  std::string host_;
  std::string url_;
  std::atomic<int> begun_{0};
  sem_t finished_;
};

}  // namespace

int main(int argc, char** argv) {
  measure_arguments(&measure, "control", argc, argv);
  const BenchHost host(measure.interface_name, {nullptr, nullptr, nullptr, nullptr});
  Caller(host.udn()).Run();
  measure_print(&measure);
  return 0;
}

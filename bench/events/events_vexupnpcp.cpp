#include <semaphore.h>

#include <cstdio>
#include <string>

#include "host.h"
#include "measure.h"

namespace {

Measure measure;
sem_t finished;

void OnEvent(const char*, errorcodes code, CPArgument*) {
  if (code != CP_ERR_NONE) measure_failed();
  if (measure_done(&measure) != 0) sem_post(&finished);
}

}  // namespace

int main(int argc, char** argv) {
  measure_arguments(&measure, "vexupnpcp", argc, argv);
  sem_init(&finished, 0, 0);
  const BenchHost host(measure.interface_name, {&OnEvent, nullptr, nullptr, nullptr});
  for (int i = 0; i < measure.width; ++i) {
    const std::string service = "Bench" + std::to_string(i) + ":";
    if (SubscribeService(host.handle(), host.udn(), service.c_str()) != 0) return 1;
  }
  measure_go(&measure);
  sem_wait(&finished);
  measure_print(&measure);
  return 0;
}

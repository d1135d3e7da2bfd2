// Actions through the plain functions: the callback may not send, so a thread of the host does.
#include <semaphore.h>

#include "host.h"
#include "measure.h"

namespace {

Measure measure;
sem_t free_places, finished;

void OnAction(int, errorcodes code, CPArgument*, const char*) {
  if (code != CP_ERR_NONE) measure_failed();
  sem_post(&free_places);
  if (measure_done(&measure) != 0) sem_post(&finished);
}

}  // namespace

int main(int argc, char** argv) {
  measure_arguments(&measure, "vexupnpcp", argc, argv);
  sem_init(&free_places, 0, static_cast<unsigned>(measure.width));
  sem_init(&finished, 0, 0);
  const BenchHost host(measure.interface_name, {nullptr, &OnAction, nullptr, nullptr});
  measure_start();
  for (int i = 0; i < measure.count; ++i) {
    sem_wait(&free_places);
    int id = 0;
    if (SendAction(host.handle(), host.udn(), "Bench0", "GetStatus", nullptr, &id) != 0) return 1;
  }
  sem_wait(&finished);
  measure_print(&measure);
  return 0;
}

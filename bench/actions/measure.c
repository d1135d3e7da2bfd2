#include "measure.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

static atomic_int done, failures;
static double started, ended, cpu_started, cpu_ended;

static double now_s(void) {
  struct timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  return (double)time.tv_sec + (double)time.tv_nsec / 1e9;
}

static double cpu_s(void) {
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return (double)(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         (double)(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

void measure_arguments(Measure* measure, const char* program, int argc, char** argv) {
  if (argc != 6) {
    fprintf(stderr, "usage: %s INTERFACE ADDRESS PORT WIDTH COUNT\n", program);
    exit(2);
  }
  measure->program = program;
  measure->interface_name = argv[1];
  measure->address = argv[2];
  measure->port = (int)strtol(argv[3], NULL, 10);
  measure->width = (int)strtol(argv[4], NULL, 10);
  measure->count = (int)strtol(argv[5], NULL, 10);
}

void measure_start(void) {
  cpu_started = cpu_s();
  started = now_s();
}

int measure_done(const Measure* measure) {
  if (atomic_fetch_add(&done, 1) + 1 != measure->count) return 0;
  ended = now_s();
  cpu_ended = cpu_s();
  return 1;
}

void measure_failed(void) { atomic_fetch_add(&failures, 1); }
int measure_failures(void) { return atomic_load(&failures); }

void measure_print(const Measure* measure) {
  printf(
      "{\"program\": \"%s\", \"width\": %d, \"count\": %d, \"failures\": %d, "
      "\"per_second\": %.1f, \"cpu_us\": %.2f}\n",
      measure->program, measure->width, measure->count, atomic_load(&failures),
      measure->count / (ended - started), (cpu_ended - cpu_started) * 1e6 / measure->count);
  fflush(stdout);
}

/* A whole exchange on a connection of its own. 0 when it went well. */
static int post(const Measure* measure, const char* path) {
  char text[512];
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in to = {.sin_family = AF_INET, .sin_port = htons((unsigned short)measure->port)};
  inet_pton(AF_INET, measure->address, &to.sin_addr);
  const int length =
      snprintf(text, sizeof(text), "POST %s HTTP/1.1\r\nConnection: close\r\n\r\n", path);
  const int failed = connect(fd, (struct sockaddr*)&to, sizeof(to)) != 0 ||
                     send(fd, text, (size_t)length, 0) != length ||
                     recv(fd, text, sizeof(text), 0) <= 0;
  close(fd);
  return failed;
}

void measure_go(const Measure* measure) {
  const struct timespec look = {0, 2000000}, settle = {0, 200000000};
  char path[64];
  snprintf(path, sizeof(path), "/wait?%d", measure->width);
  while (post(measure, path) != 0) nanosleep(&look, NULL);
  nanosleep(&settle, NULL);
  snprintf(path, sizeof(path), "/go?%d", measure->count);
  measure_start();
  if (post(measure, path) != 0) exit(1);
}

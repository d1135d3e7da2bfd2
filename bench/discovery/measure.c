#include "measure.h"

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <time.h>

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static int ready;
static double started, last, cpu_started, cpu_last;
static long private_started;

static double now_ms(void) {
  struct timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  return (double)time.tv_sec * 1e3 + (double)time.tv_nsec / 1e6;
}

static double cpu_ms(void) {
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return (double)(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e3 +
         (double)(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e3;
}

/* Memory that nobody shares with this process, in KiB. */
static long private_kb(void) {
  char line[256];
  long sum = 0, value;
  FILE* file = fopen("/proc/self/smaps_rollup", "r");
  if (file == NULL) return -1;
  while (fgets(line, sizeof(line), file) != NULL)
    if (sscanf(line, "Private_Clean: %ld", &value) == 1 ||
        sscanf(line, "Private_Dirty: %ld", &value) == 1)
      sum += value;
  fclose(file);
  return sum;
}

void measure_arguments(Measure* measure, const char* program, int argc, char** argv) {
  if (argc != 4) {
    fprintf(stderr, "usage: %s INTERFACE COUNT QUIET_MS\n", program);
    exit(2);
  }
  measure->program = program;
  measure->interface_name = argv[1];
  measure->wanted = (int)strtol(argv[2], NULL, 10);
  measure->quiet_ms = (int)strtol(argv[3], NULL, 10);
}

void measure_start(void) {
  private_started = private_kb();
  cpu_started = cpu_ms();
  started = last = now_ms();
}

void measure_ready(void) {
  pthread_mutex_lock(&lock);
  ++ready;
  last = now_ms();
  pthread_mutex_unlock(&lock);
}

int measure_done(const Measure* measure) {
  pthread_mutex_lock(&lock);
  const int done = ready >= measure->wanted || now_ms() - last > measure->quiet_ms;
  pthread_mutex_unlock(&lock);
  return done;
}

void measure_print(const Measure* measure) {
  cpu_last = cpu_ms();
  pthread_mutex_lock(&lock);
  printf(
      "{\"program\": \"%s\", \"wanted\": %d, \"ready\": %d, \"wall_ms\": %.1f, \"cpu_ms\": %.1f, "
      "\"private_before_kb\": %ld, \"private_kb\": %ld}\n",
      measure->program, measure->wanted, ready, last - started, cpu_last - cpu_started,
      private_started, private_kb());
  fflush(stdout);
  pthread_mutex_unlock(&lock);
}

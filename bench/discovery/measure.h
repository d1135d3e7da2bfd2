#ifndef VEX_BENCH_DISCOVERY_MEASURE_H_
#define VEX_BENCH_DISCOVERY_MEASURE_H_

/*
 * What the side-by-side programs have in common: they take the same arguments, measure in the same
 * way and print one line of JSON. Each finds the root devices of a network by one search and counts
 * a device as ready when its description and all its service descriptions have come.
 *
 *   PROGRAM INTERFACE COUNT QUIET_MS
 *
 * They end when COUNT devices are ready, or when none has become ready for QUIET_MS.
 */

#ifdef __cplusplus
extern "C" {
#endif

typedef struct Measure {
  const char* program;
  const char* interface_name;
  int wanted;
  int quiet_ms;
} Measure;

/* Reads the arguments; ends the program when they are wrong. */
void measure_arguments(Measure* measure, const char* program, int argc, char** argv);
/* The search goes out now. */
void measure_start(void);
/* One more device is ready; any thread. */
void measure_ready(void);
/* Whether the program should end. */
int measure_done(const Measure* measure);
/* Prints the line; nothing is counted any more. */
void measure_print(const Measure* measure);

#ifdef __cplusplus
}
#endif

#endif /* VEX_BENCH_DISCOVERY_MEASURE_H_ */

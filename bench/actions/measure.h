#ifndef VEX_BENCH_ACTIONS_MEASURE_H_
#define VEX_BENCH_ACTIONS_MEASURE_H_

/*
 * What the side-by-side programs have in common. They find the fast device by a search on INTERFACE
 * (ADDRESS and PORT tell those that can do without), do COUNT things and print one line of JSON.
 *
 *   PROGRAM INTERFACE ADDRESS PORT WIDTH COUNT
 *
 * WIDTH is how many actions are under way at a time, or how many subscriptions there are.
 */

#ifdef __cplusplus
extern "C" {
#endif

typedef struct Measure {
  const char* program;
  const char* interface_name;
  const char* address;
  int port;
  int width;
  int count;
} Measure;

/* Reads the arguments; ends the program when they are wrong. */
void measure_arguments(Measure* measure, const char* program, int argc, char** argv);
void measure_start(void);
/* One more is done; any thread. Gives 1 for the last one, once, and notes the time. */
int measure_done(const Measure* measure);
/* One went wrong; any thread. It counts as done nowhere. */
void measure_failed(void);
int measure_failures(void);
void measure_print(const Measure* measure);
/* Waits until the device has WIDTH subscriptions, lets its answers sink in, and has it send COUNT
 * events. */
void measure_go(const Measure* measure);

#ifdef __cplusplus
}
#endif

#endif /* VEX_BENCH_ACTIONS_MEASURE_H_ */

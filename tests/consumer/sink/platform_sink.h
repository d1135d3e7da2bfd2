#ifndef VEXUPNPCP_TESTS_CONSUMER_SINK_PLATFORM_SINK_H_
#define VEXUPNPCP_TESTS_CONSUMER_SINK_PLATFORM_SINK_H_

#ifdef __cplusplus
extern "C" {
#endif

/* How often the framework's first line has come: level 16, its own tag, its text to the last blank.
 */
int HeardEntering(void);

#ifdef __cplusplus
}
#endif

#endif /* VEXUPNPCP_TESTS_CONSUMER_SINK_PLATFORM_SINK_H_ */

#ifndef VEXUPNPCP_EXPORT_H_
#define VEXUPNPCP_EXPORT_H_

/* Marks what the shared library shows to its hosts; everything else is built hidden. */
#if defined(__GNUC__)
#define VEX_EXPORT __attribute__((visibility("default")))
#else
#define VEX_EXPORT
#endif

#endif /* VEXUPNPCP_EXPORT_H_ */

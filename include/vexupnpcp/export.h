#ifndef VEXUPNPCP_EXPORT_H_
#define VEXUPNPCP_EXPORT_H_

/* VEX_EXPORT marks what the shared library shows to its hosts; everything else is built hidden.
   VEX_LOCAL takes a private member of a shown class out again. */
#if defined(__GNUC__)
#define VEX_EXPORT __attribute__((visibility("default")))
#define VEX_LOCAL __attribute__((visibility("hidden")))
#else
#define VEX_EXPORT
#define VEX_LOCAL
#endif

#endif /* VEXUPNPCP_EXPORT_H_ */

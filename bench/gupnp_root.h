#ifndef VEX_BENCH_GUPNP_ROOT_H_
#define VEX_BENCH_GUPNP_ROOT_H_

#include <libgupnp/gupnp.h>

/* A control point for the root devices of an interface that tells of each; it searches once it is
 * set active. Null, with the reason on standard error, when there can be none. */
static inline GUPnPControlPoint* gupnp_root_control_point(const char* interface_name,
                                                          GCallback on_device) {
  GError* error = NULL;
  GUPnPContext* context =
      gupnp_context_new_full(interface_name, NULL, 0, GSSDP_UDA_VERSION_1_0, &error);
  if (context == NULL) {
    g_printerr("gupnp: %s\n", error->message);
    return NULL;
  }
  GUPnPControlPoint* point = gupnp_control_point_new(context, "upnp:rootdevice");
  g_signal_connect(point, "device-proxy-available", on_device, NULL);
  return point;
}

#endif /* VEX_BENCH_GUPNP_ROOT_H_ */

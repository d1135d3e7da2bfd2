#include <libgupnp/gupnp.h>

#include "../gupnp_root.h"
#include "measure.h"

static Measure measure;
static GMainLoop* loop;
static int found;

static void on_notify(GUPnPServiceProxy* proxy, const char* variable, GValue* value,
                      gpointer data) {
  (void)proxy;
  (void)variable;
  (void)data;
  if (g_value_get_uint(value) != 1) measure_failed();
  if (!measure_done(&measure)) return;
  measure_print(&measure);
  g_main_loop_quit(loop);
}

/* Beside the main loop, which has to run meanwhile. */
static gpointer go(gpointer data) {
  (void)data;
  measure_go(&measure);
  return NULL;
}

static void on_device(GUPnPControlPoint* point, GUPnPDeviceProxy* proxy, gpointer data) {
  (void)point;
  (void)data;
  if (found) return;
  found = 1;
  for (int i = 0; i < measure.width; ++i) {
    char type[64];
    g_snprintf(type, sizeof(type), "urn:schemas-upnp-org:service:Bench%d:1", i);
    GUPnPServiceProxy* service =
        GUPNP_SERVICE_PROXY(gupnp_device_info_get_service(GUPNP_DEVICE_INFO(proxy), type));
    gupnp_service_proxy_add_notify(service, "Status", G_TYPE_UINT, on_notify, NULL);
    gupnp_service_proxy_set_subscribed(service, TRUE);
  }
  g_thread_unref(g_thread_new("go", go, NULL));
}

int main(int argc, char** argv) {
  measure_arguments(&measure, "gupnp", argc, argv);
  GUPnPControlPoint* point =
      gupnp_root_control_point(measure.interface_name, G_CALLBACK(on_device));
  if (point == NULL) return 1;
  loop = g_main_loop_new(NULL, FALSE);
  gssdp_resource_browser_set_active(GSSDP_RESOURCE_BROWSER(point), TRUE);
  g_main_loop_run(loop);
  return 0;
}

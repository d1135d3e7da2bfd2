#include <libgupnp/gupnp.h>

#include "../gupnp_root.h"
#include "measure.h"

static Measure measure;
static GMainLoop* loop;
static GUPnPServiceProxy* service;
static int begun;

static void begin(void);

static void on_answer(GObject* source, GAsyncResult* result, gpointer data) {
  GError* error = NULL;
  guint status = 0;
  (void)data;
  GUPnPServiceProxyAction* action =
      gupnp_service_proxy_call_action_finish(GUPNP_SERVICE_PROXY(source), result, &error);
  if (action == NULL || !gupnp_service_proxy_action_get_result(action, &error, "ResultStatus",
                                                               G_TYPE_UINT, &status, NULL)) {
    measure_failed();
    g_clear_error(&error);
  }
  if (measure_done(&measure)) {
    measure_print(&measure);
    g_main_loop_quit(loop);
    return;
  }
  if (begun < measure.count) begin();
}

static void begin(void) {
  ++begun;
  GUPnPServiceProxyAction* action = gupnp_service_proxy_action_new("GetStatus", NULL);
  gupnp_service_proxy_call_action_async(service, action, NULL, on_answer, NULL);
  gupnp_service_proxy_action_unref(action);
}

static void on_device(GUPnPControlPoint* point, GUPnPDeviceProxy* proxy, gpointer data) {
  (void)point;
  (void)data;
  if (service != NULL) return;
  service = GUPNP_SERVICE_PROXY(gupnp_device_info_get_service(
      GUPNP_DEVICE_INFO(proxy), "urn:schemas-upnp-org:service:Bench0:1"));
  if (service == NULL) return;
  measure_start();
  for (int i = 0; i < measure.width; ++i) begin();
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

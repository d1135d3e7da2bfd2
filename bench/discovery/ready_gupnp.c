#include <libgupnp/gupnp.h>

#include "../gupnp_root.h"
#include "measure.h"

static Measure measure;

/* Service descriptions of one device that are still to come. */
typedef struct Waiting {
  GUPnPDeviceProxy* proxy;
  GList* services;
  int left;
} Waiting;

static void free_waiting(Waiting* waiting) {
  g_list_free_full(waiting->services, g_object_unref);
  g_object_unref(waiting->proxy);
  g_free(waiting);
}

static void on_introspection(GObject* source, GAsyncResult* result, gpointer data) {
  Waiting* waiting = data;
  GError* error = NULL;
  GUPnPServiceIntrospection* introspection =
      gupnp_service_info_introspect_finish(GUPNP_SERVICE_INFO(source), result, &error);
  if (introspection == NULL) {
    g_clear_error(&error);
    waiting->left = -1;
    return;
  }
  g_object_unref(introspection);
  if (--waiting->left == 0) {
    measure_ready();
    free_waiting(waiting);
  }
}

static void on_device(GUPnPControlPoint* point, GUPnPDeviceProxy* proxy, gpointer data) {
  (void)point;
  (void)data;
  Waiting* waiting = g_new0(Waiting, 1);
  waiting->proxy = g_object_ref(proxy);
  waiting->services = gupnp_device_info_list_services(GUPNP_DEVICE_INFO(proxy));
  waiting->left = (int)g_list_length(waiting->services);
  if (waiting->left == 0) {
    measure_ready();
    free_waiting(waiting);
    return;
  }
  for (GList* service = waiting->services; service != NULL; service = service->next)
    gupnp_service_info_introspect_async(GUPNP_SERVICE_INFO(service->data), NULL, on_introspection,
                                        waiting);
}

static gboolean on_tick(gpointer loop) {
  if (!measure_done(&measure)) return G_SOURCE_CONTINUE;
  measure_print(&measure);
  g_main_loop_quit(loop);
  return G_SOURCE_REMOVE;
}

int main(int argc, char** argv) {
  measure_arguments(&measure, "gupnp", argc, argv);
  GUPnPControlPoint* point =
      gupnp_root_control_point(measure.interface_name, G_CALLBACK(on_device));
  if (point == NULL) return 1;
  GMainLoop* loop = g_main_loop_new(NULL, FALSE);
  g_timeout_add(2, on_tick, loop);
  measure_start();
  gssdp_resource_browser_set_active(GSSDP_RESOURCE_BROWSER(point), TRUE);
  g_main_loop_run(loop);
  return 0;
}

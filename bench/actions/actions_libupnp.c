#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>
#include <upnp/ixml.h>
#include <upnp/upnp.h>
#include <upnp/upnptools.h>

#include "measure.h"

static const char kType[] = "urn:schemas-upnp-org:service:Bench0:1";

static Measure measure;
static sem_t free_places, finished;

static int on_event(Upnp_EventType type, const void* event, void* cookie) {
  (void)cookie;
  if (type != UPNP_CONTROL_ACTION_COMPLETE) return 0;
  const UpnpActionComplete* complete = event;
  if (UpnpActionComplete_get_ErrCode(complete) != UPNP_E_SUCCESS) measure_failed();
  sem_post(&free_places);
  if (measure_done(&measure)) sem_post(&finished);
  return 0;
}

static void one_by_one(UpnpClient_Handle handle, const char* url) {
  for (;;) {
    IXML_Document* action = UpnpMakeAction("GetStatus", kType, 0, NULL);
    IXML_Document* answer = NULL;
    if (UpnpSendAction(handle, url, kType, NULL, action, &answer) != UPNP_E_SUCCESS)
      measure_failed();
    ixmlDocument_free(action);
    if (answer != NULL) ixmlDocument_free(answer);
    if (measure_done(&measure)) return;
  }
}

static void side_by_side(UpnpClient_Handle handle, const char* url) {
  sem_init(&free_places, 0, (unsigned)measure.width);
  sem_init(&finished, 0, 0);
  for (int i = 0; i < measure.count; ++i) {
    sem_wait(&free_places);
    IXML_Document* action = UpnpMakeAction("GetStatus", kType, 0, NULL);
    if (UpnpSendActionAsync(handle, url, kType, NULL, action, on_event, NULL) != UPNP_E_SUCCESS) {
      fprintf(stderr, "libupnp: an action was not taken\n");
      _Exit(1);
    }
    ixmlDocument_free(action);
  }
  sem_wait(&finished);
}

int main(int argc, char** argv) {
  measure_arguments(&measure, "libupnp", argc, argv);
  UpnpClient_Handle handle;
  int result = UpnpInit2(measure.interface_name, 0);
  if (result == UPNP_E_SUCCESS) result = UpnpRegisterClient(on_event, NULL, &handle);
  if (result != UPNP_E_SUCCESS) {
    fprintf(stderr, "libupnp: %s\n", UpnpGetErrorMessage(result));
    return 1;
  }
  char url[128];
  snprintf(url, sizeof(url), "http://%s:%d/control", measure.address, measure.port);
  measure_start();
  if (measure.width == 1) {
    one_by_one(handle, url);
  } else {
    side_by_side(handle, url);
  }
  measure_print(&measure);
  _Exit(0);
}

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <upnp/ixml.h>
#include <upnp/upnp.h>
#include <upnp/upnptools.h>

#include "measure.h"

enum { kSeenLimit = 65536, kSearchMx = 4, kTickNs = 2000000 };

static Measure measure;
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static char* seen[kSeenLimit];
static int seen_count;

static unsigned hash(const char* text) {
  unsigned value = 2166136261u;
  for (; *text != '\0'; ++text) value = (value ^ (unsigned char)*text) * 16777619u;
  return value;
}

/* Each device once, however often it answers. */
static int is_new(const char* udn) {
  int found = 0;
  pthread_mutex_lock(&lock);
  unsigned place = hash(udn) % kSeenLimit;
  while (seen[place] != NULL && strcmp(seen[place], udn) != 0) place = (place + 1) % kSeenLimit;
  if (seen[place] == NULL && seen_count < kSeenLimit / 2) {
    seen[place] = strdup(udn);
    ++seen_count;
    found = 1;
  }
  pthread_mutex_unlock(&lock);
  return found;
}

static int fetch_service(const char* location, IXML_Node* url_node) {
  IXML_Node* text = ixmlNode_getFirstChild(url_node);
  char* url = NULL;
  IXML_Document* document = NULL;
  if (text == NULL) return 0;
  if (UpnpResolveURL2(location, ixmlNode_getNodeValue(text), &url) != UPNP_E_SUCCESS) return 0;
  const int result = UpnpDownloadXmlDoc(url, &document);
  free(url);
  if (document != NULL) ixmlDocument_free(document);
  return result == UPNP_E_SUCCESS;
}

static void fetch_device(const char* location) {
  IXML_Document* description = NULL;
  if (UpnpDownloadXmlDoc(location, &description) != UPNP_E_SUCCESS) return;
  IXML_NodeList* urls = ixmlDocument_getElementsByTagName(description, "SCPDURL");
  int complete = 1;
  for (unsigned long i = 0; complete && i < ixmlNodeList_length(urls); ++i)
    complete = fetch_service(location, ixmlNodeList_item(urls, i));
  if (complete) measure_ready();
  ixmlNodeList_free(urls);
  ixmlDocument_free(description);
}

static int on_event(Upnp_EventType type, const void* event, void* cookie) {
  (void)cookie;
  if (type != UPNP_DISCOVERY_SEARCH_RESULT) return 0;
  const UpnpDiscovery* found = event;
  if (is_new(UpnpString_get_String(UpnpDiscovery_get_DeviceID(found))))
    fetch_device(UpnpString_get_String(UpnpDiscovery_get_Location(found)));
  return 0;
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
  measure_start();
  UpnpSearchAsync(handle, kSearchMx, "upnp:rootdevice", NULL);
  const struct timespec tick = {0, kTickNs};
  while (!measure_done(&measure)) nanosleep(&tick, NULL);
  measure_print(&measure);
  /* Its threads may still be fetching. */
  _Exit(0);
}

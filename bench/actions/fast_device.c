/*
 * A UPnP device that costs next to nothing: one thread, prepared answers, as few system calls as
 * there can be. It answers searches, serves its description, answers one action and sends as many
 * events as it is asked for, each on a connection of its own and one at a time for a subscription.
 *
 *   fast_device ADDRESS PORT SERVICES      ends when its standard input does
 *
 *   POST /control     the action GetStatus of every service
 *   SUBSCRIBE /event/N
 *   POST /wait?N      answered when there are N subscriptions; the connection breaks before
 *   POST /go?COUNT    COUNT events, shared out among all subscriptions; the subscriptions then end
 */
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

enum { kInput = 16384, kEvents = 256, kSubscriptions = 1024, kDescription = 65536 };

typedef struct Source Source;
struct Source {
  void (*ready)(Source*, unsigned events);
  int fd;
};

typedef struct Connection {
  Source source;
  int used;
  char input[kInput + 1];
} Connection;

typedef struct Subscription {
  Source source;
  int number;
  int left;
  int sent;
  struct sockaddr_in to;
  char authority[64];
  char path[256];
} Subscription;

static int poll_fd, services, subscription_count, port, last_sid, round_over;
static const char* address_text;
static Subscription subscriptions[kSubscriptions];
static char description[kDescription];

static const char kScpd[] =
    "<?xml version=\"1.0\"?><scpd xmlns=\"urn:schemas-upnp-org:service-1-0\"><specVersion>"
    "<major>1</major><minor>0</minor></specVersion><actionList><action><name>GetStatus</name>"
    "<argumentList><argument><name>ResultStatus</name><direction>out</direction>"
    "<relatedStateVariable>Status</relatedStateVariable></argument></argumentList></action>"
    "</actionList><serviceStateTable><stateVariable sendEvents=\"yes\"><name>Status</name>"
    "<dataType>ui4</dataType></stateVariable></serviceStateTable></scpd>";

static const char kAnswer[] =
    "<?xml version=\"1.0\"?><s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
    "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"><s:Body><u:GetStatusResponse "
    "xmlns:u=\"urn:schemas-upnp-org:service:Bench0:1\"><ResultStatus>1</ResultStatus>"
    "</u:GetStatusResponse></s:Body></s:Envelope>";

static void fail(const char* what) {
  perror(what);
  exit(1);
}

static void watch(Source* source, unsigned events, int operation) {
  struct epoll_event event = {.events = events, .data = {.ptr = source}};
  epoll_ctl(poll_fd, operation, source->fd, &event);
}

static void write_description(void) {
  int used = snprintf(description, sizeof(description),
                      "<?xml version=\"1.0\"?><root xmlns=\"urn:schemas-upnp-org:device-1-0\">"
                      "<specVersion><major>1</major><minor>0</minor></specVersion><device>"
                      "<deviceType>urn:schemas-upnp-org:device:Bench:1</deviceType>"
                      "<friendlyName>Fast</friendlyName><manufacturer>Bench</manufacturer>"
                      "<modelName>Fast</modelName><UDN>uuid:fa57fa57-0000-4000-8000-000000000001"
                      "</UDN><serviceList>");
  for (int i = 0; i < services; ++i)
    used += snprintf(description + used, sizeof(description) - (size_t)used,
                     "<service><serviceType>urn:schemas-upnp-org:service:Bench%d:1</serviceType>"
                     "<serviceId>urn:upnp-org:serviceId:Bench%d</serviceId>"
                     "<SCPDURL>/scpd.xml</SCPDURL><controlURL>/control</controlURL>"
                     "<eventSubURL>/event/%d</eventSubURL></service>",
                     i, i, i);
  snprintf(description + used, sizeof(description) - (size_t)used,
           "</serviceList></device></root>");
}

static void next_event(Subscription* subscription);

static void on_notified(Source* source, unsigned events) {
  Subscription* subscription = (Subscription*)source;
  char buffer[1024];
  if (events & EPOLLOUT) {
    static const char body[] =
        "<?xml version=\"1.0\"?><e:propertyset xmlns:e=\"urn:schemas-upnp-org:event-1-0\">"
        "<e:property><Status>1</Status></e:property></e:propertyset>";
    const int length =
        snprintf(buffer, sizeof(buffer),
                 "NOTIFY %s HTTP/1.1\r\nHOST: %s\r\nCONTENT-TYPE: text/xml; charset=\"utf-8\"\r\n"
                 "CONTENT-LENGTH: %zu\r\nNT: upnp:event\r\nNTS: upnp:propchange\r\n"
                 "SID: uuid:fa57fa57-0000-4000-8001-%012d\r\nSEQ: %d\r\n\r\n%s",
                 subscription->path, subscription->authority, sizeof(body) - 1,
                 subscription->number, subscription->sent++, body);
    send(source->fd, buffer, (size_t)length, MSG_NOSIGNAL);
    watch(source, EPOLLIN, EPOLL_CTL_MOD);
    return;
  }
  /* The answer is there, or the other side has closed. */
  recv(source->fd, buffer, sizeof(buffer), MSG_DONTWAIT);
  close(source->fd);
  source->fd = -1;
  next_event(subscription);
}

static void next_event(Subscription* subscription) {
  if (subscription->left == 0) return;
  --subscription->left;
  const int on = 1;
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
  if (fd < 0) fail("socket");
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  if (connect(fd, (struct sockaddr*)&subscription->to, sizeof(subscription->to)) != 0 &&
      errno != EINPROGRESS)
    fail("connect");
  subscription->source.fd = fd;
  subscription->source.ready = on_notified;
  watch(&subscription->source, EPOLLOUT, EPOLL_CTL_ADD);
}

static int subscribe(const char* input, char* answer, size_t size) {
  const char* callback = strcasestr(input, "\r\nCALLBACK:");
  int number = last_sid;
  if (callback != NULL) {
    if (subscription_count == kSubscriptions)
      return snprintf(answer, size, "HTTP/1.1 503 No\r\n\r\n");
    char host[32];
    int to_port = 80;
    Subscription* subscription = &subscriptions[subscription_count++];
    memset(subscription, 0, sizeof(*subscription));
    strcpy(subscription->path, "/");
    if (sscanf(strchr(callback, '<'), "<http://%31[0-9.]:%d%255[^>]", host, &to_port,
               subscription->path) < 2)
      fail("callback");
    snprintf(subscription->authority, sizeof(subscription->authority), "%s:%d", host, to_port);
    subscription->to.sin_family = AF_INET;
    subscription->to.sin_port = htons((unsigned short)to_port);
    inet_pton(AF_INET, host, &subscription->to.sin_addr);
    subscription->number = number = ++last_sid;
  }
  return snprintf(answer, size,
                  "HTTP/1.1 200 OK\r\nSID: uuid:fa57fa57-0000-4000-8001-%012d\r\n"
                  "TIMEOUT: Second-1800\r\nContent-Length: 0\r\nConnection: close\r\n\r\n",
                  number);
}

static void go(int count) {
  round_over = 1;
  for (int i = 0; i < subscription_count; ++i) subscriptions[i].left = count / subscription_count;
  for (int i = 0; i < subscription_count; ++i) next_event(&subscriptions[i]);
}

/* With the first SUBSCRIBE behind a round of events the next round begins. */
static void forget_last_round(void) {
  if (!round_over) return;
  for (int i = 0; i < subscription_count; ++i)
    if (subscriptions[i].left > 0 || subscriptions[i].source.fd > 0) return;
  subscription_count = 0;
  round_over = 0;
}

static int with_body(char* answer, size_t size, const char* body, int stay) {
  return snprintf(answer, size,
                  "HTTP/1.1 200 OK\r\nContent-Type: text/xml; charset=\"utf-8\"\r\n"
                  "Content-Length: %zu\r\nEXT:\r\nConnection: %s\r\n\r\n%s",
                  strlen(body), stay ? "keep-alive" : "close", body);
}

/* Whether the connection stays. */
static int answer_request(Connection* connection, const char* input) {
  static char answer[kDescription + 512];
  const int fd = connection->source.fd;
  const char* close_wish = strcasestr(input, "\r\nConnection: close");
  int stay = close_wish == NULL, length;
  if (strncmp(input, "POST /control", 13) == 0) {
    static char prepared[2][1024];
    static int lengths[2];
    if (lengths[stay] == 0)
      lengths[stay] = with_body(prepared[stay], sizeof(prepared[stay]), kAnswer, stay);
    send(fd, prepared[stay], (size_t)lengths[stay], MSG_NOSIGNAL);
    return stay;
  }
  if (strncmp(input, "GET /scpd.xml", 13) == 0) {
    length = with_body(answer, sizeof(answer), kScpd, stay);
  } else if (strncmp(input, "GET ", 4) == 0) {
    length = with_body(answer, sizeof(answer), description, stay);
  } else if (strncmp(input, "SUBSCRIBE ", 10) == 0) {
    forget_last_round();
    length = subscribe(input, answer, sizeof(answer));
    stay = 0;
  } else if (strncmp(input, "POST /go?", 9) == 0) {
    go((int)strtol(input + 9, NULL, 10));
    length = with_body(answer, sizeof(answer), "", stay);
  } else if (strncmp(input, "POST /wait?", 11) == 0) {
    if (subscription_count < strtol(input + 11, NULL, 10)) return 0;
    length = with_body(answer, sizeof(answer), "", stay);
  } else {
    length = with_body(answer, sizeof(answer), "", stay);
  }
  send(fd, answer, (size_t)length, MSG_NOSIGNAL);
  return stay;
}

static void end(Connection* connection) {
  close(connection->source.fd);
  free(connection);
}

static void on_input(Source* source, unsigned events) {
  Connection* connection = (Connection*)source;
  (void)events;
  const ssize_t size = recv(source->fd, connection->input + connection->used,
                            (size_t)(kInput - connection->used), MSG_DONTWAIT);
  if (size < 0 && errno == EAGAIN) return;
  if (size <= 0) {
    end(connection);
    return;
  }
  connection->used += (int)size;
  connection->input[connection->used] = '\0';
  for (;;) {
    char* header_end = strstr(connection->input, "\r\n\r\n");
    if (header_end == NULL) return;
    const char* length_text = strcasestr(connection->input, "\r\nContent-Length:");
    long body = 0;
    if (length_text != NULL && length_text < header_end) body = strtol(length_text + 17, NULL, 10);
    const long whole = header_end + 4 - connection->input + body;
    if (whole > connection->used) return;
    if (!answer_request(connection, connection->input)) {
      end(connection);
      return;
    }
    connection->used -= (int)whole;
    memmove(connection->input, connection->input + whole, (size_t)connection->used + 1);
  }
}

static void on_connection(Source* source, unsigned events) {
  (void)events;
  for (;;) {
    const int fd = accept4(source->fd, NULL, NULL, SOCK_NONBLOCK);
    if (fd < 0) return;
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    Connection* connection = malloc(sizeof(*connection));
    if (connection == NULL) fail("malloc");
    connection->source.ready = on_input;
    connection->source.fd = fd;
    connection->used = 0;
    watch(&connection->source, EPOLLIN, EPOLL_CTL_ADD);
    /* The request is usually there already. */
    on_input(&connection->source, EPOLLIN);
  }
}

static void on_search(Source* source, unsigned events) {
  char buffer[2048], answer[1024];
  struct sockaddr_in from;
  socklen_t size = sizeof(from);
  (void)events;
  const ssize_t got =
      recvfrom(source->fd, buffer, sizeof(buffer) - 1, 0, (struct sockaddr*)&from, &size);
  if (got <= 0) return;
  buffer[got] = '\0';
  if (strncmp(buffer, "M-SEARCH", 8) != 0 || strstr(buffer, "upnp:rootdevice") == NULL) return;
  const int length =
      snprintf(answer, sizeof(answer),
               "HTTP/1.1 200 OK\r\nCACHE-CONTROL: max-age=1800\r\nEXT:\r\nLOCATION: "
               "http://%s:%d/desc.xml\r\n"
               "SERVER: Linux UPnP/1.0 Bench/1.0\r\nST: upnp:rootdevice\r\n"
               "USN: uuid:fa57fa57-0000-4000-8000-000000000001::upnp:rootdevice\r\n\r\n",
               address_text, port);
  sendto(source->fd, answer, (size_t)length, 0, (struct sockaddr*)&from, size);
}

static void on_command(Source* source, unsigned events) {
  char byte;
  (void)events;
  if (read(source->fd, &byte, 1) <= 0) exit(0);
}

static int bound(int kind, const char* address, int at) {
  const int fd = socket(AF_INET, kind, 0), on = 1;
  struct sockaddr_in to = {.sin_family = AF_INET, .sin_port = htons((unsigned short)at)};
  inet_pton(AF_INET, address, &to.sin_addr);
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  if (fd < 0 || bind(fd, (struct sockaddr*)&to, sizeof(to)) != 0) fail("bind");
  return fd;
}

int main(int argc, char** argv) {
  if (argc != 4) {
    fprintf(stderr, "usage: fast_device ADDRESS PORT SERVICES\n");
    return 2;
  }
  address_text = argv[1];
  port = (int)strtol(argv[2], NULL, 10);
  services = (int)strtol(argv[3], NULL, 10);
  write_description();
  poll_fd = epoll_create1(0);
  Source http = {on_connection, bound(SOCK_STREAM | SOCK_NONBLOCK, address_text, port)};
  if (listen(http.fd, 4096) != 0) fail("listen");
  Source ssdp = {on_search, bound(SOCK_DGRAM, "239.255.255.250", 1900)};
  struct ip_mreq group = {0};
  inet_pton(AF_INET, "239.255.255.250", &group.imr_multiaddr);
  inet_pton(AF_INET, address_text, &group.imr_interface);
  if (setsockopt(ssdp.fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof(group)) != 0) fail("group");
  Source command = {on_command, STDIN_FILENO};
  watch(&http, EPOLLIN, EPOLL_CTL_ADD);
  watch(&ssdp, EPOLLIN, EPOLL_CTL_ADD);
  watch(&command, EPOLLIN, EPOLL_CTL_ADD);
  printf("ready\n");
  fflush(stdout);
  for (;;) {
    struct epoll_event events[kEvents];
    const int count = epoll_wait(poll_fd, events, kEvents, -1);
    for (int i = 0; i < count; ++i) {
      Source* source = events[i].data.ptr;
      source->ready(source, events[i].events);
    }
  }
}

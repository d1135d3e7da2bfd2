/* The limit: accept, receive, send and close for each event, and nothing else. */
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "measure.h"

enum { kEvents = 64, kBuffer = 4096 };

static Measure measure;

static void subscribe(const char* own, int own_port, int number) {
  char text[512];
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in to = {.sin_family = AF_INET, .sin_port = htons((unsigned short)measure.port)};
  inet_pton(AF_INET, measure.address, &to.sin_addr);
  const int length = snprintf(text, sizeof(text),
                              "SUBSCRIBE /event/%d HTTP/1.1\r\nCALLBACK: <http://%s:%d/>\r\n"
                              "NT: upnp:event\r\nTIMEOUT: Second-1800\r\n\r\n",
                              number, own, own_port);
  if (connect(fd, (struct sockaddr*)&to, sizeof(to)) != 0 ||
      send(fd, text, (size_t)length, 0) != length || recv(fd, text, sizeof(text), 0) <= 0)
    exit(1);
  close(fd);
}

/* Our address on the way to the device. */
static void own_address(char* text) {
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  struct sockaddr_in to = {.sin_family = AF_INET, .sin_port = htons(9)};
  socklen_t size = sizeof(to);
  inet_pton(AF_INET, measure.address, &to.sin_addr);
  if (connect(fd, (struct sockaddr*)&to, size) != 0) exit(1);
  getsockname(fd, (struct sockaddr*)&to, &size);
  inet_ntop(AF_INET, &to.sin_addr, text, INET_ADDRSTRLEN);
  close(fd);
}

/* Whether that was the last event. */
static int serve(int fd) {
  static const char answer[] = "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n";
  char buffer[kBuffer];
  if (recv(fd, buffer, sizeof(buffer), 0) <= 0) exit(1);
  send(fd, answer, sizeof(answer) - 1, MSG_NOSIGNAL);
  close(fd);
  return measure_done(&measure);
}

int main(int argc, char** argv) {
  measure_arguments(&measure, "bare", argc, argv);
  char own[INET_ADDRSTRLEN];
  own_address(own);
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
  struct sockaddr_in at = {.sin_family = AF_INET};
  socklen_t size = sizeof(at);
  if (bind(listener, (struct sockaddr*)&at, size) != 0 || listen(listener, 4096) != 0) return 1;
  getsockname(listener, (struct sockaddr*)&at, &size);
  for (int i = 0; i < measure.width; ++i) subscribe(own, ntohs(at.sin_port), i);
  const int poll_fd = epoll_create1(0);
  struct epoll_event event = {.events = EPOLLIN, .data = {.fd = listener}};
  epoll_ctl(poll_fd, EPOLL_CTL_ADD, listener, &event);
  measure_go(&measure);
  for (;;) {
    struct epoll_event events[kEvents];
    const int count = epoll_wait(poll_fd, events, kEvents, -1);
    for (int i = 0; i < count; ++i) {
      if (events[i].data.fd != listener) {
        if (serve(events[i].data.fd)) {
          measure_print(&measure);
          return 0;
        }
        continue;
      }
      for (int fd = accept(listener, NULL, NULL); fd >= 0; fd = accept(listener, NULL, NULL)) {
        event.data.fd = fd;
        epoll_ctl(poll_fd, EPOLL_CTL_ADD, fd, &event);
      }
    }
  }
}

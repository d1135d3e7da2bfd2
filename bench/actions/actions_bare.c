/* The limit: connect, send, receive and close, and nothing else. */
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

enum { kAnswer = 4096, kEvents = 64 };

static Measure measure;
static struct sockaddr_in to;
static char request[2048];
static int request_length;

static void write_request(void) {
  static const char body[] =
      "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n<s:Envelope "
      "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\" "
      "xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\">\r\n<s:Body>\r\n"
      "<u:GetStatus xmlns:u=\"urn:schemas-upnp-org:service:Bench0:1\">\r\n"
      "</u:GetStatus>\r\n</s:Body>\r\n</s:Envelope>";
  request_length =
      snprintf(request, sizeof(request),
               "POST /control HTTP/1.1\r\nHOST: %s:%d\r\nCONTENT-LENGTH: %zu\r\n"
               "CONTENT-TYPE: text/xml; charset=\"utf-8\"\r\nSOAPACTION: "
               "\"urn:schemas-upnp-org:service:Bench0:1#GetStatus\"\r\nConnection: close\r\n\r\n%s",
               measure.address, measure.port, sizeof(body) - 1, body);
}

static void one_by_one(void) {
  char answer[kAnswer];
  for (;;) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (connect(fd, (struct sockaddr*)&to, sizeof(to)) != 0 ||
        send(fd, request, (size_t)request_length, 0) != request_length ||
        recv(fd, answer, sizeof(answer), 0) <= 0)
      exit(1);
    close(fd);
    if (measure_done(&measure)) return;
  }
}

static void begin(int poll_fd) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
  if (connect(fd, (struct sockaddr*)&to, sizeof(to)) != 0 && errno != EINPROGRESS) exit(1);
  struct epoll_event event = {.events = EPOLLOUT | EPOLLET | EPOLLIN, .data = {.fd = fd}};
  epoll_ctl(poll_fd, EPOLL_CTL_ADD, fd, &event);
}

static void side_by_side(void) {
  const int poll_fd = epoll_create1(0);
  char answer[kAnswer];
  int begun = 0;
  for (; begun < measure.width; ++begun) begin(poll_fd);
  for (;;) {
    struct epoll_event events[kEvents];
    const int count = epoll_wait(poll_fd, events, kEvents, -1);
    for (int i = 0; i < count; ++i) {
      const int fd = events[i].data.fd;
      if (!(events[i].events & EPOLLIN)) {
        if (send(fd, request, (size_t)request_length, MSG_NOSIGNAL) != request_length) exit(1);
        continue;
      }
      if (recv(fd, answer, sizeof(answer), 0) <= 0) exit(1);
      close(fd);
      if (measure_done(&measure)) return;
      if (begun < measure.count) {
        ++begun;
        begin(poll_fd);
      }
    }
  }
}

int main(int argc, char** argv) {
  measure_arguments(&measure, "bare", argc, argv);
  to.sin_family = AF_INET;
  to.sin_port = htons((unsigned short)measure.port);
  inet_pton(AF_INET, measure.address, &to.sin_addr);
  write_request();
  measure_start();
  if (measure.width == 1) {
    one_by_one();
  } else {
    side_by_side();
  }
  measure_print(&measure);
  return 0;
}

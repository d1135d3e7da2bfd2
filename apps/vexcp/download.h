#ifndef VEXCP_DOWNLOAD_H_
#define VEXCP_DOWNLOAD_H_

#include <vexupnpcp/streaming.h>

#include <mutex>
#include <optional>
#include <string>

#include "event_queue.h"
#include "http_url.h"

namespace vexcp {

// One GET by the library's asynchronous client, into an open file. One at a time: the library calls
// plain functions.
//
// What comes is written by the library's thread before it reads on, so that no more than a block is
// ever held, however slow the file is.
class Download {
 public:
  // Wakes `events` when it has ended.
  Download(EventQueue& events, int file, vex_upnp::streaming::HTTPVersion version);
  ~Download();
  Download(const Download&) = delete;
  Download& operator=(const Download&) = delete;

  enum class State {
    kRunning,
    // The whole resource has come.
    kComplete,
    // A range that was told has come, and the resource goes on behind it.
    kPartDone,
    // The answer was no success: see status.
    kRefused,
    // The file starts elsewhere than was asked for.
    kOtherRange,
    // The resource has another length than an earlier answer told: its parts do not fit together.
    kChanged,
    // The connection failed or ended early.
    kBrokenOff,
    // What came is no HTTP.
    kNoHttp,
    // The file took no more: see error.
    kNotStored
  };
  struct Progress {
    State state = State::kRunning;
    // 0 before the answer.
    unsigned status = 0;
    // Bytes in the file, those from before included.
    long long done = 0;
    // Of the whole resource, when it was told.
    std::optional<long long> total;
    std::string location;
    int error = 0;
  };

  // Asks for what lies behind `offset`; a server that sends the whole instead is taken from its
  // start if `may_restart`. What one answer tells of the length of the whole must hold for those of
  // the next starts. Throws Failure when it cannot start.
  void Start(const HttpUrl& url, long long offset, bool may_restart);
  void Stop();
  Progress progress();

 private:
  using ResHeaderInfo = vex_upnp::streaming::ResHeaderInfo;

  static void OnStatus(int handler, int client, int code);
  static void OnResponse(int handler, int client, ResHeaderInfo* response, void* body,
                         unsigned int length, bool final);
  static void OnData(int handler, int client, void* data, unsigned int length, bool final);
  static void OnWritten(int, int, unsigned int) {}

  void TakeResponse(const ResHeaderInfo& response);
  void TakePartial(const ResHeaderInfo& response);
  bool TakeLength(long long length);
  State WhatHasCome() const;
  bool CutFile(long long size);
  void TakeBytes(const void* bytes, unsigned int length, bool final);
  void End(State state);
  bool StoreAll(const char* bytes, std::size_t length);

  static Download* current_;
  EventQueue& events_;
  const int file_;
  const vex_upnp::streaming::HTTPVersion version_;
  std::mutex mutex_;
  Progress progress_;
  long long offset_ = 0;
  bool may_restart_ = false;
  // Of the whole resource, as the answers of all starts tell it.
  std::optional<long long> length_;
  // Where the range ends that is coming, when one is.
  std::optional<long long> range_end_;
  // 0 while there is none.
  int client_ = 0;
};

}  // namespace vexcp

#endif  // VEXCP_DOWNLOAD_H_

#include <algorithm>
#include <chrono>
#include <cstdio>

#include "behaviour.h"
#include "text.h"
#include "upnp_errors.h"

namespace vexsim {

namespace {

using std::chrono::seconds;

constexpr seconds kTrackLength{180};

std::string TimeText(seconds time) {
  constexpr int kMinute = 60, kHour = 3600;
  const int total = static_cast<int>(time.count());
  char text[16];
  std::snprintf(text, sizeof(text), "%02d:%02d:%02d", total / kHour, total % kHour / kMinute,
                total % kMinute);
  return text;
}

std::optional<seconds> ParseTime(const std::string& text) {
  int hours = 0, minutes = 0, rest = 0;
  char behind = 0;
  if (std::sscanf(text.c_str(), "%d:%2d:%2d%c", &hours, &minutes, &rest, &behind) != 3)
    return std::nullopt;
  return seconds(hours * 3600 + minutes * 60 + rest);
}

// Where a renderer stands in its track. The state variable RelativeTimePosition holds the place at
// which the clock was last started or stopped.
class Playback {
 public:
  static seconds Position(const ActionCall& call) {
    seconds position = ParseTime(call.state.Get("RelativeTimePosition")).value_or(seconds(0));
    if (call.state.Get("TransportState") == "PLAYING")
      position += std::chrono::duration_cast<seconds>(Clock::now() - call.state.mark);
    return std::min(position, kTrackLength);
  }

  static void MoveTo(ActionCall& call, seconds position) {
    call.state.Set("RelativeTimePosition", TimeText(position));
    call.state.mark = Clock::now();
  }
};

bool HasMedia(const ActionCall& call) {
  return call.state.Get("TransportState") != "NO_MEDIA_PRESENT";
}

int SetUri(ActionCall& call) {
  const std::string uri = call.request.Argument("CurrentURI");
  Playback::MoveTo(call, seconds(0));
  call.state.Set("CurrentTrackURI", uri);
  call.state.Set("CurrentTrackMetaData", call.request.Argument("CurrentURIMetaData"));
  call.state.Set("NumberOfTracks", uri.empty() ? "0" : "1");
  call.state.Set("CurrentTrack", uri.empty() ? "0" : "1");
  const std::string length = TimeText(uri.empty() ? seconds(0) : kTrackLength);
  call.state.Set("CurrentTrackDuration", length);
  call.state.Set("CurrentMediaDuration", length);
  if (uri.empty()) {
    call.state.Set("TransportState", "NO_MEDIA_PRESENT");
  } else if (call.state.Get("TransportState") != "PLAYING") {
    call.state.Set("TransportState", "STOPPED");
  }
  return 0;
}

int Play(ActionCall& call) {
  if (!HasMedia(call)) return kTransitionNotAvailable;
  Playback::MoveTo(call, Playback::Position(call));
  call.state.Set("TransportState", "PLAYING");
  return 0;
}

int Pause(ActionCall& call) {
  if (call.state.Get("TransportState") != "PLAYING") return kTransitionNotAvailable;
  Playback::MoveTo(call, Playback::Position(call));
  call.state.Set("TransportState", "PAUSED_PLAYBACK");
  return 0;
}

int Stop(ActionCall& call) {
  if (!HasMedia(call)) return kTransitionNotAvailable;
  Playback::MoveTo(call, seconds(0));
  call.state.Set("TransportState", "STOPPED");
  return 0;
}

int Seek(ActionCall& call) {
  if (!HasMedia(call)) return kTransitionNotAvailable;
  const std::string target = call.request.Argument("Target");
  if (call.request.Argument("Unit") == "TRACK_NR") return target == "1" ? 0 : kIllegalSeekTarget;
  const std::optional<seconds> time = ParseTime(target);
  if (!time || *time > kTrackLength) return kIllegalSeekTarget;
  Playback::MoveTo(call, *time);
  return 0;
}

int GetPositionInfo(ActionCall& call) {
  call.results["RelTime"] = call.results["AbsTime"] = TimeText(Playback::Position(call));
  return 0;
}

int SelectPreset(ActionCall& call) {
  for (const char* name : {"Brightness", "Contrast", "Mute", "Volume", "VolumeDB", "Loudness"})
    call.state.Set(name, call.state.model().Variable(name)->initial);
  return 0;
}

int GetVolumeDbRange(ActionCall& call) {
  const VariableModel* variable = call.state.model().Variable("VolumeDB");
  call.results["MinValue"] = variable->minimum;
  call.results["MaxValue"] = variable->maximum;
  return 0;
}

// There is one instance, and its number is 0.
Behaviour OnInstance(int error, Behaviour behaviour) {
  return [error, behaviour = std::move(behaviour)](ActionCall& call) {
    if (call.request.Argument("InstanceID") != "0") return error;
    return behaviour ? behaviour(call) : 0;
  };
}

int GetCurrentConnectionInfo(ActionCall& call) {
  if (call.request.Argument("ConnectionID") != "0") return kInvalidConnection;
  call.results["PeerConnectionID"] = "-1";
  return 0;
}

}  // namespace

void AddRendererBehaviours(Behaviours& behaviours) {
  const Behaviours transport{{"SetAVTransportURI", SetUri},
                             {"SetNextAVTransportURI", nullptr},
                             {"GetMediaInfo", nullptr},
                             {"GetTransportInfo", nullptr},
                             {"GetPositionInfo", GetPositionInfo},
                             {"GetDeviceCapabilities", nullptr},
                             {"GetTransportSettings", nullptr},
                             {"Stop", Stop},
                             {"Play", Play},
                             {"Pause", Pause},
                             {"Seek", Seek},
                             {"Next", [](ActionCall&) { return kIllegalSeekTarget; }},
                             {"Previous", [](ActionCall&) { return kIllegalSeekTarget; }},
                             {"SetPlayMode", nullptr},
                             {"GetCurrentTransportActions", nullptr}};
  for (const auto& [name, behaviour] : transport)
    behaviours["AVTransport." + name] = OnInstance(kTransportInvalidInstance, behaviour);
  for (const char* name : {"ListPresets", "GetBrightness", "SetBrightness", "GetContrast",
                           "SetContrast", "GetMute", "SetMute", "GetVolume", "SetVolume",
                           "GetVolumeDB", "SetVolumeDB", "GetLoudness", "SetLoudness"})
    behaviours[std::string("RenderingControl.") + name] =
        OnInstance(kRenderingInvalidInstance, nullptr);
  behaviours["RenderingControl.SelectPreset"] = OnInstance(kRenderingInvalidInstance, SelectPreset);
  behaviours["RenderingControl.GetVolumeDBRange"] =
      OnInstance(kRenderingInvalidInstance, GetVolumeDbRange);
  behaviours["ConnectionManager.GetCurrentConnectionInfo"] = GetCurrentConnectionInfo;
}

}  // namespace vexsim

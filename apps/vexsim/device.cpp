#include "device.h"

#include <cstdint>
#include <cstdio>

namespace vexsim {

namespace {

std::uint64_t Fnv1a(const std::string& text, std::uint64_t hash) {
  constexpr std::uint64_t kPrime = 1099511628211ULL;
  for (const char c : text) {
    hash ^= static_cast<unsigned char>(c);
    hash *= kPrime;
  }
  return hash;
}

// The same text gives the same identifier in every run.
std::string UuidFrom(const std::string& text) {
  const std::uint64_t high = Fnv1a(text, 14695981039346656037ULL);
  const std::uint64_t low = Fnv1a(text + "/", high);
  char out[40];
  std::snprintf(out, sizeof(out), "%08x-%04x-4%03x-8%03x-%012llx",
                static_cast<unsigned>(high >> 32), static_cast<unsigned>((high >> 16) & 0xFFFF),
                static_cast<unsigned>(high & 0xFFF), static_cast<unsigned>((low >> 48) & 0xFFF),
                static_cast<unsigned long long>(low & 0xFFFFFFFFFFFFULL));
  return out;
}

}  // namespace

Device::Device(unsigned id, std::shared_ptr<const DeviceFolder> folder, unsigned number,
               const std::string& seed)
    : id_(id), folder_(std::move(folder)) {
  values_.prefix = "/" + std::to_string(id);
  if (number > 0) values_.number = " " + std::to_string(number);
  for (std::size_t n = 0; n < folder_->devices.size(); ++n)
    values_.udns.push_back(UuidFrom(seed + "/" + folder_->name + "/" + std::to_string(number) +
                                    "/" + std::to_string(n)));
}

std::string Device::FriendlyName() const {
  return folder_->devices[0].friendly_name + values_.number;
}

std::string Device::Description(const std::string& authority) const {
  TemplateValues values = values_;
  values.base = "http://" + authority + values.prefix;
  return folder_->description.Render(values);
}

std::string Device::Location(const std::string& authority) const {
  return "http://" + authority + values_.prefix + "/" + kDescriptionPath;
}

std::string Device::TargetText(const Target& target) const {
  return target.text.empty() ? Udn(target.device) : target.text;
}

std::string Device::Usn(const Target& target, const std::string& text) const {
  const std::string udn = Udn(target.device);
  return target.text.empty() ? udn : udn + "::" + text;
}

}  // namespace vexsim

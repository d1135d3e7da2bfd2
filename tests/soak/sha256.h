#ifndef VEXUPNPCP_TESTS_SOAK_SHA256_H_
#define VEXUPNPCP_TESTS_SOAK_SHA256_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace soak {

// SHA-256 (FIPS 180-4) of bytes that come in pieces.
class Sha256 {
 public:
  void Add(const void* data, std::size_t size);
  // In hexadecimal digits; nothing may be added afterwards.
  std::string Finish();

 private:
  static constexpr std::size_t kBlock = 64;

  void TakeBlock(const unsigned char* block);

  std::array<std::uint32_t, 8> state_{0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                      0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
  std::array<unsigned char, kBlock> rest_{};
  std::size_t rest_size_ = 0;
  std::uint64_t size_ = 0;
};

}  // namespace soak

#endif  // VEXUPNPCP_TESTS_SOAK_SHA256_H_

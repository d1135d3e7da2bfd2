#include "sha256.h"

#include <algorithm>
#include <cstring>

namespace soak {

namespace {

constexpr std::array<std::uint32_t, 64> kRound{
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

std::uint32_t Turn(std::uint32_t word, unsigned bits) {
  return (word >> bits) | (word << (32U - bits));
}

}  // namespace

void Sha256::TakeBlock(const unsigned char* block) {
  std::array<std::uint32_t, 64> words{};
  for (std::size_t i = 0; i < 16; ++i) {
    words[i] = static_cast<std::uint32_t>(block[4 * i]) << 24U |
               static_cast<std::uint32_t>(block[4 * i + 1]) << 16U |
               static_cast<std::uint32_t>(block[4 * i + 2]) << 8U |
               static_cast<std::uint32_t>(block[4 * i + 3]);
  }
  for (std::size_t i = 16; i < words.size(); ++i) {
    const std::uint32_t a = words[i - 15], b = words[i - 2];
    words[i] = words[i - 16] + (Turn(a, 7) ^ Turn(a, 18) ^ a >> 3U) + words[i - 7] +
               (Turn(b, 17) ^ Turn(b, 19) ^ b >> 10U);
  }
  std::array<std::uint32_t, 8> s = state_;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::uint32_t one = s[7] + (Turn(s[4], 6) ^ Turn(s[4], 11) ^ Turn(s[4], 25)) +
                              ((s[4] & s[5]) ^ (~s[4] & s[6])) + kRound[i] + words[i];
    const std::uint32_t two = (Turn(s[0], 2) ^ Turn(s[0], 13) ^ Turn(s[0], 22)) +
                              ((s[0] & s[1]) ^ (s[0] & s[2]) ^ (s[1] & s[2]));
    std::copy_backward(s.begin(), s.end() - 1, s.end());
    s[4] += one;
    s[0] = one + two;
  }
  for (std::size_t i = 0; i < s.size(); ++i) state_[i] += s[i];
}

void Sha256::Add(const void* data, std::size_t size) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  size_ += size;
  while (size > 0) {
    const std::size_t part = std::min(kBlock - rest_size_, size);
    std::memcpy(rest_.data() + rest_size_, bytes, part);
    rest_size_ += part;
    bytes += part;
    size -= part;
    if (rest_size_ < kBlock) return;
    TakeBlock(rest_.data());
    rest_size_ = 0;
  }
}

std::string Sha256::Finish() {
  const std::uint64_t bits = size_ * 8;
  const unsigned char end = 0x80, zero = 0;
  Add(&end, 1);
  while (rest_size_ != kBlock - 8) Add(&zero, 1);
  std::array<unsigned char, 8> length{};
  for (std::size_t i = 0; i < length.size(); ++i)
    length[i] = static_cast<unsigned char>(bits >> (56 - 8 * i));
  Add(length.data(), length.size());
  std::string text;
  for (const std::uint32_t word : state_)
    for (int shift = 28; shift >= 0; shift -= 4) text += "0123456789abcdef"[word >> shift & 15U];
  return text;
}

}  // namespace soak

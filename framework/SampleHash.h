// Random values per sample that no thread order can change: a hash of the
// seed and the sample's coordinates, never a generator whose state runs
// from one sample to the next.
#pragma once

#include <cstdint>

namespace Orogen {

// Seeds of independent streams: a device that needs a second or third value
// per sample hashes with the seed xor one of these.
constexpr uint32_t kSecondStream = 0x68E31DA4u;
constexpr uint32_t kThirdStream = 0x2545F491u;

// All arithmetic modulo 2^32.
inline uint32_t SampleHash(uint32_t seed, uint32_t x, uint32_t y) {
    uint32_t h = seed * 0x9E3779B1u ^ x * 0x85EBCA77u ^ y * 0xC2B2AE3Du;
    h ^= h >> 15;
    h *= 0x2C1B3C6Du;
    h ^= h >> 12;
    h *= 0x297A2D39u;
    h ^= h >> 15;
    return h;
}

// Uniform in 0 <= u < 1: the hash's top 24 bits, exact in a float.
inline float SampleUniform(uint32_t seed, uint32_t x, uint32_t y) {
    return static_cast<float>(SampleHash(seed, x, y) >> 8) * 0x1p-24f;
}

}  // namespace Orogen

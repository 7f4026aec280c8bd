/* The campaign's own random numbers: the same seed draws the same numbers
 * on every machine and with every standard library (no <random>
 * distributions, whose mappings differ between libraries). */
#ifndef ZNPDK_SIM_TOOL_CAMPAIGN_RANDOM_H
#define ZNPDK_SIM_TOOL_CAMPAIGN_RANDOM_H

#include <cstdint>
#include <string>
#include <vector>

namespace zcmd {

/* One step of splitmix64: a well-mixed word from any seed, also 0. */
inline uint64_t splitmix64(uint64_t& state)
{
    uint64_t z = (state += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

/* xoshiro256**, seeded through splitmix64. */
class Rng {
  public:
    explicit Rng(uint64_t seed)
    {
        for (uint64_t& w : s_) {
            w = splitmix64(seed);
        }
    }

    uint64_t next()
    {
        const uint64_t result = rotl(s_[1] * 5, 7) * 9;
        const uint64_t t = s_[1] << 17;
        s_[2] ^= s_[0];
        s_[3] ^= s_[1];
        s_[1] ^= s_[2];
        s_[0] ^= s_[3];
        s_[2] ^= t;
        s_[3] = rotl(s_[3], 45);
        return result;
    }

    /* 0 to n - 1, without bias (n > 0): draws again below the largest
     * multiple of n. */
    uint64_t below(uint64_t n)
    {
        const uint64_t limit = UINT64_MAX - UINT64_MAX % n;
        uint64_t v = next();
        while (v >= limit) {
            v = next();
        }
        return v % n;
    }

    /* lo to hi, both included. */
    int64_t range(int64_t lo, int64_t hi)
    {
        return lo + static_cast<int64_t>(below(static_cast<uint64_t>(hi - lo) + 1));
    }

    /* True `per_mille` times in a thousand. */
    bool chance(int per_mille) { return static_cast<int>(below(1000)) < per_mille; }

    template <typename T> const T& pick(const std::vector<T>& v) { return v[below(v.size())]; }

    /* An index drawn by weight; -1 when every weight is 0. */
    int weighted(const std::vector<uint32_t>& weights)
    {
        uint64_t total = 0;
        for (uint32_t w : weights) {
            total += w;
        }
        if (total == 0) {
            return -1;
        }
        uint64_t r = below(total);
        for (size_t i = 0; i < weights.size(); ++i) {
            if (r < weights[i]) {
                return static_cast<int>(i);
            }
            r -= weights[i];
        }
        return -1;
    }

  private:
    static uint64_t rotl(uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }
    uint64_t s_[4];
};

/* The seed of run `run` of a campaign seeded `seed`. */
inline uint64_t run_seed(uint64_t seed, uint64_t run)
{
    uint64_t a = seed;
    uint64_t b = splitmix64(a) ^ run;
    return splitmix64(b);
}

/* FNV-1a, 64 bits. */
inline uint64_t fnv1a(const std::string& text)
{
    uint64_t h = 0xCBF29CE484222325ull;
    for (unsigned char c : text) {
        h = (h ^ c) * 0x100000001B3ull;
    }
    return h;
}

} // namespace zcmd

#endif

// random.cpp - the host's random numbers: xoshiro256** (Blackman and Vigna)
// seeded through splitmix64, standard normals by the Marsaglia polar method.
// Integer arithmetic and IEEE doubles only, so a seed gives the same draws on
// every machine.
#include <cmath>
#include <cstdint>

#include "host_internal.h"

namespace zu {
namespace {

constexpr std::uint64_t kDefaultSeed = 0x7E55E1u;

struct Generator {
    std::uint64_t s[4];
    bool has_spare;
    double spare;
};

std::uint64_t splitmix64(std::uint64_t &x) {
    std::uint64_t z = (x += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

std::uint64_t rotl(std::uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }

void seed_generator(Generator &g, std::uint64_t seed) {
    std::uint64_t x = seed;
    for (auto &w : g.s) w = splitmix64(x);
    g.has_spare = false;
    g.spare = 0.0;
}

Generator &generator() {
    static Generator g = [] {
        Generator init{};
        seed_generator(init, kDefaultSeed);
        return init;
    }();
    return g;
}

std::uint64_t next_u64(Generator &g) {
    std::uint64_t *s = g.s;
    const std::uint64_t result = rotl(s[1] * 5, 7) * 9;
    const std::uint64_t t = s[1] << 17;
    s[2] ^= s[0];
    s[3] ^= s[1];
    s[1] ^= s[2];
    s[0] ^= s[3];
    s[2] ^= t;
    s[3] = rotl(s[3], 45);
    return result;
}

// Uniform on (-1, 1) with 53-bit resolution.
double next_signed_unit(Generator &g) { return double(next_u64(g) >> 11) * 0x1.0p-52 - 1.0; }

}  // namespace

void set_seed(std::uint64_t seed) { seed_generator(generator(), seed); }

}  // namespace zu

extern "C" {

double DRanNormalPM(void) {
    zu::Generator &g = zu::generator();
    if (g.has_spare) {
        g.has_spare = false;
        return g.spare;
    }
    double u, v, s;
    do {
        u = zu::next_signed_unit(g);
        v = zu::next_signed_unit(g);
        s = u * u + v * v;
    } while (s >= 1.0 || s == 0.0);
    const double f = std::sqrt(-2.0 * std::log(s) / s);
    g.spare = v * f;
    g.has_spare = true;
    return u * f;
}

void MatRann(double **A, int rows, int cols) {
    for (int i = 0; i < rows; ++i)
        for (int j = 0; j < cols; ++j) A[i][j] = DRanNormalPM();
}

}  // extern "C"

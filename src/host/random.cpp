// random.cpp - the host's random numbers: xoshiro256** (Blackman and Vigna)
// seeded through splitmix64, standard normals by the Marsaglia polar method.
// Integer arithmetic and IEEE doubles only, so a seed gives the same draws on
// every machine.
//
// One generator is shared by the process (guarded by a mutex; seeded from the
// system's entropy until set_seed is called, so unseeded runs differ). A
// thread may draw from a generator of its own instead (zu::ThreadDraws): a
// call that seeds and draws that way cannot be interleaved by other threads.
#include <sys/random.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <mutex>

#include "host_internal.h"

namespace zu {
namespace {

std::uint64_t splitmix64(std::uint64_t &x) {
    std::uint64_t z = (x += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

std::uint64_t rotl(std::uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }

void seed_generator(GeneratorState &g, std::uint64_t seed) {
    std::uint64_t x = seed;
    for (auto &w : g.s) w = splitmix64(x);
    g.has_spare = false;
    g.spare = 0.0;
}

std::uint64_t entropy_seed() {
    std::uint64_t seed = 0;
    if (getrandom(&seed, sizeof seed, 0) == static_cast<ssize_t>(sizeof seed)) return seed;
    // No entropy source: the clock still makes processes differ.
    return static_cast<std::uint64_t>(
        std::chrono::high_resolution_clock::now().time_since_epoch().count());
}

struct Shared {
    std::mutex lock;
    GeneratorState g{};
    bool seeded = false;
};

// Never destroyed: a call abandoned by an interrupted caller may still draw
// while the process exits.
Shared &shared() {
    static Shared *s = new Shared;
    return *s;
}

// The generator of the current thread's ThreadDraws scope, if any.
thread_local GeneratorState *t_own = nullptr;

std::uint64_t next_u64(GeneratorState &g) {
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
double next_signed_unit(GeneratorState &g) { return double(next_u64(g) >> 11) * 0x1.0p-52 - 1.0; }

double normal(GeneratorState &g) {
    if (g.has_spare) {
        g.has_spare = false;
        return g.spare;
    }
    double u, v, s;
    do {
        u = next_signed_unit(g);
        v = next_signed_unit(g);
        s = u * u + v * v;
    } while (s >= 1.0 || s == 0.0);
    const double f = std::sqrt(-2.0 * std::log(s) / s);
    g.spare = v * f;
    g.has_spare = true;
    return u * f;
}

// The shared generator, locked and seeded.
class SharedDraws {
public:
    SharedDraws() : sh_(shared()), lock_(sh_.lock) {
        if (!sh_.seeded) {
            seed_generator(sh_.g, entropy_seed());
            sh_.seeded = true;
        }
    }
    GeneratorState &generator() { return sh_.g; }

private:
    Shared &sh_;
    std::lock_guard<std::mutex> lock_;
};

}  // namespace

void set_seed(std::uint64_t seed) {
    Shared &sh = shared();
    std::lock_guard<std::mutex> lock(sh.lock);
    seed_generator(sh.g, seed);
    sh.seeded = true;
}

ThreadDraws::ThreadDraws(std::uint64_t seed) : saved_(t_own) {
    seed_generator(own_, seed);
    t_own = &own_;
}

ThreadDraws::~ThreadDraws() { t_own = saved_; }

}  // namespace zu

extern "C" {

double DRanNormalPM(void) {
    if (zu::t_own) return zu::normal(*zu::t_own);
    zu::SharedDraws draws;
    return zu::normal(draws.generator());
}

void MatRann(double **A, int rows, int cols) {
    if (zu::t_own) {
        for (int i = 0; i < rows; ++i)
            for (int j = 0; j < cols; ++j) A[i][j] = zu::normal(*zu::t_own);
        return;
    }
    // One lock for the whole matrix: its draws are consecutive in the stream.
    zu::SharedDraws draws;
    for (int i = 0; i < rows; ++i)
        for (int j = 0; j < cols; ++j) A[i][j] = zu::normal(draws.generator());
}

}  // extern "C"

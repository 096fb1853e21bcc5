// bench_filter.cpp - the forward filters on the workloads a likelihood
// optimiser repeats: the single-series filter (local level, a basic
// structural model with a monthly seasonal) and the multivariate filter
// (N = 5 series, m = 10 states), with and without the filter store, and the
// LgmLik entry point called by name through the host.
#include <benchmark/benchmark.h>

#include <cmath>
#include <random>
#include <vector>

#include "tessel/host.hpp"
#include "tessel/tessel.h"

namespace {

// A MatAllocBlock matrix owned by the benchmark.
struct Mat {
    Mat(int r, int c) : p(MatAllocBlock(r, c > 0 ? c : 1)) {}
    ~Mat() { MatFreeBlock(p); }
    Mat(const Mat &) = delete;
    Mat &operator=(const Mat &) = delete;
    double *operator[](int i) const { return p[i]; }
    double **p;
};

// A fixed model with data: SysMat, VarMat (diagonal), y with a few gaps.
struct Workload {
    int m, N, n;
    Mat sys, var, y, W1, W2, store;
    Workload(int m_, int N_, int n_)
        : m(m_), N(N_), n(n_), sys(m_ + N_, m_), var(m_ + N_, m_ + N_), y(N_, n_),
          W1(m_ + N_ + 1, m_ + N_), W2(m_ + N_ + 2, m_ + N_),
          store(N_ + N_ * (N_ + 1) / 2 + m_ * N_, n_) {}
    void data(unsigned seed) {
        std::mt19937_64 rng(seed);
        std::normal_distribution<double> z;
        for (int i = 0; i < N; ++i) {
            double level = 0.0;
            for (int t = 0; t < n; ++t) {
                level += 0.3 * z(rng);
                y[i][t] = (t % 97 == 5) ? NAN : level + z(rng);
            }
        }
    }
};

// Local level: m = 1, N = 1.
Workload *local_level(int n) {
    auto *w = new Workload(1, 1, n);
    w->sys[0][0] = 1.0;
    w->sys[1][0] = 1.0;
    w->var[0][0] = 0.1;
    w->var[1][1] = 1.0;
    w->data(1);
    return w;
}

// Level + slope + dummy seasonal (12) + irregular: m = 13, N = 1.
Workload *structural(int n) {
    auto *w = new Workload(13, 1, n);
    double **T = w->sys.p;
    T[0][0] = T[0][1] = T[1][1] = 1.0;
    for (int j = 2; j < 13; ++j) T[2][j] = -1.0;
    for (int j = 3; j < 13; ++j) T[j][j - 1] = 1.0;
    T[13][0] = T[13][2] = 1.0;
    w->var[0][0] = 0.1;
    w->var[1][1] = 0.01;
    w->var[2][2] = 0.05;
    w->var[13][13] = 1.0;
    w->data(2);
    return w;
}

// N = 5 series loading on 10 states (a random stable transition).
Workload *multivariate(int n) {
    auto *w = new Workload(10, 5, n);
    std::mt19937_64 rng(3);
    std::uniform_real_distribution<double> u(-0.3, 0.3);
    for (int i = 0; i < 10; ++i) {
        w->sys[i][i] = 0.5;
        for (int j = 0; j < 10; ++j) w->sys[i][j] += 0.1 * u(rng);
    }
    for (int i = 0; i < 5; ++i)
        for (int j = 0; j < 10; ++j) w->sys[10 + i][j] = u(rng) + (j == 2 * i ? 1.0 : 0.0);
    for (int k = 0; k < 15; ++k) w->var[k][k] = k < 10 ? 0.5 : 1.0;
    w->data(4);
    return w;
}

void run(benchmark::State &state, Workload *w, bool with_store) {
    std::vector<double> mean(w->m + w->N, 0.0);
    double ld, ss;
    int cnt;
    for (auto _ : state) {
        int ok;
        if (w->N == 1)
            ok = fUnivKalmanFil(w->n, w->y[0], w->m, w->sys.p, w->var.p, mean.data(), nullptr,
                                nullptr, nullptr, nullptr, nullptr, w->W1.p, w->W2.p,
                                with_store ? w->store.p : nullptr, &ld, &ss, &cnt);
        else
            ok = fMultiKalmanFil(w->N, w->n, w->y.p, w->m, w->sys.p, w->var.p, mean.data(),
                                 nullptr, nullptr, nullptr, nullptr, nullptr, w->W1.p, w->W2.p,
                                 with_store ? w->store.p : nullptr, &ld, &ss, &cnt);
        benchmark::DoNotOptimize(ok);
        benchmark::DoNotOptimize(ld);
    }
    state.SetItemsProcessed(state.iterations() * w->n);
    delete w;
}

void BM_UnivLocalLevel(benchmark::State &s) { run(s, local_level(static_cast<int>(s.range(0))), s.range(1)); }
void BM_UnivStructural(benchmark::State &s) { run(s, structural(static_cast<int>(s.range(0))), s.range(1)); }
void BM_MultiN5m10(benchmark::State &s) { run(s, multivariate(static_cast<int>(s.range(0))), s.range(1)); }

BENCHMARK(BM_UnivLocalLevel)->Args({100000, 0})->Args({100000, 1})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_UnivStructural)->Args({10000, 0})->Args({10000, 1})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MultiN5m10)->Args({10000, 0})->Args({10000, 1})->Unit(benchmark::kMillisecond);

// The entry point by name: argument conversion, model check, work space
// and the filter, as a host program sees it.
void BM_LgmLikEntryPoint(benchmark::State &state) {
    const int n = static_cast<int>(state.range(0));
    std::mt19937_64 rng(5);
    std::normal_distribution<double> z;
    std::vector<double> y(n);
    double level = 0.0;
    for (int t = 0; t < n; ++t) {
        level += 0.3 * z(rng);
        y[t] = level + z(rng);
    }
    zu::Value ll, s2;
    std::vector<zu::Value> args;
    args.push_back(zu::Value::ref(ll));
    args.push_back(zu::Value::ref(s2));
    args.push_back(zu::Value::matrix(1, n, y));
    args.push_back(zu::Value::matrix(2, 1, {1.0, 1.0}));
    args.push_back(zu::Value::matrix(2, 2, {0.1, 0.0, 0.0, 1.0}));
    for (auto _ : state) {
        zu::Value r = zu::call("LgmLik", args);
        benchmark::DoNotOptimize(r.as_int());
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_LgmLikEntryPoint)->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();

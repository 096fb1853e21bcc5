// bench_filter.cpp - the forward filters on the workloads a likelihood
// optimiser repeats: the single-series filter (local level, a basic
// structural model with a monthly seasonal) and the multivariate filter
// (N = 5 series, m = 10 states), with and without the filter store, with the
// steady-state shortcut on and off; the host products the recursions spend
// their time in (SysMat P SysMat', SysMat' D SysMat, the inversion of F);
// and the entry points by name through the host (LgmLik, smoothed moments,
// a simulation smoother draw).
#include <benchmark/benchmark.h>

#include <cmath>
#include <random>
#include <vector>

#include "filter_step.h"
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
        : m(m_),
          N(N_),
          n(n_),
          sys(m_ + N_, m_),
          var(m_ + N_, m_ + N_),
          y(N_, n_),
          W1(m_ + N_ + 1, m_ + N_),
          W2(m_ + N_ + 2, m_ + N_),
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
            ok = fMultiKalmanFil(w->N, w->n, w->y.p, w->m, w->sys.p, w->var.p, mean.data(), nullptr,
                                 nullptr, nullptr, nullptr, nullptr, w->W1.p, w->W2.p,
                                 with_store ? w->store.p : nullptr, &ld, &ss, &cnt);
        benchmark::DoNotOptimize(ok);
        benchmark::DoNotOptimize(ld);
    }
    state.SetItemsProcessed(state.iterations() * w->n);
    delete w;
}

void BM_UnivLocalLevel(benchmark::State &s) {
    run(s, local_level(static_cast<int>(s.range(0))), s.range(1));
}
void BM_UnivStructural(benchmark::State &s) {
    run(s, structural(static_cast<int>(s.range(0))), s.range(1));
}
void BM_MultiN5m10(benchmark::State &s) {
    run(s, multivariate(static_cast<int>(s.range(0))), s.range(1));
}

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

// The filters with 1% of the values missing at random (so the steady state
// is rarely reached) against regular gaps every 97 steps, shortcut on/off.
void run_internal(benchmark::State &state, Workload *w, bool random_gaps, bool steady) {
    if (random_gaps) {
        std::mt19937_64 rng(9);
        std::uniform_real_distribution<double> u(0.0, 1.0);
        for (int i = 0; i < w->N; ++i)
            for (int t = 0; t < w->n; ++t) {
                if (std::isnan(w->y[i][t])) w->y[i][t] = 0.0;
                if (u(rng) < 0.01) w->y[i][t] = NAN;
            }
    }
    std::vector<double> mean(w->m + w->N, 0.0);
    double ld, ss;
    int cnt;
    long taken = 0;
    for (auto _ : state) {
        int ok;
        if (w->N == 1)
            ok = tessel::univ_kalman_filter(w->n, w->y[0], w->m, w->sys.p, w->var.p, mean.data(),
                                            nullptr, nullptr, nullptr, nullptr, nullptr, w->W1.p,
                                            w->W2.p, nullptr, &ld, &ss, &cnt, steady, &taken);
        else
            ok = tessel::multi_kalman_filter(w->N, w->n, w->y.p, w->m, w->sys.p, w->var.p,
                                             mean.data(), nullptr, nullptr, nullptr, nullptr,
                                             nullptr, w->W1.p, w->W2.p, nullptr, &ld, &ss, &cnt,
                                             steady, &taken);
        benchmark::DoNotOptimize(ok);
        benchmark::DoNotOptimize(ld);
    }
    state.SetItemsProcessed(state.iterations() * w->n);
    state.counters["steady_share"] = double(taken) / double(state.iterations()) / w->n;
    delete w;
}

// Args: n, random gaps (0/1), steady-state shortcut (0/1).
void BM_FilterLocalLevel(benchmark::State &s) {
    run_internal(s, local_level(static_cast<int>(s.range(0))), s.range(1), s.range(2));
}
void BM_FilterStructural(benchmark::State &s) {
    run_internal(s, structural(static_cast<int>(s.range(0))), s.range(1), s.range(2));
}
void BM_FilterN5m10(benchmark::State &s) {
    run_internal(s, multivariate(static_cast<int>(s.range(0))), s.range(1), s.range(2));
}
BENCHMARK(BM_FilterLocalLevel)
    ->Args({100000, 0, 0})
    ->Args({100000, 0, 1})
    ->Args({100000, 1, 1})
    ->Args({1000, 1, 1})
    ->Args({10000000, 1, 1})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FilterStructural)->Args({10000, 1, 1})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FilterN5m10)
    ->Args({10000, 0, 0})
    ->Args({10000, 0, 1})
    ->Args({10000, 1, 1})
    ->Unit(benchmark::kMillisecond);

// The host products on the shapes of the recursions: the structural
// SysMat (14 x 13, mostly zeros and ones) and a dense one (15 x 10).
struct Products {
    Mat B, S, R;
    int rows, cols;
    Products(Workload *w)
        : B(w->m + w->N, w->m),
          S(w->m + w->N, w->m + w->N),
          R(w->m + w->N, w->m + w->N),
          rows(w->m + w->N),
          cols(w->m) {
        for (int i = 0; i < rows; ++i)
            for (int j = 0; j < cols; ++j) B[i][j] = w->sys[i][j];
        for (int i = 0; i < rows; ++i)
            for (int j = 0; j < rows; ++j) S[i][j] = (i == j ? rows : 0.0) + 1.0 / (1.0 + i + j);
        delete w;
    }
};
void BM_MatBSBt(benchmark::State &state) {
    Products p(state.range(0) ? structural(1) : multivariate(1));
    for (auto _ : state) {
        MatBSBt(p.B.p, p.rows, p.S.p, p.cols, p.R.p);
        benchmark::DoNotOptimize(p.R[0][0]);
    }
}
void BM_MatBtSB(benchmark::State &state) {
    Products p(state.range(0) ? structural(1) : multivariate(1));
    for (auto _ : state) {
        MatBtSB(p.B.p, p.rows, p.S.p, p.cols, p.R.p);
        benchmark::DoNotOptimize(p.R[0][0]);
    }
}
// Pbar = SysMat P SysMat' + VarMat through the filters' pattern.
void BM_StepJointVariance(benchmark::State &state) {
    Workload *w = state.range(0) ? structural(1) : multivariate(1);
    const int m = w->m, mN = w->m + w->N;
    tessel::StepFrame frame;
    tessel::build_pattern(frame, w->sys.p, nullptr, mN, m, w->var.p, nullptr);
    Mat W(mN + 1, mN), P(m, m);
    for (int i = 0; i < m; ++i)
        for (int j = 0; j < m; ++j) P[i][j] = (i == j ? m : 0.0) + 1.0 / (1.0 + i + j);
    for (auto _ : state) {
        for (int i = 0; i < m; ++i)
            for (int j = 0; j < m; ++j) W[i][j] = P[i][j];
        tessel::step_joint_variance(frame, w->sys.p, W.p, w->var.p, W.p);
        benchmark::DoNotOptimize(W[0][0]);
    }
    delete w;
}
void BM_IInvDet5(benchmark::State &state) {
    Mat A(5, 5), F(5, 5);
    for (int i = 0; i < 5; ++i)
        for (int j = 0; j < 5; ++j) F[i][j] = (i == j ? 5.0 : 0.0) + 1.0 / (1.0 + i + j);
    double ld;
    int sign;
    for (auto _ : state) {
        for (int i = 0; i < 5; ++i)
            for (int j = 0; j < 5; ++j) A[i][j] = F[i][j];
        IInvDet(A.p, 5, &ld, &sign);
        benchmark::DoNotOptimize(ld);
    }
}
// Arg: 1 structural (14 x 13, sparse), 0 dense (15 x 10).
BENCHMARK(BM_MatBSBt)->Arg(1)->Arg(0);
BENCHMARK(BM_MatBtSB)->Arg(1)->Arg(0);
BENCHMARK(BM_StepJointVariance)->Arg(1)->Arg(0);
BENCHMARK(BM_IInvDet5);

// Smoothed moments and a simulation smoother draw by name (n = 10000).
std::vector<zu::Value> model_args(Workload *w) {
    const int m = w->m, N = w->N, mN = m + N;
    std::vector<double> y, sys, var;
    for (int i = 0; i < N; ++i)
        for (int t = 0; t < w->n; ++t) y.push_back(std::isnan(w->y[i][t]) ? 0.0 : w->y[i][t]);
    for (int i = 0; i < mN; ++i)
        for (int j = 0; j < m; ++j) sys.push_back(w->sys[i][j]);
    for (int i = 0; i < mN; ++i)
        for (int j = 0; j < mN; ++j) var.push_back(w->var[i][j]);
    std::vector<zu::Value> args;
    args.push_back(zu::Value::matrix(N, w->n, y));
    args.push_back(zu::Value::matrix(mN, m, sys));
    args.push_back(zu::Value::matrix(mN, mN, var));
    delete w;
    return args;
}
void BM_LgmMomentEstSmoothed(benchmark::State &state) {
    std::vector<zu::Value> model =
        model_args(state.range(0) ? structural(10000) : multivariate(10000));
    zu::Value moments;
    std::vector<zu::Value> args;
    args.push_back(zu::Value::integer(1));
    args.push_back(zu::Value::ref(moments));
    for (auto &v : model) args.push_back(v);
    for (auto _ : state) {
        zu::Value r = zu::call("LgmMomentEst", args);
        benchmark::DoNotOptimize(r);
    }
    state.SetItemsProcessed(state.iterations() * 10000);
}
void BM_LgmCondDensDraw(benchmark::State &state) {
    std::vector<zu::Value> model = model_args(structural(10000));
    std::vector<zu::Value> args;
    args.push_back(zu::Value::integer(2));
    for (auto &v : model) args.push_back(v);
    for (auto _ : state) {
        zu::Value r = zu::call("LgmCondDens", args);
        benchmark::DoNotOptimize(r);
    }
    state.SetItemsProcessed(state.iterations() * 10000);
}
// Arg: 1 structural, 0 N = 5, m = 10.
BENCHMARK(BM_LgmMomentEstSmoothed)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LgmCondDensDraw)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();

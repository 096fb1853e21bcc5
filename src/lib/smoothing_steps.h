// smoothing_steps.h - the pieces of one step of the backward smoothing
// recursion, shared by the Kalman smoother, the disturbance smoother and the
// state smoother (implemented in kalman_smoother.cpp).
//
// Work matrices (both (m+N+1) x (m+N)):
//   W1: top-left m x m block N(t); last row r(t) (columns 0..m-1) and the
//       innovations (columns m..m+N-1); multivariate: column m+i rows
//       0..m+i hold the store group of series i (gain column, then the upper
//       triangle of column i of F^-1); univariate: row m holds the gain
//       (columns 0..m-1) and F^-1 (column m).
//   W2: top block D~(t), last row u~(t) = (r(t); u(t)).
#ifndef TESSEL_LIB_SMOOTHING_STEPS_H
#define TESSEL_LIB_SMOOTHING_STEPS_H

namespace tessel {

// Loads store column t (when store is given) and forms u~(t) in W2's last
// row and D~(t) in W2's top block. A NaN innovation zeroes its gain and
// inverse-variance column but is multiplied as it stands.
void multi_form_u_D(int N, int m, int t, double **W1, double **W2, double **store);
// Single-series form: a NaN innovation gives u(t) = 0 and a zero gain.
// Without a store, the innovation, gain and F^-1 that W1 holds are used.
void univ_form_u_D(int m, int t, double **W1, double **W2, double **store);

// r(t-1) = SysMat' u~(t) into W1's last row and N(t-1) = SysMat' D~(t)
// SysMat into W1's top-left block.
void smooth_advance(int m, int mN, double **sys, double **W1, double **W2);

}  // namespace tessel

#endif  // TESSEL_LIB_SMOOTHING_STEPS_H

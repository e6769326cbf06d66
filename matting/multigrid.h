// Aggregation multigrid for the matting system, the preconditioner of the conjugate gradient solver.
//
// The matting Laplacian gives low energy to any alpha that is locally an affine function of the colour,
// alpha = b + a . colour, noise and texture included; those are the errors an iteration is slow to
// remove, and a grid of smooth interpolants cannot represent them. So each coarse unknown is one of
// the four coefficients (b, a_red, a_green, a_blue) of such a model on a block of pixels: the first
// coarse level models blocks of 4 x 4 pixels (more for wide windows), each further level merges 2 x 2
// blocks, and every coarse matrix is the Galerkin product P^T A P, which keeps the model exact and the
// colour edges in place. The first level's functions are smoothed by one Jacobi step with A, reach one
// pixel past their block and are corrected to still sum to the colour model: a coarse correction then
// no longer jumps at block edges, which halves the iterations, while coarse nodes still couple only to
// their eight neighbours. One application is a cycle: forward Gauss-Seidel, the coarse correction,
// backward Gauss-Seidel; on the coarse levels the correction is itself two flexible conjugate gradient
// steps preconditioned by the next level (a K-cycle), which keeps the iteration count from growing with
// the number of levels. The coarsest level is factored by banded Cholesky. Everything here only steers
// the iteration, so it works in single precision where that halves the bytes read: the fine sweeps use
// a rounded copy of A, and the coarse levels are single precision throughout. Pixels whose row has no
// neighbour are left out of every pass (PixelRuns).
#pragma once

#include <memory>
#include <vector>

#include "matting/block_grid.h"
#include "matting/grid_matrix.h"

struct MultigridLevel;

struct Multigrid {
    const GridMatrix *A = nullptr;  // the fine matrix (referenced)
    int aggregate = 0;              // side of a first-level pixel block, 0 when none
    GridStencils smoother;          // A in reduced precision for the fine sweeps
    PixelRuns runs;                 // pixels coupled to others, the only ones swept
    std::vector<char> active_block; // first-level blocks holding such a pixel
    std::vector<double> inv_diag;   // fine Gauss-Seidel
    std::vector<float> transfer;    // [aggregate][box column][box row][4]: P(p, coarse unknown) on the box
                                    // of pixels each first-level aggregate reaches
    std::vector<double> residual;   // fine work vector
    std::vector<std::unique_ptr<MultigridLevel>> levels; // coarse levels, finest first
    BlockFactor coarsest; // factor of the last coarse level, or of A itself when there is none
    std::vector<double> coarse_work;
    Multigrid();
    ~Multigrid();
};

// buildMultigrid: sets up the levels for A.
//   A         input: symmetric, positive definite on the pixels it couples; referenced, not copied,
//             so it must outlive mg unchanged
//   colour    input: `channels` planes of n values each, pixel order of A, values in [0, 1]: the image
//             the matrix was built from. May be null (channels 0): the coarse model is then the
//             constant alone, which works for any grid matrix but converges more slowly
//   channels  input: 0 to 3
//   mg        output
// Pixels whose diagonal is not positive (rows the system does not use) are left at 0 by every part of
// the cycle. Allocation failure throws std::bad_alloc.
void buildMultigrid(const GridMatrix *A, const float *colour, int channels, Multigrid *mg);

// applyMultigrid: z = M r, one cycle from a zero start; M is symmetric positive definite on the fine
// level, but the K-cycle makes it vary slightly from call to call, so use flexible conjugate gradients.
//   mg  modified: work vectors, so one caller at a time
//   r   input: n values
//   z   output: n values, must not overlap r
//   az  output, when not null: A z on the pixels the cycle works on (all pixels when A has no coarse
//       levels), formed during the cycle's last sweep; the other entries are not written
void applyMultigrid(Multigrid *mg, const double *r, double *z, double *az = nullptr);

// multigridColourModel: what the first coarse level's transfer makes of one of its candidates, the
// colour model's functions in the coarse unknowns. Where A's rows couple the pixel to others that is
// the function itself smoothed by one Jacobi step with A, (I - D^-1 A) (phi on the coupled pixels),
// with phi = 1 (candidate 0) or colour channel candidate - 1: phi wherever A gives phi no energy. For
// windows so wide that the transfer is not smoothed (reach above 2), phi itself. 0 on the other pixels,
// and everywhere when there is no coarse level.
//   alpha  output: n values
void multigridColourModel(const Multigrid *mg, int candidate, double *alpha);

// multigridLevelCount: number of levels, the fine one included.
int multigridLevelCount(const Multigrid *mg);

// multigridBytes: memory held by the levels (matrices, basis and work vectors), excluding A.
size_t multigridBytes(const Multigrid *mg);

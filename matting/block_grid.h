// Store and kernels for the coarse levels of the multigrid preconditioner: a symmetric matrix on a grid
// of nodes, each node carrying kBlockDofs unknowns (the coefficients of the local colour model
// alpha = b + a . colour), coupled only to its eight neighbouring nodes. The matrix is kept as 4 x 4
// blocks in single precision (a coarse level only has to steer the fine iteration): for every node its
// diagonal block and the blocks towards its four neighbours that come after it; the blocks towards the
// other four are the transposes of theirs. Half the bytes of the full block rows, which is what a pass
// over a large level costs.
//
// Nodes are numbered column-major, a = row + column * height; unknown d of node a has index
// a * kBlockDofs + d. Vectors on a level are BlockVectors: zero margins before and after the nodes let
// the kernels read the neighbours of border nodes without tests (the blocks towards them are zero).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

constexpr int kBlockDofs = 4;
constexpr int kBlockSize = kBlockDofs * kBlockDofs;
// Neighbour (drow, dcol) in {-1, 0, 1}^2 has slot (drow + 1) + 3 (dcol + 1); the node itself is slot 4,
// slots 5 to 8 are the neighbours after it in the node order (stored), slots 0 to 3 those before it
// (slot s is the transpose of the neighbour's slot 8 - s).
constexpr int kBlockSlots = 9;
constexpr int kCentreSlot = 4;
constexpr int kStoredSlots = 5; // slots 4 .. 8

struct BlockGrid {
    int height = 0, width = 0; // node grid
    // [node][slot - 4][column][row]: block K(a, neighbour) for slots 4 .. 8, stored by columns. Blocks
    // towards neighbours outside the grid stay zero.
    std::vector<float> blocks;
    std::vector<float> inverse; // [node][column][row] pseudo-inverse of the diagonal block
};

// A vector of unknowns on a node grid, in single precision like the blocks, with a zero margin of
// height + 1 nodes on both sides.
struct BlockVector {
    std::vector<float> storage;
    int64_t margin = 0; // unknowns before the first one of node 0
    int64_t size = 0;   // unknowns, nodes * kBlockDofs
    float *data() { return storage.data() + margin; }
    const float *data() const { return storage.data() + margin; }
};

// initBlockGrid: all-zero matrix on a height x width node grid (inverse left empty).
// Allocation failure throws std::bad_alloc.
void initBlockGrid(BlockGrid *K, int height, int width);

// blockNodes: height * width.
int64_t blockNodes(const BlockGrid *K);

// blockAt: block K(a, neighbour at slot), column-major, for a stored slot (4 .. 8).
inline float *blockAt(BlockGrid *K, int64_t a, int slot) {
    return K->blocks.data() + (size_t(a) * kStoredSlots + slot - kCentreSlot) * kBlockSize;
}
inline const float *blockAt(const BlockGrid *K, int64_t a, int slot) {
    return K->blocks.data() + (size_t(a) * kStoredSlots + slot - kCentreSlot) * kBlockSize;
}

// initBlockVector: zero vector for the nodes of K, with its margins.
void initBlockVector(BlockVector *v, const BlockGrid *K);

// invertBlockDiagonal: fills K->inverse. A diagonal block that is only semi-definite (an unknown the
// level does not use, or a colour direction a flat patch does not have) is inverted on the unknowns
// whose Cholesky pivots are clearly positive; the others get zero rows and columns, so they stay 0.
void invertBlockDiagonal(BlockGrid *K);

// multiplyBlockGrid: y = K x, on both cores for large grids. x and y must not overlap.
void multiplyBlockGrid(const BlockGrid *K, const BlockVector *x, BlockVector *y);

// residualBlockGrid: r = b - K x.
void residualBlockGrid(const BlockGrid *K, const BlockVector *b, const BlockVector *x, BlockVector *r);

// sweepBlockGrid: one block Gauss-Seidel sweep for K x = b, forward or backward; the backward sweep
// visits the nodes in exactly the reverse order of the forward one, so a forward sweep before and a
// backward sweep after a coarse correction make a symmetric cycle. Requires invertBlockDiagonal.
void sweepBlockGrid(const BlockGrid *K, const BlockVector *b, BlockVector *x, bool forward);

// sweepBlockGridWithResidual: the forward sweep from x = 0, and the residual r = b - K x it leaves,
// formed in the same pass. x and r are outputs.
void sweepBlockGridWithResidual(const BlockGrid *K, const BlockVector *b, BlockVector *x, BlockVector *r);

// BlockFactor: banded Cholesky factor of a small symmetric matrix, for the coarsest level.
struct BlockFactor {
    int64_t n = 0;             // unknowns
    int bandwidth = 0;         // in unknowns
    std::vector<double> lower; // row i holds L(i, i - d) at [i * (bandwidth + 1) + d]
    std::vector<char> dropped; // unknowns without a positive pivot, solved as 0
};

// factorBlockGrid: the factor of K. Cost n * bandwidth^2 with bandwidth about 4 * (height + 2).
void factorBlockGrid(const BlockGrid *K, BlockFactor *F);

// factorBanded: factors in place a matrix whose lower band F->lower was filled with A(i, i - d) (n and
// bandwidth set). scale[i] is the size of A(i, i), the reference of the pivot test: a pivot that is not
// clearly positive drops its unknown.
void factorBanded(BlockFactor *F, const std::vector<double> &scale);

// solveBlockFactor: x = A^-1 b on the unknowns that were not dropped, 0 on the others. b and x may be
// the same array.
void solveBlockFactor(const BlockFactor *F, const double *b, double *x);

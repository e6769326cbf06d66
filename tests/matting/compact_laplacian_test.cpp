// The compact assembly of the constrained matting system against the sparse store's (getLaplacian1 and
// solveAlpha's constraint step, as assembleAlphaSystem hands them to UMFPACK), element by element.
#include <gtest/gtest.h>

#include "matting/alpha_solve.h"
#include "matting/compact_laplacian.h"
#include "engine_fixtures.h"

namespace {

void expectSameSystem(const TIFF_img &img, int radius, double epsilon) {
    const int H = img.height, W = img.width;
    const int64_t n = int64_t(W) * H;
    // A solid block of constrained pixels (so some windows are skipped) and scattered single ones, with
    // values 1 on the left half and 0 on the right, and a non-binary weight here and there.
    double **map = make_map(H, W, 0.0), **values = make_map(H, W, 0.0);
    for (int i = 0; i < H; i++)
        for (int j = 0; j < W; j++)
            if ((i < H / 2 && j < W / 3) || noise(977u * i + 13u * j) < 40) {
                map[i][j] = (i + j) % 7 == 0 ? 0.5 : 1.0;
                values[i][j] = j < W / 2 ? 1.0 : 0.0;
            }
    cholmod_common common;
    cholmod_start(&common);
    cholmod_dense *rhs = nullptr;
    cholmod_sparse *S = assembleAlphaSystem(&img, map, values, radius, epsilon, &rhs, &common);
    ASSERT_NE(S, nullptr);
    GridSystem sys;
    std::string message;
    ASSERT_EQ(getCompactMattingSystem(&img, map, values, radius, epsilon, &sys, &message), 0) << message;

    const int *Sp = static_cast<const int *>(S->p), *Si = static_cast<const int *>(S->i);
    const double *Sx = static_cast<const double *>(S->x), *b = static_cast<const double *>(rhs->x);
    int64_t store_nonzeros = 0;
    for (int64_t q = 0; q < n; q++)
        for (int k = Sp[q]; k < Sp[q + 1]; k++) {
            const int64_t p = Si[k];
            const double mine = gridElement(&sys.A, p, int(q % H - p % H), int(q / H - p / H));
            EXPECT_NEAR(mine, Sx[k], 1e-9 * (1.0 + std::fabs(Sx[k]))) << "element " << p << ", " << q;
            store_nonzeros += (p <= q && Sx[k] != 0.0);
        }
    EXPECT_EQ(gridNonZeros(&sys.A), store_nonzeros) << "nothing beyond what the store's matrix holds";
    EXPECT_EQ(sys.b, std::vector<double>(b, b + n));

    cholmod_free_sparse(&S, &common);
    cholmod_free_dense(&rhs, &common);
    cholmod_finish(&common);
    free_maps({map, values});
}

TEST(CompactLaplacian, MatchesTheStoreSystemElementByElement) {
    // Colour and grey; epsilon 0, raised to 1e-7; images of at most 4r rows, whose store diagonal counts
    // some neighbours twice, as this one must; and 260 x 300, assembled on two threads.
    const std::tuple<int, int, char, int, double> cases[] = {
        {23, 19, 'c', 1, 1e-7}, {23, 19, 'c', 1, 0.0}, {17, 12, 'g', 2, 1e-5},  {4, 15, 'c', 1, 1e-7},
        {3, 9, 'g', 1, 1e-7},   {7, 12, 'c', 2, 1e-6}, {260, 300, 'c', 1, 1e-7}};
    for (auto [H, W, type, radius, epsilon] : cases) {
        SCOPED_TRACE(std::to_string(H) + "x" + std::to_string(W) + " radius " + std::to_string(radius));
        TIFF_img img = make_image(H, W, type, 5u + H);
        expectSameSystem(img, radius, epsilon);
        release(&img);
    }
}

} // namespace

// Tests of the sparse matrix and vector store. The store's error state is process-wide and never
// cleared, so every test that raises an error does so in a forked child (EXPECT_EXIT) whose checks
// report to standard error and whose exit status says whether they all held. The parent process never
// raises an error, so the tests that run in it see a clean state in any order.
#include "matting/sparse_store.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

namespace {

int child_failures = 0;

// A check inside a forked child: reported on standard error, counted for the exit status.
#define CHILD_EXPECT(cond)                                                                                   \
    do {                                                                                                     \
        if (!(cond)) {                                                                                       \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond);                    \
            child_failures++;                                                                                \
        }                                                                                                    \
    } while (0)

// Runs body in a child process; the test fails unless every CHILD_EXPECT in it held.
void in_child(const std::function<void()> &body) {
    EXPECT_EXIT(
        {
            body();
            std::exit(child_failures == 0 ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

// What WriteLASErrDescr writes for the current state.
std::string error_description() {
    char *buf = nullptr;
    size_t size = 0;
    FILE *f = open_memstream(&buf, &size);
    WriteLASErrDescr(f);
    std::fclose(f);
    std::string s(buf, size);
    std::free(buf);
    return s;
}

// A symmetric 5 by 5 store holding, in the upper triangle,
//   row 1: (1, 4.0) (2, -1.0) (4, 0.5)
//   row 2: (2, 3.0) (5, -2.0)
//   row 3: (3, 7.0)
//   row 4: empty
//   row 5: (5, 1.5)
void build_example(QMatrix *Q) {
    Q_Constr(Q, "A", 5, true, EL_ORDER_ROWS, INSTANCE_NORMAL, true);
    Q_SetLen(Q, 1, 3);
    Q_SetEntry(Q, 1, 0, 1, 4.0);
    Q_SetEntry(Q, 1, 1, 2, -1.0);
    Q_SetEntry(Q, 1, 2, 4, 0.5);
    Q_SetLen(Q, 2, 2);
    Q_SetEntry(Q, 2, 0, 2, 3.0);
    Q_SetEntry(Q, 2, 1, 5, -2.0);
    Q_SetLen(Q, 3, 1);
    Q_SetEntry(Q, 3, 0, 3, 7.0);
    Q_SetLen(Q, 5, 1);
    Q_SetEntry(Q, 5, 0, 5, 1.5);
}

TEST(SparseStore, ConstructedMatrixIsEmptyAndEntriesReadBack) {
    QMatrix Q;
    Q_Constr(&Q, "A", 4, true, EL_ORDER_ROWS, INSTANCE_NORMAL, true);
    EXPECT_STREQ(Q_GetName(&Q), "A");
    EXPECT_EQ(Q_GetDim(&Q), 4u);
    EXPECT_TRUE(Q_GetSymmetry(&Q));
    EXPECT_EQ(Q_GetElOrder(&Q), EL_ORDER_ROWS);
    for (size_t r = 1; r <= 4; r++)
        EXPECT_EQ(Q_GetLen(&Q, r), 0u);
    EXPECT_EQ(Q_GetEl(&Q, 2, 3), 0.0);

    Q_SetLen(&Q, 2, 3);
    EXPECT_EQ(Q_GetLen(&Q, 2), 3u);
    for (size_t e = 0; e < 3; e++) {
        EXPECT_EQ(Q_GetPos(&Q, 2, e), 0u) << "new entries hold the zero element";
        EXPECT_EQ(Q_GetVal(&Q, 2, e), 0.0);
    }
    Q_SetEntry(&Q, 2, 0, 2, 1.25);
    Q_SetEntry(&Q, 2, 2, 4, -3.5);
    Q_AddVal(&Q, 2, 2, 0.5);
    EXPECT_EQ(Q_GetPos(&Q, 2, 0), 2u);
    EXPECT_EQ(Q_GetVal(&Q, 2, 0), 1.25);
    EXPECT_EQ(Q_GetPos(&Q, 2, 2), 4u);
    EXPECT_DOUBLE_EQ(Q_GetVal(&Q, 2, 2), -3.0);
    EXPECT_EQ(Q_GetEl(&Q, 2, 4), -3.0);
    EXPECT_EQ(Q_GetEl(&Q, 2, 3), 0.0) << "an element not stored reads 0";

    Q_SetName(&Q, "renamed");
    EXPECT_STREQ(Q_GetName(&Q), "renamed");
    EXPECT_EQ(LASResult(), LAS_OK);
    Q_Destr(&Q);
    EXPECT_EQ(Q.name, nullptr);
    EXPECT_EQ(Q.el, nullptr);
    EXPECT_EQ(Q.len, nullptr);
}

TEST(SparseStore, SymmetricMatrixReadsLowerTriangleFromUpper) {
    QMatrix Q;
    build_example(&Q);
    // The same matrix written out densely by hand.
    const double dense[5][5] = {{4.0, -1.0, 0.0, 0.5, 0.0},
                                {-1.0, 3.0, 0.0, 0.0, -2.0},
                                {0.0, 0.0, 7.0, 0.0, 0.0},
                                {0.5, 0.0, 0.0, 0.0, 0.0},
                                {0.0, -2.0, 0.0, 0.0, 1.5}};
    for (size_t r = 1; r <= 5; r++)
        for (size_t c = 1; c <= 5; c++) {
            EXPECT_EQ(Q_GetEl(&Q, r, c), dense[r - 1][c - 1]) << r << "," << c;
            EXPECT_EQ(Q_GetEl(&Q, r, c), Q_GetEl(&Q, c, r));
        }
    EXPECT_EQ(LASResult(), LAS_OK);
    Q_Destr(&Q);
}

TEST(SparseStore, NonSymmetricAndColumnOrderedReadsFollowTheirLists) {
    // Non-symmetric, by rows: list i is row i; the lower triangle is stored separately.
    QMatrix R;
    Q_Constr(&R, "R", 3, false, EL_ORDER_ROWS, INSTANCE_NORMAL, true);
    Q_SetLen(&R, 1, 1);
    Q_SetEntry(&R, 1, 0, 3, 2.0); // (1,3)
    Q_SetLen(&R, 3, 1);
    Q_SetEntry(&R, 3, 0, 2, 5.0); // (3,2)
    EXPECT_EQ(Q_GetEl(&R, 1, 3), 2.0);
    EXPECT_EQ(Q_GetEl(&R, 3, 1), 0.0);
    EXPECT_EQ(Q_GetEl(&R, 3, 2), 5.0);
    EXPECT_EQ(Q_GetEl(&R, 2, 3), 0.0);

    // Non-symmetric, by columns: list j is column j, positions are rows.
    QMatrix C;
    Q_Constr(&C, "C", 3, false, EL_ORDER_COLUMNS, INSTANCE_NORMAL, true);
    Q_SetLen(&C, 1, 1);
    Q_SetEntry(&C, 1, 0, 3, 2.0); // (3,1)
    EXPECT_EQ(Q_GetEl(&C, 3, 1), 2.0);
    EXPECT_EQ(Q_GetEl(&C, 1, 3), 0.0);

    // Symmetric, by columns: list j holds rows up to j; the lower triangle mirrors it.
    QMatrix S;
    Q_Constr(&S, "S", 3, true, EL_ORDER_COLUMNS, INSTANCE_NORMAL, true);
    Q_SetLen(&S, 3, 2);
    Q_SetEntry(&S, 3, 0, 1, 6.0); // (1,3)
    Q_SetEntry(&S, 3, 1, 3, 9.0); // (3,3)
    EXPECT_EQ(Q_GetEl(&S, 1, 3), 6.0);
    EXPECT_EQ(Q_GetEl(&S, 3, 1), 6.0);
    EXPECT_EQ(Q_GetEl(&S, 3, 3), 9.0);
    EXPECT_EQ(Q_GetEl(&S, 2, 3), 0.0);

    EXPECT_EQ(LASResult(), LAS_OK);
    Q_Destr(&R);
    Q_Destr(&C);
    Q_Destr(&S);
}

TEST(SparseStore, GetElReturnsTheLastMatchingElementAndScalesAsBuilt) {
    QMatrix Q;
    Q_Constr(&Q, "A", 3, false, EL_ORDER_ROWS, INSTANCE_NORMAL, true);
    Q_SetLen(&Q, 2, 3);
    Q_SetEntry(&Q, 2, 0, 3, 1.0);
    Q_SetEntry(&Q, 2, 1, 1, 4.0);
    Q_SetEntry(&Q, 2, 2, 3, 8.0);
    EXPECT_EQ(Q_GetEl(&Q, 2, 3), 8.0) << "the whole row is scanned, the last match wins";

    // The diagonal multiplier applies to row 1 (not to row == column), the two triangle multipliers
    // together to every element below the diagonal.
    Q_SetLen(&Q, 1, 2);
    Q_SetEntry(&Q, 1, 0, 1, 1.0);
    Q_SetEntry(&Q, 1, 1, 2, 1.0);
    Q_SetLen(&Q, 3, 1);
    Q_SetEntry(&Q, 3, 0, 3, 1.0);
    Q.multipl_d = 2.0;
    Q.multipl_u = 3.0;
    Q.multipl_l = 5.0;
    EXPECT_EQ(Q_GetEl(&Q, 1, 1), 2.0);
    EXPECT_EQ(Q_GetEl(&Q, 1, 2), 2.0);
    EXPECT_EQ(Q_GetEl(&Q, 3, 3), 1.0);
    EXPECT_EQ(Q_GetEl(&Q, 2, 1), 60.0);
    EXPECT_EQ(LASResult(), LAS_OK);
    Q_Destr(&Q);
}

TEST(SparseStore, SetLenDiscardsTheRowsContents) {
    QMatrix Q;
    build_example(&Q);
    ASSERT_EQ(Q_GetEl(&Q, 1, 2), -1.0);
    Q_SetLen(&Q, 1, 4);
    EXPECT_EQ(Q_GetLen(&Q, 1), 4u);
    for (size_t e = 0; e < 4; e++) {
        EXPECT_EQ(Q_GetPos(&Q, 1, e), 0u);
        EXPECT_EQ(Q_GetVal(&Q, 1, e), 0.0);
    }
    EXPECT_EQ(Q_GetEl(&Q, 1, 1), 0.0);
    EXPECT_EQ(Q_GetEl(&Q, 2, 1), 0.0);
    Q_SetLen(&Q, 2, 0);
    EXPECT_EQ(Q_GetLen(&Q, 2), 0u);
    EXPECT_EQ(Q.el[2], nullptr);
    EXPECT_EQ(Q_GetEl(&Q, 2, 5), 0.0);
    EXPECT_EQ(Q_GetEl(&Q, 3, 3), 7.0) << "other rows are untouched";
    EXPECT_EQ(LASResult(), LAS_OK);
    Q_Destr(&Q);
}

TEST(SparseStore, VectorComponentsAreOneBased) {
    Vector v;
    V_Constr(&v, "d", 4, INSTANCE_NORMAL, true);
    EXPECT_STREQ(V_GetName(&v), "d");
    EXPECT_EQ(V_GetDim(&v), 4u);
    V_SetAllCmp(&v, 0.0);
    V_SetCmp(&v, 1, 2.5);
    V_SetCmp(&v, 4, -1.0);
    V_AddCmp(&v, 4, 0.25);
    EXPECT_EQ(V_GetCmp(&v, 1), 2.5);
    EXPECT_EQ(V_GetCmp(&v, 2), 0.0);
    EXPECT_EQ(V_GetCmp(&v, 4), -0.75);
    v.multipl = 3.0;
    EXPECT_EQ(V_GetCmp(&v, 1), 2.5) << "the multiplier is not applied";
    V_SetAllCmp(&v, 7.0);
    EXPECT_EQ(v.multipl, 1.0);
    for (size_t i = 1; i <= 4; i++)
        EXPECT_EQ(V_GetCmp(&v, i), 7.0);

    std::srand(12345);
    V_SetRndCmp(&v);
    for (size_t i = 1; i <= 4; i++) {
        EXPECT_GE(V_GetCmp(&v, i), 0.0);
        EXPECT_LT(V_GetCmp(&v, i), 1.0);
    }
    V_SetName(&v, "x");
    EXPECT_STREQ(V_GetName(&v), "x");
    EXPECT_EQ(LASResult(), LAS_OK);
    V_Destr(&v);
    EXPECT_EQ(v.cmp, nullptr);
}

TEST(SparseStore, SortingLocatingTheDiagonalAndKernels) {
    QMatrix Q;
    Q_Constr(&Q, "A", 3, false, EL_ORDER_ROWS, INSTANCE_NORMAL, true);
    const size_t pos[3][3] = {{3, 1, 2}, {2, 3, 1}, {1, 2, 3}};
    for (size_t r = 1; r <= 3; r++) {
        Q_SetLen(&Q, r, 3);
        for (size_t e = 0; e < 3; e++)
            Q_SetEntry(&Q, r, e, pos[r - 1][e], 10.0 * r + pos[r - 1][e]);
    }
    Q_SortEl(&Q);
    EXPECT_TRUE(*Q.el_sorted);
    for (size_t r = 1; r <= 3; r++)
        for (size_t e = 0; e < 3; e++) {
            EXPECT_EQ(Q_GetPos(&Q, r, e), e + 1);
            EXPECT_EQ(Q_GetVal(&Q, r, e), 10.0 * r + (e + 1));
        }
    Q_AllocInvDiagEl(&Q);
    EXPECT_TRUE(*Q.diag_el_alloc);
    EXPECT_FALSE(*Q.zero_in_diag);
    for (size_t r = 1; r <= 3; r++) {
        EXPECT_EQ(Q.diag_el[r]->pos, r);
        EXPECT_NEAR(Q.inv_diag_el[r], 1.0 / (11.0 * r), 1e-15);
    }

    Vector k;
    V_Constr(&k, "k", 3, INSTANCE_NORMAL, true);
    V_SetAllCmp(&k, 2.0);
    EXPECT_FALSE(Q_KerDefined(&Q));
    Q_SetKer(&Q, &k, nullptr);
    EXPECT_TRUE(Q_KerDefined(&Q));
    EXPECT_TRUE(Q.unit_right_ker);
    V_SetCmp(&k, 1, 0.0);
    V_SetCmp(&k, 2, 3.0);
    V_SetCmp(&k, 3, 4.0);
    Q_SetKer(&Q, &k, nullptr);
    EXPECT_FALSE(Q.unit_right_ker);
    ASSERT_NE(Q.right_ker_cmp, nullptr);
    EXPECT_NEAR(Q.right_ker_cmp[2], 0.6, 1e-15);
    EXPECT_NEAR(Q.right_ker_cmp[3], 0.8, 1e-15);
    ASSERT_NE(Q.left_ker_cmp, nullptr);
    EXPECT_NEAR(Q.left_ker_cmp[3], 0.8, 1e-15);
    V_Destr(&k);

    void **info = Q_EigenvalInfo(&Q);
    ASSERT_NE(info, nullptr);
    *info = std::malloc(16); // owned and released by the matrix
    EXPECT_EQ(LASResult(), LAS_OK);
    Q_Destr(&Q);
}

TEST(SparseStore, UnlockDestroysTemporaryInstances) {
    QMatrix *T = static_cast<QMatrix *>(std::malloc(sizeof(QMatrix)));
    Q_Constr(T, "T", 2, false, EL_ORDER_ROWS, INSTANCE_TEMPORARY, true);
    Q_Lock(T);
    Q_Lock(T);
    EXPECT_EQ(T->lock_level, 2);
    Q_Unlock(T);
    EXPECT_EQ(T->lock_level, 1);
    Q_Unlock(T); // destroys and frees T: the sanitizer build reports a leak otherwise
    Q_Lock(nullptr);
    Q_Unlock(nullptr);

    Vector *v = static_cast<Vector *>(std::malloc(sizeof(Vector)));
    V_Constr(v, "t", 2, INSTANCE_TEMPORARY, true);
    V_Lock(v);
    V_Unlock(v);

    QMatrix N; // a normal instance survives its last unlock
    Q_Constr(&N, "N", 2, false, EL_ORDER_ROWS, INSTANCE_NORMAL, true);
    Q_Lock(&N);
    Q_Unlock(&N);
    EXPECT_STREQ(N.name, "N");
    Q_Destr(&N);
    EXPECT_EQ(LASResult(), LAS_OK);
}

// Every checked operation rejects index 0 and index dimension+1 with code 4, naming itself and the
// object. Each case runs in its own child because the first failure disables the store.
TEST(SparseStoreErrors, IndicesOutsideOneToDimensionAreRejected) {
    struct Case {
        const char *what;
        std::function<void(QMatrix *, Vector *, size_t)> call; // size_t: the bad index
        const char *expected;
    };
    const std::vector<Case> cases = {
        {"Q_SetLen", [](QMatrix *Q, Vector *, size_t i) { Q_SetLen(Q, i, 1); }, "in Q_SetLen for A:\n"},
        {"Q_GetLen", [](QMatrix *Q, Vector *, size_t i) { Q_GetLen(Q, i); }, "in Q_GetLen for A:\n"},
        {"Q_SetEntry row", [](QMatrix *Q, Vector *, size_t i) { Q_SetEntry(Q, i, 0, 1, 1.0); },
         "in Q_SetEntry for A:\n"},
        {"Q_SetEntry column", [](QMatrix *Q, Vector *, size_t i) { Q_SetEntry(Q, 1, 0, i, 1.0); },
         "in Q_SetEntry for A:\n"},
        {"Q_GetPos", [](QMatrix *Q, Vector *, size_t i) { Q_GetPos(Q, i, 0); }, "in Q_GetPos for A:\n"},
        {"Q_GetVal", [](QMatrix *Q, Vector *, size_t i) { Q_GetVal(Q, i, 0); }, "in Q_GetVal for A:\n"},
        {"Q_AddVal", [](QMatrix *Q, Vector *, size_t i) { Q_AddVal(Q, i, 0, 1.0); }, "in Q_AddVal for A:\n"},
        {"Q_GetEl row", [](QMatrix *Q, Vector *, size_t i) { Q_GetEl(Q, i, 1); }, "in Q_GetEl for A:\n"},
        {"Q_GetEl column", [](QMatrix *Q, Vector *, size_t i) { Q_GetEl(Q, 1, i); }, "in Q_GetEl for A:\n"},
        {"V_SetCmp", [](QMatrix *, Vector *v, size_t i) { V_SetCmp(v, i, 1.0); }, "in V_SetCmp for d:\n"},
        {"V_AddCmp", [](QMatrix *, Vector *v, size_t i) { V_AddCmp(v, i, 1.0); }, "in V_AddCmp for d:\n"},
        {"V_GetCmp", [](QMatrix *, Vector *v, size_t i) { V_GetCmp(v, i); }, "in V_GetCmp for d:\n"},
    };
    for (const Case &c : cases) {
        for (size_t bad : {size_t(0), size_t(6)}) {
            SCOPED_TRACE(std::string(c.what) + " index " + std::to_string(bad));
            in_child([&] {
                QMatrix Q;
                build_example(&Q);
                Vector v;
                V_Constr(&v, "d", 5, INSTANCE_NORMAL, true);
                // The last valid index is accepted.
                CHILD_EXPECT(Q_GetLen(&Q, 5) == 1);
                CHILD_EXPECT(Q_GetEl(&Q, 5, 5) == 1.5);
                V_SetCmp(&v, 5, 1.0);
                CHILD_EXPECT(LASResult() == LAS_OK);
                c.call(&Q, &v, bad);
                CHILD_EXPECT(LASResult() == LAS_RANGE_ERR);
                CHILD_EXPECT(error_description() == std::string(c.expected) + "Indices are out of range.\n");
                Q_Destr(&Q);
                V_Destr(&v);
            });
        }
    }
    // An entry index equal to the row length is past the end.
    in_child([] {
        QMatrix Q;
        build_example(&Q);
        Q_GetVal(&Q, 1, 2);
        CHILD_EXPECT(LASResult() == LAS_OK);
        Q_GetVal(&Q, 1, 3);
        CHILD_EXPECT(LASResult() == LAS_RANGE_ERR);
        Q_Destr(&Q);
    });
    in_child([] {
        QMatrix Q;
        build_example(&Q);
        Q_SetEntry(&Q, 4, 0, 4, 1.0); // row 4 is empty
        CHILD_EXPECT(LASResult() == LAS_RANGE_ERR);
        Q_Destr(&Q);
    });
}

TEST(SparseStoreErrors, WritesNeedANormalInstance) {
    in_child([] {
        QMatrix T;
        Q_Constr(&T, "T", 3, false, EL_ORDER_ROWS, INSTANCE_TEMPORARY, true);
        Q_SetLen(&T, 1, 2);
        CHILD_EXPECT(LASResult() == LAS_LVALUE_ERR);
        CHILD_EXPECT(error_description() == "in Q_SetLen for T:\nL-value parameter is expected.\n");
        Q_Destr(&T);
    });
    in_child([] {
        Vector v;
        V_Constr(&v, "t", 3, INSTANCE_TEMPORARY, true);
        V_SetCmp(&v, 1, 2.0);
        CHILD_EXPECT(LASResult() == LAS_RANGE_ERR);
        CHILD_EXPECT(error_description() == "in V_SetCmp for t:\nIndices are out of range.\n");
        V_Destr(&v);
    });
    in_child([] {
        Vector v;
        V_Constr(&v, "shared", 3, INSTANCE_NORMAL, false);
        CHILD_EXPECT(v.cmp == nullptr);
        V_SetCmp(&v, 1, 2.0);
        CHILD_EXPECT(LASResult() == LAS_RANGE_ERR);
        V_Destr(&v);
    });
}

TEST(SparseStoreErrors, PendingErrorTurnsEveryOperationIntoANoOp) {
    in_child([] {
        QMatrix Q;
        build_example(&Q);
        Vector v;
        V_Constr(&v, "x", 5, INSTANCE_NORMAL, true);
        V_SetAllCmp(&v, 1.0);
        ElType *row1 = Q.el[1];

        Q_GetEl(&Q, 0, 1); // the first failure
        CHILD_EXPECT(LASResult() == LAS_RANGE_ERR);

        Q_SetEntry(&Q, 1, 0, 1, 99.0);
        CHILD_EXPECT(Q.el[1][0].val == 4.0);
        Q_AddVal(&Q, 1, 0, 99.0);
        CHILD_EXPECT(Q.el[1][0].val == 4.0);
        Q_SetLen(&Q, 1, 7);
        CHILD_EXPECT(Q.len[1] == 3 && Q.el[1] == row1);
        CHILD_EXPECT(Q_GetLen(&Q, 1) == 0);
        CHILD_EXPECT(Q_GetPos(&Q, 1, 0) == 0);
        CHILD_EXPECT(Q_GetVal(&Q, 1, 0) == 0.0);
        CHILD_EXPECT(Q_GetEl(&Q, 1, 1) == 0.0);
        CHILD_EXPECT(std::string(Q_GetName(&Q)).empty());
        CHILD_EXPECT(Q_GetDim(&Q) == 0);
        Q_SetName(&Q, "B");
        CHILD_EXPECT(std::string(Q.name) == "A");
        Q_SortEl(&Q);
        CHILD_EXPECT(!*Q.el_sorted);

        V_SetCmp(&v, 2, 5.0);
        V_AddCmp(&v, 2, 5.0);
        V_SetAllCmp(&v, 3.0);
        CHILD_EXPECT(v.cmp[2] == 1.0);
        CHILD_EXPECT(V_GetCmp(&v, 2) == 0.0);
        CHILD_EXPECT(V_GetDim(&v) == 0);
        CHILD_EXPECT(std::string(V_GetName(&v)).empty());

        // A vector built now gets no storage, and a later bad index does not replace the first error.
        Vector w;
        V_Constr(&w, "w", 3, INSTANCE_NORMAL, true);
        CHILD_EXPECT(w.cmp == nullptr);
        V_GetCmp(&w, 9);
        Q_SetLen(&Q, 9, 1);
        CHILD_EXPECT(error_description() == "in Q_GetEl for A:\nIndices are out of range.\n");

        // Destruction still releases everything.
        Q_Destr(&Q);
        V_Destr(&v);
        V_Destr(&w);
        CHILD_EXPECT(Q.el == nullptr && v.cmp == nullptr);
    });
}

TEST(SparseStoreErrors, ErrorDescriptionsAreExact) {
    in_child([] {
        CHILD_EXPECT(error_description().empty());
        LASError(LAS_RANGE_ERR, "Q_GetEl", "A", nullptr, nullptr);
        CHILD_EXPECT(error_description() == "in Q_GetEl for A:\nIndices are out of range.\n");
        LASError(LAS_DIM_ERR, "Q_SetKer", "A", "k", "l");
        CHILD_EXPECT(error_description() ==
                     "in Q_SetKer for A, k, l:\nObjects have incompatible dimensions.\n");
        LASError(LAS_DIM_ERR, "Q_SetKer", "A", "", "l");
        CHILD_EXPECT(error_description() == "in Q_SetKer for A, l:\nObjects have incompatible dimensions.\n");
        // Null and empty object names are not kept: no " for ".
        LASError(LAS_MEM_ALLOC_ERR, "Q_Constr", nullptr, "", nullptr);
        CHILD_EXPECT(error_description() == "in Q_Constr:\nNot enough memory is available.\n");
        // A break keeps the names of the previous error.
        LASBreak();
        CHILD_EXPECT(LASResult() == LAS_USER_BREAK);
        CHILD_EXPECT(error_description() == "in Q_Constr:\nTermination by an user break.\n");

        const char *texts[] = {
            "Not enough memory is available.\n",
            "L-value parameter is expected.\n",
            "Objects have incompatible dimensions.\n",
            "Indices are out of range.\n",
            "Some elements are stored in lower triangular part of a symmetric matrix.\n",
            "Matrices can not be combined.\n",
            "Inverse multiplication can not be carried out.\n",
            "Matrix elements are not sorted.\n",
            "Zero elements in matrix diagonal are not allowed.\n",
            "Factorization produces zero pivot elements.\n",
            "Matrix has structure which is not allowed for ILU factorization.\n",
            "Iterative solver fails.\n",
            "Termination by an user break.\n",
        };
        for (int code = 1; code <= 13; code++) {
            LASError(static_cast<LASErrIdType>(code), "P", "M", nullptr, nullptr);
            CHILD_EXPECT(LASResult() == code);
            CHILD_EXPECT(error_description() == std::string("in P for M:\n") + texts[code - 1]);
        }
    });
    in_child([] {
        // A break with no earlier error holds no procedure name: only the text.
        LASBreak();
        CHILD_EXPECT(error_description() == "Termination by an user break.\n");
    });
}

TEST(SparseStoreErrors, ZeroDiagonalAndKernelDimensionsAreReported) {
    in_child([] {
        QMatrix Q;
        build_example(&Q); // row 4 has no diagonal element
        Q_AllocInvDiagEl(&Q);
        CHILD_EXPECT(LASResult() == LAS_ZERO_IN_DIAG);
        CHILD_EXPECT(*Q.zero_in_diag);
        CHILD_EXPECT(std::fabs(Q.inv_diag_el[3] - 1.0 / 7.0) < 1e-15);
        Q_Destr(&Q);
    });
    in_child([] {
        QMatrix Q;
        build_example(&Q);
        Vector k;
        V_Constr(&k, "k", 4, INSTANCE_NORMAL, true);
        V_SetAllCmp(&k, 1.0);
        Q_SetKer(&Q, &k, nullptr);
        CHILD_EXPECT(LASResult() == LAS_DIM_ERR);
        CHILD_EXPECT(!Q_KerDefined(&Q));
        CHILD_EXPECT(error_description() ==
                     "in Q_SetKer for A, k, k:\nObjects have incompatible dimensions.\n");
        Q_Destr(&Q);
        V_Destr(&k);
    });
}

} // namespace

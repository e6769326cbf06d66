// Tests of the sparse matrix and vector store. The store's error state is process-wide and never
// cleared, so every test that raises an error does so in a forked child (EXPECT_EXIT) whose checks
// report to standard error and whose exit status says whether they all held. The parent process never
// raises an error, so the tests that run in it see a clean state in any order.
#include "matting/sparse_store.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <utility>
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

// A symmetric 5 by 5 store holding the upper triangle by rows; row 4 is empty.
void build_example(QMatrix *Q) {
    const std::vector<std::pair<size_t, double>> rows[5] = {
        {{1, 4.0}, {2, -1.0}, {4, 0.5}}, {{2, 3.0}, {5, -2.0}}, {{3, 7.0}}, {}, {{5, 1.5}}};
    Q_Constr(Q, "A", 5, true, EL_ORDER_ROWS, INSTANCE_NORMAL, true);
    for (size_t r = 1; r <= 5; r++) {
        if (rows[r - 1].empty()) continue;
        Q_SetLen(Q, r, rows[r - 1].size());
        for (size_t e = 0; e < rows[r - 1].size(); e++)
            Q_SetEntry(Q, r, e, rows[r - 1][e].first, rows[r - 1][e].second);
    }
}

TEST(SparseStore, SymmetricReadsMirrorTheUpperTriangleAndSetLenDiscardsTheRow) {
    QMatrix Q;
    build_example(&Q);
    const double dense[5][5] = {{4.0, -1.0, 0.0, 0.5, 0.0},
                                {-1.0, 3.0, 0.0, 0.0, -2.0},
                                {0.0, 0.0, 7.0, 0.0, 0.0},
                                {0.5, 0.0, 0.0, 0.0, 0.0},
                                {0.0, -2.0, 0.0, 0.0, 1.5}};
    for (size_t r = 1; r <= 5; r++)
        for (size_t c = 1; c <= 5; c++)
            EXPECT_EQ(Q_GetEl(&Q, r, c), dense[r - 1][c - 1]) << r << "," << c;

    Q_SetLen(&Q, 1, 4); // not a resize: the old elements are gone
    EXPECT_EQ(Q_GetLen(&Q, 1), 4u);
    for (size_t e = 0; e < 4; e++)
        EXPECT_TRUE(Q_GetPos(&Q, 1, e) == 0 && Q_GetVal(&Q, 1, e) == 0.0) << e;
    EXPECT_EQ(Q_GetEl(&Q, 2, 1), 0.0);
    Q_SetLen(&Q, 2, 0);
    EXPECT_EQ(Q_GetLen(&Q, 2), 0u);
    EXPECT_EQ(Q_GetEl(&Q, 2, 5), 0.0);
    EXPECT_EQ(Q_GetEl(&Q, 3, 3), 7.0) << "other rows are untouched";
    EXPECT_EQ(LASResult(), LAS_OK);
    Q_Destr(&Q);
}

// Each case runs in its own child because the first failure disables the store for good: every later
// operation does nothing and returns 0, and a later failure does not replace the first.
TEST(SparseStoreErrors, BadIndicesAndTemporaryTargetsFailAndTheFirstFailureSticks) {
    struct Case {
        std::function<void(QMatrix *, Vector *, size_t)> call; // the last argument: the bad index
        LASErrIdType code;
        const char *expected;
    };
    const Case cases[] = {
        {[](QMatrix *Q, Vector *, size_t i) { Q_SetLen(Q, i, 1); }, LAS_RANGE_ERR, "in Q_SetLen for A:\n"},
        {[](QMatrix *Q, Vector *, size_t i) { Q_GetLen(Q, i); }, LAS_RANGE_ERR, "in Q_GetLen for A:\n"},
        {[](QMatrix *Q, Vector *, size_t i) { Q_SetEntry(Q, 1, 0, i, 1.0); }, LAS_RANGE_ERR,
         "in Q_SetEntry for A:\n"},
        {[](QMatrix *Q, Vector *, size_t i) { Q_GetEl(Q, 1, i); }, LAS_RANGE_ERR, "in Q_GetEl for A:\n"},
        {[](QMatrix *, Vector *v, size_t i) { V_GetCmp(v, i); }, LAS_RANGE_ERR, "in V_GetCmp for d:\n"},
        // An entry index equal to the row length is past its end.
        {[](QMatrix *Q, Vector *, size_t) { Q_GetVal(Q, 1, 3); }, LAS_RANGE_ERR, "in Q_GetVal for A:\n"},
        {[](QMatrix *, Vector *, size_t) {
             QMatrix T;
             Q_Constr(&T, "T", 3, false, EL_ORDER_ROWS, INSTANCE_TEMPORARY, true);
             Q_SetLen(&T, 1, 2);
             Q_Destr(&T);
         },
         LAS_LVALUE_ERR, "in Q_SetLen for T:\n"},
    };
    const char *texts[] = {"", "", "L-value parameter is expected.\n", "", "Indices are out of range.\n"};
    for (const Case &c : cases)
        for (size_t bad : {size_t(0), size_t(6)}) {
            SCOPED_TRACE(std::string(c.expected) + " index " + std::to_string(bad));
            in_child([&] {
                QMatrix Q;
                build_example(&Q);
                Vector v;
                V_Constr(&v, "d", 5, INSTANCE_NORMAL, true);
                V_SetAllCmp(&v, 1.0);
                CHILD_EXPECT(Q_GetLen(&Q, 5) == 1 && Q_GetEl(&Q, 5, 5) == 1.5); // the last index is valid
                V_SetCmp(&v, 5, 1.0);
                CHILD_EXPECT(LASResult() == LAS_OK);
                c.call(&Q, &v, bad);
                const std::string description = std::string(c.expected) + texts[c.code];
                CHILD_EXPECT(LASResult() == c.code && error_description() == description);

                Q_SetEntry(&Q, 1, 0, 1, 99.0);
                Q_AddVal(&Q, 1, 0, 99.0);
                Q_SetLen(&Q, 1, 7);
                V_SetCmp(&v, 2, 5.0);
                V_SetAllCmp(&v, 3.0);
                CHILD_EXPECT(Q.len[1] == 3 && Q.el[1][0].val == 4.0 && v.cmp[2] == 1.0);
                CHILD_EXPECT(Q_GetLen(&Q, 1) == 0 && Q_GetVal(&Q, 1, 0) == 0.0 && Q_GetEl(&Q, 1, 1) == 0.0);
                CHILD_EXPECT(V_GetCmp(&v, 2) == 0.0 && Q_GetDim(&Q) == 0 &&
                             std::string(Q_GetName(&Q)).empty());
                Vector w; // built now, it gets no storage
                V_Constr(&w, "w", 3, INSTANCE_NORMAL, true);
                CHILD_EXPECT(w.cmp == nullptr);
                Q_GetLen(&Q, 9);
                CHILD_EXPECT(error_description() == description);
                Q_Destr(&Q); // destruction still releases everything
                V_Destr(&v);
                V_Destr(&w);
            });
        }
}

TEST(SparseStoreErrors, ErrorDescriptionsAreExact) {
    in_child([] {
        CHILD_EXPECT(error_description().empty());
        LASError(LAS_DIM_ERR, "Q_SetKer", "A", "k", "l");
        CHILD_EXPECT(error_description() ==
                     "in Q_SetKer for A, k, l:\nObjects have incompatible dimensions.\n");
        LASError(LAS_DIM_ERR, "Q_SetKer", "A", "", "l");
        CHILD_EXPECT(error_description() == "in Q_SetKer for A, l:\nObjects have incompatible dimensions.\n");
        // Null and empty object names are not kept: no " for ".
        LASError(LAS_MEM_ALLOC_ERR, "Q_Constr", nullptr, "", nullptr);
        CHILD_EXPECT(error_description() == "in Q_Constr:\nNot enough memory is available.\n");
        LASBreak(); // keeps the names of the previous error
        CHILD_EXPECT(LASResult() == LAS_USER_BREAK);
        CHILD_EXPECT(error_description() == "in Q_Constr:\nTermination by an user break.\n");
        const char *texts[] = {"Not enough memory is available.\n",
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
                               "Termination by an user break.\n"};
        for (int code = 1; code <= 13; code++) {
            LASError(static_cast<LASErrIdType>(code), "P", "M", nullptr, nullptr);
            CHILD_EXPECT(LASResult() == code);
            CHILD_EXPECT(error_description() == std::string("in P for M:\n") + texts[code - 1]);
        }
    });
    in_child([] {
        LASBreak(); // with no earlier error there is no procedure name: only the text
        CHILD_EXPECT(error_description() == "Termination by an user break.\n");
    });
}

} // namespace

// Sparse matrix and vector store with a process-wide sticky error state.
//
// Every list of a QMatrix is a plain malloc'ed array of ElType; the store never grows a list in place,
// which is why Q_SetLen discards the old contents. Memory comes from malloc/free (never new) because
// records are plain C-style structures that callers may allocate with malloc themselves.
#include "matting/sparse_store.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

const ElType ZeroEl = {0, 0.0};

// The error state: the code and owned copies of the names that describe where it arose.
static LASErrIdType LASErrId = LAS_OK;
static char *LASProcName = nullptr;
static char *LASObject1Name = nullptr;
static char *LASObject2Name = nullptr;
static char *LASObject3Name = nullptr;

// Stands in for the procedure name when even that copy cannot be made; never freed.
static char ProcUnknown[] = "(procedure unknown)";

static const char *const ErrText[] = {
    "",
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

static char *copy_string(const char *s) {
    size_t n = std::strlen(s) + 1;
    char *c = static_cast<char *>(std::malloc(n));
    if (c != nullptr) std::memcpy(c, s, n);
    return c;
}

static void release_name(char **name) {
    if (*name != ProcUnknown) std::free(*name);
    *name = nullptr;
}

// malloc of count elements of size bytes, null on failure or when count * size overflows.
static void *alloc_array(size_t count, size_t size) {
    if (size != 0 && count > SIZE_MAX / size) return nullptr;
    return std::malloc(count * size == 0 ? 1 : count * size);
}

void LASError(LASErrIdType err_id, const char *proc_name, const char *object1_name, const char *object2_name,
              const char *object3_name) {
    LASErrId = err_id;
    release_name(&LASProcName);
    release_name(&LASObject1Name);
    release_name(&LASObject2Name);
    release_name(&LASObject3Name);

    LASProcName = copy_string(proc_name != nullptr ? proc_name : "");
    if (LASProcName == nullptr) {
        LASProcName = ProcUnknown;
        return;
    }
    const char *objects[3] = {object1_name, object2_name, object3_name};
    char **held[3] = {&LASObject1Name, &LASObject2Name, &LASObject3Name};
    for (int k = 0; k < 3; k++)
        if (objects[k] != nullptr && objects[k][0] != '\0') *held[k] = copy_string(objects[k]);
}

LASErrIdType LASResult(void) {
    return LASErrId;
}

void LASBreak(void) {
    LASErrId = LAS_USER_BREAK;
}

void WriteLASErrDescr(FILE *stream) {
    if (LASErrId != LAS_OK && LASProcName != nullptr) {
        std::fprintf(stream, "in %s", LASProcName);
        const char *names[3] = {LASObject1Name, LASObject2Name, LASObject3Name};
        bool first = true;
        for (const char *name : names) {
            if (name == nullptr) continue;
            std::fputs(first ? " for " : ", ", stream);
            std::fputs(name, stream);
            first = false;
        }
        std::fputs(":\n", stream);
    }
    int id = static_cast<int>(LASErrId);
    if (id > 0 && id < static_cast<int>(sizeof ErrText / sizeof ErrText[0])) std::fputs(ErrText[id], stream);
}

// Matrix operations.

void Q_Constr(QMatrix *Q, const char *name, size_t dim, bool symmetry, ElOrderType el_order,
              InstanceType instance, bool own_data) {
    Q->name = copy_string(name != nullptr ? name : "");
    if (Q->name == nullptr) LASError(LAS_MEM_ALLOC_ERR, "Q_Constr", name, nullptr, nullptr);
    Q->dim = dim;
    Q->symmetry = symmetry;
    Q->el_order = el_order;
    Q->instance = instance;
    Q->lock_level = 0;
    Q->multipl_d = 1.0;
    Q->multipl_u = 1.0;
    Q->multipl_l = 1.0;
    Q->own_data = own_data;
    Q->len = nullptr;
    Q->el = nullptr;
    Q->el_sorted = nullptr;
    Q->diag_el_alloc = nullptr;
    Q->diag_el = nullptr;
    Q->zero_in_diag = nullptr;
    Q->inv_diag_el = nullptr;
    Q->unit_right_ker = false;
    Q->right_ker_cmp = nullptr;
    Q->unit_left_ker = false;
    Q->left_ker_cmp = nullptr;
    Q->eigenval_info = nullptr;
    Q->factor_exists = nullptr;
    Q->factor = nullptr;
    if (!own_data || LASResult() != LAS_OK) return;

    size_t slots = dim + 1;
    if (slots == 0) {
        LASError(LAS_MEM_ALLOC_ERR, "Q_Constr", Q->name, nullptr, nullptr);
        return;
    }
    Q->len = static_cast<size_t *>(alloc_array(slots, sizeof(size_t)));
    Q->el = static_cast<ElType **>(alloc_array(slots, sizeof(ElType *)));
    Q->el_sorted = static_cast<bool *>(std::malloc(sizeof(bool)));
    Q->diag_el_alloc = static_cast<bool *>(std::malloc(sizeof(bool)));
    Q->diag_el = static_cast<ElType **>(alloc_array(slots, sizeof(ElType *)));
    Q->zero_in_diag = static_cast<bool *>(std::malloc(sizeof(bool)));
    Q->inv_diag_el = static_cast<double *>(alloc_array(slots, sizeof(double)));
    Q->factor_exists = static_cast<bool *>(std::malloc(sizeof(bool)));
    Q->factor = static_cast<QMatrix *>(std::malloc(sizeof(QMatrix)));
    if (Q->len == nullptr || Q->el == nullptr || Q->el_sorted == nullptr || Q->diag_el_alloc == nullptr ||
        Q->diag_el == nullptr || Q->zero_in_diag == nullptr || Q->inv_diag_el == nullptr ||
        Q->factor_exists == nullptr || Q->factor == nullptr) {
        LASError(LAS_MEM_ALLOC_ERR, "Q_Constr", Q->name, nullptr, nullptr);
        // Keep the tables consistent for Q_Destr: no list exists yet.
        if (Q->len != nullptr) std::memset(Q->len, 0, slots * sizeof(size_t));
        if (Q->el != nullptr)
            for (size_t i = 0; i < slots; i++)
                Q->el[i] = nullptr;
        if (Q->factor_exists != nullptr) *Q->factor_exists = false;
        return;
    }
    for (size_t i = 0; i < slots; i++) {
        Q->len[i] = 0;
        Q->el[i] = nullptr;
        Q->diag_el[i] = nullptr;
        Q->inv_diag_el[i] = 0.0;
    }
    *Q->el_sorted = false;
    *Q->diag_el_alloc = false;
    *Q->zero_in_diag = true;
    *Q->factor_exists = false;
}

void Q_Destr(QMatrix *Q) {
    std::free(Q->name);
    Q->name = nullptr;
    if (Q->own_data) {
        if (Q->el != nullptr) {
            for (size_t i = 1; i <= Q->dim; i++)
                std::free(Q->el[i]);
        }
        std::free(Q->len);
        std::free(Q->el);
        std::free(Q->el_sorted);
        std::free(Q->diag_el_alloc);
        std::free(Q->diag_el);
        std::free(Q->zero_in_diag);
        std::free(Q->inv_diag_el);
        if (Q->factor_exists != nullptr && *Q->factor_exists && Q->factor != nullptr) Q_Destr(Q->factor);
        std::free(Q->factor_exists);
        std::free(Q->factor);
        Q->len = nullptr;
        Q->el = nullptr;
        Q->el_sorted = nullptr;
        Q->diag_el_alloc = nullptr;
        Q->diag_el = nullptr;
        Q->zero_in_diag = nullptr;
        Q->inv_diag_el = nullptr;
        Q->factor_exists = nullptr;
        Q->factor = nullptr;
    }
    std::free(Q->right_ker_cmp);
    std::free(Q->left_ker_cmp);
    std::free(Q->eigenval_info);
    Q->right_ker_cmp = nullptr;
    Q->left_ker_cmp = nullptr;
    Q->eigenval_info = nullptr;
}

void Q_SetName(QMatrix *Q, const char *name) {
    if (LASResult() != LAS_OK) return;
    char *copy = copy_string(name != nullptr ? name : "");
    if (copy == nullptr) {
        LASError(LAS_MEM_ALLOC_ERR, "Q_SetName", name, nullptr, nullptr);
        return;
    }
    std::free(Q->name);
    Q->name = copy;
}

const char *Q_GetName(const QMatrix *Q) {
    if (LASResult() != LAS_OK || Q->name == nullptr) return "";
    return Q->name;
}

size_t Q_GetDim(const QMatrix *Q) {
    return LASResult() == LAS_OK ? Q->dim : 0;
}

bool Q_GetSymmetry(const QMatrix *Q) {
    return LASResult() == LAS_OK ? Q->symmetry : false;
}

ElOrderType Q_GetElOrder(const QMatrix *Q) {
    return LASResult() == LAS_OK ? Q->el_order : EL_ORDER_ROWS;
}

void Q_SetLen(QMatrix *Q, size_t row, size_t len) {
    if (LASResult() != LAS_OK) return;
    if (Q->instance != INSTANCE_NORMAL || !Q->own_data || Q->len == nullptr) {
        LASError(LAS_LVALUE_ERR, "Q_SetLen", Q->name, nullptr, nullptr);
        return;
    }
    if (row < 1 || row > Q->dim) {
        LASError(LAS_RANGE_ERR, "Q_SetLen", Q->name, nullptr, nullptr);
        return;
    }
    std::free(Q->el[row]);
    Q->el[row] = nullptr;
    Q->len[row] = 0;
    if (len == 0) return;
    ElType *list = static_cast<ElType *>(alloc_array(len, sizeof(ElType)));
    if (list == nullptr) {
        LASError(LAS_MEM_ALLOC_ERR, "Q_SetLen", Q->name, nullptr, nullptr);
        return;
    }
    for (size_t e = 0; e < len; e++)
        list[e] = ZeroEl;
    Q->el[row] = list;
    Q->len[row] = len;
}

size_t Q_GetLen(const QMatrix *Q, size_t row) {
    if (LASResult() != LAS_OK) return 0;
    if (row < 1 || row > Q->dim) {
        LASError(LAS_RANGE_ERR, "Q_GetLen", Q->name, nullptr, nullptr);
        return 0;
    }
    return Q->len[row];
}

void Q_SetEntry(QMatrix *Q, size_t row, size_t entry, size_t pos, double val) {
    if (LASResult() != LAS_OK) return;
    if (row < 1 || row > Q->dim || pos < 1 || pos > Q->dim || entry >= Q->len[row]) {
        LASError(LAS_RANGE_ERR, "Q_SetEntry", Q->name, nullptr, nullptr);
        return;
    }
    Q->el[row][entry].pos = pos;
    Q->el[row][entry].val = val;
}

size_t Q_GetPos(const QMatrix *Q, size_t row, size_t entry) {
    if (LASResult() != LAS_OK) return 0;
    if (row < 1 || row > Q->dim || entry >= Q->len[row]) {
        LASError(LAS_RANGE_ERR, "Q_GetPos", Q->name, nullptr, nullptr);
        return 0;
    }
    return Q->el[row][entry].pos;
}

double Q_GetVal(const QMatrix *Q, size_t row, size_t entry) {
    if (LASResult() != LAS_OK) return 0.0;
    if (row < 1 || row > Q->dim || entry >= Q->len[row]) {
        LASError(LAS_RANGE_ERR, "Q_GetVal", Q->name, nullptr, nullptr);
        return 0.0;
    }
    return Q->el[row][entry].val;
}

void Q_AddVal(QMatrix *Q, size_t row, size_t entry, double val) {
    if (LASResult() != LAS_OK) return;
    if (row < 1 || row > Q->dim || entry >= Q->len[row]) {
        LASError(LAS_RANGE_ERR, "Q_AddVal", Q->name, nullptr, nullptr);
        return;
    }
    Q->el[row][entry].val += val;
}

double Q_GetEl(const QMatrix *Q, size_t row, size_t col) {
    if (LASResult() != LAS_OK) return 0.0;
    if (row < 1 || row > Q->dim || col < 1 || col > Q->dim) {
        LASError(LAS_RANGE_ERR, "Q_GetEl", Q->name, nullptr, nullptr);
        return 0.0;
    }
    // Choose the list to scan and the position to look for.
    size_t list, pos;
    bool by_rows = Q->el_order == EL_ORDER_ROWS;
    if (Q->symmetry && row > col) {
        // Only the upper triangle is stored: read the mirrored element.
        list = by_rows ? col : row;
        pos = by_rows ? row : col;
    } else {
        list = by_rows ? row : col;
        pos = by_rows ? col : row;
    }
    double val = 0.0;
    const ElType *els = Q->el[list];
    for (size_t e = 0, n = Q->len[list]; e < n; e++)
        if (els[e].pos == pos) val = els[e].val;

    // The diagonal multiplier is keyed on row 1, not on row == col; all multipliers are 1.0 in practice.
    if (row == 1) val *= Q->multipl_d;
    if (row > col) val *= Q->multipl_u * Q->multipl_l;
    return val;
}

int ElCompar(const void *el1, const void *el2) {
    size_t p1 = static_cast<const ElType *>(el1)->pos;
    size_t p2 = static_cast<const ElType *>(el2)->pos;
    return (p1 > p2) - (p1 < p2);
}

void Q_SortEl(QMatrix *Q) {
    if (LASResult() != LAS_OK) return;
    if (Q->len == nullptr || Q->el_sorted == nullptr) {
        LASError(LAS_LVALUE_ERR, "Q_SortEl", Q->name, nullptr, nullptr);
        return;
    }
    for (size_t i = 1; i <= Q->dim; i++)
        if (Q->len[i] > 1) std::qsort(Q->el[i], Q->len[i], sizeof(ElType), ElCompar);
    *Q->el_sorted = true;
    // Sorting moves elements, so earlier diagonal pointers no longer point at the diagonal.
    if (Q->diag_el_alloc != nullptr) *Q->diag_el_alloc = false;
}

void Q_AllocInvDiagEl(QMatrix *Q) {
    if (LASResult() != LAS_OK) return;
    if (Q->len == nullptr || Q->diag_el == nullptr) {
        LASError(LAS_LVALUE_ERR, "Q_AllocInvDiagEl", Q->name, nullptr, nullptr);
        return;
    }
    bool zero = false;
    for (size_t i = 1; i <= Q->dim; i++) {
        Q->diag_el[i] = nullptr;
        for (size_t e = 0; e < Q->len[i]; e++)
            if (Q->el[i][e].pos == i) Q->diag_el[i] = &Q->el[i][e];
        double d = Q->diag_el[i] != nullptr ? Q->multipl_d * Q->diag_el[i]->val : 0.0;
        if (d == 0.0) {
            zero = true;
            Q->inv_diag_el[i] = 0.0;
        } else {
            Q->inv_diag_el[i] = 1.0 / d;
        }
    }
    *Q->zero_in_diag = zero;
    *Q->diag_el_alloc = true;
    if (zero) LASError(LAS_ZERO_IN_DIAG, "Q_AllocInvDiagEl", Q->name, nullptr, nullptr);
}

// Normalised copy of V's components into *cmp (replacing what it held), or the unit flag alone when V
// is constant. False when memory runs out.
static bool store_kernel(const Vector *V, bool *unit, double **cmp) {
    std::free(*cmp);
    *cmp = nullptr;
    bool constant = true;
    double norm2 = 0.0;
    for (size_t i = 1; i <= V->dim; i++) {
        norm2 += V->cmp[i] * V->cmp[i];
        if (V->cmp[i] != V->cmp[1]) constant = false;
    }
    *unit = constant;
    if (constant) return true;
    *cmp = static_cast<double *>(alloc_array(V->dim + 1, sizeof(double)));
    if (*cmp == nullptr) return false;
    double scale = 1.0 / std::sqrt(norm2);
    (*cmp)[0] = 0.0;
    for (size_t i = 1; i <= V->dim; i++)
        (*cmp)[i] = V->cmp[i] * scale;
    return true;
}

void Q_SetKer(QMatrix *Q, const Vector *right_ker, const Vector *left_ker) {
    if (LASResult() != LAS_OK) return;
    if (left_ker == nullptr) left_ker = right_ker;
    if (right_ker == nullptr || right_ker->dim != Q->dim || left_ker->dim != Q->dim ||
        right_ker->cmp == nullptr || left_ker->cmp == nullptr) {
        LASError(LAS_DIM_ERR, "Q_SetKer", Q->name, right_ker != nullptr ? right_ker->name : nullptr,
                 left_ker != nullptr ? left_ker->name : nullptr);
        return;
    }
    if (!store_kernel(right_ker, &Q->unit_right_ker, &Q->right_ker_cmp) ||
        !store_kernel(left_ker, &Q->unit_left_ker, &Q->left_ker_cmp))
        LASError(LAS_MEM_ALLOC_ERR, "Q_SetKer", Q->name, nullptr, nullptr);
}

bool Q_KerDefined(const QMatrix *Q) {
    if (LASResult() != LAS_OK) return false;
    return Q->unit_right_ker || Q->right_ker_cmp != nullptr;
}

void **Q_EigenvalInfo(QMatrix *Q) {
    if (LASResult() != LAS_OK) return nullptr;
    return &Q->eigenval_info;
}

void Q_Lock(QMatrix *Q) {
    if (Q != nullptr) Q->lock_level++;
}

void Q_Unlock(QMatrix *Q) {
    if (Q == nullptr) return;
    Q->lock_level--;
    if (Q->instance == INSTANCE_TEMPORARY && Q->lock_level < 1) {
        Q_Destr(Q);
        std::free(Q);
    }
}

// Vector operations.

void V_Constr(Vector *V, const char *name, size_t dim, InstanceType instance, bool own_data) {
    V->name = copy_string(name != nullptr ? name : "");
    if (V->name == nullptr) LASError(LAS_MEM_ALLOC_ERR, "V_Constr", name, nullptr, nullptr);
    V->dim = dim;
    V->instance = instance;
    V->lock_level = 0;
    V->multipl = 1.0;
    V->own_data = own_data;
    V->cmp = nullptr;
    if (!own_data || LASResult() != LAS_OK) return;
    V->cmp = dim + 1 == 0 ? nullptr : static_cast<double *>(alloc_array(dim + 1, sizeof(double)));
    if (V->cmp == nullptr) LASError(LAS_MEM_ALLOC_ERR, "V_Constr", V->name, nullptr, nullptr);
}

void V_Destr(Vector *V) {
    std::free(V->name);
    V->name = nullptr;
    if (V->own_data) {
        std::free(V->cmp);
        V->cmp = nullptr;
    }
}

void V_SetName(Vector *V, const char *name) {
    if (LASResult() != LAS_OK) return;
    char *copy = copy_string(name != nullptr ? name : "");
    if (copy == nullptr) {
        LASError(LAS_MEM_ALLOC_ERR, "V_SetName", name, nullptr, nullptr);
        return;
    }
    std::free(V->name);
    V->name = copy;
}

const char *V_GetName(const Vector *V) {
    if (LASResult() != LAS_OK || V->name == nullptr) return "";
    return V->name;
}

size_t V_GetDim(const Vector *V) {
    return LASResult() == LAS_OK ? V->dim : 0;
}

void V_SetCmp(Vector *V, size_t ind, double val) {
    if (LASResult() != LAS_OK) return;
    if (ind < 1 || ind > V->dim || V->instance != INSTANCE_NORMAL || !V->own_data || V->cmp == nullptr) {
        LASError(LAS_RANGE_ERR, "V_SetCmp", V->name, nullptr, nullptr);
        return;
    }
    V->cmp[ind] = val;
}

void V_AddCmp(Vector *V, size_t ind, double val) {
    if (LASResult() != LAS_OK) return;
    if (ind < 1 || ind > V->dim || V->instance != INSTANCE_NORMAL || !V->own_data || V->cmp == nullptr) {
        LASError(LAS_RANGE_ERR, "V_AddCmp", V->name, nullptr, nullptr);
        return;
    }
    V->cmp[ind] += val;
}

void V_SetAllCmp(Vector *V, double val) {
    if (LASResult() != LAS_OK || V->cmp == nullptr) return;
    for (size_t i = 1; i <= V->dim; i++)
        V->cmp[i] = val;
    V->multipl = 1.0;
}

void V_SetRndCmp(Vector *V) {
    if (LASResult() != LAS_OK || V->cmp == nullptr) return;
    for (size_t i = 1; i <= V->dim; i++)
        V->cmp[i] = std::rand() / 2147483648.0;
    V->multipl = 1.0;
}

double V_GetCmp(const Vector *V, size_t ind) {
    if (LASResult() != LAS_OK) return 0.0;
    if (ind < 1 || ind > V->dim || V->cmp == nullptr) {
        LASError(LAS_RANGE_ERR, "V_GetCmp", V->name, nullptr, nullptr);
        return 0.0;
    }
    return V->cmp[ind];
}

void V_Lock(Vector *V) {
    if (V != nullptr) V->lock_level++;
}

void V_Unlock(Vector *V) {
    if (V == nullptr) return;
    V->lock_level--;
    if (V->instance == INSTANCE_TEMPORARY && V->lock_level < 1) {
        V_Destr(V);
        std::free(V);
    }
}

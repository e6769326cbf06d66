// Sparse square matrix (one list of (column, value) elements per row) and dense vector store in which
// the matting engine assembles its Laplacian and right-hand side, with a process-wide sticky error state.
//
// Indices: rows, columns and vector components are 1-based (1 .. dimension); entries, the positions of
// elements inside one row's list, are 0-based (0 .. length-1).
//
// Errors: no operation prints or aborts. A failure records an error code (LASErrIdType) with the name of
// the failing operation and of the object concerned; from then on every matrix and vector operation does
// nothing and returns 0, 0.0 or "" (name getters), for the rest of the process: nothing clears the code.
// Test LASResult() after a sequence of store operations to learn whether they all took effect. The error
// state is unguarded: one thread at a time may use the store.
#pragma once

#include <cstddef>
#include <cstdio>

// Error codes, as returned by LASResult().
enum LASErrIdType {
    LAS_OK = 0,
    LAS_MEM_ALLOC_ERR = 1,    // not enough memory
    LAS_LVALUE_ERR = 2,       // a writable (normal, data-owning) object was expected
    LAS_DIM_ERR = 3,          // objects have incompatible dimensions
    LAS_RANGE_ERR = 4,        // an index is out of range
    LAS_SYM_STOR_ERR = 5,     // elements stored in the lower triangle of a symmetric matrix
    LAS_MATR_COMB_ERR = 6,    // matrices can not be combined
    LAS_MUL_INV_ERR = 7,      // inverse multiplication can not be carried out
    LAS_EL_NOT_SORTED = 8,    // matrix elements are not sorted
    LAS_ZERO_IN_DIAG = 9,     // zero (or missing) elements in the diagonal
    LAS_ZERO_PIVOT = 10,      // a factorisation met a zero pivot
    LAS_ILU_STRUCT_ERR = 11,  // structure not allowed for an ILU factorisation
    LAS_ITER_SOLVER_ERR = 12, // an iterative solver failed
    LAS_USER_BREAK = 13       // terminated by a user break
};

// Element order of a QMatrix: which index the per-"row" lists run over.
typedef int ElOrderType;
constexpr ElOrderType EL_ORDER_ROWS = 0;    // list i holds row i, positions are columns
constexpr ElOrderType EL_ORDER_COLUMNS = 1; // list j holds column j, positions are rows

// Instance kind of a QMatrix or Vector.
typedef int InstanceType;
constexpr InstanceType INSTANCE_NORMAL = 0;    // may be written
constexpr InstanceType INSTANCE_TEMPORARY = 1; // destroyed (and its record freed) by the last unlock

// One stored element: its position (column for row order, 1-based; 0 means not set) and its value.
struct ElType {
    size_t pos;
    double val;
};

// The element (0, 0.0) with which new row arrays are filled.
extern const ElType ZeroEl;

struct QMatrix {
    char *name;            // owned copy of the name
    size_t dim;            // the matrix is dim by dim
    bool symmetry;         // only the upper triangle is stored; lower reads mirror it
    ElOrderType el_order;  // EL_ORDER_ROWS or EL_ORDER_COLUMNS
    InstanceType instance; // INSTANCE_NORMAL or INSTANCE_TEMPORARY
    int lock_level;        // Q_Lock / Q_Unlock counter
    double multipl_d;      // scale of the diagonal (see Q_GetEl), 1.0
    double multipl_u;      // scale of the upper triangle, 1.0
    double multipl_l;      // scale of the lower triangle, 1.0
    bool own_data;         // the record owns len, el and the arrays below
    size_t *len;           // [dim+1], len[i] = number of elements in list i; [0] unused
    ElType **el;           // [dim+1], el[i] = list i (len[i] elements) or null when empty
    bool *el_sorted;       // one flag: every list is sorted by position
    bool *diag_el_alloc;   // one flag: diag_el and inv_diag_el are valid
    ElType **diag_el;      // [dim+1], pointer to the diagonal element of each list
    bool *zero_in_diag;    // one flag: some diagonal element is missing or zero
    double *inv_diag_el;   // [dim+1], inverses of the diagonal elements
    bool unit_right_ker;   // the right kernel is the constant vector
    double *right_ker_cmp; // [dim+1] normalised right kernel, or null
    bool unit_left_ker;    // the left kernel is the constant vector
    double *left_ker_cmp;  // [dim+1] normalised left kernel, or null
    void *eigenval_info;   // malloc'ed eigenvalue information, or null
    bool *factor_exists;   // one flag: *factor holds a constructed factorisation
    QMatrix *factor;       // companion record for a factorisation
};

struct Vector {
    char *name;            // owned copy of the name
    size_t dim;            // number of components
    InstanceType instance; // INSTANCE_NORMAL or INSTANCE_TEMPORARY
    int lock_level;        // V_Lock / V_Unlock counter
    double multipl;        // scale of the vector, 1.0 (V_GetCmp does not apply it)
    bool own_data;         // the record owns cmp
    double *cmp;           // [dim+1] components, [0] unused
};

// Error state.

// LASError: records an error. Sets the current code to err_id, releases the previously held
// procedure and object names, and keeps a copy of proc_name and of each object name that is
// non-null and non-empty. If proc_name cannot be copied, "(procedure unknown)" stands in for it and no
// object names are kept. Normally called by the store itself.
void LASError(LASErrIdType err_id, const char *proc_name, const char *object1_name, const char *object2_name,
              const char *object3_name);

// LASResult: the current error code, LAS_OK when no error has been recorded.
LASErrIdType LASResult(void);

// LASBreak: records a user break (code LAS_USER_BREAK); the held names are left as they are.
void LASBreak(void);

// WriteLASErrDescr: describes the current error on stream. When an error is set and a procedure name
// is held, writes "in PROC", then " for " and the held object names separated by ", " if any, then
// ":" and a line break; then, in every case, the fixed text of the current code (nothing for LAS_OK).
void WriteLASErrDescr(FILE *stream);

// Matrix operations.

// Q_Constr: initialises *Q as a dim by dim matrix named name (copied). Q is output: every field is set.
// symmetry: store only the upper triangle. el_order: EL_ORDER_ROWS (the engine's) or EL_ORDER_COLUMNS.
// instance: INSTANCE_NORMAL or INSTANCE_TEMPORARY. own_data: when true and no error is pending, allocates
// empty lists (every length 0) and the diagonal tables; when false the caller supplies len and el.
// Failure: LAS_MEM_ALLOC_ERR ("Q_Constr"). The name and fields are set even while an error is pending,
// so Q_Destr is always safe on a constructed record.
void Q_Constr(QMatrix *Q, const char *name, size_t dim, bool symmetry, ElOrderType el_order,
              InstanceType instance, bool own_data);

// Q_Destr: releases everything *Q owns (name, lists, tables, factorisation companion, kernels,
// eigenvalue information) and sets the released pointers to null. Runs even while an error is pending.
// The record itself is not freed.
void Q_Destr(QMatrix *Q);

// Q_SetName: replaces the name with a copy of name. Failure: LAS_MEM_ALLOC_ERR ("Q_SetName").
void Q_SetName(QMatrix *Q, const char *name);

// Q_GetName: the name (owned by Q), or "" while an error is pending.
const char *Q_GetName(const QMatrix *Q);

// Q_GetDim, Q_GetSymmetry, Q_GetElOrder: the dimension, symmetric flag and element order
// (0 / false while an error is pending).
size_t Q_GetDim(const QMatrix *Q);
bool Q_GetSymmetry(const QMatrix *Q);
ElOrderType Q_GetElOrder(const QMatrix *Q);

// Q_SetLen: gives list row room for len elements, all ZeroEl. The list's previous elements are released
// and LOST: this is not a resize; a caller growing a row copies its elements out first. len 0 leaves the
// list empty (null). Requires a normal, data-owning instance (else LAS_LVALUE_ERR) and 1 <= row <= dim
// (else LAS_RANGE_ERR); allocation failure LAS_MEM_ALLOC_ERR; all with "Q_SetLen" and Q's name.
void Q_SetLen(QMatrix *Q, size_t row, size_t len);

// Q_GetLen: number of elements in list row; 0 and LAS_RANGE_ERR ("Q_GetLen") unless 1 <= row <= dim.
size_t Q_GetLen(const QMatrix *Q, size_t row);

// Q_SetEntry: writes element (pos, val) at entry (0-based) of list row. Requires 1 <= row <= dim,
// 1 <= pos <= dim and entry < Q_GetLen(Q, row); else LAS_RANGE_ERR ("Q_SetEntry").
void Q_SetEntry(QMatrix *Q, size_t row, size_t entry, size_t pos, double val);

// Q_GetPos, Q_GetVal: position, resp. value, of entry of list row; same bounds as Q_SetEntry (without
// pos); failure LAS_RANGE_ERR ("Q_GetPos", "Q_GetVal") and result 0 / 0.0.
size_t Q_GetPos(const QMatrix *Q, size_t row, size_t entry);
double Q_GetVal(const QMatrix *Q, size_t row, size_t entry);

// Q_AddVal: adds val to the value of entry of list row; bounds and failure as Q_GetVal ("Q_AddVal").
void Q_AddVal(QMatrix *Q, size_t row, size_t entry, double val);

// Q_GetEl: value of matrix element (row, col), 0.0 when it is not stored. For a symmetric matrix the
// lower triangle is read from the stored upper one, so (row, col) and (col, row) agree. The whole list is
// scanned and the last element with the wanted position wins. The value is scaled by multipl_d when
// row == 1 and by multipl_u * multipl_l when row > col (all 1.0 unless a caller changes them).
// Requires 1 <= row, col <= dim; else LAS_RANGE_ERR ("Q_GetEl") and 0.0.
double Q_GetEl(const QMatrix *Q, size_t row, size_t col);

// ElCompar: qsort comparison of two ElType by position.
int ElCompar(const void *el1, const void *el2);

// Q_SortEl: sorts every list by position and marks the matrix sorted (this invalidates located
// diagonal elements).
void Q_SortEl(QMatrix *Q);

// Q_AllocInvDiagEl: locates the diagonal element of every list and stores 1 / (multipl_d * value) in
// inv_diag_el. A missing or zero diagonal element sets *zero_in_diag and LAS_ZERO_IN_DIAG
// ("Q_AllocInvDiagEl"). Requires a data-owning matrix (else LAS_LVALUE_ERR).
void Q_AllocInvDiagEl(QMatrix *Q);

// Q_SetKer: stores the right kernel right_ker and the left kernel left_ker (null: the same as the right
// one) as unit-length copies; a constant vector is recorded by the unit flag alone. Dimensions must
// equal Q's (else LAS_DIM_ERR, "Q_SetKer"). The vectors stay the caller's.
void Q_SetKer(QMatrix *Q, const Vector *right_ker, const Vector *left_ker);

// Q_KerDefined: true when a right kernel has been stored.
bool Q_KerDefined(const QMatrix *Q);

// Q_EigenvalInfo: address of Q's eigenvalue information pointer (a malloc'ed block owned by Q and
// released by Q_Destr), or null while an error is pending.
void **Q_EigenvalInfo(QMatrix *Q);

// Q_Lock, Q_Unlock: raise / lower the lock level (a null Q is ignored). When a temporary instance's
// level drops below 1, Q_Unlock destroys it and frees the record, which must come from malloc.
void Q_Lock(QMatrix *Q);
void Q_Unlock(QMatrix *Q);

// Vector operations.

// V_Constr: initialises *V as a vector of dim components named name (copied), multiplier 1.0. When
// own_data is set and no error is pending allocates dim+1 uninitialised doubles, otherwise cmp is null.
// Failure: LAS_MEM_ALLOC_ERR ("V_Constr").
void V_Constr(Vector *V, const char *name, size_t dim, InstanceType instance, bool own_data);

// V_Destr: releases the name and, when owned, the components. Runs even while an error is pending.
void V_Destr(Vector *V);

// V_SetName, V_GetName: as Q_SetName ("V_SetName") and Q_GetName.
void V_SetName(Vector *V, const char *name);
const char *V_GetName(const Vector *V);

// V_GetDim: the dimension (0 while an error is pending).
size_t V_GetDim(const Vector *V);

// V_SetCmp: component ind = val. Requires 1 <= ind <= dim, a normal instance and own data; else
// LAS_RANGE_ERR ("V_SetCmp").
void V_SetCmp(Vector *V, size_t ind, double val);

// V_AddCmp: component ind += val; checks as V_SetCmp ("V_AddCmp").
void V_AddCmp(Vector *V, size_t ind, double val);

// V_SetAllCmp: components 1..dim = val, multiplier 1.0.
void V_SetAllCmp(Vector *V, double val);

// V_SetRndCmp: components 1..dim = rand() / 2147483648.0, multiplier 1.0.
void V_SetRndCmp(Vector *V);

// V_GetCmp: component ind, without the multiplier; 0.0 and LAS_RANGE_ERR ("V_GetCmp") unless
// 1 <= ind <= dim.
double V_GetCmp(const Vector *V, size_t ind);

// V_Lock, V_Unlock: as Q_Lock and Q_Unlock.
void V_Lock(Vector *V);
void V_Unlock(Vector *V);

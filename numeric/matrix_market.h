// Reading and writing Matrix Market exchange files: the "%%MatrixMarket" banner, the size line and the
// entries of coordinate (sparse) files, and the size line of array (dense) files.
//
// A file starts with the banner "%%MatrixMarket matrix FORMAT FIELD SYMMETRY", optional comment lines
// starting with '%', a size line ("M N NZ" for coordinate, "M N" for array) and then the entries, one
// "I J [VALUE [IMAGINARY]]" per line for coordinate files, with 1-based I and J.
//
// Usage, reading a whole coordinate file:
//     int M, N, nz, *I, *J; double *val; MM_typecode code;
//     if (mm_read_mtx_crd("a.mtx", &M, &N, &nz, &I, &J, &val, code) == 0) { ...; free(I); free(J); free(val);
//     }
//
// Files are untrusted: every count and index is checked, the readers never read or write outside the
// arrays they are given or allocate more than the entries actually present require.
#pragma once

#include <cstdio>

// Return codes of the routines below (0 is success).
constexpr int MM_COULD_NOT_OPEN = 11;   // the named file could not be opened for reading
constexpr int MM_PREMATURE_EOF = 12;    // the file ended (or stopped parsing) before the data was complete
constexpr int MM_NO_HEADER = 14;        // the first word is not "%%MatrixMarket"
constexpr int MM_UNSUPPORTED_TYPE = 15; // unknown banner word, unsupported type, or a count or index
                                        // out of range
constexpr int MM_COULD_NOT_WRITE = 17;  // the file could not be created or written

// Type code: four characters, one per banner word.
//   [0] 'M' matrix
//   [1] 'C' coordinate, 'A' array
//   [2] 'R' real, 'C' complex, 'P' pattern, 'I' integer
//   [3] 'G' general, 'S' symmetric, 'H' hermitian, 'K' skew-symmetric
// A cleared code holds ' ' in the first three places and 'G' in the last.
typedef char MM_typecode[4];

inline bool mm_is_matrix(const MM_typecode c) {
    return c[0] == 'M';
}
inline bool mm_is_coordinate(const MM_typecode c) {
    return c[1] == 'C';
}
inline bool mm_is_sparse(const MM_typecode c) {
    return c[1] == 'C';
}
inline bool mm_is_array(const MM_typecode c) {
    return c[1] == 'A';
}
inline bool mm_is_dense(const MM_typecode c) {
    return c[1] == 'A';
}
inline bool mm_is_real(const MM_typecode c) {
    return c[2] == 'R';
}
inline bool mm_is_complex(const MM_typecode c) {
    return c[2] == 'C';
}
inline bool mm_is_pattern(const MM_typecode c) {
    return c[2] == 'P';
}
inline bool mm_is_integer(const MM_typecode c) {
    return c[2] == 'I';
}
inline bool mm_is_general(const MM_typecode c) {
    return c[3] == 'G';
}
inline bool mm_is_symmetric(const MM_typecode c) {
    return c[3] == 'S';
}
inline bool mm_is_hermitian(const MM_typecode c) {
    return c[3] == 'H';
}
inline bool mm_is_skew(const MM_typecode c) {
    return c[3] == 'K';
}

inline void mm_set_matrix(MM_typecode c) {
    c[0] = 'M';
}
inline void mm_set_coordinate(MM_typecode c) {
    c[1] = 'C';
}
inline void mm_set_array(MM_typecode c) {
    c[1] = 'A';
}
inline void mm_set_real(MM_typecode c) {
    c[2] = 'R';
}
inline void mm_set_complex(MM_typecode c) {
    c[2] = 'C';
}
inline void mm_set_pattern(MM_typecode c) {
    c[2] = 'P';
}
inline void mm_set_integer(MM_typecode c) {
    c[2] = 'I';
}
inline void mm_set_general(MM_typecode c) {
    c[3] = 'G';
}
inline void mm_set_symmetric(MM_typecode c) {
    c[3] = 'S';
}
inline void mm_set_hermitian(MM_typecode c) {
    c[3] = 'H';
}
inline void mm_set_skew(MM_typecode c) {
    c[3] = 'K';
}

inline void mm_clear_typecode(MM_typecode c) {
    c[0] = c[1] = c[2] = ' ', c[3] = 'G';
}

// mm_read_banner: reads the first line of f (at most 1025 characters; a longer line is consumed to its
// end) and splits it into five words. The first must be "%%MatrixMarket"; the others are compared in
// lower case and must be: "matrix"; "coordinate" or "array"; "real", "complex", "pattern" or "integer";
// "general", "symmetric", "hermitian" or "skew-symmetric".
//   f     modified: positioned after the banner line
//   code  output: the type code (cleared first, so it is defined whatever the result)
// Returns 0; MM_PREMATURE_EOF when there is no line or fewer than five words; MM_NO_HEADER;
// MM_UNSUPPORTED_TYPE for any other word.
int mm_read_banner(FILE *f, MM_typecode code);

// mm_is_valid: 1 when the code describes a matrix the format allows, else 0. Refused: anything but a
// matrix, array with pattern, real with hermitian, pattern with hermitian or skew-symmetric.
int mm_is_valid(const MM_typecode code);

// mm_read_mtx_crd_size: skips comment lines (first character '%') and blank lines, then reads the three
// integers M N NZ of a coordinate file's size line (they may continue on following lines).
//   M, N, nz  output: rows, columns, number of entries; set only on success
// Returns 0; MM_PREMATURE_EOF when the file ends or a word is not an integer; MM_UNSUPPORTED_TYPE when
// a number is negative or does not fit an int.
int mm_read_mtx_crd_size(FILE *f, int *M, int *N, int *nz);

// mm_read_mtx_array_size: as mm_read_mtx_crd_size for the two integers M N of an array file.
int mm_read_mtx_array_size(FILE *f, int *M, int *N);

// mm_read_mtx_crd_entry: reads one coordinate entry: "I J RE IM" for complex, "I J VALUE" for real and
// integer, "I J" for pattern (entries may be split or joined across lines: words are separated by any
// white space).
//   I, J       output: 1-based row and column as written in the file
//   real, imag output: the value (real, integer, complex) and the imaginary part (complex); untouched
//              when the field does not carry them
// Returns 0; MM_PREMATURE_EOF when the file ends or a word does not parse; MM_UNSUPPORTED_TYPE for a
// code that is not coordinate with a known field.
int mm_read_mtx_crd_entry(FILE *f, int *I, int *J, double *real, double *imag, const MM_typecode code);

// mm_read_mtx_crd_data: reads nz entries into caller-supplied arrays.
//   M, N    input: the size, for the index check
//   nz      input: number of entries to read; I and J hold nz ints, val nz doubles (2*nz for complex,
//           interleaved real and imaginary; val may be null for pattern)
//   I, J, val  output
// Returns 0; MM_PREMATURE_EOF; MM_UNSUPPORTED_TYPE for an unsupported field, a negative nz, or an index
// outside 1..M or 1..N. Entries read before a failure are stored.
int mm_read_mtx_crd_data(FILE *f, int M, int N, int nz, int I[], int J[], double val[],
                         const MM_typecode code);

// mm_read_mtx_crd: reads a whole coordinate file. fname "stdin" reads standard input.
//   M, N, nz  output: size and entry count
//   I, J      output: malloc'ed arrays of nz 1-based indices, owned by the caller (free)
//   val       output: malloc'ed array of nz values (2*nz for complex), or null for pattern; caller frees
//   code      output: the type code
// Returns 0; MM_COULD_NOT_OPEN; the codes of the banner, size and data readers; MM_UNSUPPORTED_TYPE for
// a valid banner that is not a coordinate matrix or fails mm_is_valid. On failure nothing is allocated
// and M, N, nz, I, J, val are untouched. Exhausted memory ends the process (numeric/arrays.h).
int mm_read_mtx_crd(const char *fname, int *M, int *N, int *nz, int **I, int **J, double **val,
                    MM_typecode code);

// mm_read_unsymmetric_sparse: reads a real coordinate file into three arrays, with indices converted to
// 0-based (ready for compressed-column or triplet storage). The entries are taken as written: a
// symmetric file yields only its stored triangle.
//   M_, N_, nz_     output: size and entry count
//   val_, I_, J_    output: malloc'ed arrays of nz_ values, row and column indices; caller frees
// Returns 0, or -1 after a message: "mm_read_unsymetric: Could not process Matrix Market banner  in file
// [NAME]\n" on standard output; "Sorry, this application does not support Market Market type: [TYPE]\n"
// and "read_unsymmetric_sparse(): could not parse matrix size.\n" on standard error, or "...could not
// read entry K of NZ.\n" there; a file that cannot be opened fails without a message. Outputs are
// untouched on failure.
int mm_read_unsymmetric_sparse(const char *fname, int *M_, int *N_, int *nz_, double **val_, int **I_,
                               int **J_);

// mm_write_banner: writes "%%MatrixMarket WORDS\n" for the code. Returns 0, MM_UNSUPPORTED_TYPE for a
// code with an unknown letter, MM_COULD_NOT_WRITE when the stream refuses the text.
int mm_write_banner(FILE *f, const MM_typecode code);

// mm_write_mtx_crd_size, mm_write_mtx_array_size: write "M N NZ\n", resp. "M N\n".
// Return 0 or MM_COULD_NOT_WRITE.
int mm_write_mtx_crd_size(FILE *f, int M, int N, int nz);
int mm_write_mtx_array_size(FILE *f, int M, int N);

// mm_write_mtx_crd: writes a whole coordinate file named fname ("stdout": standard output): banner, size
// line, and nz entries "%d %d %20.16g\n" (real), "%d %d %20.16g %20.16g\n" (complex, val interleaved)
// or "%d %d\n" (pattern). I and J are written as given (1-based by the format's rule).
// Returns 0; MM_UNSUPPORTED_TYPE for any other field (nothing is written then); MM_COULD_NOT_WRITE
// when the file cannot be created or written.
int mm_write_mtx_crd(const char *fname, int M, int N, int nz, const int I[], const int J[],
                     const double val[], const MM_typecode code);

// mm_typecode_to_str: the four banner words of the code joined by single spaces, e.g.
// "matrix coordinate real general", as a malloc'ed string owned by the caller (free); null when the code
// holds a letter with no word.
char *mm_typecode_to_str(const MM_typecode code);

// mm_strdup: malloc'ed copy of s, owned by the caller. Exhausted memory ends the process.
char *mm_strdup(const char *s);

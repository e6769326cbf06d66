// Matrix Market reading and writing.
//
// The readers take words one at a time from the stream and convert each with strtol/strtod, checking
// that the whole word is a number that fits, rather than handing untrusted text to scanf conversions
// (whose behaviour on overflow is undefined and which can loop forever on garbage).
#include "numeric/matrix_market.h"

#include "numeric/arrays.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <vector>

static const char MatrixMarketBanner[] = "%%MatrixMarket";

// Longest line the banner reader keeps, including the terminating NUL.
constexpr int MM_MAX_LINE_LENGTH = 1025;

// Longest word the number readers accept; longer words are not numbers we want.
constexpr size_t MM_MAX_WORD = 128;

// Reads the next line into buf without its line break; a longer line is consumed to its end so that
// the next read starts on the following line. Counted by characters, not by strlen, so that a NUL byte
// inside the line cannot desynchronise the reader. False at end of file.
static bool read_line(FILE *f, char *buf, int cap) {
    int n = 0, c;
    while ((c = std::getc(f)) != EOF && c != '\n')
        if (n + 1 < cap) buf[n++] = static_cast<char>(c);
    buf[n] = '\0';
    return !(c == EOF && n == 0);
}

// Skips white space, blank lines and comment lines (a '%' where a word would start, up to the end of
// its line). False at end of file.
static bool skip_comments(FILE *f) {
    int c;
    while ((c = std::getc(f)) != EOF) {
        if (c == '%') {
            while ((c = std::getc(f)) != EOF && c != '\n') {
            }
            if (c == EOF) return false;
        } else if (!std::isspace(c)) {
            std::ungetc(c, f);
            return true;
        }
    }
    return false;
}

// Reads the next white-space separated word into buf. Returns 1, 0 at end of file, -1 when the word
// is longer than buf can hold (it is consumed all the same).
static int read_word(FILE *f, char *buf, size_t cap) {
    int c;
    do {
        c = std::getc(f);
    } while (c != EOF && std::isspace(c));
    if (c == EOF) return 0;
    size_t n = 0;
    bool too_long = false;
    while (c != EOF && !std::isspace(c)) {
        if (n + 1 < cap)
            buf[n++] = static_cast<char>(c);
        else
            too_long = true;
        c = std::getc(f);
    }
    buf[n] = '\0';
    return too_long ? -1 : 1;
}

// Result of reading one number word.
enum class Parse { ok, eof_or_garbage, out_of_range };

static Parse read_int(FILE *f, int *out) {
    char word[MM_MAX_WORD];
    if (read_word(f, word, sizeof word) != 1) return Parse::eof_or_garbage;
    char *end;
    errno = 0;
    long v = std::strtol(word, &end, 10);
    if (end == word || *end != '\0') return Parse::eof_or_garbage;
    if (errno == ERANGE || v < INT_MIN || v > INT_MAX) return Parse::out_of_range;
    *out = static_cast<int>(v);
    return Parse::ok;
}

static bool read_double(FILE *f, double *out) {
    char word[MM_MAX_WORD];
    if (read_word(f, word, sizeof word) != 1) return false;
    char *end;
    double v = std::strtod(word, &end);
    if (end == word || *end != '\0') return false;
    *out = v;
    return true;
}

// Reads the count non-negative integers of a size line, skipping comment lines before and between them.
static int read_size(FILE *f, int count, int *values) {
    for (int k = 0; k < count; k++) {
        if (!skip_comments(f)) return MM_PREMATURE_EOF;
        switch (read_int(f, &values[k])) {
        case Parse::ok:
            break;
        case Parse::eof_or_garbage:
            return MM_PREMATURE_EOF;
        case Parse::out_of_range:
            return MM_UNSUPPORTED_TYPE;
        }
        if (values[k] < 0) return MM_UNSUPPORTED_TYPE;
    }
    return 0;
}

int mm_read_banner(FILE *f, MM_typecode code) {
    mm_clear_typecode(code);
    char line[MM_MAX_LINE_LENGTH];
    if (!read_line(f, line, sizeof line)) return MM_PREMATURE_EOF;

    char words[5][MM_MAX_LINE_LENGTH];
    if (std::sscanf(line, "%1024s %1024s %1024s %1024s %1024s", words[0], words[1], words[2], words[3],
                    words[4]) != 5)
        return MM_PREMATURE_EOF;
    for (int w = 1; w < 5; w++)
        for (char *p = words[w]; *p != '\0'; p++)
            *p = static_cast<char>(std::tolower(static_cast<unsigned char>(*p)));

    if (std::strcmp(words[0], MatrixMarketBanner) != 0) return MM_NO_HEADER;

    if (std::strcmp(words[1], "matrix") != 0) return MM_UNSUPPORTED_TYPE;
    mm_set_matrix(code);

    if (std::strcmp(words[2], "coordinate") == 0)
        mm_set_coordinate(code);
    else if (std::strcmp(words[2], "array") == 0)
        mm_set_array(code);
    else
        return MM_UNSUPPORTED_TYPE;

    if (std::strcmp(words[3], "real") == 0)
        mm_set_real(code);
    else if (std::strcmp(words[3], "complex") == 0)
        mm_set_complex(code);
    else if (std::strcmp(words[3], "pattern") == 0)
        mm_set_pattern(code);
    else if (std::strcmp(words[3], "integer") == 0)
        mm_set_integer(code);
    else
        return MM_UNSUPPORTED_TYPE;

    if (std::strcmp(words[4], "general") == 0)
        mm_set_general(code);
    else if (std::strcmp(words[4], "symmetric") == 0)
        mm_set_symmetric(code);
    else if (std::strcmp(words[4], "hermitian") == 0)
        mm_set_hermitian(code);
    else if (std::strcmp(words[4], "skew-symmetric") == 0)
        mm_set_skew(code);
    else
        return MM_UNSUPPORTED_TYPE;
    return 0;
}

int mm_is_valid(const MM_typecode code) {
    if (!mm_is_matrix(code)) return 0;
    if (mm_is_dense(code) && mm_is_pattern(code)) return 0;
    if (mm_is_real(code) && mm_is_hermitian(code)) return 0;
    if (mm_is_pattern(code) && (mm_is_hermitian(code) || mm_is_skew(code))) return 0;
    return 1;
}

int mm_read_mtx_crd_size(FILE *f, int *M, int *N, int *nz) {
    int v[3];
    int status = read_size(f, 3, v);
    if (status != 0) return status;
    *M = v[0];
    *N = v[1];
    *nz = v[2];
    return 0;
}

int mm_read_mtx_array_size(FILE *f, int *M, int *N) {
    int v[2];
    int status = read_size(f, 2, v);
    if (status != 0) return status;
    *M = v[0];
    *N = v[1];
    return 0;
}

int mm_read_mtx_crd_entry(FILE *f, int *I, int *J, double *real, double *imag, const MM_typecode code) {
    if (!mm_is_coordinate(code) ||
        !(mm_is_complex(code) || mm_is_real(code) || mm_is_integer(code) || mm_is_pattern(code)))
        return MM_UNSUPPORTED_TYPE;
    int i, j;
    double re = 0.0, im = 0.0;
    if (read_int(f, &i) != Parse::ok || read_int(f, &j) != Parse::ok) return MM_PREMATURE_EOF;
    if (!mm_is_pattern(code) && !read_double(f, &re)) return MM_PREMATURE_EOF;
    if (mm_is_complex(code) && !read_double(f, &im)) return MM_PREMATURE_EOF;
    *I = i;
    *J = j;
    if (!mm_is_pattern(code)) *real = re;
    if (mm_is_complex(code)) *imag = im;
    return 0;
}

int mm_read_mtx_crd_data(FILE *f, int M, int N, int nz, int I[], int J[], double val[],
                         const MM_typecode code) {
    if (nz < 0) return MM_UNSUPPORTED_TYPE;
    for (int k = 0; k < nz; k++) {
        int i, j;
        double re = 0.0, im = 0.0;
        int status = mm_read_mtx_crd_entry(f, &i, &j, &re, &im, code);
        if (status != 0) return status;
        if (i < 1 || i > M || j < 1 || j > N) return MM_UNSUPPORTED_TYPE;
        I[k] = i;
        J[k] = j;
        if (mm_is_complex(code)) {
            val[2 * k] = re;
            val[2 * k + 1] = im;
        } else if (!mm_is_pattern(code)) {
            val[k] = re;
        }
    }
    return 0;
}

namespace {

// A coordinate file read into growing buffers, so that a size line claiming more entries than the
// file holds never makes us allocate for them.
struct CrdFile {
    MM_typecode code;
    int M = 0, N = 0, nz = 0;
    std::vector<int> I, J;
    std::vector<double> val;
};

// Reads banner, size and entries of an open stream. stage receives which part failed (0 banner, 1 not
// a supported coordinate type, 2 size, 3 entries) for callers that print their own messages.
int read_crd_stream(FILE *f, CrdFile *out, int *stage) {
    *stage = 0;
    int status = mm_read_banner(f, out->code);
    if (status != 0) return status;
    *stage = 1;
    if (!mm_is_valid(out->code) || !mm_is_coordinate(out->code)) return MM_UNSUPPORTED_TYPE;
    *stage = 2;
    status = mm_read_mtx_crd_size(f, &out->M, &out->N, &out->nz);
    if (status != 0) return status;
    *stage = 3;
    const bool complex = mm_is_complex(out->code), pattern = mm_is_pattern(out->code);
    size_t guess = static_cast<size_t>(out->nz < 4096 ? out->nz : 4096);
    out->I.reserve(guess);
    out->J.reserve(guess);
    for (int k = 0; k < out->nz; k++) {
        int i, j;
        double re = 0.0, im = 0.0;
        status = mm_read_mtx_crd_entry(f, &i, &j, &re, &im, out->code);
        if (status != 0) return status;
        if (i < 1 || i > out->M || j < 1 || j > out->N) return MM_UNSUPPORTED_TYPE;
        out->I.push_back(i);
        out->J.push_back(j);
        if (!pattern) out->val.push_back(re);
        if (complex) out->val.push_back(im);
    }
    return 0;
}

// Copies a vector into a malloc'ed array (at least one byte, so that an empty file still gives a
// pointer the caller can free).
template <typename T> T *to_malloc(const std::vector<T> &v) {
    T *p = static_cast<T *>(mget_spc(static_cast<int>(v.size() > 0 ? v.size() : 1), sizeof(T)));
    if (!v.empty()) std::memcpy(p, v.data(), v.size() * sizeof(T));
    return p;
}

} // namespace

int mm_read_mtx_crd(const char *fname, int *M, int *N, int *nz, int **I, int **J, double **val,
                    MM_typecode code) {
    bool is_stdin = std::strcmp(fname, "stdin") == 0;
    FILE *f = is_stdin ? stdin : std::fopen(fname, "r");
    if (f == nullptr) return MM_COULD_NOT_OPEN;
    CrdFile file;
    int stage;
    int status = read_crd_stream(f, &file, &stage);
    if (!is_stdin) std::fclose(f);
    std::memcpy(code, file.code, sizeof(MM_typecode));
    if (status != 0) return status;
    *M = file.M;
    *N = file.N;
    *nz = file.nz;
    *I = to_malloc(file.I);
    *J = to_malloc(file.J);
    *val = mm_is_pattern(file.code) ? nullptr : to_malloc(file.val);
    return 0;
}

int mm_read_unsymmetric_sparse(const char *fname, int *M_, int *N_, int *nz_, double **val_, int **I_,
                               int **J_) {
    FILE *f = std::fopen(fname, "r");
    if (f == nullptr) return -1;
    CrdFile file;
    int stage;
    int status = mm_read_banner(f, file.code);
    if (status != 0) {
        std::printf("mm_read_unsymetric: Could not process Matrix Market banner ");
        std::printf(" in file [%s]\n", fname);
        std::fclose(f);
        return -1;
    }
    if (!(mm_is_real(file.code) && mm_is_matrix(file.code) && mm_is_sparse(file.code) &&
          mm_is_valid(file.code))) {
        char *type = mm_typecode_to_str(file.code);
        std::fprintf(stderr, "Sorry, this application does not support ");
        std::fprintf(stderr, "Market Market type: [%s]\n", type != nullptr ? type : "");
        std::free(type);
        std::fclose(f);
        return -1;
    }
    // The banner is read: rewind and let the common reader do the rest, so that both paths agree.
    std::rewind(f);
    status = read_crd_stream(f, &file, &stage);
    std::fclose(f);
    if (status != 0) {
        if (stage == 2)
            std::fprintf(stderr, "read_unsymmetric_sparse(): could not parse matrix size.\n");
        else
            std::fprintf(stderr, "read_unsymmetric_sparse(): could not read entry %zu of %d.\n",
                         file.I.size() + 1, file.nz);
        return -1;
    }
    for (int &i : file.I)
        i--;
    for (int &j : file.J)
        j--;
    *M_ = file.M;
    *N_ = file.N;
    *nz_ = file.nz;
    *val_ = to_malloc(file.val);
    *I_ = to_malloc(file.I);
    *J_ = to_malloc(file.J);
    return 0;
}

int mm_write_banner(FILE *f, const MM_typecode code) {
    char *words = mm_typecode_to_str(code);
    if (words == nullptr) return MM_UNSUPPORTED_TYPE;
    int ret = std::fprintf(f, "%s %s\n", MatrixMarketBanner, words);
    std::free(words);
    return ret < 0 ? MM_COULD_NOT_WRITE : 0;
}

int mm_write_mtx_crd_size(FILE *f, int M, int N, int nz) {
    return std::fprintf(f, "%d %d %d\n", M, N, nz) < 0 ? MM_COULD_NOT_WRITE : 0;
}

int mm_write_mtx_array_size(FILE *f, int M, int N) {
    return std::fprintf(f, "%d %d\n", M, N) < 0 ? MM_COULD_NOT_WRITE : 0;
}

int mm_write_mtx_crd(const char *fname, int M, int N, int nz, const int I[], const int J[],
                     const double val[], const MM_typecode code) {
    if (!(mm_is_real(code) || mm_is_complex(code) || mm_is_pattern(code))) return MM_UNSUPPORTED_TYPE;
    bool is_stdout = std::strcmp(fname, "stdout") == 0;
    FILE *f = is_stdout ? stdout : std::fopen(fname, "w");
    if (f == nullptr) return MM_COULD_NOT_WRITE;

    int status = mm_write_banner(f, code);
    if (status == 0) status = mm_write_mtx_crd_size(f, M, N, nz);
    for (int k = 0; k < nz && status == 0; k++) {
        int ret;
        if (mm_is_pattern(code))
            ret = std::fprintf(f, "%d %d\n", I[k], J[k]);
        else if (mm_is_real(code))
            ret = std::fprintf(f, "%d %d %20.16g\n", I[k], J[k], val[k]);
        else
            ret = std::fprintf(f, "%d %d %20.16g %20.16g\n", I[k], J[k], val[2 * k], val[2 * k + 1]);
        if (ret < 0) status = MM_COULD_NOT_WRITE;
    }
    if (is_stdout) {
        if (std::fflush(f) != 0 && status == 0) status = MM_COULD_NOT_WRITE;
    } else if (std::fclose(f) != 0 && status == 0) {
        status = MM_COULD_NOT_WRITE;
    }
    return status;
}

char *mm_typecode_to_str(const MM_typecode code) {
    const char *object = mm_is_matrix(code) ? "matrix" : nullptr;
    const char *format = mm_is_coordinate(code) ? "coordinate" : mm_is_array(code) ? "array" : nullptr;
    const char *field = mm_is_real(code)      ? "real"
                        : mm_is_complex(code) ? "complex"
                        : mm_is_pattern(code) ? "pattern"
                        : mm_is_integer(code) ? "integer"
                                              : nullptr;
    const char *symmetry = mm_is_general(code)     ? "general"
                           : mm_is_symmetric(code) ? "symmetric"
                           : mm_is_hermitian(code) ? "hermitian"
                           : mm_is_skew(code)      ? "skew-symmetric"
                                                   : nullptr;
    if (object == nullptr || format == nullptr || field == nullptr || symmetry == nullptr) return nullptr;
    char buffer[MM_MAX_LINE_LENGTH];
    std::snprintf(buffer, sizeof buffer, "%s %s %s %s", object, format, field, symmetry);
    return mm_strdup(buffer);
}

char *mm_strdup(const char *s) {
    size_t n = std::strlen(s) + 1;
    char *copy = static_cast<char *>(mget_spc(static_cast<int>(n), 1));
    std::memcpy(copy, s, n);
    return copy;
}

// Allocators that end the process on failure, and arrays addressed by row tables over one element block.
#include "numeric/arrays.h"

#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

const char calloc_message[] = "==> calloc() error\n";
const char malloc_message[] = "==> malloc() error\n";

[[noreturn]] void out_of_memory(const char *message) {
    fputs(message, stderr);
    exit(-1);
}

// Byte count of num elements of size bytes, refusing negative counts and anything past PTRDIFF_MAX
// (no allocator can return such a block, and pointer differences inside it would overflow). Zero is
// rounded up to one byte so that a successful call never hands back null.
size_t byte_count(int num, size_t size, const char *message) {
    if (num < 0) out_of_memory(message);
    if (size != 0 && static_cast<size_t>(num) > static_cast<size_t>(PTRDIFF_MAX) / size)
        out_of_memory(message);
    size_t bytes = static_cast<size_t>(num) * size;
    return bytes == 0 ? 1 : bytes;
}

using Allocator = void *(*)(int, size_t);

void **make_2d(int cols, int rows, size_t size, Allocator alloc, const char *message) {
    if (cols < 0 || rows < 0) out_of_memory(message);
    long long count = static_cast<long long>(rows) * cols;
    if (count > INT_MAX) out_of_memory(message);

    char *block = static_cast<char *>(alloc(static_cast<int>(count), size));
    // One slot even for zero rows, so that free_img always finds the element block in slot 0.
    void **table = static_cast<void **>(alloc(rows > 0 ? rows : 1, sizeof(void *)));
    table[0] = block;
    for (int r = 1; r < rows; r++)
        table[r] = block + static_cast<size_t>(r * cols) * size;
    return table;
}

void *make_nd(size_t size, int n, va_list dims_in, Allocator alloc, const char *message) {
    if (n < 1) out_of_memory(message);
    std::vector<int> dims(n);
    // count[k] = d0 * d1 * ... * dk: the number of entries at level k (the element count for k = n-1).
    std::vector<int> count(n);
    long long product = 1;
    for (int k = 0; k < n; k++) {
        dims[k] = va_arg(dims_in, int);
        if (dims[k] < 0) out_of_memory(message);
        product *= dims[k];
        if (product > INT_MAX) out_of_memory(message);
        count[k] = static_cast<int>(product);
    }
    if (n == 1) return alloc(count[0], size);

    std::vector<void **> tables(n - 1);
    for (int k = 0; k < n - 1; k++)
        tables[k] = static_cast<void **>(alloc(count[k] > 0 ? count[k] : 1, sizeof(void *)));
    char *elements = static_cast<char *>(alloc(count[n - 1], size));

    for (int k = 0; k < n - 1; k++) {
        bool last = k == n - 2;
        char *next = last ? elements : reinterpret_cast<char *>(tables[k + 1]);
        size_t stride = static_cast<size_t>(dims[k + 1]) * (last ? size : sizeof(void *));
        // Slot 0 always leads to the next level, even for an empty level, because multifree walks
        // the levels through it.
        tables[k][0] = next;
        for (int j = 1; j < count[k]; j++)
            tables[k][j] = next + static_cast<size_t>(j) * stride;
    }
    return tables[0];
}

} // namespace

void *get_spc(int num, size_t size) {
    size_t bytes = byte_count(num, size, calloc_message);
    void *p = calloc(bytes, 1);
    if (p == nullptr) out_of_memory(calloc_message);
    return p;
}

void *mget_spc(int num, size_t size) {
    size_t bytes = byte_count(num, size, malloc_message);
    void *p = malloc(bytes);
    if (p == nullptr) out_of_memory(malloc_message);
    return p;
}

void *reget_spc(void *ptr, int num, size_t size) {
    size_t bytes = byte_count(num, size, malloc_message);
    void *p = realloc(ptr, bytes);
    if (p == nullptr) out_of_memory(malloc_message);
    return p;
}

void **get_img(int cols, int rows, size_t size) {
    return make_2d(cols, rows, size, mget_spc, malloc_message);
}

void **get_init_arr(int cols, int rows, size_t size) {
    return make_2d(cols, rows, size, get_spc, calloc_message);
}

void free_img(void **pt) {
    if (pt == nullptr) return;
    free(pt[0]);
    free(pt);
}

void *multialloc(size_t size, int n, ...) {
    va_list dims;
    va_start(dims, n);
    void *p = make_nd(size, n, dims, mget_spc, malloc_message);
    va_end(dims);
    return p;
}

void *multialloc_init(size_t size, int n, ...) {
    va_list dims;
    va_start(dims, n);
    void *p = make_nd(size, n, dims, get_spc, calloc_message);
    va_end(dims);
    return p;
}

void multifree(void *r, int n) {
    void *block = r;
    for (int level = 0; level < n && block != nullptr; level++) {
        // The element block holds no pointer, so only the pointer levels are read.
        void *next = level < n - 1 ? *static_cast<void **>(block) : nullptr;
        free(block);
        block = next;
    }
}

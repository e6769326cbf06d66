// Allocators that end the process on failure, and arrays addressed by row tables over one element block.
#include "numeric/arrays.h"

#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

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

// The dimensions are read twice from the argument list: once to check that every level's entry count
// fits, so that nothing is allocated for a request that must fail, and once to build the levels
// outermost first, linking each pointer table to the block allocated after it.
void *make_nd(size_t size, int n, va_list dims_in, Allocator alloc, const char *message) {
    if (n < 1) out_of_memory(message);
    va_list dims;
    va_copy(dims, dims_in);
    long long count = 1;
    for (int k = 0; k < n; k++) {
        int d = va_arg(dims, int);
        if (d < 0) out_of_memory(message);
        count *= d;
        if (count > INT_MAX) out_of_memory(message);
    }
    va_end(dims);

    int d0 = va_arg(dims_in, int);
    if (n == 1) return alloc(d0, size);
    // One slot even for an empty level, so that slot 0 always leads to the next level: multifree
    // walks the levels through it.
    void **first = static_cast<void **>(alloc(d0 > 0 ? d0 : 1, sizeof(void *)));
    void **table = first;
    int table_count = d0;
    for (int k = 1; k < n; k++) {
        int d = va_arg(dims_in, int);
        int next_count = table_count * d;
        bool elements = k == n - 1;
        char *next = elements ? static_cast<char *>(alloc(next_count, size))
                              : static_cast<char *>(alloc(next_count > 0 ? next_count : 1, sizeof(void *)));
        size_t stride = static_cast<size_t>(d) * (elements ? size : sizeof(void *));
        table[0] = next;
        for (int j = 1; j < table_count; j++)
            table[j] = next + static_cast<size_t>(j) * stride;
        table = reinterpret_cast<void **>(next);
        table_count = next_count;
    }
    return first;
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

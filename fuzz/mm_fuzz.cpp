// Fuzz target for the Matrix Market reader: runs the whole-file readers (by name) and the piecewise
// readers (on a memory stream) over arbitrary bytes, and checks that a file read successfully survives
// being written out and read again with the same structure.
#include "numeric/matrix_market.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

// One scratch file per fuzzing process, removed when the process ends.
struct ScratchFile {
    std::string in = "/tmp/keldra_mm_fuzz_" + std::to_string(getpid()) + ".mtx";
    std::string out = "/tmp/keldra_mm_fuzz_" + std::to_string(getpid()) + "_out.mtx";
    ~ScratchFile() {
        std::remove(in.c_str());
        std::remove(out.c_str());
    }
};

void check(bool condition) {
    if (!condition) __builtin_trap();
}

void whole_file_readers(const ScratchFile &scratch) {
    int M, N, nz, *I, *J;
    double *val;
    MM_typecode code;
    if (mm_read_mtx_crd(scratch.in.c_str(), &M, &N, &nz, &I, &J, &val, code) == 0) {
        check(M >= 0 && N >= 0 && nz >= 0);
        for (int k = 0; k < nz; k++)
            check(I[k] >= 1 && I[k] <= M && J[k] >= 1 && J[k] <= N);
        // Integer files have no coordinate writer; everything else must round-trip.
        if (!mm_is_integer(code)) {
            check(mm_write_mtx_crd(scratch.out.c_str(), M, N, nz, I, J, val, code) == 0);
            int M2, N2, nz2, *I2, *J2;
            double *val2;
            MM_typecode code2;
            check(mm_read_mtx_crd(scratch.out.c_str(), &M2, &N2, &nz2, &I2, &J2, &val2, code2) == 0);
            check(M2 == M && N2 == N && nz2 == nz);
            for (int k = 0; k < 4; k++)
                check(code2[k] == code[k]);
            for (int k = 0; k < nz; k++)
                check(I2[k] == I[k] && J2[k] == J[k]);
            std::free(I2);
            std::free(J2);
            std::free(val2);
        }
        std::free(I);
        std::free(J);
        std::free(val);
    }
    if (mm_read_unsymmetric_sparse(scratch.in.c_str(), &M, &N, &nz, &val, &I, &J) == 0) {
        for (int k = 0; k < nz; k++)
            check(I[k] >= 0 && I[k] < M && J[k] >= 0 && J[k] < N);
        std::free(I);
        std::free(J);
        std::free(val);
    }
}

void piecewise_readers(const uint8_t *data, size_t size) {
    if (size == 0) return; // fmemopen refuses an empty buffer
    FILE *f = fmemopen(const_cast<uint8_t *>(data), size, "r");
    if (f == nullptr) return;
    MM_typecode code;
    if (mm_read_banner(f, code) == 0) {
        std::free(mm_typecode_to_str(code));
        mm_is_valid(code);
        int M, N, nz;
        if (mm_is_coordinate(code)) {
            // A caller trusting the size line would allocate nz entries; keep that bounded here.
            if (mm_read_mtx_crd_size(f, &M, &N, &nz) == 0 && nz <= (1 << 16)) {
                std::vector<int> I(nz), J(nz);
                std::vector<double> val(2 * static_cast<size_t>(nz));
                mm_read_mtx_crd_data(f, M, N, nz, I.data(), J.data(), val.data(), code);
            }
        } else {
            mm_read_mtx_array_size(f, &M, &N);
        }
    }
    std::fclose(f);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static ScratchFile scratch;
    FILE *f = std::fopen(scratch.in.c_str(), "wb");
    if (f == nullptr) return 0;
    std::fwrite(data, 1, size, f);
    std::fclose(f);
    whole_file_readers(scratch);
    piecewise_readers(data, size);
    return 0;
}

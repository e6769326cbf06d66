// Fuzz target for the TIFF reader: runs read_TIFF on the input bytes as an in-memory file and frees
// whatever it read. Built by scripts/fuzz.sh with libFuzzer, and replayed over fuzz/corpus/tiff in
// every build.
#include "numeric/tiff.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    FILE *fp = fmemopen(const_cast<uint8_t *>(data), size, "rb");
    if (!fp) return 0;
    TIFF_img img{};
    if (read_TIFF(fp, &img) == 0) {
        free_TIFF(&img);
        if (img.TIFF_type == 'c' || img.TIFF_type == 'a') std::free(img.color);
    }
    std::fclose(fp);
    return 0;
}

// Helpers shared by the numeric tests: heap accounting, a temporary folder per test, image records
// (made with known pixels, compared, and released with the colour plane table free_TIFF leaves), and
// TIFF files built byte by byte.
#pragma once

#include "numeric/tiff.h"

#include <malloc.h>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <unistd.h>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
extern "C" size_t __sanitizer_get_current_allocated_bytes(void);
#endif

// Heap bytes currently handed out by the allocator in use (glibc's, or the sanitizer's). glibc keeps
// small freed blocks in per-thread caches that still count as in use, so tests comparing totals use
// blocks of several kilobytes and assert nothing between measurements (reporting allocates).
inline size_t allocated_bytes() {
#if defined(__SANITIZE_ADDRESS__)
    return __sanitizer_get_current_allocated_bytes();
#else
    struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
#endif
}

inline int plane_count(char type) {
    return type == 'c' ? 3 : type == 'a' ? 4 : 1;
}

// Plane p of a record: the mono plane of 'g' and 'p', else color[p].
inline uint8_t **plane(const TIFF_img &image, int p) {
    return plane_count(image.TIFF_type) == 1 ? image.mono : image.color[p];
}

inline void release(TIFF_img *image) {
    free_TIFF(image);
    if (plane_count(image->TIFF_type) > 1) std::free(image->color);
}

// A record whose pixels and palette follow a fixed pseudo-random sequence, so that swapped rows,
// planes or samples show up as differences.
inline TIFF_img make_image(char type, int height, int width, uint32_t seed = 1) {
    TIFF_img image;
    get_TIFF(&image, height, width, type);
    auto next = [&seed] { return uint8_t((seed = seed * 1664525u + 1013904223u) >> 24); };
    for (int p = 0; p < plane_count(type); p++)
        for (int i = 0; i < height * width; i++)
            plane(image, p)[0][i] = next();
    for (int i = 0; type == 'p' && i < 768; i++)
        image.cmap[0][i] = next();
    return image;
}

// Whether two records hold the same type, size, planes and palette.
inline bool same_image(const TIFF_img &a, const TIFF_img &b) {
    if (a.TIFF_type != b.TIFF_type || a.height != b.height || a.width != b.width) return false;
    for (int p = 0; p < plane_count(a.TIFF_type); p++)
        if (std::memcmp(plane(a, p)[0], plane(b, p)[0], size_t(a.height) * size_t(a.width)) != 0)
            return false;
    return a.TIFF_type != 'p' || std::memcmp(a.cmap[0], b.cmap[0], 768) == 0;
}

enum : uint16_t { ASCII = 2, SHORT = 3, LONG = 4, RATIONAL = 5 };

// One IFD entry to write; RATIONAL values are numerator, denominator pairs.
struct Field {
    uint16_t tag;
    std::vector<uint32_t> values;
    uint16_t type = SHORT;
};

// Builds a TIFF file, independently of the codec: header, the image's samples interleaved in strips of
// rows_per_strip rows from offset 8, the IFD at the next even offset with the entries in the order given,
// then the values that do not fit their entry. Entries 273 and 279 without values get the strips' offsets and
// byte counts.
inline std::vector<uint8_t> build(bool big_endian, const TIFF_img &image, int rows_per_strip,
                                  std::vector<Field> fields, uint32_t next_ifd = 0) {
    std::vector<uint8_t> out(8);
    auto put = [&](uint32_t v, size_t bytes, size_t at) {
        for (size_t i = 0; i < bytes; i++)
            out[at + i] = uint8_t(v >> (8 * (big_endian ? bytes - 1 - i : i)));
    };
    out[0] = out[1] = big_endian ? 'M' : 'I';
    put(42, 2, 2);
    std::vector<uint32_t> offsets, counts;
    const int spp = plane_count(image.TIFF_type);
    for (int row = 0; row < image.height; row++) {
        if (row % rows_per_strip == 0) offsets.push_back(uint32_t(out.size())), counts.push_back(0);
        for (int i = 0; i < image.width * spp; i++)
            out.push_back(plane(image, i % spp)[row][i / spp]);
        counts.back() += uint32_t(image.width * spp);
    }
    if (out.size() % 2) out.push_back(0);
    const uint32_t ifd = uint32_t(out.size());
    put(ifd, 4, 4);
    out.resize(out.size() + 2 + 12 * fields.size() + 4);
    put(uint32_t(fields.size()), 2, ifd);
    put(next_ifd, 4, ifd + 2 + 12 * fields.size());
    for (size_t e = 0; e < fields.size(); e++) {
        Field &f = fields[e];
        if ((f.tag == 273 || f.tag == 279) && f.values.empty()) f.values = f.tag == 273 ? offsets : counts;
        const size_t at = ifd + 2 + 12 * e, size = f.type == SHORT ? 2 : f.type == ASCII ? 1 : 4;
        const size_t bytes = size * f.values.size(), base = bytes > 4 ? out.size() : at + 8;
        put(f.tag, 2, at);
        put(f.type, 2, at + 2);
        put(uint32_t(f.type == RATIONAL ? f.values.size() / 2 : f.values.size()), 4, at + 4);
        if (bytes > 4) put(uint32_t(base), 4, at + 8), out.resize(out.size() + bytes + bytes % 2);
        for (size_t i = 0; i < f.values.size(); i++)
            put(f.values[i], size, base + size * i);
    }
    return out;
}

// The fields write_TIFF gives an image cut in strips of `rows` rows, sorted by tag: sizes and counts
// SHORT up to 65535 and LONG above, 100 dpi, the palette as all reds, then greens, then blues, each v
// as v * 257 (or, with `junk`, v in the high byte and another value in the low one); for 'a', which
// the writer refuses, the samples and ExtraSamples of associated alpha.
inline std::vector<Field> baseline_fields(const TIFF_img &image, uint32_t rows, bool junk = false) {
    const uint32_t width = uint32_t(image.width), height = uint32_t(image.height),
                   type = uint32_t(image.TIFF_type);
    const uint32_t spp = uint32_t(plane_count(image.TIFF_type));
    const uint32_t photometric = type == 'g' ? 1 : type == 'p' ? 3 : 2;
    auto size_type = [](uint32_t v) { return v > 65535 ? LONG : SHORT; };
    std::vector<Field> f = {{256, {width}, size_type(width)},
                            {257, {height}, size_type(height)},
                            {258, std::vector<uint32_t>(spp, 8)},
                            {259, {1}},
                            {262, {photometric}},
                            {273, {}, LONG},
                            {278, {rows}, size_type(rows)},
                            {279, {}, size_type(rows * width * spp)},
                            {282, {100, 1}, RATIONAL},
                            {283, {100, 1}, RATIONAL},
                            {296, {2}}};
    if (spp > 1) f.insert(f.begin() + 6, {277, {spp}});
    if (type == 'a') f.push_back({338, {2}});
    if (type == 'p') f.push_back({320, {}});
    for (uint32_t i = 0; type == 'p' && i < 768; i++)
        f.back().values.push_back(uint32_t(image.cmap[i % 256][i / 256]) << 8 |
                                  (junk ? i % 251 : image.cmap[i % 256][i / 256]));
    return f;
}

// A fresh folder under /tmp, removed with everything in it when the object goes.
struct TempDir {
    std::string dir = "/tmp/keldra_numeric_XXXXXX";
    TempDir() {
        if (mkdtemp(dir.data()) == nullptr) std::abort();
    }
    ~TempDir() { std::filesystem::remove_all(dir, ignored); }
    std::string path(const std::string &name) const { return dir + "/" + name; }
    std::error_code ignored;
};

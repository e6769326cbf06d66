// The image record: get_TIFF refusals, plane shapes and the release of planes by free_TIFF.
#include "numeric/tiff.h"

#include <gtest/gtest.h>

#include <malloc.h>
#include <cstdlib>
#include <string>

#if defined(__SANITIZE_ADDRESS__)
extern "C" size_t __sanitizer_get_current_allocated_bytes(void);
#endif

namespace {

// Heap bytes currently handed out by the allocator in use (glibc's, or the sanitizer's).
size_t allocated_bytes() {
#if defined(__SANITIZE_ADDRESS__)
    return __sanitizer_get_current_allocated_bytes();
#else
    struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
#endif
}

struct Refusal {
    int height;
    int width;
    char type;
    const char *message;
};

TEST(TiffRecord, GetTIFFRefusesBadSizesAndTypesAllocatingNothing) {
    const Refusal cases[] = {
        {0, 5, 'g', "tiff:  function get_TIFF:\nimage height and width must be positive\n"},
        {5, -1, 'c', "tiff:  function get_TIFF:\nimage height and width must be positive\n"},
        {-3, -3, 'x', "tiff:  function get_TIFF:\nimage height and width must be positive\n"},
        {4, 4, 'x', "tiff:  function get_TIFF:\nallocation for image of type x is not supported"},
        {4, 4, 'G', "tiff:  function get_TIFF:\nallocation for image of type G is not supported"},
    };
    for (const Refusal &c : cases) {
        uint8_t sentinel = 0;
        TIFF_img image;
        image.mono = reinterpret_cast<uint8_t **>(&sentinel);
        image.color = reinterpret_cast<uint8_t ***>(&sentinel);
        image.cmap = reinterpret_cast<uint8_t **>(&sentinel);
        image.compress_type = '?';

        testing::internal::CaptureStderr();
        size_t before = allocated_bytes();
        int status = get_TIFF(&image, c.height, c.width, c.type);
        size_t after = allocated_bytes();
        std::string err = testing::internal::GetCapturedStderr();

        SCOPED_TRACE(std::to_string(c.height) + "x" + std::to_string(c.width) + " " + c.type);
        EXPECT_EQ(status, 1);
        EXPECT_EQ(err, c.message);
        EXPECT_EQ(after, before);
        EXPECT_EQ(image.height, c.height);
        EXPECT_EQ(image.width, c.width);
        EXPECT_EQ(image.TIFF_type, c.type);
        EXPECT_EQ(image.compress_type, 'u');
        EXPECT_EQ(image.mono, reinterpret_cast<uint8_t **>(&sentinel));
        EXPECT_EQ(image.color, reinterpret_cast<uint8_t ***>(&sentinel));
        EXPECT_EQ(image.cmap, reinterpret_cast<uint8_t **>(&sentinel));
    }
}

// Every plane is its own height x width byte array: rows are width bytes apart and filling one plane
// completely leaves the others as they were.
void expect_separate_planes(uint8_t **const *planes, int count, int height, int width) {
    for (int p = 0; p < count; p++)
        for (int r = 0; r < height; r++) {
            ASSERT_EQ(planes[p][r], planes[p][0] + r * width) << "plane " << p << " row " << r;
            for (int c = 0; c < width; c++)
                planes[p][r][c] = static_cast<uint8_t>(p * 50 + r + c);
        }
    for (int p = 0; p < count; p++)
        for (int r = 0; r < height; r++)
            for (int c = 0; c < width; c++)
                ASSERT_EQ(planes[p][r][c], static_cast<uint8_t>(p * 50 + r + c)) << p << " " << r << " " << c;
}

TEST(TiffRecord, EachTypeGetsItsPlanes) {
    const int height = 7, width = 5;
    TIFF_img g;
    ASSERT_EQ(get_TIFF(&g, height, width, 'g'), 0);
    EXPECT_EQ(g.height, height);
    EXPECT_EQ(g.width, width);
    EXPECT_EQ(g.TIFF_type, 'g');
    EXPECT_EQ(g.compress_type, 'u');
    expect_separate_planes(&g.mono, 1, height, width);
    free_TIFF(&g);

    TIFF_img p;
    ASSERT_EQ(get_TIFF(&p, height, width, 'p'), 0);
    expect_separate_planes(&p.mono, 1, height, width);
    // The palette is 256 rows of red, green, blue; cmap[255][2] is its last byte.
    for (int i = 0; i < 256; i++)
        ASSERT_EQ(p.cmap[i], p.cmap[0] + 3 * i);
    for (int i = 0; i < 256; i++)
        for (int k = 0; k < 3; k++)
            p.cmap[i][k] = static_cast<uint8_t>(i ^ k);
    EXPECT_EQ(&p.cmap[255][2], p.cmap[0] + 767);
    EXPECT_EQ(p.cmap[255][2], 255 ^ 2);
    for (int r = 0; r < height; r++)
        for (int c = 0; c < width; c++)
            ASSERT_EQ(p.mono[r][c], r + c) << "palette writes reached the index plane";
    free_TIFF(&p);

    TIFF_img c;
    ASSERT_EQ(get_TIFF(&c, height, width, 'c'), 0);
    EXPECT_GE(malloc_usable_size(c.color), 3 * sizeof(uint8_t **));
    expect_separate_planes(c.color, 3, height, width);
    free_TIFF(&c);
    free(c.color);

    TIFF_img a;
    ASSERT_EQ(get_TIFF(&a, height, width, 'a'), 0);
    EXPECT_GE(malloc_usable_size(a.color), 4 * sizeof(uint8_t **)) << "no room for the alpha plane";
    expect_separate_planes(a.color, 4, height, width);
    free_TIFF(&a);
    free(a.color);
}

TEST(TiffRecord, OnePixelImagesWork) {
    for (char type : {'g', 'p', 'c', 'a'}) {
        TIFF_img image;
        ASSERT_EQ(get_TIFF(&image, 1, 1, type), 0) << type;
        if (type == 'g' || type == 'p')
            image.mono[0][0] = 9;
        else
            for (int i = 0; i < (type == 'c' ? 3 : 4); i++)
                image.color[i][0][0] = static_cast<uint8_t>(i);
        free_TIFF(&image);
        if (type == 'c' || type == 'a') free(image.color);
    }
}

// free_TIFF releases every plane but neither the record nor the plane table of colour records, which
// the caller may still free itself. The heap is measured with no assertion in between, since reporting
// allocates; the planes are big enough to bypass the allocator's caches of small freed blocks, which
// would otherwise still count as in use.
TEST(TiffRecord, FreeTIFFReleasesThePlanesButNotTheRecordOrPlaneTable) {
    const int height = 200, width = 300;
    for (char type : {'g', 'p', 'c', 'a'}) {
        TIFF_img image;
        size_t before = allocated_bytes();
        int status = get_TIFF(&image, height, width, type);
        size_t with_planes = allocated_bytes();
        free_TIFF(&image);
        size_t after_free = allocated_bytes();

        SCOPED_TRACE(type);
        ASSERT_EQ(status, 0);
        int planes = type == 'c' ? 3 : type == 'a' ? 4 : 1;
        EXPECT_GE(with_planes - before, static_cast<size_t>(planes * height * width));
        EXPECT_LE(after_free - before, 1024u);
        EXPECT_EQ(image.height, height);
        EXPECT_EQ(image.width, width);
        EXPECT_EQ(image.TIFF_type, type);
        // Freeing the table twice would abort here (the allocator checks) or be reported by the
        // address sanitizer.
        if (planes > 1) free(image.color);
    }

    TIFF_img image;
    ASSERT_EQ(get_TIFF(&image, height, width, 'g'), 0);
    size_t allocated = allocated_bytes();
    image.TIFF_type = 'z';
    free_TIFF(&image);
    size_t after_unknown = allocated_bytes();
    image.TIFF_type = 'g';
    free_TIFF(&image);
    size_t after_grey = allocated_bytes();
    EXPECT_EQ(after_unknown, allocated);
    EXPECT_GE(allocated - after_grey, static_cast<size_t>(height * width));
}

} // namespace

// The image record: get_TIFF refusals, plane shapes and the release of planes by free_TIFF. The TIFF
// writer: the file layout it produces (checked by an independent parse of the bytes), its refusals and
// write failures, and write-then-read round trips. The reader's own cases are in tiff_read_test.cpp.
#include "numeric/tiff.h"

#include <gtest/gtest.h>

#include <malloc.h>
#include <unistd.h>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

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

// A record whose pixels follow a fixed pseudo-random sequence, so that swapped rows, planes or
// samples show up as differences.
TIFF_img make_image(char type, int height, int width, uint32_t seed = 1) {
    TIFF_img image;
    EXPECT_EQ(get_TIFF(&image, height, width, type), 0);
    uint32_t state = seed;
    auto next = [&state]() {
        state = state * 1664525u + 1013904223u;
        return static_cast<uint8_t>(state >> 24);
    };
    const int planes = type == 'c' ? 3 : 1;
    for (int p = 0; p < planes; p++)
        for (int r = 0; r < height; r++)
            for (int c = 0; c < width; c++)
                (type == 'c' ? image.color[p] : image.mono)[r][c] = next();
    if (type == 'p')
        for (int i = 0; i < 256; i++)
            for (int k = 0; k < 3; k++)
                image.cmap[i][k] = next();
    return image;
}

void release(TIFF_img *image) {
    free_TIFF(image);
    if (image->TIFF_type == 'c' || image->TIFF_type == 'a') free(image->color);
}

// Writes the record to a temporary file and returns the file's bytes; the status and the messages
// on standard error go to the out-arguments.
std::vector<uint8_t> write_bytes(const TIFF_img &image, int *status, std::string *messages = nullptr) {
    FILE *fp = tmpfile();
    EXPECT_NE(fp, nullptr);
    testing::internal::CaptureStderr();
    *status = write_TIFF(fp, &image);
    std::string err = testing::internal::GetCapturedStderr();
    if (messages) *messages = err;
    fflush(fp);
    std::vector<uint8_t> bytes;
    fseek(fp, 0, SEEK_END);
    bytes.resize(static_cast<size_t>(ftell(fp)));
    rewind(fp);
    EXPECT_EQ(fread(bytes.data(), 1, bytes.size(), fp), bytes.size());
    fclose(fp);
    return bytes;
}

uint32_t be16(const std::vector<uint8_t> &b, size_t at) {
    return uint32_t(b.at(at)) << 8 | b.at(at + 1);
}
uint32_t be32(const std::vector<uint8_t> &b, size_t at) {
    return be16(b, at) << 16 | be16(b, at + 2);
}

// One IFD entry as found in the file: the 4-byte slot and the values it holds or points at.
struct Entry {
    uint32_t tag, type, count, slot;
    std::vector<uint32_t> values;
};

struct Layout {
    uint32_t ifd;
    std::vector<Entry> entries;
    uint32_t next_ifd;
    const Entry *find(uint32_t tag) const {
        for (const Entry &e : entries)
            if (e.tag == tag) return &e;
        return nullptr;
    }
};

// Parses a big-endian file the way the TIFF format defines it, independently of the reader.
Layout parse(const std::vector<uint8_t> &b) {
    Layout layout;
    EXPECT_EQ(b.at(0), 'M');
    EXPECT_EQ(b.at(1), 'M');
    EXPECT_EQ(be16(b, 2), 42u);
    layout.ifd = be32(b, 4);
    const uint32_t n = be16(b, layout.ifd);
    for (uint32_t i = 0; i < n; i++) {
        const size_t at = layout.ifd + 2 + 12 * i;
        Entry e{be16(b, at), be16(b, at + 2), be32(b, at + 4), be32(b, at + 8), {}};
        const uint32_t size = e.type == 3 ? 2 : e.type == 4 ? 4 : 8;
        const size_t base = size * e.count <= 4 ? at + 8 : e.slot;
        for (uint32_t k = 0; k < e.count * (e.type == 5 ? 2 : 1); k++)
            e.values.push_back(e.type == 3 ? be16(b, base + 2 * k) : be32(b, base + 4 * k));
        layout.entries.push_back(e);
    }
    layout.next_ifd = be32(b, layout.ifd + 2 + 12 * n);
    return layout;
}

std::vector<uint32_t> values_of(const Layout &layout, uint32_t tag) {
    const Entry *e = layout.find(tag);
    return e ? e->values : std::vector<uint32_t>{};
}

TEST(TiffWriter, GreyHundredByHundredHasTwoStripsAndItsIFDAt10008) {
    TIFF_img image = make_image('g', 100, 100);
    int status;
    std::vector<uint8_t> bytes = write_bytes(image, &status);
    ASSERT_EQ(status, 0);
    Layout layout = parse(bytes);

    // 100 bytes per row: 80 rows reach 8000 bytes, so strips of 8000 and 2000 bytes at 8 and 8008.
    EXPECT_EQ(layout.ifd, 10008u);
    EXPECT_EQ(values_of(layout, 278), std::vector<uint32_t>{80});
    EXPECT_EQ(values_of(layout, 273), (std::vector<uint32_t>{8, 8008}));
    EXPECT_EQ(values_of(layout, 279), (std::vector<uint32_t>{8000, 2000}));
    EXPECT_EQ(layout.find(279)->type, 3u) << "byte counts below 65536 are SHORT";
    for (int r = 0; r < 100; r++)
        ASSERT_EQ(0, memcmp(&bytes[8 + 100 * r], image.mono[r], 100)) << "row " << r;

    const uint32_t expected_tags[] = {256, 257, 258, 259, 262, 273, 278, 279, 282, 283, 296};
    ASSERT_EQ(layout.entries.size(), 11u);
    for (size_t i = 0; i < 11; i++)
        EXPECT_EQ(layout.entries[i].tag, expected_tags[i]);
    EXPECT_EQ(values_of(layout, 256), std::vector<uint32_t>{100});
    EXPECT_EQ(values_of(layout, 257), std::vector<uint32_t>{100});
    EXPECT_EQ(values_of(layout, 258), std::vector<uint32_t>{8});
    EXPECT_EQ(values_of(layout, 259), std::vector<uint32_t>{1});
    EXPECT_EQ(values_of(layout, 262), std::vector<uint32_t>{1});
    EXPECT_EQ(values_of(layout, 282), (std::vector<uint32_t>{100, 1}));
    EXPECT_EQ(values_of(layout, 283), (std::vector<uint32_t>{100, 1}));
    EXPECT_EQ(values_of(layout, 296), std::vector<uint32_t>{2});
    EXPECT_EQ(layout.next_ifd, 0u);

    // Values that do not fit an entry follow the IFD (10008 + 2 + 132 + 4 = 10146) in tag order.
    EXPECT_EQ(layout.find(273)->slot, 10146u);
    EXPECT_EQ(layout.find(282)->slot, 10154u);
    EXPECT_EQ(layout.find(283)->slot, 10162u);
    EXPECT_EQ(bytes.size(), 10170u);
    release(&image);
}

// For every type and a spread of sizes: entries strictly ascending by tag, SHORT values left-justified
// in their slot with zero padding, and the blocks of larger values packed after the IFD at even
// offsets up to the end of the file.
TEST(TiffWriter, EntriesAreSortedAndLargeValuesFollowTheIFDAtEvenOffsets) {
    const struct {
        char type;
        int height, width;
    } cases[] = {{'g', 3, 3}, {'g', 100, 100}, {'p', 81, 100}, {'c', 5, 3000}, {'c', 7, 5}, {'p', 1, 1}};
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(1, c.type) + " " + std::to_string(c.height) + "x" + std::to_string(c.width));
        TIFF_img image = make_image(c.type, c.height, c.width);
        int status;
        std::vector<uint8_t> bytes = write_bytes(image, &status);
        ASSERT_EQ(status, 0);
        Layout layout = parse(bytes);
        EXPECT_EQ(layout.ifd % 2, 0u);
        const uint64_t data_end = 8 + uint64_t(c.height) * c.width * (c.type == 'c' ? 3 : 1);
        EXPECT_EQ(layout.ifd, data_end + data_end % 2);
        uint32_t expected_block = layout.ifd + 12 * uint32_t(layout.entries.size()) + 6;
        for (size_t i = 0; i < layout.entries.size(); i++) {
            const Entry &e = layout.entries[i];
            if (i > 0) {
                EXPECT_LT(layout.entries[i - 1].tag, e.tag);
            }
            const uint32_t size = (e.type == 3 ? 2 : e.type == 4 ? 4 : 8) * e.count;
            if (size > 4) {
                EXPECT_EQ(e.slot, expected_block) << "tag " << e.tag;
                expected_block += size + size % 2;
            } else if (size == 2) {
                EXPECT_EQ(e.slot & 0xFFFF, 0u) << "tag " << e.tag << " is not left-justified";
            }
        }
        EXPECT_EQ(bytes.size(), expected_block);
        release(&image);
    }
}

TEST(TiffWriter, WideColourImageHasOneRowPerStripOfInterleavedSamples) {
    TIFF_img image = make_image('c', 4, 3000);
    int status;
    std::vector<uint8_t> bytes = write_bytes(image, &status);
    ASSERT_EQ(status, 0);
    Layout layout = parse(bytes);
    EXPECT_EQ(values_of(layout, 278), std::vector<uint32_t>{1});
    EXPECT_EQ(values_of(layout, 273), (std::vector<uint32_t>{8, 9008, 18008, 27008}));
    EXPECT_EQ(values_of(layout, 279), (std::vector<uint32_t>{9000, 9000, 9000, 9000}));
    EXPECT_EQ(values_of(layout, 262), std::vector<uint32_t>{2});
    EXPECT_EQ(values_of(layout, 258), (std::vector<uint32_t>{8, 8, 8}));
    EXPECT_EQ(values_of(layout, 277), std::vector<uint32_t>{3});
    for (int r = 0; r < 4; r++)
        for (int x = 0; x < 3000; x++)
            for (int p = 0; p < 3; p++)
                ASSERT_EQ(bytes[8 + 9000 * r + 3 * x + p], image.color[p][r][x]) << r << " " << x << " " << p;
    release(&image);
}

TEST(TiffWriter, ShortImageIsOneStripWhoseOffsetSitsInItsEntry) {
    TIFF_img image = make_image('g', 7, 10);
    int status;
    std::vector<uint8_t> bytes = write_bytes(image, &status);
    ASSERT_EQ(status, 0);
    Layout layout = parse(bytes);
    EXPECT_EQ(values_of(layout, 278), std::vector<uint32_t>{7});
    ASSERT_NE(layout.find(273), nullptr);
    EXPECT_EQ(layout.find(273)->count, 1u);
    EXPECT_EQ(layout.find(273)->slot, 8u);
    EXPECT_EQ(values_of(layout, 279), std::vector<uint32_t>{70});
    EXPECT_EQ(layout.ifd, 78u);
    release(&image);
}

TEST(TiffWriter, ValuesAboveSixteenBitsAreWrittenAsLong) {
    TIFF_img wide = make_image('g', 1, 70000);
    int status;
    Layout layout = parse(write_bytes(wide, &status));
    ASSERT_EQ(status, 0);
    EXPECT_EQ(layout.find(256)->type, 4u);
    EXPECT_EQ(values_of(layout, 256), std::vector<uint32_t>{70000});
    EXPECT_EQ(layout.find(257)->type, 3u);
    EXPECT_EQ(layout.find(279)->type, 4u);
    EXPECT_EQ(values_of(layout, 279), std::vector<uint32_t>{70000});
    release(&wide);

    TIFF_img tall = make_image('g', 70000, 1);
    layout = parse(write_bytes(tall, &status));
    ASSERT_EQ(status, 0);
    EXPECT_EQ(layout.find(257)->type, 4u);
    EXPECT_EQ(values_of(layout, 257), std::vector<uint32_t>{70000});
    EXPECT_EQ(layout.find(256)->type, 3u);
    EXPECT_EQ(layout.find(278)->type, 3u);
    EXPECT_EQ(values_of(layout, 278), std::vector<uint32_t>{8000});
    EXPECT_EQ(layout.find(273)->count, 9u);
    EXPECT_EQ(layout.find(279)->type, 3u);
    release(&tall);
}

TEST(TiffWriter, PaletteIsWrittenAsSixteenBitRedsThenGreensThenBlues) {
    TIFF_img image = make_image('p', 2, 3);
    int status;
    Layout layout = parse(write_bytes(image, &status));
    ASSERT_EQ(status, 0);
    EXPECT_EQ(values_of(layout, 262), std::vector<uint32_t>{3});
    EXPECT_EQ(values_of(layout, 258), std::vector<uint32_t>{8});
    EXPECT_EQ(layout.find(277), nullptr);
    std::vector<uint32_t> map = values_of(layout, 320);
    ASSERT_EQ(map.size(), 768u);
    for (int i = 0; i < 256; i++)
        for (int k = 0; k < 3; k++)
            ASSERT_EQ(map[256 * k + i], 0x101u * image.cmap[i][k]) << i << " " << k;
    release(&image);
}

TEST(TiffWriter, RefusesRecordsItCannotWrite) {
    TIFF_img alpha = make_image('g', 2, 2);
    alpha.TIFF_type = 'a';
    TIFF_img unknown = make_image('g', 2, 2);
    unknown.TIFF_type = 'q';
    TIFF_img no_rows = make_image('g', 2, 2);
    no_rows.height = 0;
    TIFF_img no_columns = make_image('c', 2, 2);
    no_columns.width = 0;
    TIFF_img packed = make_image('g', 2, 2);
    packed.compress_type = 'p';
    const struct {
        TIFF_img *image;
        const char *message;
    } cases[] = {
        {&alpha, "tiff:  function GetBytesPerRow:\nwriter is not prepared to compute bytes_per_row\n"
                 "for image of TIFF_type 'a'\n"},
        {&unknown, "tiff:  function GetBytesPerRow:\nwriter is not prepared to compute bytes_per_row\n"
                   "for image of TIFF_type 'q'\n"},
        {&no_rows, "tiff:  function GetStripsPerImage:\nheight entry in TIFF image structure\n"
                   "claims that image height is not positive\n"},
        {&no_columns, "tiff:  function MakeDimensionField:\nimage dimension is less than 1\n"},
        {&packed,
         "tiff:  function GetStrip:\nTIFF writer not prepared to compress data\nwith compress_type p\n"},
    };
    for (const auto &c : cases) {
        int status;
        std::string err;
        write_bytes(*c.image, &status, &err);
        EXPECT_EQ(status, 1) << c.message;
        EXPECT_EQ(err, c.message);
    }
    for (TIFF_img *image : {&alpha, &unknown, &no_rows, &no_columns, &packed}) {
        image->TIFF_type = image == &no_columns ? 'c' : 'g';
        release(image);
    }
}

// A memory stream of a given size fails the first write that passes its end; unbuffered, the failure
// reaches the very write that caused it. Each size below stops the 3 x 3 grey file (strip 8..16, pad
// byte 17, IFD 18..155, resolutions 156..171) at a different step.
TEST(TiffWriter, ReportsTheWriteThatFailed) {
    TIFF_img image = make_image('g', 3, 3);
    const struct {
        size_t size;
        const char *message;
    } cases[] = {
        {12, "tiff:  function WriteStrips:\nerror writing strip number 0\n"},
        {17, "tiff:  function WriteUint8:\nerror writing uint8_t\n"},
        {18, "tiff:  function WriteUint16:\nerror writing uint16_t\n"},
        {24, "tiff:  function WriteUint32:\nerror writing uint32_t\n"},
        {28, "tiff:  function WriteUint16:\nerror writing uint16_t\n"
             "tiff:  function WriteIFD:\ncound not write data value for tag number 256\n"},
        {160, "tiff:  function WriteRational:\nerror writing rational number\n"
              "tiff:  function WriteIFD:\ncound not write data value for tag number 282\n"},
        {171, "tiff:  function WriteRational:\nerror writing rational number\n"
              "tiff:  function WriteIFD:\ncound not write data value for tag number 283\n"},
    };
    std::vector<char> buffer(256);
    for (const auto &c : cases) {
        FILE *fp = fmemopen(buffer.data(), c.size, "w");
        ASSERT_NE(fp, nullptr);
        setvbuf(fp, nullptr, _IONBF, 0);
        testing::internal::CaptureStderr();
        int status = write_TIFF(fp, &image);
        std::string err = testing::internal::GetCapturedStderr();
        fclose(fp);
        EXPECT_EQ(status, 1) << c.size;
        EXPECT_EQ(err, c.message) << c.size;
    }

    // A pipe cannot seek to the strips' offset.
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    FILE *fp = fdopen(fds[1], "w");
    testing::internal::CaptureStderr();
    int status = write_TIFF(fp, &image);
    std::string err = testing::internal::GetCapturedStderr();
    fclose(fp);
    close(fds[0]);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(err, "tiff:  function WriteStrips:\nerror setting file position\n");
    release(&image);
}

bool same_pixels(const TIFF_img &a, const TIFF_img &b) {
    if (a.TIFF_type != b.TIFF_type || a.height != b.height || a.width != b.width) return false;
    const int planes = a.TIFF_type == 'c' ? 3 : 1;
    for (int p = 0; p < planes; p++)
        for (int r = 0; r < a.height; r++) {
            const uint8_t *ra = a.TIFF_type == 'c' ? a.color[p][r] : a.mono[r];
            const uint8_t *rb = b.TIFF_type == 'c' ? b.color[p][r] : b.mono[r];
            if (memcmp(ra, rb, size_t(a.width)) != 0) return false;
        }
    return a.TIFF_type != 'p' || memcmp(a.cmap[0], b.cmap[0], 768) == 0;
}

// Sizes chosen around the 8000-byte strip threshold: rows that divide it exactly, rows one byte
// short of it or over it, a last strip of one row, an odd data length (pad byte before the IFD).
TEST(TiffRoundTrip, ImagesAroundTheStripThresholdReadBackUnchanged) {
    const struct {
        char type;
        int height, width;
    } cases[] = {{'g', 201, 80}, {'g', 3, 8000}, {'g', 3, 7999}, {'g', 5, 8001}, {'g', 3, 3},
                 {'g', 1, 1},    {'p', 81, 100}, {'p', 2, 4001}, {'p', 1, 1},    {'c', 4, 3000},
                 {'c', 5, 2666}, {'c', 5, 2667}, {'c', 9, 1},    {'c', 100, 100}};
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(1, c.type) + " " + std::to_string(c.height) + "x" + std::to_string(c.width));
        TIFF_img image = make_image(c.type, c.height, c.width, uint32_t(c.height * 7919 + c.width));
        FILE *fp = tmpfile();
        ASSERT_EQ(write_TIFF(fp, &image), 0);
        TIFF_img back;
        ASSERT_EQ(read_TIFF(fp, &back), 0);
        fclose(fp);
        EXPECT_EQ(back.compress_type, 'u');
        EXPECT_TRUE(same_pixels(image, back));
        release(&image);
        release(&back);
    }
}

} // namespace

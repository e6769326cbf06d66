// The image record: get_TIFF refusals, plane shapes and the release of planes by free_TIFF. The TIFF
// writer: the files it produces (compared with files built independently byte by byte, and read back),
// its refusals and write failures. The reader's own cases are in tiff_read_test.cpp.
#include "numeric/tiff.h"

#include "tests/numeric/numeric_test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <tuple>
#include <vector>

namespace {

// Height 0, width -1, and an unknown type: refused with a message, nothing allocated, the size, type
// and compress_type stored all the same.
TEST(TiffRecord, GetTIFFRefusesBadSizesAndTypesAllocatingNothing) {
    const std::string header = "tiff:  function get_TIFF:\n",
                      size = header + "image height and width must be positive\n";
    const std::string messages[] = {size, size, header + "allocation for image of type x is not supported"};
    const int heights[] = {0, 5, 4}, widths[] = {5, -1, 4};
    for (int i = 0; i < 3; i++) {
        TIFF_img image{};
        testing::internal::CaptureStderr();
        size_t before = allocated_bytes();
        int status = get_TIFF(&image, heights[i], widths[i], "gcx"[i]);
        size_t after = allocated_bytes();
        EXPECT_EQ(testing::internal::GetCapturedStderr(), messages[i]);
        EXPECT_TRUE(status == 1 && after == before && image.height == heights[i] &&
                    image.width == widths[i] && image.TIFF_type == "gcx"[i] && image.compress_type == 'u')
            << i;
    }
}

// Each type gets its planes of height rows of width bytes (the palette 256 rows of three, ending at
// cmap[255][2]; the plane table of an 'a' record with room for four). free_TIFF releases every plane
// but neither the record nor the plane table of colour records (freed here: twice would abort or be
// reported by the sanitizer); an unknown type frees nothing.
TEST(TiffRecord, PlanesOfEachTypeAreAllocatedAndFreeTIFFReleasesThem) {
    for (char type : {'g', 'p', 'c', 'a', 'z'}) {
        TIFF_img image;
        size_t before = allocated_bytes();
        ASSERT_EQ(get_TIFF(&image, 200, 300, type == 'z' ? 'g' : type), 0);
        size_t with_planes = allocated_bytes();
        for (int p = 0; p < plane_count(type); p++)
            EXPECT_TRUE(plane(image, p)[199] == plane(image, p)[0] + 199 * 300) << type << p;
        EXPECT_GE(malloc_usable_size(image.color), type == 'a' ? 4 * sizeof(uint8_t **) : 0) << type;
        EXPECT_TRUE(type != 'p' ||
                    (&image.cmap[255][2] == image.cmap[0] + 767 && malloc_usable_size(image.cmap[0]) >= 768));
        image.TIFF_type = type;
        free_TIFF(&image);
        size_t after_free = allocated_bytes();
        EXPECT_GE(with_planes - before, size_t(plane_count(type) * 200 * 300)) << type;
        EXPECT_LE(after_free - before, type == 'z' ? with_planes - before : 1024u) << type;
        EXPECT_EQ(after_free == with_planes, type == 'z') << type;
        if (type == 'z') image.TIFF_type = 'g', free_TIFF(&image);
        if (plane_count(type) > 1) free(image.color);
    }
}

// The bytes write_TIFF puts into a file, and in *back what read_TIFF reads from it.
std::vector<uint8_t> written(const TIFF_img &image, TIFF_img *back) {
    FILE *fp = tmpfile();
    EXPECT_EQ(write_TIFF(fp, &image), 0);
    EXPECT_EQ(read_TIFF(fp, back), 0);
    std::vector<uint8_t> bytes(size_t((fseek(fp, 0, SEEK_END), ftell(fp))));
    rewind(fp);
    EXPECT_EQ(fread(bytes.data(), 1, bytes.size(), fp), bytes.size());
    fclose(fp);
    return bytes;
}

// Each file equals one built independently from the layout rules with rows_per_strip worked out by
// hand (the fewest rows reaching 8000 bytes): big-endian, strips from offset 8, the IFD at the next
// even offset (10008 for the 100 x 100 grey image) with its entries sorted by tag, the larger values
// after it at even offsets. Sizes and counts are SHORT up to 65535 and LONG above; the palette is all
// reds, then greens, then blues, each v as v * 257. Rows that divide 8000 exactly, fall one byte short
// of it or pass it, and an odd data length (a pad byte before the IFD) are among the cases; every
// file reads back unchanged.
TEST(TiffWriter, FilesMatchTheLayoutBuiltByHandAndReadBack) {
    const int cases[][4] = {{'g', 100, 100, 80}, {'g', 201, 80, 100}, {'g', 3, 7999, 2},
                            {'c', 4, 3000, 1},   {'c', 5, 2667, 1},   {'g', 7, 10, 7},
                            {'p', 3, 3, 3},      {'g', 1, 70000, 1},  {'g', 70000, 1, 8000}};
    for (const auto &c : cases) {
        TIFF_img image = make_image(char(c[0]), c[1], c[2]), back{};
        const std::vector<uint8_t> bytes = written(image, &back),
                                   expected =
                                       build(true, image, c[3], baseline_fields(image, uint32_t(c[3])));
        const size_t first_difference =
            size_t(std::mismatch(bytes.begin(), bytes.end(), expected.begin(), expected.end()).first -
                   bytes.begin());
        EXPECT_TRUE(bytes == expected)
            << char(c[0]) << " " << c[1] << "x" << c[2] << ": " << bytes.size() << " bytes, "
            << expected.size() << " expected, first difference at " << first_difference;
        EXPECT_TRUE(c[1] != 100 || (bytes.at(6) == 0x27 && bytes.at(7) == 0x18)) << "IFD at 10008";
        EXPECT_TRUE(same_image(back, image) && back.compress_type == 'u') << "read back";
        release(&image);
        release(&back);
    }
}

// Records of type 'a', of height or width 0, or compressed are refused with a message; so is every
// failing write: a memory stream of a given size fails the first write past its end (unbuffered, at
// the very write that caused it: the strip at byte 8, the IFD's first field at byte 28 of the 3 x 3
// file), and a pipe (size 1) cannot seek to the strips.
TEST(TiffWriter, RefusesRecordsItCannotWriteAndReportsFailedWrites) {
    TIFF_img grey = make_image('g', 3, 3), colour = make_image('c', 3, 3), alpha = grey, flat = grey,
             thin = colour, packed = grey;
    alpha.TIFF_type = 'a', flat.height = 0, thin.width = 0, packed.compress_type = 'p';
    const std::string fn = "tiff:  function ";
    const std::tuple<TIFF_img *, size_t, std::string> cases[] = {
        {&alpha, 0,
         fn + "GetBytesPerRow:\nwriter is not prepared to compute bytes_per_row\nfor image of TIFF_type "
              "'a'\n"},
        {&flat, 0,
         fn + "GetStripsPerImage:\nheight entry in TIFF image structure\nclaims that image height is not "
              "positive\n"},
        {&thin, 0, fn + "MakeDimensionField:\nimage dimension is less than 1\n"},
        {&packed, 0, fn + "GetStrip:\nTIFF writer not prepared to compress data\nwith compress_type p\n"},
        {&grey, 12, fn + "WriteStrips:\nerror writing strip number 0\n"},
        {&grey, 28,
         fn + "WriteUint16:\nerror writing uint16_t\n" + fn +
             "WriteIFD:\ncound not write data value for tag number 256\n"},
        {&grey, 1, fn + "WriteStrips:\nerror setting file position\n"}};
    std::vector<char> buffer(256);
    for (const auto &[record, size, message] : cases) {
        int fds[2] = {-1, -1};
        FILE *fp = size == 0        ? tmpfile()
                   : size > 1       ? fmemopen(buffer.data(), size, "w")
                   : pipe(fds) == 0 ? fdopen(fds[1], "w")
                                    : nullptr;
        setvbuf(fp, nullptr, _IONBF, 0);
        testing::internal::CaptureStderr();
        EXPECT_EQ(write_TIFF(fp, record), 1) << message;
        EXPECT_EQ(testing::internal::GetCapturedStderr(), message);
        fclose(fp);
        if (fds[0] >= 0) close(fds[0]);
    }
    release(&grey);
    release(&colour);
}

} // namespace

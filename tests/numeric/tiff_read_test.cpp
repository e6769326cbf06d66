// The TIFF reader: files in both byte orders built byte by byte, the defaults of missing fields,
// the refusals with their messages (the caller's record left untouched), and truncated and corrupted
// files, which must be refused or read, never crash or read out of bounds (run under the sanitizer
// build to make the last point bite).
#include "numeric/tiff.h"

#include "tests/numeric/numeric_test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

namespace {

// read_TIFF on the bytes as an in-memory file, into a record filled with a sentinel: the status, the
// messages, the record, and whether the record is still the sentinel.
struct Result {
    int status;
    std::string messages;
    TIFF_img image;
    bool untouched;
};

Result read_bytes(std::vector<uint8_t> bytes) {
    Result r{};
    TIFF_img sentinel;
    memset(&sentinel, 0x5A, sizeof sentinel);
    r.image = sentinel;
    const size_t size = bytes.size();
    bytes.push_back(0); // fmemopen wants a buffer of at least one byte; the size excludes it
    FILE *fp = size > 0 ? fmemopen(bytes.data(), size, "rb") : fopen("/dev/null", "rb");
    testing::internal::CaptureStderr();
    r.status = read_TIFF(fp, &r.image);
    r.messages = testing::internal::GetCapturedStderr();
    fclose(fp);
    r.untouched = memcmp(&r.image, &sentinel, sizeof sentinel) == 0;
    return r;
}

// Without Compression, SamplesPerPixel, RowsPerStrip and StripByteCounts the image is one uncompressed
// strip of one sample per pixel, and LONG sizes are read as well; unknown tags, unknown types and
// fields of a type the tag does not allow are skipped, even when their values point outside the file;
// a repeated tag keeps its first entry; a further image is announced and ignored; WhiteIsZero grey is
// inverted.
TEST(TiffReader, DefaultsFillMissingFieldsAndUnknownOnesAreSkipped) {
    TIFF_img image = make_image('g', 6, 5), inverted = make_image('g', 6, 5);
    for (int i = 0; i < 30; i++)
        inverted.mono[0][i] = uint8_t(255 - image.mono[0][i]);
    std::vector<Field> minimal = {
        {256, {5}, LONG}, {257, {6}, LONG}, {258, {8}}, {262, {1}}, {273, {}, LONG}};
    std::vector<Field> noisy = baseline_fields(image, 2, true), white_is_zero = minimal;
    white_is_zero[3].values = {0};
    noisy.insert(noisy.begin(), {254, {0}, LONG});
    const size_t ascii = noisy.size();
    noisy.push_back({305, std::vector<uint32_t>(40, 'k'), ASCII});
    noisy.push_back({256, {9, 1}, RATIONAL}); // repeated tag of a wrong type
    noisy.push_back({257, {1}});              // repeated tag
    noisy.push_back({40000, {1, 2, 3}, 13});  // unknown tag of an unknown type
    std::vector<uint8_t> noisy_file = build(false, image, 2, noisy, 8);
    noisy_file[noisy_file[4] + 2 + 12 * ascii + 11] = 0xF0; // the ASCII values far past the end
    const std::tuple<std::vector<uint8_t>, std::string, const TIFF_img *> files[] = {
        {build(true, image, 6, minimal), "", &image},
        {build(false, image, 6, white_is_zero), "", &inverted},
        {noisy_file,
         "tiff:  function ReadIFD:\nWARNING:  this TIFF file contains multiple images;\n"
         "all but the first image will be ignored by the TIFF reader\n",
         &image}};
    for (const auto &[bytes, messages, expected] : files) {
        Result r = read_bytes(bytes);
        ASSERT_EQ(r.status, 0) << r.messages;
        EXPECT_EQ(r.messages, messages);
        EXPECT_TRUE(same_image(r.image, *expected));
        release(&r.image);
    }
    release(&image);
    release(&inverted);
}

// One little-endian base file of 4 rows of 6 in two strips per refusal, with one change: a field set
// (LONG when a value needs it) or removed (no values) before building, or with tag 0 the byte at
// values[0] set to values[1], or with tag 1 the file cut to values[0] bytes. The grey file has 194
// bytes: strips 8..31, the IFD 32..169, then the strip offsets and the resolutions.
TEST(TiffReader, RefusesWhatItCannotReadAndLeavesTheRecordAlone) {
    const std::string fields = "GetImageFields:\nrequired field ", layout = "CheckSampleLayout:\n";
    const std::string bits = layout + "images of 16 bits per sample not supported; only 8 bits per sample\n";
    const std::string jpeg = "GetCompressType:\nCompression value 7 not recognized; could not assign\n"
                             "compress_type to TIFF_img structure\n";
    const struct {
        char type;
        uint16_t tag;
        std::vector<uint32_t> values;
        std::string message;
    } cases[] = {
        {'g', 1, {7}, "ReadHeader:\nerror reading image header\n"},
        {'g', 0, {1, 'M'}, "ReadHeader:\nbyte order entry of header is neither \"II\" nor \"MM\"\n"},
        {'g', 0, {2, 43}, "ReadHeader:\nversion entry of header is 43, not 42: not a TIFF file\n"},
        {'g', 0, {7, 0xFF}, "ReadIFD:\noffset of IFD (4278190112) lies outside the file\n"},
        {'g', 1, {169}, "ReadIFD:\nerror reading IFD of 11 entries\n"},
        {'g', 262, {}, fields + "PhotometricInterpretation is missing or has an unexpected type\n"},
        {'g', 259, {32773}, "GetCompressType:\nPackBits compression not supported\n"},
        {'g', 259, {2}, "GetCompressType:\n1-D modified Huffman compression not supported\n"},
        {'c', 259, {7}, jpeg},
        {'a', 338, {0}, "GetImageType:\ncan't infer image type from IFD\n"},
        {'g', 277, {3}, "GetImageType:\ncan't infer image type from IFD\n"},
        {'p', 258, {4}, layout + "4-bit palette images not supported\n"},
        {'c', 258, {8, 8, 16}, bits},
        {'p', 320, {1, 2, 3}, layout + "palette image needs a ColorMap of 768 values\n"},
        {'g', 257, {0x80000000u}, "CheckStrips:\nimage size 6 by 2147483648 is out of range\n"},
        {'c', 257, {40000}, "CheckStrips:\nimage of 6 by 40000 pixels needs more data than the file holds\n"},
        {'g', 278, {0}, "CheckStrips:\nRowsPerStrip is zero\n"},
        {'g', 273, {8}, "CheckStrips:\nimage needs 2 strips; StripOffsets or StripByteCounts lists fewer\n"},
        {'g', 279, {18, 5}, "CheckStrips:\nstrip 1 holds 5 bytes, fewer than its 6 bytes of pixels\n"},
        {'g', 273, {8, 181}, "CheckStrips:\nstrip 1 lies outside the file\n"},
        {'p', 0, {177, 0xEE}, "ReadFieldValues:\nvalues of field with tag 320 lie outside the file\n"},
    };
    for (const auto &c : cases) {
        TIFF_img image = make_image(c.type, 4, 6);
        std::vector<Field> fields = baseline_fields(image, 3, true);
        if (c.tag > 1)
            fields.erase(
                std::remove_if(fields.begin(), fields.end(), [&](const Field &f) { return f.tag == c.tag; }),
                fields.end());
        if (c.tag > 1 && !c.values.empty())
            fields.push_back({c.tag, c.values,
                              *std::max_element(c.values.begin(), c.values.end()) > 65535 ? LONG : SHORT});
        std::vector<uint8_t> bytes = build(false, image, 3, fields);
        if (c.tag == 0) bytes.at(c.values[0]) = uint8_t(c.values[1]);
        if (c.tag == 1) bytes.resize(c.values[0]);
        Result r = read_bytes(bytes);
        EXPECT_EQ(r.messages, "tiff:  function " + c.message);
        EXPECT_TRUE(r.status == 1 && r.untouched) << c.message;
        release(&image);
    }
}

// Whole files of each type in either byte order read back exactly; cut anywhere before the end of the
// IFD they are refused, cut later they read back exactly or are refused; with any byte replaced by a
// few telling values the reader refuses the file with a message and leaves the record alone, or
// returns a record of a known type and positive size (the sanitizer build checks every access).
TEST(TiffReader, WholeFilesReadBackAndDamagedOnesAreRefusedOrReadNeverCrash) {
    for (char type : {'g', 'p', 'c', 'a'}) {
        TIFF_img image = make_image(type, 5, 7);
        const std::vector<Field> fields = baseline_fields(image, 2, true);
        const bool big = type == 'p' || type == 'c';
        const std::vector<uint8_t> whole = build(big, image, 2, fields);
        const size_t ifd_end = (big ? whole[7] : whole[4]) + 2 + 12 * fields.size() + 4;
        auto check = [&](const std::vector<uint8_t> &bytes, bool cut) {
            Result r = read_bytes(bytes);
            if (r.status != 0) {
                ASSERT_FALSE(cut && bytes.size() == whole.size()) << "refused the whole file: " << r.messages;
                ASSERT_TRUE(r.status == 1 && r.untouched && r.messages.rfind("tiff:  function ", 0) == 0)
                    << r.messages;
                return;
            }
            ASSERT_FALSE(cut && bytes.size() < ifd_end) << "read a file cut at " << bytes.size();
            ASSERT_TRUE(!cut || (same_image(r.image, image) && r.image.compress_type == 'u'));
            ASSERT_TRUE(r.image.height > 0 && r.image.width > 0 &&
                        std::string("gpca").find(r.image.TIFF_type) != std::string::npos);
            release(&r.image);
        };
        for (size_t length = 0; length <= whole.size(); length++)
            check(std::vector<uint8_t>(whole.begin(), whole.begin() + long(length)), true);
        for (size_t at = 0; at < whole.size(); at++)
            for (uint8_t value : {0x00, 0x01, 0x7F, 0x80, 0xFF}) {
                std::vector<uint8_t> bytes = whole;
                bytes[at] = value;
                check(bytes, false);
            }
        release(&image);
    }
}

} // namespace

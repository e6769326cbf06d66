// The TIFF reader: files in both byte orders built here byte by byte, the defaults of missing fields,
// every refusal with its message (the caller's record left untouched), and truncated and corrupted
// files, which must be refused or read, never crash or read out of bounds (run under the sanitizer
// build to make the last point bite).
#include "numeric/tiff.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace {

enum : uint16_t { BYTE = 1, ASCII = 2, SHORT = 3, LONG = 4, RATIONAL = 5 };

// One IFD entry to write; RATIONAL values are numerator, denominator pairs. The entries of tags 273
// and 279 with no values receive the strips' offsets and byte counts.
struct Field {
    uint16_t tag, type;
    std::vector<uint32_t> values;
};

// Builds a TIFF file: header, the strips one after another from offset 8, the IFD at the next even
// offset with the entries in the order given, then the values that do not fit their entry.
std::vector<uint8_t> build(bool big_endian, const std::vector<std::vector<uint8_t>> &strips,
                           std::vector<Field> fields, uint32_t next_ifd = 0) {
    std::vector<uint8_t> out;
    auto put = [&](uint32_t v, int bytes, size_t at) {
        for (int i = 0; i < bytes; i++)
            out[at + size_t(i)] = uint8_t(v >> (8 * (big_endian ? bytes - 1 - i : i)));
    };
    out.resize(8);
    out[0] = out[1] = big_endian ? 'M' : 'I';
    put(42, 2, 2);
    std::vector<uint32_t> offsets, counts;
    for (const auto &strip : strips) {
        offsets.push_back(uint32_t(out.size()));
        counts.push_back(uint32_t(strip.size()));
        out.insert(out.end(), strip.begin(), strip.end());
    }
    if (out.size() % 2) out.push_back(0);
    for (Field &f : fields) {
        if (f.tag == 273 && f.values.empty()) f.values = offsets;
        if (f.tag == 279 && f.values.empty()) f.values = counts;
    }
    const uint32_t ifd = uint32_t(out.size());
    put(ifd, 4, 4);
    out.resize(out.size() + 2 + 12 * fields.size() + 4);
    put(uint32_t(fields.size()), 2, ifd);
    for (size_t e = 0; e < fields.size(); e++) {
        const Field &f = fields[e];
        const size_t at = ifd + 2 + 12 * e;
        const int size = f.type == SHORT ? 2 : f.type == LONG ? 4 : f.type == RATIONAL ? 4 : 1;
        const uint32_t count = uint32_t(f.type == RATIONAL ? f.values.size() / 2 : f.values.size());
        put(f.tag, 2, at);
        put(f.type, 2, at + 2);
        put(count, 4, at + 4);
        size_t base = at + 8;
        if (size * f.values.size() > 4) {
            base = out.size();
            put(uint32_t(base), 4, at + 8);
            out.resize(out.size() + size * f.values.size() + (size * f.values.size()) % 2);
        }
        for (size_t i = 0; i < f.values.size(); i++)
            put(f.values[i], size, base + size * i);
    }
    put(next_ifd, 4, ifd + 2 + 12 * fields.size());
    return out;
}

// A test image: its expected planes (one for 'g' and 'p', three for 'c', four for 'a') and the
// 16-bit colour map of a palette image.
struct Picture {
    char type;
    int height, width;
    std::vector<std::vector<uint8_t>> planes; // each height * width, row-major
    std::vector<uint32_t> color_map;
};

Picture make_picture(char type, int height, int width) {
    Picture p{type, height, width, {}, {}};
    const int planes = type == 'c' ? 3 : type == 'a' ? 4 : 1;
    uint32_t state = uint32_t(height * 31 + width + type);
    auto next = [&state]() {
        state = state * 1664525u + 1013904223u;
        return state >> 8;
    };
    for (int k = 0; k < planes; k++) {
        p.planes.emplace_back(size_t(height * width));
        for (uint8_t &v : p.planes.back())
            v = uint8_t(next());
    }
    if (type == 'p')
        for (int i = 0; i < 768; i++)
            p.color_map.push_back(next() & 0xFFFF);
    return p;
}

// The picture's samples, interleaved, cut into strips of rows_per_strip rows.
std::vector<std::vector<uint8_t>> strips_of(const Picture &p, int rows_per_strip) {
    std::vector<std::vector<uint8_t>> strips;
    const size_t spp = p.planes.size();
    for (int first = 0; first < p.height; first += rows_per_strip) {
        std::vector<uint8_t> strip;
        for (int r = first; r < std::min(p.height, first + rows_per_strip); r++)
            for (int x = 0; x < p.width; x++)
                for (size_t k = 0; k < spp; k++)
                    strip.push_back(p.planes[k][size_t(r * p.width + x)]);
        strips.push_back(strip);
    }
    return strips;
}

// The fields of a baseline file of the picture; `wide` stores sizes and strip data as LONG.
std::vector<Field> fields_of(const Picture &p, int rows_per_strip, bool wide) {
    const uint16_t size_type = wide ? LONG : SHORT;
    const uint32_t spp = uint32_t(p.planes.size());
    std::vector<Field> f = {
        {256, size_type, {uint32_t(p.width)}},
        {257, size_type, {uint32_t(p.height)}},
        {258, SHORT, std::vector<uint32_t>(spp, 8)},
        {259, SHORT, {1}},
        {262,
         SHORT,
         {p.type == 'g'   ? 1u
          : p.type == 'p' ? 3u
                          : 2u}},
        {273, size_type, {}},
        {277, SHORT, {spp}},
        {278, size_type, {uint32_t(rows_per_strip)}},
        {279, size_type, {}},
        {282, RATIONAL, {72, 1}},
    };
    if (p.type == 'p') f.push_back({320, SHORT, p.color_map});
    if (p.type == 'a') f.push_back({338, SHORT, {2}});
    return f;
}

struct Result {
    int status;
    std::string messages;
    TIFF_img image;
};

// Runs read_TIFF on the bytes as an in-memory file, starting from a record filled with a sentinel.
Result read_bytes(const std::vector<uint8_t> &bytes) {
    Result result{};
    memset(&result.image, 0x5A, sizeof result.image);
    std::vector<uint8_t> copy = bytes;
    copy.push_back(0); // fmemopen wants a buffer of at least one byte; the size excludes it
    FILE *fp = fmemopen(copy.data(), bytes.size(), "rb");
    if (!fp) fp = fopen("/dev/null", "rb");
    testing::internal::CaptureStderr();
    result.status = read_TIFF(fp, &result.image);
    result.messages = testing::internal::GetCapturedStderr();
    fclose(fp);
    return result;
}

bool untouched(const TIFF_img &image) {
    TIFF_img sentinel;
    memset(&sentinel, 0x5A, sizeof sentinel);
    return memcmp(&image, &sentinel, sizeof sentinel) == 0;
}

void release(TIFF_img *image) {
    free_TIFF(image);
    if (image->TIFF_type == 'c' || image->TIFF_type == 'a') free(image->color);
}

// Compares a record read back with the picture it was built from.
void expect_picture(const TIFF_img &image, const Picture &p) {
    ASSERT_EQ(image.TIFF_type, p.type);
    ASSERT_EQ(image.height, p.height);
    ASSERT_EQ(image.width, p.width);
    EXPECT_EQ(image.compress_type, 'u');
    for (size_t k = 0; k < p.planes.size(); k++)
        for (int r = 0; r < p.height; r++)
            for (int x = 0; x < p.width; x++) {
                const uint8_t got = p.planes.size() == 1 ? image.mono[r][x] : image.color[k][r][x];
                ASSERT_EQ(got, p.planes[k][size_t(r * p.width + x)])
                    << "plane " << k << " at " << r << "," << x;
            }
    if (p.type == 'p') {
        for (int i = 0; i < 256; i++)
            for (int k = 0; k < 3; k++)
                ASSERT_EQ(image.cmap[i][k], p.color_map[size_t(256 * k + i)] >> 8)
                    << "palette " << i << "," << k;
    }
}

TEST(TiffReader, ReadsLittleAndBigEndianFilesAlike) {
    for (char type : {'g', 'p', 'c', 'a'})
        for (bool big : {false, true})
            for (bool wide : {false, true}) {
                SCOPED_TRACE(std::string(1, type) + (big ? " MM" : " II") + (wide ? " LONG" : " SHORT"));
                Picture p = make_picture(type, 7, 5);
                Result r = read_bytes(build(big, strips_of(p, 3), fields_of(p, 3, wide)));
                ASSERT_EQ(r.status, 0) << r.messages;
                EXPECT_EQ(r.messages, "");
                expect_picture(r.image, p);
                release(&r.image);
            }
}

TEST(TiffReader, WhiteIsZeroGreyIsTurnedIntoBlackIsZero) {
    Picture p = make_picture('g', 3, 4);
    std::vector<Field> fields = fields_of(p, 3, false);
    fields[4].values = {0};
    Result r = read_bytes(build(false, strips_of(p, 3), fields));
    ASSERT_EQ(r.status, 0) << r.messages;
    for (uint8_t &v : p.planes[0])
        v = uint8_t(255 - v);
    expect_picture(r.image, p);
    release(&r.image);
}

// Without Compression, SamplesPerPixel, RowsPerStrip and StripByteCounts the image is one
// uncompressed strip of one sample per pixel; unknown tags, unknown types and fields of a type the
// tag does not allow are skipped, even when their values point outside the file; a repeated tag
// keeps its first entry.
TEST(TiffReader, MissingFieldsTakeTheirDefaultsAndUnknownOnesAreSkipped) {
    Picture p = make_picture('g', 6, 5);
    std::vector<Field> minimal = {
        {256, SHORT, {5}}, {257, LONG, {6}}, {258, SHORT, {8}}, {262, SHORT, {1}}, {273, LONG, {}}};
    Result r = read_bytes(build(true, strips_of(p, 6), minimal));
    ASSERT_EQ(r.status, 0) << r.messages;
    expect_picture(r.image, p);
    release(&r.image);

    std::vector<Field> noisy = fields_of(p, 2, false);
    noisy.insert(noisy.begin(), {254, LONG, {0}});
    noisy.push_back({305, ASCII, std::vector<uint32_t>(40, 'k')});
    noisy.push_back({256, RATIONAL, {9, 1}}); // repeated tag of a wrong type: skipped
    noisy.push_back({257, SHORT, {1}});       // repeated tag: the first entry wins
    noisy.push_back({40000, 13, {1, 2, 3}});  // unknown tag of an unknown type
    std::vector<uint8_t> bytes = build(false, strips_of(p, 2), noisy);
    // Point the ASCII field's values far past the end of the file.
    const uint32_t ifd = bytes[4] | bytes[5] << 8 | bytes[6] << 16 | uint32_t(bytes[7]) << 24;
    const size_t ascii_slot = ifd + 2 + 12 * 11 + 8;
    memset(&bytes[ascii_slot], 0xF0, 4);
    r = read_bytes(bytes);
    ASSERT_EQ(r.status, 0) << r.messages;
    expect_picture(r.image, p);
    release(&r.image);
}

TEST(TiffReader, WarnsAboutFurtherImagesAndReadsTheFirst) {
    Picture p = make_picture('c', 2, 2);
    Result r = read_bytes(build(false, strips_of(p, 2), fields_of(p, 2, false), 8));
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.messages, "tiff:  function ReadIFD:\nWARNING:  this TIFF file contains multiple images;\n"
                          "all but the first image will be ignored by the TIFF reader\n");
    expect_picture(r.image, p);
    release(&r.image);
}

// One base file per refusal, changed by `edit` (on the fields, before building) or `patch` (on the
// bytes, after).
struct Refusal {
    const char *what;
    char type;
    std::function<void(std::vector<Field> &)> edit;
    std::function<void(std::vector<uint8_t> &)> patch;
    const char *message;
};

void set(std::vector<Field> &fields, uint16_t tag, std::vector<uint32_t> values, uint16_t type = SHORT) {
    for (Field &f : fields)
        if (f.tag == tag) {
            f.values = values;
            f.type = type;
            return;
        }
    fields.push_back({tag, type, values});
}

void drop(std::vector<Field> &fields, uint16_t tag) {
    for (size_t i = 0; i < fields.size(); i++)
        if (fields[i].tag == tag) fields.erase(fields.begin() + long(i));
}

TEST(TiffReader, RefusesWhatItCannotReadAndLeavesTheRecordAlone) {
    auto none = [](std::vector<Field> &) {};
    auto same = [](std::vector<uint8_t> &) {};
    const Refusal cases[] = {
        {"empty file", 'g', none, [](std::vector<uint8_t> &b) { b.clear(); },
         "tiff:  function ReadHeader:\nerror reading image header\n"},
        {"short header", 'g', none, [](std::vector<uint8_t> &b) { b.resize(7); },
         "tiff:  function ReadHeader:\nerror reading image header\n"},
        {"byte order", 'g', none, [](std::vector<uint8_t> &b) { b[0] = b[1] = 'X'; },
         "tiff:  function ReadHeader:\nbyte order entry of header is neither \"II\" nor \"MM\"\n"},
        {"mixed byte order", 'g', none, [](std::vector<uint8_t> &b) { b[1] = 'M'; },
         "tiff:  function ReadHeader:\nbyte order entry of header is neither \"II\" nor \"MM\"\n"},
        {"version", 'g', none, [](std::vector<uint8_t> &b) { b[2] = 43; },
         "tiff:  function ReadHeader:\nversion entry of header is 43, not 42: not a TIFF file\n"},
        {"IFD inside the header", 'g', none, [](std::vector<uint8_t> &b) { b[4] = 4, b[5] = b[6] = b[7] = 0; },
         "tiff:  function ReadIFD:\noffset of IFD (4) lies outside the file\n"},
        {"IFD past the end", 'g', none, [](std::vector<uint8_t> &b) { b[4] = b[5] = b[6] = b[7] = 0xFF; },
         "tiff:  function ReadIFD:\noffset of IFD (4294967295) lies outside the file\n"},
        // The file ends with the 8 bytes of the resolution; 11 bytes less cut the IFD's last 3 bytes.
        {"IFD cut short", 'g', none, [](std::vector<uint8_t> &b) { b.resize(b.size() - 11); },
         "tiff:  function ReadIFD:\nerror reading IFD of 10 entries\n"},
        {"no entries", 'g', [](std::vector<Field> &f) { f.clear(); }, same,
         "tiff:  function ReadIFD:\nerror reading IFD of 0 entries\n"},
        {"no width", 'g', [](std::vector<Field> &f) { drop(f, 256); }, same,
         "tiff:  function GetImageFields:\nrequired field ImageWidth is missing or has an unexpected type\n"},
        {"width as rational", 'g', [](std::vector<Field> &f) { set(f, 256, {5, 1}, RATIONAL); }, same,
         "tiff:  function GetImageFields:\nrequired field ImageWidth is missing or has an unexpected type\n"},
        {"no height", 'g', [](std::vector<Field> &f) { drop(f, 257); }, same,
         "tiff:  function GetImageFields:\nrequired field ImageLength is missing or has an unexpected type\n"},
        {"no photometric", 'g', [](std::vector<Field> &f) { drop(f, 262); }, same,
         "tiff:  function GetImageFields:\nrequired field PhotometricInterpretation is missing or has an "
         "unexpected type\n"},
        {"no strip offsets", 'g', [](std::vector<Field> &f) { drop(f, 273); }, same,
         "tiff:  function GetImageFields:\nrequired field StripOffsets is missing or has an unexpected type\n"},
        {"PackBits", 'g', [](std::vector<Field> &f) { set(f, 259, {32773}); }, same,
         "tiff:  function GetCompressType:\nPackBits compression not supported\n"},
        {"Huffman", 'g', [](std::vector<Field> &f) { set(f, 259, {2}); }, same,
         "tiff:  function GetCompressType:\n1-D modified Huffman compression not supported\n"},
        {"JPEG", 'c', [](std::vector<Field> &f) { set(f, 259, {7}); }, same,
         "tiff:  function GetCompressType:\nCompression value 7 not recognized; could not assign\n"
         "compress_type to TIFF_img structure\n"},
        {"CMYK", 'a', [](std::vector<Field> &f) { set(f, 262, {5}); }, same,
         "tiff:  function GetImageType:\ncan't infer image type from IFD\n"},
        {"RGB with an extra sample that is not alpha", 'a', [](std::vector<Field> &f) { set(f, 338, {0}); }, same,
         "tiff:  function GetImageType:\ncan't infer image type from IFD\n"},
        {"grey with three samples", 'g', [](std::vector<Field> &f) { set(f, 277, {3}); }, same,
         "tiff:  function GetImageType:\ncan't infer image type from IFD\n"},
        {"4-bit palette", 'p', [](std::vector<Field> &f) { set(f, 258, {4}); }, same,
         "tiff:  function CheckSampleLayout:\n4-bit palette images not supported\n"},
        {"16-bit grey", 'g', [](std::vector<Field> &f) { set(f, 258, {16}); }, same,
         "tiff:  function CheckSampleLayout:\nimages of 16 bits per sample not supported; only 8 bits per "
         "sample\n"},
        {"no bits per sample (1 bit)", 'g', [](std::vector<Field> &f) { drop(f, 258); }, same,
         "tiff:  function CheckSampleLayout:\nimages of 1 bits per sample not supported; only 8 bits per "
         "sample\n"},
        {"RGB 8-8-16", 'c', [](std::vector<Field> &f) { set(f, 258, {8, 8, 16}); }, same,
         "tiff:  function CheckSampleLayout:\nimages of 16 bits per sample not supported; only 8 bits per "
         "sample\n"},
        {"planar RGB", 'c', [](std::vector<Field> &f) { set(f, 284, {2}); }, same,
         "tiff:  function CheckSampleLayout:\nPlanarConfiguration 2 not supported; only chunky (1)\n"},
        {"palette without map", 'p', [](std::vector<Field> &f) { drop(f, 320); }, same,
         "tiff:  function CheckSampleLayout:\npalette image needs a ColorMap of 768 values\n"},
        {"palette of 4-bit size", 'p', [](std::vector<Field> &f) { set(f, 320, std::vector<uint32_t>(48, 0)); },
         same, "tiff:  function CheckSampleLayout:\npalette image needs a ColorMap of 768 values\n"},
        {"zero width", 'g', [](std::vector<Field> &f) { set(f, 256, {0}); }, same,
         "tiff:  function CheckStrips:\nimage size 0 by 4 is out of range\n"},
        {"2^31 pixels", 'g', [](std::vector<Field> &f) { set(f, 256, {65536}, LONG), set(f, 257, {32768}, LONG); },
         same, "tiff:  function CheckStrips:\nimage size 65536 by 32768 is out of range\n"},
        {"height past 2^31", 'g', [](std::vector<Field> &f) { set(f, 257, {0x80000000u}, LONG); }, same,
         "tiff:  function CheckStrips:\nimage size 6 by 2147483648 is out of range\n"},
        {"more pixels than the file holds", 'c', [](std::vector<Field> &f) { set(f, 257, {40000}, LONG); }, same,
         "tiff:  function CheckStrips:\nimage of 6 by 40000 pixels needs more data than the file holds\n"},
        {"zero rows per strip", 'g', [](std::vector<Field> &f) { set(f, 278, {0}); }, same,
         "tiff:  function CheckStrips:\nRowsPerStrip is zero\n"},
        {"too few strip offsets", 'g', [](std::vector<Field> &f) { set(f, 273, {8}, LONG); }, same,
         "tiff:  function CheckStrips:\nimage needs 2 strips; StripOffsets or StripByteCounts lists fewer\n"},
        {"too few byte counts", 'g', [](std::vector<Field> &f) { set(f, 279, {18}, LONG); }, same,
         "tiff:  function CheckStrips:\nimage needs 2 strips; StripOffsets or StripByteCounts lists fewer\n"},
        {"short strip", 'g', [](std::vector<Field> &f) { set(f, 279, {18, 5}, LONG); }, same,
         "tiff:  function CheckStrips:\nstrip 1 holds 5 bytes, fewer than its 6 bytes of pixels\n"},
        {"strip past the end", 'g', [](std::vector<Field> &f) { set(f, 273, {8, 0xFFFFFFF0u}, LONG); }, same,
         "tiff:  function CheckStrips:\nstrip 1 lies outside the file\n"},
        // 174 bytes: strips 8..31, IFD 32..157, the strip offsets and the resolution after it.
        {"strip across the end", 'g', [](std::vector<Field> &f) { set(f, 273, {8, 170}, LONG); }, same,
         "tiff:  function CheckStrips:\nstrip 1 lies outside the file\n"},
        {"colour map outside", 'p', none,
         [](std::vector<uint8_t> &b) {
             const uint32_t ifd = b[4] | b[5] << 8 | b[6] << 16 | uint32_t(b[7]) << 24;
             memset(&b[ifd + 2 + 12 * 10 + 8], 0xEE, 4);
         },
         "tiff:  function ReadFieldValues:\nvalues of field with tag 320 lie outside the file\n"},
    };
    for (const Refusal &c : cases) {
        SCOPED_TRACE(c.what);
        Picture p = make_picture(c.type, 4, 6);
        std::vector<Field> fields = fields_of(p, 3, false);
        c.edit(fields);
        std::vector<uint8_t> bytes = build(false, strips_of(p, 3), fields);
        c.patch(bytes);
        Result r = read_bytes(bytes);
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.messages, c.message);
        EXPECT_TRUE(untouched(r.image));
    }
}

// A file cut anywhere before the end of its IFD is refused; cut later, it may lose only fields the
// reader does not use, and then reads back exactly.
TEST(TiffReader, TruncatedFilesAreRefusedOrReadExactly) {
    for (char type : {'g', 'p', 'c', 'a'}) {
        Picture p = make_picture(type, 5, 7);
        std::vector<uint8_t> whole = build(type == 'c', strips_of(p, 2), fields_of(p, 2, type == 'a'));
        const uint32_t ifd = whole[4] << 24 | whole[5] << 16 | whole[6] << 8 | whole[7];
        const uint32_t ifd_le = whole[4] | whole[5] << 8 | whole[6] << 16 | uint32_t(whole[7]) << 24;
        const size_t ifd_end = (type == 'c' ? ifd : ifd_le) + 2 + 12 * fields_of(p, 2, false).size() + 4;
        for (size_t length = 0; length < whole.size(); length++) {
            SCOPED_TRACE(std::string(1, type) + " cut at " + std::to_string(length));
            Result r = read_bytes(std::vector<uint8_t>(whole.begin(), whole.begin() + long(length)));
            if (length < ifd_end) {
                EXPECT_EQ(r.status, 1);
            }
            if (r.status == 0) {
                expect_picture(r.image, p);
                release(&r.image);
            } else {
                EXPECT_NE(r.messages, "");
                EXPECT_TRUE(untouched(r.image));
            }
        }
    }
}

// Every byte of small files of each type replaced by a few telling values: the reader either refuses
// the file with a message or returns a record that is whole and consistent.
TEST(TiffReader, CorruptedBytesAreRefusedOrReadNeverCrash) {
    for (char type : {'g', 'p', 'c', 'a'}) {
        Picture p = make_picture(type, 3, 4);
        const std::vector<uint8_t> whole = build(type != 'g', strips_of(p, 2), fields_of(p, 2, type == 'c'));
        for (size_t at = 0; at < whole.size(); at++)
            for (uint8_t value : {0x00, 0x01, 0x7F, 0x80, 0xFF}) {
                std::vector<uint8_t> bytes = whole;
                if (bytes[at] == value) continue;
                bytes[at] = value;
                Result r = read_bytes(bytes);
                if (r.status == 0) {
                    ASSERT_GT(r.image.height, 0);
                    ASSERT_GT(r.image.width, 0);
                    ASSERT_NE(strchr("gpca", r.image.TIFF_type), nullptr);
                    // Touch every pixel so that a plane too small for its size would be reported.
                    unsigned sum = 0;
                    const int planes = r.image.TIFF_type == 'c' ? 3 : r.image.TIFF_type == 'a' ? 4 : 1;
                    for (int k = 0; k < planes; k++)
                        for (int y = 0; y < r.image.height; y++)
                            for (int x = 0; x < r.image.width; x++)
                                sum += planes == 1 ? r.image.mono[y][x] : r.image.color[k][y][x];
                    volatile unsigned sink = sum;
                    (void)sink;
                    release(&r.image);
                } else {
                    ASSERT_EQ(r.status, 1);
                    ASSERT_EQ(r.messages.rfind("tiff:  function ", 0), 0u) << r.messages;
                    ASSERT_TRUE(untouched(r.image));
                }
            }
    }
}

} // namespace

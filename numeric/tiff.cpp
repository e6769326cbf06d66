// The in-memory image record (allocation and release of its planes) and the TIFF writer. The reader
// is in tiff_read.cpp.
#include "numeric/tiff.h"

#include "numeric/arrays.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace {

uint8_t **new_plane(int height, int width) {
    return reinterpret_cast<uint8_t **>(get_img(width, height, 1));
}

// Colour records keep their planes in a table; an 'a' record stores four planes into it.
uint8_t ***new_planes(int count, int height, int width) {
    uint8_t ***planes = static_cast<uint8_t ***>(mget_spc(count, sizeof(uint8_t **)));
    for (int i = 0; i < count; i++)
        planes[i] = new_plane(height, width);
    return planes;
}

void free_plane(uint8_t **plane) {
    free_img(reinterpret_cast<void **>(plane));
}

} // namespace

int get_TIFF(struct TIFF_img *image, int height, int width, char type) {
    image->height = height;
    image->width = width;
    image->TIFF_type = type;
    image->compress_type = 'u';

    if (height <= 0 || width <= 0) {
        fprintf(stderr, "tiff:  function get_TIFF:\n");
        fprintf(stderr, "image height and width must be positive\n");
        return 1;
    }
    switch (type) {
    case 'g':
        image->mono = new_plane(height, width);
        image->color = nullptr;
        image->cmap = nullptr;
        return 0;
    case 'p':
        image->mono = new_plane(height, width);
        image->color = nullptr;
        image->cmap = reinterpret_cast<uint8_t **>(get_img(3, 256, 1));
        return 0;
    case 'c':
    case 'a':
        image->mono = nullptr;
        image->color = new_planes(type == 'c' ? 3 : 4, height, width);
        image->cmap = nullptr;
        return 0;
    default:
        fprintf(stderr, "tiff:  function get_TIFF:\n");
        fprintf(stderr, "allocation for image of type %c is not supported", type);
        return 1;
    }
}

void free_TIFF(struct TIFF_img *image) {
    switch (image->TIFF_type) {
    case 'g':
        free_plane(image->mono);
        break;
    case 'p':
        free_plane(image->mono);
        free_plane(image->cmap);
        break;
    case 'c':
    case 'a':
        for (int i = 0; i < (image->TIFF_type == 'c' ? 3 : 4); i++)
            free_plane(image->color[i]);
        break;
    default:
        break;
    }
}

// TIFF writer: one baseline, uncompressed, big-endian image per file.
//
// Layout written: the 8-byte header, the strips from offset 8 on without gaps, one pad byte when they
// end at an odd offset, the IFD (entries sorted by tag, next-IFD offset 0), then the values that do not
// fit an entry's 4-byte slot, each at an even offset. Every failure prints "tiff:  function NAME:\n"
// and a reason to standard error and returns 1 up to write_TIFF unchanged.

namespace {

enum : uint16_t { kByte = 1, kAscii = 2, kShort = 3, kLong = 4, kRational = 5 };

// One IFD entry in memory. SHORT and LONG values are held one per element; a RATIONAL takes two
// elements (numerator, denominator).
struct TiffField {
    uint16_t tag;
    uint16_t type;
    uint32_t count;
    std::vector<uint32_t> values;
};

// Where the strips go: rows per strip, the number of strips, each strip's offset and byte count.
struct DataLocation {
    uint32_t bytes_per_row;
    uint32_t rows_per_strip;
    uint32_t strips_per_image;
    std::vector<uint32_t> strip_offsets;
    std::vector<uint32_t> strip_byte_counts;
};

// Strips are cut so that each holds at least this many bytes, except the last.
const int64_t kStripBytes = 8000;

void Complain(const char *function) {
    std::fprintf(stderr, "tiff:  function %s:\n", function);
}

uint32_t TypeSize(uint16_t type) {
    switch (type) {
    case kShort:
        return 2;
    case kLong:
        return 4;
    case kRational:
        return 8;
    default:
        return 1;
    }
}

int WriteUint8(FILE *fp, uint8_t v) {
    if (std::fwrite(&v, 1, 1, fp) != 1) {
        Complain("WriteUint8");
        std::fprintf(stderr, "error writing uint8_t\n");
        return 1;
    }
    return 0;
}

int WriteUint16(FILE *fp, uint16_t v) {
    const uint8_t b[2] = {uint8_t(v >> 8), uint8_t(v)};
    if (std::fwrite(b, 1, 2, fp) != 2) {
        Complain("WriteUint16");
        std::fprintf(stderr, "error writing uint16_t\n");
        return 1;
    }
    return 0;
}

int WriteUint32(FILE *fp, uint32_t v) {
    const uint8_t b[4] = {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
    if (std::fwrite(b, 1, 4, fp) != 4) {
        Complain("WriteUint32");
        std::fprintf(stderr, "error writing uint32_t\n");
        return 1;
    }
    return 0;
}

int WriteRational(FILE *fp, uint32_t numerator, uint32_t denominator) {
    const uint8_t b[8] = {uint8_t(numerator >> 24),  uint8_t(numerator >> 16),   uint8_t(numerator >> 8),
                          uint8_t(numerator),        uint8_t(denominator >> 24), uint8_t(denominator >> 16),
                          uint8_t(denominator >> 8), uint8_t(denominator)};
    if (std::fwrite(b, 1, 8, fp) != 8) {
        Complain("WriteRational");
        std::fprintf(stderr, "error writing rational number\n");
        return 1;
    }
    return 0;
}

int SetFilePosition(FILE *fp, long offset, const char *function) {
    if (std::fseek(fp, offset, SEEK_SET) != 0) {
        Complain(function);
        std::fprintf(stderr, "error setting file position\n");
        return 1;
    }
    return 0;
}

int GetBytesPerRow(const TIFF_img *img, DataLocation *loc) {
    int64_t bytes;
    switch (img->TIFF_type) {
    case 'g':
    case 'p':
        bytes = img->width;
        break;
    case 'c':
        bytes = 3 * int64_t(img->width);
        break;
    default:
        Complain("GetBytesPerRow");
        std::fprintf(stderr, "writer is not prepared to compute bytes_per_row\n");
        std::fprintf(stderr, "for image of TIFF_type '%c'\n", img->TIFF_type);
        return 1;
    }
    // A width below 1 is refused when the ImageWidth field is made; until then it packs empty rows.
    loc->bytes_per_row = bytes > 0 ? uint32_t(bytes) : 0;
    return 0;
}

// The smallest row count whose bytes reach kStripBytes, at least 1 and at most the image height.
void GetRowsPerStrip(const TIFF_img *img, DataLocation *loc) {
    // Rows of no bytes never reach the threshold, so they all go into one strip.
    int64_t rows = img->height;
    if (loc->bytes_per_row > 0) rows = (kStripBytes + loc->bytes_per_row - 1) / loc->bytes_per_row;
    if (rows > img->height) rows = img->height;
    if (rows < 1) rows = 1;
    loc->rows_per_strip = uint32_t(rows);
}

int GetStripsPerImage(const TIFF_img *img, DataLocation *loc) {
    if (img->height < 1) {
        Complain("GetStripsPerImage");
        std::fprintf(stderr, "height entry in TIFF image structure\n"
                             "claims that image height is not positive\n");
        return 1;
    }
    loc->strips_per_image = uint32_t((int64_t(img->height) + loc->rows_per_strip - 1) / loc->rows_per_strip);
    return 0;
}

// Packs the rows of strip `strip` into `buffer`: one byte per pixel for 'g' and 'p', red, green and
// blue interleaved for 'c'.
int GetStrip(const TIFF_img *img, const DataLocation *loc, uint32_t strip, std::vector<uint8_t> *buffer) {
    if (img->compress_type != 'u') {
        Complain("GetStrip");
        std::fprintf(stderr,
                     "TIFF writer not prepared to compress data\n"
                     "with compress_type %c\n",
                     img->compress_type);
        return 1;
    }
    const int64_t first = int64_t(strip) * loc->rows_per_strip;
    const int64_t last = std::min<int64_t>(first + loc->rows_per_strip, img->height);
    const int32_t width = img->width > 0 ? img->width : 0;
    buffer->resize(size_t(last - first) * loc->bytes_per_row);
    uint8_t *out = buffer->data();
    for (int64_t row = first; row < last; ++row) {
        if (img->TIFF_type == 'c') {
            const uint8_t *r = img->color[0][row], *g = img->color[1][row], *b = img->color[2][row];
            for (int32_t col = 0; col < width; ++col) {
                *out++ = r[col];
                *out++ = g[col];
                *out++ = b[col];
            }
        } else if (width > 0) {
            std::memcpy(out, img->mono[row], size_t(width));
            out += width;
        }
    }
    return 0;
}

// Writes every strip from offset 8 on and records its offset and byte count.
int WriteStrips(FILE *fp, const TIFF_img *img, DataLocation *loc) {
    // Offsets are 32-bit: refuse before writing anything when the strips and the IFD would not fit.
    const uint64_t data_bytes = uint64_t(loc->bytes_per_row) * uint64_t(img->height);
    if (8 + data_bytes + 1 > 0xFFFF0000u) {
        Complain("WriteStrips");
        std::fprintf(stderr, "image data of %llu bytes exceed the 4 GB reach of TIFF offsets\n",
                     (unsigned long long)data_bytes);
        return 1;
    }
    if (SetFilePosition(fp, 8, "WriteStrips")) return 1;
    loc->strip_offsets.assign(loc->strips_per_image, 0);
    loc->strip_byte_counts.assign(loc->strips_per_image, 0);
    std::vector<uint8_t> buffer;
    uint32_t offset = 8;
    for (uint32_t s = 0; s < loc->strips_per_image; ++s) {
        if (GetStrip(img, loc, s, &buffer)) return 1;
        if (!buffer.empty() && std::fwrite(buffer.data(), 1, buffer.size(), fp) != buffer.size()) {
            Complain("WriteStrips");
            std::fprintf(stderr, "error writing strip number %ld\n", long(s));
            return 1;
        }
        loc->strip_offsets[s] = offset;
        loc->strip_byte_counts[s] = uint32_t(buffer.size());
        offset += uint32_t(buffer.size());
    }
    // Keep the IFD on a word boundary with a zero pad byte rather than a hole of unknown contents.
    if (offset % 2 != 0 && WriteUint8(fp, 0)) return 1;
    return 0;
}

int PrepareHeader(uint32_t ifd_offset, uint32_t *header_ifd_offset) {
    if (ifd_offset < 8) {
        std::fprintf(stderr, "tiff:  function PrepareHeader:\ninvalid"
                             " entry for offset of IFD\n");
        return 1;
    }
    *header_ifd_offset = ifd_offset;
    return 0;
}

TiffField MakeField(uint16_t tag, uint16_t type, std::vector<uint32_t> values) {
    const uint32_t count = type == kRational ? uint32_t(values.size() / 2) : uint32_t(values.size());
    return TiffField{tag, type, count, std::move(values)};
}

// ImageWidth, ImageLength and RowsPerStrip: SHORT while the value fits in 16 bits, LONG above.
int MakeDimensionField(uint16_t tag, int64_t value, TiffField *field) {
    if (value < 1) {
        Complain("MakeDimensionField");
        std::fprintf(stderr, "image dimension is less than 1\n");
        return 1;
    }
    *field = MakeField(tag, value > 65535 ? kLong : kShort, {uint32_t(value)});
    return 0;
}

int MakeCompressionField(const TIFF_img *img, TiffField *field) {
    if (img->compress_type != 'u') {
        Complain("MakeCompressionField");
        std::fprintf(stderr,
                     "desired compression scheme "
                     "(compress_type '%c') not supported by writer\n",
                     img->compress_type);
        return 1;
    }
    *field = MakeField(259, kShort, {1});
    return 0;
}

int MakePhotometricField(const TIFF_img *img, TiffField *field) {
    uint32_t photometric;
    switch (img->TIFF_type) {
    case 'g':
        photometric = 1;
        break;
    case 'p':
        photometric = 3;
        break;
    case 'c':
        photometric = 2;
        break;
    default:
        Complain("MakePhotometricField");
        std::fprintf(stderr,
                     "desired image type "
                     "(TIFF_type '%c') not supported by writer\n",
                     img->TIFF_type);
        return 1;
    }
    *field = MakeField(262, kShort, {photometric});
    return 0;
}

int MakeBitsPerSampleField(const TIFF_img *img, TiffField *field) {
    switch (img->TIFF_type) {
    case 'g':
    case 'p':
        *field = MakeField(258, kShort, {8});
        return 0;
    case 'c':
        *field = MakeField(258, kShort, {8, 8, 8});
        return 0;
    default:
        Complain("MakeBitsPerSampleField");
        std::fprintf(stderr,
                     "writer not prepared to write field value(s)\n"
                     "for BitsPerSample field for image of type %c\n",
                     img->TIFF_type);
        return 1;
    }
}

// The fields only one type carries: SamplesPerPixel for 'c', the ColorMap for 'p'.
int MakeSpecialFields(const TIFF_img *img, std::vector<TiffField> *fields) {
    switch (img->TIFF_type) {
    case 'g':
        return 0;
    case 'c':
        fields->push_back(MakeField(277, kShort, {3}));
        return 0;
    case 'p': {
        // All reds, then all greens, then all blues; an 8-bit entry v becomes the 16-bit v * 257.
        std::vector<uint32_t> map(768);
        for (int channel = 0; channel < 3; ++channel)
            for (int i = 0; i < 256; ++i)
                map[size_t(channel * 256 + i)] = 257u * img->cmap[i][channel];
        fields->push_back(MakeField(320, kShort, std::move(map)));
        return 0;
    }
    default:
        Complain("MakeSpecialFields");
        std::fprintf(stderr,
                     "writer is not prepared to add specialized\n"
                     "field entry for image of type %c\n",
                     img->TIFF_type);
        return 1;
    }
}

int MakeFields(const TIFF_img *img, const DataLocation *loc, std::vector<TiffField> *fields) {
    TiffField field;
    if (MakeDimensionField(256, img->width, &field)) return 1;
    fields->push_back(field);
    if (MakeDimensionField(257, img->height, &field)) return 1;
    fields->push_back(field);
    if (MakeCompressionField(img, &field)) return 1;
    fields->push_back(field);
    if (MakePhotometricField(img, &field)) return 1;
    fields->push_back(field);
    fields->push_back(MakeField(273, kLong, loc->strip_offsets));
    if (MakeDimensionField(278, loc->rows_per_strip, &field)) return 1;
    fields->push_back(field);
    const bool long_counts = std::any_of(loc->strip_byte_counts.begin(), loc->strip_byte_counts.end(),
                                         [](uint32_t n) { return n > 65535; });
    fields->push_back(MakeField(279, long_counts ? kLong : kShort, loc->strip_byte_counts));
    fields->push_back(MakeField(282, kRational, {100, 1}));
    fields->push_back(MakeField(283, kRational, {100, 1}));
    fields->push_back(MakeField(296, kShort, {2}));
    if (MakeBitsPerSampleField(img, &field)) return 1;
    fields->push_back(field);
    return MakeSpecialFields(img, fields);
}

// Selection sort: swap the smallest remaining tag into place.
void SortFields(std::vector<TiffField> *fields) {
    for (size_t i = 0; i < fields->size(); ++i) {
        size_t smallest = i;
        for (size_t j = i + 1; j < fields->size(); ++j)
            if ((*fields)[j].tag < (*fields)[smallest].tag) smallest = j;
        if (smallest != i) std::swap((*fields)[i], (*fields)[smallest]);
    }
}

int WriteValue(FILE *fp, const TiffField &field, size_t i) {
    switch (field.type) {
    case kShort:
        return WriteUint16(fp, uint16_t(field.values[i]));
    case kLong:
        return WriteUint32(fp, field.values[i]);
    case kRational:
        return WriteRational(fp, field.values[2 * i], field.values[2 * i + 1]);
    default:
        return WriteUint8(fp, uint8_t(field.values[i]));
    }
}

int WriteValues(FILE *fp, const TiffField &field) {
    for (size_t i = 0; i < field.count; ++i) {
        if (WriteValue(fp, field, i)) {
            Complain("WriteIFD");
            std::fprintf(stderr,
                         field.count == 1 ? "cound not write data value " : "cound not write data values ");
            std::fprintf(stderr, "for tag number %d\n", field.tag);
            return 1;
        }
    }
    return 0;
}

int WriteHeader(FILE *fp, uint32_t ifd_offset) {
    if (SetFilePosition(fp, 0, "WriteHeader")) return 1;
    return WriteUint16(fp, 0x4D4D) || WriteUint16(fp, 42) || WriteUint32(fp, ifd_offset);
}

// Writes the IFD at ifd_offset: the entry count, the entries, a next-IFD offset of 0, then every value
// block too large for its entry's slot, each starting at an even offset.
int WriteIFD(FILE *fp, const std::vector<TiffField> &fields, uint32_t ifd_offset) {
    if (SetFilePosition(fp, long(ifd_offset), "WriteIFD")) return 1;
    if (WriteUint16(fp, uint16_t(fields.size()))) return 1;
    uint32_t value_offset = ifd_offset + 12 * uint32_t(fields.size()) + 6;
    for (const TiffField &field : fields) {
        if (field.count == 0) {
            Complain("WriteIFD");
            std::fprintf(stderr,
                         "count for "
                         "field with tag %d is zero\n",
                         field.tag);
            return 1;
        }
        if (WriteUint16(fp, field.tag) || WriteUint16(fp, field.type) || WriteUint32(fp, field.count))
            return 1;
        const uint32_t bytes = field.count * TypeSize(field.type);
        if (bytes <= 4) {
            if (WriteValues(fp, field)) return 1;
            for (uint32_t pad = bytes; pad < 4; ++pad)
                if (WriteUint8(fp, 0)) return 1;
        } else {
            if (WriteUint32(fp, value_offset)) return 1;
            value_offset += bytes + bytes % 2;
        }
    }
    if (WriteUint32(fp, 0)) return 1;
    for (const TiffField &field : fields) {
        const uint32_t bytes = field.count * TypeSize(field.type);
        if (bytes <= 4) continue;
        if (WriteValues(fp, field)) return 1;
        if (bytes % 2 != 0 && WriteUint8(fp, 0)) return 1;
    }
    return 0;
}

} // namespace

int write_TIFF(FILE *fp, const struct TIFF_img *img) {
    DataLocation loc{};
    if (GetBytesPerRow(img, &loc)) return 1;
    GetRowsPerStrip(img, &loc);
    if (GetStripsPerImage(img, &loc)) return 1;
    if (WriteStrips(fp, img, &loc)) return 1;
    const uint64_t end = uint64_t(loc.strip_offsets.back()) + loc.strip_byte_counts.back();
    uint32_t ifd_offset = 0;
    if (PrepareHeader(uint32_t(end + end % 2), &ifd_offset)) return 1;
    std::vector<TiffField> fields;
    if (MakeFields(img, &loc, &fields)) return 1;
    SortFields(&fields);
    if (WriteHeader(fp, ifd_offset)) return 1;
    return WriteIFD(fp, fields, ifd_offset);
}

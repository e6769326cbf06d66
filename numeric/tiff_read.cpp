// TIFF reader: the first image of a baseline, uncompressed, 8-bit TIFF file in either byte order.
//
// The file is untrusted. Every offset and count is checked against the file's size before it is used,
// sizes are formed in 64 bits, and the image's data must fit in the file before any plane is
// allocated, so a corrupt or hostile file costs at most memory in proportion to its own size. Nothing
// is stored into the caller's record unless the whole image was read.
#include "numeric/tiff.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

enum : uint16_t { kShort = 3, kLong = 4 };

enum : uint16_t {
    kImageWidth = 256,
    kImageLength = 257,
    kBitsPerSample = 258,
    kCompression = 259,
    kPhotometric = 262,
    kStripOffsets = 273,
    kSamplesPerPixel = 277,
    kRowsPerStrip = 278,
    kStripByteCounts = 279,
    kPlanarConfiguration = 284,
    kColorMap = 320,
    kExtraSamples = 338,
};

// One recognised IFD entry with its values widened to 32 bits.
struct TiffField {
    uint16_t tag;
    uint16_t type;
    uint32_t count;
    std::vector<uint32_t> values;
};

struct TiffFile {
    FILE *fp;
    uint64_t size;
    bool big_endian;
};

// The fields the reader uses, after defaults.
struct ImageFields {
    uint32_t width = 0, height = 0;
    bool has_width = false, has_height = false, has_photometric = false;
    uint32_t photometric = 0;
    uint32_t compression = 1;
    uint32_t samples_per_pixel = 1;
    std::vector<uint32_t> bits_per_sample{1};
    uint32_t rows_per_strip = 0xFFFFFFFFu;
    uint32_t planar_configuration = 1;
    std::vector<uint32_t> strip_offsets, strip_byte_counts, color_map, extra_samples;
    bool has_strip_offsets = false, has_strip_byte_counts = false, has_color_map = false;
};

void Complain(const char *function) {
    std::fprintf(stderr, "tiff:  function %s:\n", function);
}

uint16_t Get16(const TiffFile &f, const uint8_t *b) {
    return f.big_endian ? uint16_t(b[0] << 8 | b[1]) : uint16_t(b[1] << 8 | b[0]);
}

uint32_t Get32(const TiffFile &f, const uint8_t *b) {
    return f.big_endian ? uint32_t(b[0]) << 24 | uint32_t(b[1]) << 16 | uint32_t(b[2]) << 8 | b[3]
                        : uint32_t(b[3]) << 24 | uint32_t(b[2]) << 16 | uint32_t(b[1]) << 8 | b[0];
}

// Reads n bytes at `offset` into out; false when any of them lies past the end of the file or the
// stream fails.
bool ReadAt(const TiffFile &f, uint64_t offset, size_t n, uint8_t *out) {
    if (offset > f.size || n > f.size - offset) return false;
    if (n == 0) return true;
    if (offset > uint64_t(LONG_MAX) || std::fseek(f.fp, long(offset), SEEK_SET) != 0) return false;
    return std::fread(out, 1, n, f.fp) == n;
}

int ReadHeader(TiffFile *f, uint32_t *ifd_offset) {
    uint8_t header[8];
    if (std::fseek(f->fp, 0, SEEK_END) != 0) {
        Complain("ReadHeader");
        std::fprintf(stderr, "error reading image header\n");
        return 1;
    }
    const long end = std::ftell(f->fp);
    f->size = end > 0 ? uint64_t(end) : 0;
    if (!ReadAt(*f, 0, 8, header)) {
        Complain("ReadHeader");
        std::fprintf(stderr, "error reading image header\n");
        return 1;
    }
    if (header[0] == 'I' && header[1] == 'I') {
        f->big_endian = false;
    } else if (header[0] == 'M' && header[1] == 'M') {
        f->big_endian = true;
    } else {
        Complain("ReadHeader");
        std::fprintf(stderr, "byte order entry of header is neither \"II\" nor \"MM\"\n");
        return 1;
    }
    const uint16_t version = Get16(*f, header + 2);
    if (version != 42) {
        Complain("ReadHeader");
        std::fprintf(stderr, "version entry of header is %d, not 42: not a TIFF file\n", version);
        return 1;
    }
    *ifd_offset = Get32(*f, header + 4);
    return 0;
}

// Which types each recognised tag may have; 0 for a tag the reader does not use.
bool AcceptedType(uint16_t tag, uint16_t type) {
    switch (tag) {
    case kImageWidth:
    case kImageLength:
    case kStripOffsets:
    case kRowsPerStrip:
    case kStripByteCounts:
        return type == kShort || type == kLong;
    case kBitsPerSample:
    case kCompression:
    case kPhotometric:
    case kSamplesPerPixel:
    case kPlanarConfiguration:
    case kColorMap:
    case kExtraSamples:
        return type == kShort;
    default:
        return false;
    }
}

// Loads the values of one 12-byte entry: in place when they fit its 4-byte slot, else from the
// offset it holds, which must lie inside the file with all the values.
int ReadFieldValues(const TiffFile &f, const uint8_t *entry, TiffField *field) {
    const uint32_t size = field->type == kShort ? 2 : 4;
    const uint64_t bytes = uint64_t(field->count) * size;
    std::vector<uint8_t> raw(size_t(std::min<uint64_t>(bytes, f.size + 1)));
    if (bytes <= 4) {
        std::memcpy(raw.data(), entry + 8, size_t(bytes));
    } else if (bytes > f.size || !ReadAt(f, Get32(f, entry + 8), size_t(bytes), raw.data())) {
        Complain("ReadFieldValues");
        std::fprintf(stderr, "values of field with tag %d lie outside the file\n", field->tag);
        return 1;
    }
    field->values.resize(field->count);
    for (uint32_t i = 0; i < field->count; ++i)
        field->values[i] = size == 2 ? Get16(f, &raw[2 * size_t(i)]) : Get32(f, &raw[4 * size_t(i)]);
    return 0;
}

// Reads the first IFD and keeps every recognised field of an accepted type and non-zero count; the
// first of repeated tags wins. Warns when the file holds further images.
int ReadIFD(const TiffFile &f, uint32_t ifd_offset, std::vector<TiffField> *fields) {
    uint8_t count_bytes[2];
    if (ifd_offset < 8 || !ReadAt(f, ifd_offset, 2, count_bytes)) {
        Complain("ReadIFD");
        std::fprintf(stderr, "offset of IFD (%lu) lies outside the file\n", (unsigned long)ifd_offset);
        return 1;
    }
    const uint16_t entries = Get16(f, count_bytes);
    std::vector<uint8_t> ifd(size_t(entries) * 12 + 4);
    if (entries == 0 || !ReadAt(f, uint64_t(ifd_offset) + 2, ifd.size(), ifd.data())) {
        Complain("ReadIFD");
        std::fprintf(stderr, "error reading IFD of %d entries\n", entries);
        return 1;
    }
    for (uint16_t e = 0; e < entries; ++e) {
        const uint8_t *entry = &ifd[size_t(e) * 12];
        TiffField field{Get16(f, entry), Get16(f, entry + 2), Get32(f, entry + 4), {}};
        if (!AcceptedType(field.tag, field.type) || field.count == 0) continue;
        const bool repeated = std::any_of(fields->begin(), fields->end(),
                                          [&](const TiffField &known) { return known.tag == field.tag; });
        if (repeated) continue;
        if (ReadFieldValues(f, entry, &field)) return 1;
        fields->push_back(std::move(field));
    }
    if (Get32(f, &ifd[size_t(entries) * 12]) != 0) {
        Complain("ReadIFD");
        std::fprintf(stderr, "WARNING:  this TIFF file "
                             "contains multiple images;\n"
                             "all but the first image will be "
                             "ignored by the TIFF reader\n");
    }
    return 0;
}

// Copies the fields into an ImageFields record; absent fields keep their defaults, and the ones
// without a default are refused.
int GetImageFields(const std::vector<TiffField> &fields, ImageFields *im) {
    for (const TiffField &field : fields) {
        const uint32_t first = field.values[0];
        switch (field.tag) {
        case kImageWidth:
            im->width = first;
            im->has_width = true;
            break;
        case kImageLength:
            im->height = first;
            im->has_height = true;
            break;
        case kBitsPerSample:
            im->bits_per_sample = field.values;
            break;
        case kCompression:
            im->compression = first;
            break;
        case kPhotometric:
            im->photometric = first;
            im->has_photometric = true;
            break;
        case kStripOffsets:
            im->strip_offsets = field.values;
            im->has_strip_offsets = true;
            break;
        case kSamplesPerPixel:
            im->samples_per_pixel = first;
            break;
        case kRowsPerStrip:
            im->rows_per_strip = first;
            break;
        case kStripByteCounts:
            im->strip_byte_counts = field.values;
            im->has_strip_byte_counts = true;
            break;
        case kPlanarConfiguration:
            im->planar_configuration = first;
            break;
        case kColorMap:
            im->color_map = field.values;
            im->has_color_map = true;
            break;
        case kExtraSamples:
            im->extra_samples = field.values;
            break;
        }
    }
    const char *missing = !im->has_width           ? "ImageWidth"
                          : !im->has_height        ? "ImageLength"
                          : !im->has_photometric   ? "PhotometricInterpretation"
                          : !im->has_strip_offsets ? "StripOffsets"
                                                   : nullptr;
    if (missing) {
        Complain("GetImageFields");
        std::fprintf(stderr, "required field %s is missing or has an unexpected type\n", missing);
        return 1;
    }
    return 0;
}

int GetCompressType(const ImageFields &im, char *compress_type) {
    switch (im.compression) {
    case 1:
        *compress_type = 'u';
        return 0;
    case 32773:
        Complain("GetCompressType");
        std::fprintf(stderr, "PackBits compression not supported\n");
        return 1;
    case 2:
        Complain("GetCompressType");
        std::fprintf(stderr, "1-D modified Huffman compression not supported\n");
        return 1;
    default:
        Complain("GetCompressType");
        std::fprintf(stderr,
                     "Compression value %d not recognized; could not"
                     " assign\ncompress_type to TIFF_img structure\n",
                     int(im.compression));
        return 1;
    }
}

// Greyscale first, then palette, then full colour (with alpha when the one extra sample is
// associated or unassociated alpha).
int GetImageType(const ImageFields &im, char *type) {
    const uint32_t p = im.photometric, spp = im.samples_per_pixel;
    const bool alpha_extra =
        im.extra_samples.size() == 1 && (im.extra_samples[0] == 1 || im.extra_samples[0] == 2);
    if ((p == 0 || p == 1) && spp == 1) {
        *type = 'g';
    } else if (p == 3 && spp == 1) {
        *type = 'p';
    } else if (p == 2 && spp == 3) {
        *type = 'c';
    } else if (p == 2 && spp == 4 && alpha_extra) {
        *type = 'a';
    } else {
        Complain("GetImageType");
        std::fprintf(stderr, "can't infer image type from IFD\n");
        return 1;
    }
    return 0;
}

int CheckSampleLayout(const ImageFields &im, char type) {
    const bool all_eight = std::all_of(im.bits_per_sample.begin(), im.bits_per_sample.end(),
                                       [](uint32_t bits) { return bits == 8; });
    if (!all_eight) {
        Complain("CheckSampleLayout");
        if (type == 'p')
            std::fprintf(stderr, "%d-bit palette images not supported\n", int(im.bits_per_sample[0]));
        else
            std::fprintf(stderr, "images of %d bits per sample not supported; only 8 bits per sample\n",
                         int(*std::find_if(im.bits_per_sample.begin(), im.bits_per_sample.end(),
                                           [](uint32_t bits) { return bits != 8; })));
        return 1;
    }
    if (im.samples_per_pixel > 1 && im.planar_configuration != 1) {
        Complain("CheckSampleLayout");
        std::fprintf(stderr, "PlanarConfiguration %d not supported; only chunky (1)\n",
                     int(im.planar_configuration));
        return 1;
    }
    if (type == 'p' && (!im.has_color_map || im.color_map.size() != 768)) {
        Complain("CheckSampleLayout");
        std::fprintf(stderr, "palette image needs a ColorMap of 768 values\n");
        return 1;
    }
    return 0;
}

// Checks the size of the image and the position of every strip before anything is allocated: the
// pixel count must suit the 32-bit array allocators, the data must fit in the file, and each strip's
// bytes must lie inside it.
int CheckStrips(const TiffFile &f, const ImageFields &im, uint32_t *rows_per_strip, uint32_t *strips) {
    if (im.width < 1 || im.height < 1 || im.width > INT32_MAX || im.height > INT32_MAX ||
        uint64_t(im.width) * im.height > uint64_t(INT32_MAX)) {
        Complain("CheckStrips");
        std::fprintf(stderr, "image size %lu by %lu is out of range\n", (unsigned long)im.width,
                     (unsigned long)im.height);
        return 1;
    }
    const uint64_t bytes_per_row = uint64_t(im.width) * im.samples_per_pixel;
    if (bytes_per_row * im.height > f.size) {
        Complain("CheckStrips");
        std::fprintf(stderr, "image of %lu by %lu pixels needs more data than the file holds\n",
                     (unsigned long)im.width, (unsigned long)im.height);
        return 1;
    }
    if (im.rows_per_strip == 0) {
        Complain("CheckStrips");
        std::fprintf(stderr, "RowsPerStrip is zero\n");
        return 1;
    }
    *rows_per_strip = std::min(im.rows_per_strip, im.height);
    *strips = uint32_t((uint64_t(im.height) + *rows_per_strip - 1) / *rows_per_strip);
    if (im.strip_offsets.size() < *strips ||
        (im.has_strip_byte_counts && im.strip_byte_counts.size() < *strips)) {
        Complain("CheckStrips");
        std::fprintf(stderr, "image needs %lu strips; StripOffsets or StripByteCounts lists fewer\n",
                     (unsigned long)*strips);
        return 1;
    }
    for (uint32_t s = 0; s < *strips; ++s) {
        const uint64_t rows =
            std::min<uint64_t>(*rows_per_strip, uint64_t(im.height) - uint64_t(s) * *rows_per_strip);
        const uint64_t need = rows * bytes_per_row;
        if (im.has_strip_byte_counts && im.strip_byte_counts[s] < need) {
            Complain("CheckStrips");
            std::fprintf(stderr, "strip %lu holds %lu bytes, fewer than its %llu bytes of pixels\n",
                         (unsigned long)s, (unsigned long)im.strip_byte_counts[s], (unsigned long long)need);
            return 1;
        }
        if (im.strip_offsets[s] > f.size || need > f.size - im.strip_offsets[s]) {
            Complain("CheckStrips");
            std::fprintf(stderr, "strip %lu lies outside the file\n", (unsigned long)s);
            return 1;
        }
    }
    return 0;
}

// Reads every strip into the planes of img, deinterleaving chunky samples; WhiteIsZero greyscale is
// turned into the record's black-is-zero.
int GetStrips(const TiffFile &f, const ImageFields &im, uint32_t rows_per_strip, uint32_t strips,
              TIFF_img *img) {
    const uint32_t spp = im.samples_per_pixel;
    const size_t bytes_per_row = size_t(im.width) * spp;
    const bool invert = img->TIFF_type == 'g' && im.photometric == 0;
    std::vector<uint8_t> buffer;
    for (uint32_t s = 0; s < strips; ++s) {
        const uint32_t first = s * rows_per_strip;
        const uint32_t rows = std::min(rows_per_strip, im.height - first);
        buffer.resize(size_t(rows) * bytes_per_row);
        if (!ReadAt(f, im.strip_offsets[s], buffer.size(), buffer.data())) {
            Complain("GetStrips");
            std::fprintf(stderr, "error reading strip number %lu\n", (unsigned long)s);
            return 1;
        }
        for (uint32_t r = 0; r < rows; ++r) {
            const uint8_t *in = &buffer[size_t(r) * bytes_per_row];
            if (spp == 1) {
                uint8_t *out = img->mono[first + r];
                if (invert)
                    for (uint32_t x = 0; x < im.width; ++x)
                        out[x] = uint8_t(255 - in[x]);
                else
                    std::memcpy(out, in, bytes_per_row);
            } else {
                for (uint32_t x = 0; x < im.width; ++x)
                    for (uint32_t c = 0; c < spp; ++c)
                        img->color[c][first + r][x] = in[size_t(x) * spp + c];
            }
        }
    }
    if (img->TIFF_type == 'p')
        for (int i = 0; i < 256; ++i)
            for (int c = 0; c < 3; ++c)
                img->cmap[i][c] = uint8_t(im.color_map[size_t(c * 256 + i)] >> 8);
    return 0;
}

} // namespace

int read_TIFF(FILE *fp, struct TIFF_img *img) {
    TiffFile f{fp, 0, true};
    uint32_t ifd_offset = 0;
    if (ReadHeader(&f, &ifd_offset)) return 1;
    std::vector<TiffField> fields;
    if (ReadIFD(f, ifd_offset, &fields)) return 1;
    ImageFields im;
    if (GetImageFields(fields, &im)) return 1;
    char compress_type = 'u', type = 0;
    if (GetCompressType(im, &compress_type) || GetImageType(im, &type) || CheckSampleLayout(im, type))
        return 1;
    uint32_t rows_per_strip = 0, strips = 0;
    if (CheckStrips(f, im, &rows_per_strip, &strips)) return 1;
    TIFF_img result{};
    if (get_TIFF(&result, int(im.height), int(im.width), type)) return 1;
    if (GetStrips(f, im, rows_per_strip, strips, &result)) {
        free_TIFF(&result);
        if (type == 'c' || type == 'a') std::free(result.color);
        return 1;
    }
    result.compress_type = compress_type;
    *img = result;
    return 0;
}

// The in-memory image record: allocation and release of its planes.
#include "numeric/tiff.h"

#include "numeric/arrays.h"

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

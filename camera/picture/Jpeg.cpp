#include "camera/picture/Jpeg.h"

#include "camera/picture/Image.h"

// jpeglib.h does not include what it needs.
// clang-format off
#include <cstdio>
#include <jpeglib.h>
// clang-format on

#include <cstdlib>
#include <memory>

namespace kelto::vcam {

namespace {

constexpr int quality = 85;

/** Takes all rows of an image; the object is ready to be started. */
void CompressRows(jpeg_compress_struct& compressor, const Image& image) {
    compressor.image_width = static_cast<JDIMENSION>(image.GetWidth());
    compressor.image_height = static_cast<JDIMENSION>(image.GetHeight());
    compressor.input_components = 3;
    compressor.in_color_space = JCS_RGB;
    jpeg_set_defaults(&compressor);
    jpeg_set_quality(&compressor, quality, TRUE);
    jpeg_start_compress(&compressor, TRUE);
    for (int row = 0; row < image.GetHeight(); ++row) {
        // The library reads from the row; its interface is older than const.
        auto* line = const_cast<JSAMPROW>(image.GetRow(row));
        jpeg_write_scanlines(&compressor, &line, 1);
    }
    jpeg_finish_compress(&compressor);
}

}  // namespace

std::vector<uint8_t> EncodeJpeg(const Image& image) {
    jpeg_compress_struct compressor{};
    // What can fail here is the memory; the library then says so and ends the program.
    jpeg_error_mgr errors{};
    compressor.err = jpeg_std_error(&errors);
    jpeg_create_compress(&compressor);
    unsigned char* buffer = nullptr;
    unsigned long size = 0;
    jpeg_mem_dest(&compressor, &buffer, &size);
    CompressRows(compressor, image);
    jpeg_destroy_compress(&compressor);
    const std::unique_ptr<unsigned char, void (*)(void*)> owner(buffer, std::free);
    return {buffer, buffer + size};
}

}  // namespace kelto::vcam

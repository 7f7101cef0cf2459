#pragma once

#include <cstdint>
#include <vector>

namespace kelto::vcam {

class Image;

/** The bytes of a JPEG file of the image. */
std::vector<uint8_t> EncodeJpeg(const Image& image);

}  // namespace kelto::vcam

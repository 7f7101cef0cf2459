#include "camera/picture/Image.h"

#include <algorithm>
#include <cstddef>

namespace kelto::vcam {

namespace {

constexpr int bytesPerPixel = 3;

}  // namespace

Image::Image(int imageWidth, int imageHeight)
    : width(imageWidth),
      height(imageHeight),
      pixels(static_cast<size_t>(imageWidth) * static_cast<size_t>(imageHeight) * bytesPerPixel) {}

void Image::FillRectangle(int left, int top, int rectangleWidth, int rectangleHeight, const Colour& colour) {
    const int right = std::min(left + rectangleWidth, width);
    const int bottom = std::min(top + rectangleHeight, height);
    for (int row = std::max(top, 0); row < bottom; ++row) {
        for (int column = std::max(left, 0); column < right; ++column) {
            const auto pixel = static_cast<ptrdiff_t>(row) * width + column;
            std::copy(colour.begin(), colour.end(), pixels.begin() + pixel * bytesPerPixel);
        }
    }
}

const uint8_t* Image::GetRow(int row) const {
    return pixels.data() + static_cast<ptrdiff_t>(row) * width * bytesPerPixel;
}

}  // namespace kelto::vcam

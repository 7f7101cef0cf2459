#pragma once

#include <array>
#include <cstdint>
#include <vector>

namespace kelto::vcam {

using Colour = std::array<uint8_t, 3>;  ///< red, green, blue

/** A raster of pixels. */
class Image {
public:
    Image(int imageWidth, int imageHeight);

    int GetWidth() const { return width; }
    int GetHeight() const { return height; }

    /** What lies outside is left out. */
    void FillRectangle(int left, int top, int rectangleWidth, int rectangleHeight, const Colour& colour);

    /** Three bytes a pixel. */
    const uint8_t* GetRow(int row) const;

private:
    const int width;
    const int height;
    std::vector<uint8_t> pixels;
};

}  // namespace kelto::vcam

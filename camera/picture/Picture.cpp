#include "camera/picture/Picture.h"

#include <array>
#include <cmath>
#include <cstdio>

namespace kelto::vcam {

namespace {

constexpr int width = 320;
constexpr int height = 240;
constexpr int columnWidth = 40;
constexpr int pixelsPerDegree = 4;
constexpr Colour sky = {40, 60, 90};
constexpr Colour ink = {255, 240, 200};
constexpr std::array<Colour, 5> columnColours = {Colour{150, 60, 50}, Colour{60, 130, 70}, Colour{70, 80, 160},
                                                 Colour{150, 130, 50}, Colour{110, 60, 130}};

// A digit is made of seven strokes: top, upper right, lower right, bottom, lower left, upper left, middle.
constexpr int digitWidth = 24;
constexpr int digitHeight = 44;
constexpr int strokeWidth = 5;
constexpr int gap = 8;
constexpr int timeLeft = 44;
constexpr int timeTop = 24;
constexpr std::array<unsigned, 10> strokesOfDigit = {0x3f, 0x06, 0x5b, 0x4f, 0x66, 0x6d, 0x7d, 0x07, 0x7f, 0x6f};

struct Stroke {
    int left, top, width, height;
};

constexpr int halfHeight = digitHeight / 2;
constexpr std::array<Stroke, 7> strokes = {
    Stroke{0, 0, digitWidth, strokeWidth},
    Stroke{digitWidth - strokeWidth, 0, strokeWidth, halfHeight},
    Stroke{digitWidth - strokeWidth, halfHeight, strokeWidth, halfHeight},
    Stroke{0, digitHeight - strokeWidth, digitWidth, strokeWidth},
    Stroke{0, halfHeight, strokeWidth, halfHeight},
    Stroke{0, 0, strokeWidth, halfHeight},
    Stroke{0, halfHeight - strokeWidth / 2, digitWidth, strokeWidth},
};

void PaintDigit(Image& image, int left, int top, int digit) {
    for (size_t number = 0; number < strokes.size(); ++number) {
        if ((strokesOfDigit[static_cast<size_t>(digit)] >> number & 1U) != 0) {
            const Stroke& stroke = strokes[number];
            image.FillRectangle(left + stroke.left, top + stroke.top, stroke.width, stroke.height, ink);
        }
    }
}

/** Two digits; returns where the next character begins. */
int PaintNumber(Image& image, int left, int number) {
    for (const int digit : {number / 10, number % 10}) {
        PaintDigit(image, left, timeTop, digit);
        left += digitWidth + gap;
    }
    return left;
}

int PaintColon(Image& image, int left) {
    for (const int offset : {digitHeight / 3, digitHeight * 2 / 3}) {
        image.FillRectangle(left, timeTop + offset - strokeWidth / 2, strokeWidth, strokeWidth, ink);
    }
    return left + strokeWidth + gap;
}

void PaintTime(Image& image, const tm& now) {
    int left = PaintNumber(image, timeLeft, now.tm_hour);
    left = PaintNumber(image, PaintColon(image, left), now.tm_min);
    PaintNumber(image, PaintColon(image, left), now.tm_sec);
}

void PaintColumns(Image& image, double degrees) {
    const int shift = static_cast<int>(std::lround(degrees * pixelsPerDegree));
    const int first = shift / columnWidth;
    for (int column = first; column * columnWidth < shift + width; ++column) {
        const auto kind = static_cast<size_t>(column) % columnColours.size();
        const int top = 100 + static_cast<int>(kind) * 15;
        image.FillRectangle(column * columnWidth - shift, top, columnWidth - 6, height - top, columnColours[kind]);
    }
}

}  // namespace

Image PaintPicture(double degrees, const tm& now) {
    Image image(width, height);
    image.FillRectangle(0, 0, width, height, sky);
    PaintColumns(image, degrees);
    PaintTime(image, now);
    image.FillRectangle(0, height - 12, width * (now.tm_sec + 1) / 60, 12, ink);
    return image;
}

}  // namespace kelto::vcam

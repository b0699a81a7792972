// SPDX-License-Identifier: MIT
#include "server/imagehash.h"

#include <QPainter>
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <numbers>

namespace {

constexpr int side = 32;       // the grey copy
constexpr int kept = 8;        // the lowest frequencies, kept×kept of them
constexpr int colourCells = 8; // colours of colourCells×colourCells cells

using Matrix = std::array<std::array<double, side>, side>;

// cos((2x+1)uπ/2N), the DCT-II basis, computed once.
const Matrix& basis() {
    static const Matrix table = [] {
        Matrix m{};
        for (int u = 0; u < side; ++u)
            for (int x = 0; x < side; ++x)
                m[u][x] = std::cos((2 * x + 1) * u * std::numbers::pi / (2 * side));
        return m;
    }();
    return table;
}

} // namespace

int ImageHash::colourDistance(const Colours& a, const Colours& b) {
    int sum = 0;
    for (std::size_t i = 0; i < a.size(); ++i)
        sum += std::abs(int(a[i]) - int(b[i]));
    return sum;
}

ImageHash::Print ImageHash::of(const QImage& image) {
    Print print;
    if (image.isNull())
        return print;
    // Two steps: a smooth scale of a very large picture to 32×32 would average too few
    // pixels and alias, so first to a moderate size.
    QImage work = image;
    if (std::max(work.width(), work.height()) > 256)
        work = work.scaled(256, 256, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
    if (work.hasAlphaChannel()) {
        QImage flat(work.size(), QImage::Format_RGB32);
        flat.fill(Qt::white);
        QPainter painter(&flat);
        painter.drawImage(0, 0, work);
        painter.end();
        work = flat;
    }
    const QImage small = work.scaled(side, side, Qt::IgnoreAspectRatio, Qt::SmoothTransformation)
                             .convertToFormat(QImage::Format_RGB32);
    const QImage grey = small.convertToFormat(QImage::Format_Grayscale8);
    const QImage cells =
        small.scaled(colourCells, colourCells, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
    for (int y = 0; y < colourCells; ++y)
        for (int x = 0; x < colourCells; ++x) {
            const QRgb pixel = cells.pixel(x, y);
            const std::size_t at = std::size_t(y * colourCells + x) * 3;
            print.colours[at] = std::uint8_t(qRed(pixel));
            print.colours[at + 1] = std::uint8_t(qGreen(pixel));
            print.colours[at + 2] = std::uint8_t(qBlue(pixel));
        }

    const Matrix& cosine = basis();
    // Only the kept×kept low frequencies are needed: rows first, then columns.
    std::array<std::array<double, side>, kept> rows{};
    for (int u = 0; u < kept; ++u)
        for (int y = 0; y < side; ++y) {
            const uchar* line = grey.constScanLine(y);
            double sum = 0;
            for (int x = 0; x < side; ++x)
                sum += line[x] * cosine[u][x];
            rows[u][y] = sum;
        }
    std::array<double, kept * kept> coefficients{};
    for (int v = 0; v < kept; ++v)
        for (int u = 0; u < kept; ++u) {
            double sum = 0;
            for (int y = 0; y < side; ++y)
                sum += rows[u][y] * cosine[v][y];
            coefficients[v * kept + u] = sum;
        }
    // Each bit: above or below the median; the DC term (overall brightness) is left out of
    // the median so a brighter copy hashes alike.
    std::array<double, kept * kept - 1> sorted{};
    std::copy(coefficients.begin() + 1, coefficients.end(), sorted.begin());
    std::nth_element(sorted.begin(), sorted.begin() + sorted.size() / 2, sorted.end());
    const double median = sorted[sorted.size() / 2];
    for (int i = 0; i < kept * kept; ++i)
        if (coefficients[i] > median)
            print.shape |= std::uint64_t(1) << i;
    return print;
}

// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/catalogjson.h"

#include <QImage>

// The synthetic load-testing catalog (index_stress.json): numbered cats "m_00001", "m_00002", ...
// with their pictures at /f/N.jpg and /t/N.webp, so the stress setting shows real images.
class StressCatalog {
public:
    static constexpr int pictureSize = 100;

    // Records 1..count: id "m_%05d", description "a cat number N", keywords ["cat"],
    // thumb "/t/N.webp", full "/f/N.jpg", 100 x 100, bytes 1, popularity 200 - N; every other
    // string empty and every other optional absent.
    static MemeList records(int count);
    // Picture number `number`: `cat` on a tinted square with the number under it.
    static QImage picture(const QImage& cat, int number);
};

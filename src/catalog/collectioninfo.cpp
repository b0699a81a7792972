// SPDX-License-Identifier: MIT
#include "catalog/collectioninfo.h"

size_t qHash(const CollectionInfo& c, size_t seed) noexcept {
    size_t h = qHashMulti(seed, c.id, c.name, c.name_en);
    h = c.theme ? qHashMulti(h, 1, *c.theme) : qHash(0, h);
    return qHashMulti(h, c.keywords, c.cover, c.count, c.owner, c.source);
}

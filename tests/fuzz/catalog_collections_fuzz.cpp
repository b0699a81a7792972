// SPDX-License-Identifier: MIT
// collections.json: an array of collection records, round-tripped like the index.
#include "catalog/catalogjson.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    QString error;
    const auto collections = CatalogJson::decodeCollections(
        QByteArrayView(reinterpret_cast<const char*>(data), qsizetype(size)), &error);
    if (!collections)
        return 0;
    const auto again = CatalogJson::decodeCollections(CatalogJson::encodeCollections(*collections));
    if (!again || *again != *collections)
        std::abort();
    return 0;
}

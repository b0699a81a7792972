// SPDX-License-Identifier: MIT
// index.json and stickers.json: arrays of records. Whatever decodes must survive a round
// trip through the encoder unchanged, since the cache stores what the decoder accepted.
#include "catalog/catalogjson.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    QString error;
    const auto memes = CatalogJson::decodeMemes(
        QByteArrayView(reinterpret_cast<const char*>(data), qsizetype(size)), &error);
    if (!memes)
        return 0;
    for (const Meme& meme : *memes)
        (void)meme.isPNG();
    const auto again = CatalogJson::decodeMemes(CatalogJson::encodeMemes(*memes));
    if (!again || *again != *memes)
        std::abort();
    return 0;
}

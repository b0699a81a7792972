// SPDX-License-Identifier: MIT
// collection.json and the tagging server's answer: any bytes either fail to decode or give a
// value that survives encoding and decoding again unchanged.
#include "collections/usercollections.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QByteArray bytes(reinterpret_cast<const char*>(data), qsizetype(size));
    if (const auto stored = UserCollections::decodeStored(bytes)) {
        const QByteArray encoded = UserCollections::encodeStored(*stored);
        const auto again = UserCollections::decodeStored(encoded);
        if (!again || UserCollections::encodeStored(*again) != encoded)
            std::abort();
    }
    if (const auto tags = UserCollections::decodeTags(bytes)) {
        UserCollections::Stored one{
            QStringLiteral("I"), QStringLiteral("N"), QStringLiteral("2026-01-01T00:00:00Z"), {}};
        one.items.append({QStringLiteral("i"), QStringLiteral("f"), QStringLiteral("f"),
                          QStringLiteral("o"), 1, 1, *tags});
        const auto again = UserCollections::decodeStored(UserCollections::encodeStored(one));
        if (!again || again->items.size() != 1 || again->items[0].tags != tags)
            std::abort();
    }
    return 0;
}

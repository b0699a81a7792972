// SPDX-License-Identifier: MIT
#include "catalog/meme.h"

#include <QUrl>

namespace {
size_t hashOptional(const auto& value, size_t seed) {
    // Absent and present must hash apart even when the present value hashes to 0.
    return value ? qHashMulti(seed, 1, *value) : qHash(0, seed);
}
} // namespace

bool Meme::isPNG() const {
    // Only the path counts: a query string or fragment is not part of the extension.
    const QString path = QUrl(full).path();
    const qsizetype slash = path.lastIndexOf(QLatin1Char('/'));
    const qsizetype dot = path.lastIndexOf(QLatin1Char('.'));
    if (dot <= slash + 1)
        return false;
    return path.mid(dot + 1).toLower() == QLatin1String("png");
}

size_t qHash(const Meme& m, size_t seed) noexcept {
    size_t h = qHashMulti(seed, m.id, m.template_, m.ocr_text, m.description, m.emotions,
                          m.use_cases, m.keywords, m.thumb, m.full);
    h = qHashMulti(h, m.width, m.height, m.bytes);
    h = hashOptional(m.popularity, h);
    h = hashOptional(m.collection_id, h);
    h = hashOptional(m.character, h);
    h = hashOptional(m.actions, h);
    h = hashOptional(m.order, h);
    return hashOptional(m.blur, h);
}

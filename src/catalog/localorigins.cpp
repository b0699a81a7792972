// SPDX-License-Identifier: MIT
#include "catalog/localorigins.h"

void LocalOrigins::setList(const QString& list, const QList<Meme>& items) {
    if (items.isEmpty()) {
        m_lists.remove(list);
        return;
    }
    QHash<QString, References> byId;
    byId.reserve(items.size());
    for (const Meme& meme : items)
        byId.insert(meme.id, {meme.thumb, meme.full});
    m_lists.insert(list, std::move(byId));
}

bool LocalOrigins::contains(const Meme& meme) const {
    for (const auto& byId : m_lists) {
        const auto it = byId.constFind(meme.id);
        if (it != byId.constEnd() && it->thumb == meme.thumb && it->full == meme.full)
            return true;
    }
    return false;
}

// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/meme.h"

#include <QHash>
#include <QList>
#include <QString>

// The items that came from this computer rather than from a server: the lists the importer
// and the user's own library hand over. An item counts as local only when its id is listed
// with exactly the same `thumb` and `full`, so a server document that copies a local item's
// id (or a "g_" prefix) still cannot point the program at a local file.
class LocalOrigins {
public:
    // Replaces the named list ("imports", "mine", …) with `items`; an empty list removes it.
    void setList(const QString& list, const QList<Meme>& items);
    bool contains(const Meme& meme) const;

private:
    struct References {
        QString thumb;
        QString full;
    };
    QHash<QString, QHash<QString, References>> m_lists;
};

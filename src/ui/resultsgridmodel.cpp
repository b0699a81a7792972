// SPDX-License-Identifier: MIT
#include "ui/resultsgridmodel.h"

#include "catalog/thumbnailcache.h"
#include "search/pickermodel.h"

#include <QPointer>

namespace {

// Collection cards show their cover through the same cache as item thumbnails.
Meme coverOf(const CollectionInfo& c) {
    Meme m;
    m.id = QStringLiteral("collection:") + c.id;
    m.description = c.name_en.isEmpty() ? c.name : c.name_en;
    m.thumb = c.cover;
    m.full = c.cover;
    return m;
}

} // namespace

ResultsGridModel::ResultsGridModel(PickerModel& picker, ThumbnailCache* thumbnails, QObject* parent)
    : QAbstractListModel(parent), m_picker(picker), m_thumbnails(thumbnails) {
    connect(&m_picker, &PickerModel::resultsChanged, this, &ResultsGridModel::reset);
    connect(&m_picker, &PickerModel::collectionListChanged, this, &ResultsGridModel::reset);
    connect(&m_picker, &PickerModel::tabChanged, this, &ResultsGridModel::reset);
    connect(&m_picker, &PickerModel::favoritesChanged, this, [this] {
        if (rowCount() > 0)
            emit dataChanged(index(0), index(rowCount() - 1), {FavoriteRole});
    });
}

void ResultsGridModel::reset() {
    beginResetModel();
    endResetModel();
}

int ResultsGridModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : m_picker.itemCount();
}

std::optional<Meme> ResultsGridModel::memeAt(int row) const {
    if (m_picker.showingCollectionList()) {
        const CollectionList& list = m_picker.collectionList();
        return row >= 0 && row < list.size() ? std::optional(coverOf(list[row])) : std::nullopt;
    }
    const MemeList& results = m_picker.results();
    return row >= 0 && row < results.size() ? std::optional(results[row]) : std::nullopt;
}

QVariant ResultsGridModel::data(const QModelIndex& index, int role) const {
    const auto meme = memeAt(index.row());
    if (!meme)
        return {};
    switch (role) {
    case Qt::DisplayRole:
    case Qt::ToolTipRole:
    case Qt::AccessibleTextRole:
        return meme->description.isEmpty() ? meme->template_ : meme->description;
    case Qt::DecorationRole: {
        const QPixmap pixmap = thumbnailFor(*meme);
        return pixmap.isNull() ? QVariant() : QVariant(pixmap);
    }
    case LoadingRole:
        return m_pending.contains(meme->id);
    case InsertProgressRole:
        if (!m_insertId.isEmpty() && meme->id == m_insertId && !m_picker.showingCollectionList())
            return m_insertFraction;
        return {};
    case CaptionRole:
        return m_picker.showingCollectionList() ? meme->description : QString();
    case FavoriteRole:
        return !m_picker.showingCollectionList() && m_picker.isFavorite(meme->id);
    case SectionTitleRole:
        for (const auto& section : m_picker.recentSections())
            if (section.start == index.row() && !section.items.isEmpty())
                return section.title;
        return {};
    default:
        return {};
    }
}

Qt::ItemFlags ResultsGridModel::flags(const QModelIndex& index) const {
    Qt::ItemFlags flags = QAbstractListModel::flags(index);
    if (index.isValid() && !m_picker.showingCollectionList())
        flags |= Qt::ItemIsDragEnabled;
    return flags;
}

QPixmap ResultsGridModel::thumbnailFor(const Meme& meme) const {
    if (const QPixmap* cached = m_pixmaps.object(meme.id))
        return *cached;
    if (!m_thumbnails || m_pending.contains(meme.id) || m_missing.contains(meme.id))
        return {};
    m_pending.insert(meme.id);
    QPointer<const ResultsGridModel> self(this);
    const QString id = meme.id;
    m_thumbnails->thumbnail(meme, [self, id](std::optional<QImage> image) {
        if (!self)
            return;
        auto* model = const_cast<ResultsGridModel*>(self.data());
        model->m_pending.remove(id);
        if (image)
            model->m_pixmaps.insert(id, new QPixmap(QPixmap::fromImage(std::move(*image))));
        else
            model->m_missing.insert(id);
        // The list may have changed while the image was on its way: find the cell anew.
        model->emitChangedFor(id, {Qt::DecorationRole, LoadingRole});
    });
    // A thumbnail still decoded in the cache arrives at once: paint it now.
    if (const QPixmap* arrived = m_pixmaps.object(id))
        return *arrived;
    return {};
}

void ResultsGridModel::emitChangedFor(const QString& id, const QList<int>& roles) {
    for (int row = 0; row < rowCount(); ++row)
        if (const auto m = memeAt(row); m && m->id == id)
            emit dataChanged(index(row), index(row), roles);
}

void ResultsGridModel::setInsertProgress(const QString& id, double fraction) {
    const QString previous = m_insertId;
    m_insertId = id;
    m_insertFraction = fraction;
    if (!previous.isEmpty() && previous != id)
        emitChangedFor(previous, {InsertProgressRole});
    if (!id.isEmpty())
        emitChangedFor(id, {InsertProgressRole});
}

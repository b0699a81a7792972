// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/meme.h"
#include "ui/toast.h"

#include <QMimeData>
#include <QWidget>
#include <functional>
#include <memory>
#include <optional>

class CaptionEditor;
class PickerModel;
class QLabel;
class QLineEdit;
class QListView;
class QMenu;

class QModelIndex;
class QTabBar;
class QToolButton;
class QTimer;
class QWindow;
class ResultsGridModel;
class ThumbnailCache;
class ThumbnailDelegate;

// The floating picker: search field, tabs, the thumbnail grid, a status line and toasts.
// A frameless, always-on-top tool window created once and shown on demand; showing it
// touches neither the disk nor the network. Every key goes to the model; the panel only
// draws what the model publishes.
class PickerPanel : public QWidget {
    Q_OBJECT
public:
    static constexpr QSize defaultSize{640, 460};
    static constexpr int minimumCell = 112;

    PickerPanel(PickerModel& model, ThumbnailCache* thumbnails, QWidget* parent = nullptr);
    ~PickerPanel() override;

    // Fills the ⋯ menu each time it opens (the same menu as the tray icon's).
    void setMenuBuilder(std::function<void(QMenu*)> build) { m_buildMenu = std::move(build); }

    // Shows the panel on the screen with the mouse pointer and gives it the keyboard.
    void present();
    // Over the panel while it shows, else in a window of its own where the panel was.
    void showToast(const QString& text, Toast::Kind kind, int ms = 0);
    // The stored size, or the default.
    static QSize storedSize();
    // Back to the stored size (or the default), centred where present() puts the panel.
    void placeOnScreen();

    // The cell of `id` waits for its full image before pasting: the fraction received, or
    // < 0 while the size is unknown. An empty id removes the bar.
    void setInsertProgress(const QString& id, double fraction);

    // Columns as the grid lays them out: what Up and Down step by.
    int layoutColumns() const;

    // While a drag out of the panel runs, losing the focus does not hide the panel.
    void setDragging(bool on);

    // Turns on the ways into the user's own library: drops on the panel, Ctrl+V of what
    // `takesPaste` accepts (other pastes stay the search field's), "＋ Add" in the Mine tab,
    // and Delete, F2 and a context menu on the user's own items there. Off by default.
    void enableMineActions(std::function<bool(const QMimeData*)> takesPaste);

signals:
    // The panel was hidden (Esc, focus loss or hide()).
    void dismissed();
    // The user pulled a result out of its cell (now selected): `image` is to follow the
    // pointer with its point `hotSpot` under it; `source` is the grid's viewport.
    void dragRequested(const Meme& meme, QWidget* source, const QPixmap& image, QPoint hotSpot);
    // Something from another program was dropped on the panel, or pasted with Ctrl+V. `data`
    // lives only for the call: connect directly.
    void mineDrop(const QMimeData* data);
    void minePaste(const QMimeData* data);
    // "＋ Add" in the Mine tab.
    void mineAddRequested();
    // Delete or the context menu, and F2 or the context menu, on one of the user's own items.
    void mineRemoveRequested(const Meme& meme);
    void mineLabelRequested(const Meme& meme);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;
    void hideEvent(QHideEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void paintEvent(QPaintEvent* event) override;
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dragMoveEvent(QDragMoveEvent* event) override;
    void dropEvent(QDropEvent* event) override;

private:
    bool handleKey(QKeyEvent* event);
    void syncTab();
    void syncSelection();
    void syncCaption();
    void updateColumns();
    void refreshStatus();
    void requestMoreIfNeeded();
    void popUpMenu();
    void onFocusWindowChanged(QWindow* window);
    // The selected result when it is one of the user's own and the Mine tab shows.
    std::optional<Meme> selectedMineItem() const;
    bool acceptsDrop(const QDropEvent* event) const;
    void showMineMenu(QPoint globalPos, const QModelIndex& index);

    PickerModel& m_model;
    ResultsGridModel* m_gridModel;
    ThumbnailDelegate* m_delegate;
    QLineEdit* m_search;
    QTabBar* m_tabs;
    QListView* m_grid;
    CaptionEditor* m_captionEditor;
    QLabel* m_status;
    QToolButton* m_menuButton;
    QToolButton* m_addButton;
    Toast* m_toast;
    std::unique_ptr<Toast> m_windowToast;
    std::function<void(QMenu*)> m_buildMenu;
    QTimer* m_progressTicker;
    bool m_menuOpen = false;
    bool m_hadKeyboard = false;
    bool m_dragging = false;
    bool m_mineActions = false;
    std::function<bool(const QMimeData*)> m_takesPaste;
};

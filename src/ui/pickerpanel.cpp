// SPDX-License-Identifier: MIT
#include "ui/pickerpanel.h"

#include "catalog/debugflags.h"
#include "search/pickermodel.h"
#include "ui/captioneditor.h"
#include "ui/drawnsigns.h"
#include "ui/resultsgrid.h"
#include "ui/resultsgridmodel.h"
#include "ui/thumbnaildelegate.h"

#include <QApplication>
#include <QClipboard>
#include <QContextMenuEvent>
#include <QDragEnterEvent>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QMenu>
#include <QMimeData>
#include <QPainter>
#include <QScreen>
#include <QScrollBar>
#include <QSizeGrip>
#include <QTabBar>
#include <QTimer>
#include <QToolButton>
#include <QVBoxLayout>
#include <QWindow>

namespace {

const QString widthKey = QStringLiteral("panelWidth");
const QString heightKey = QStringLiteral("panelHeight");

const char* tabTitles[] = {"Memes", "Collections", "Recent", "Mine"};

const QString separator = QStringLiteral(" · ");

// As many whole " · " parts of `text` as fit into `width`, then "…": a hint is never cut in
// the middle of a word.
QString elideAtSeparators(const QString& text, const QFontMetrics& metrics, int width) {
    if (metrics.horizontalAdvance(text) <= width)
        return text;
    const QStringList parts = text.split(separator);
    const QString more = separator + QStringLiteral("…");
    QString kept = parts.first();
    for (qsizetype i = 1; i < parts.size(); ++i) {
        const QString longer = kept + separator + parts[i];
        if (metrics.horizontalAdvance(longer + more) > width)
            break;
        kept = longer;
    }
    if (metrics.horizontalAdvance(kept + more) <= width)
        return kept + more;
    return metrics.elidedText(kept, Qt::ElideRight, width);
}

} // namespace

PickerPanel::PickerPanel(PickerModel& model, ThumbnailCache* thumbnails, QWidget* parent)
    : QWidget(parent, Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint),
      m_model(model) {
    setObjectName(QStringLiteral("PickerPanel"));
    setWindowTitle(QStringLiteral("Orvane"));
    setAttribute(Qt::WA_TranslucentBackground, false);
    setMinimumSize(360, 280);

    m_search = new QLineEdit(this);
    m_search->setObjectName(QStringLiteral("search"));
    m_search->setClearButtonEnabled(true);
    m_search->installEventFilter(this);
    QFont searchFont = m_search->font();
    searchFont.setPointSizeF(searchFont.pointSizeF() * 1.25);
    m_search->setFont(searchFont);

    m_menuButton = new QToolButton(this);
    m_menuButton->setText(QStringLiteral("⋯"));
    m_menuButton->setToolTip(QStringLiteral("Menu"));
    m_menuButton->setAutoRaise(true);
    m_menuButton->setFocusPolicy(Qt::NoFocus);
    connect(m_menuButton, &QToolButton::clicked, this, &PickerPanel::popUpMenu);

    m_addButton = new QToolButton(this);
    m_addButton->setObjectName(QStringLiteral("mineAdd"));
    // Drawn as "+ Add" where the font has no full-width plus.
    m_addButton->setText(DrawnSigns::plainFallback(QStringLiteral("＋ Add"), m_addButton->font()));
    m_addButton->setToolTip(QStringLiteral("Add images from your files"));
    m_addButton->setAutoRaise(true);
    m_addButton->setFocusPolicy(Qt::NoFocus);
    m_addButton->hide();
    connect(m_addButton, &QToolButton::clicked, this, &PickerPanel::mineAddRequested);

    m_tabs = new QTabBar(this);
    m_tabs->setObjectName(QStringLiteral("tabs"));
    m_tabs->setFocusPolicy(Qt::NoFocus);
    m_tabs->setDrawBase(false);
    m_tabs->setExpanding(false);
    for (const char* title : tabTitles)
        m_tabs->addTab(QString::fromLatin1(title));

    m_gridModel = new ResultsGridModel(m_model, thumbnails, this);
    m_delegate = new ThumbnailDelegate(this);
    auto* grid = new ResultsGrid(this);
    m_grid = grid;
    m_grid->setObjectName(QStringLiteral("grid"));
    m_grid->setViewMode(QListView::IconMode);
    m_grid->setFlow(QListView::LeftToRight);
    m_grid->setWrapping(true);
    m_grid->setResizeMode(QListView::Adjust);
    m_grid->setMovement(QListView::Static);
    m_grid->setUniformItemSizes(true);
    m_grid->setSelectionMode(QAbstractItemView::SingleSelection);
    m_grid->setFocusPolicy(Qt::NoFocus); // the search field keeps the keyboard
    m_grid->setVerticalScrollMode(QAbstractItemView::ScrollPerPixel);
    // A wrapping icon view keeps room for a scroll bar shown "as needed" even while none shows,
    // which left an empty strip at the right; an always-present bar fills that room.
    m_grid->setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOn);
    m_grid->setFrameShape(QFrame::NoFrame);
    m_grid->setItemDelegate(m_delegate);
    m_grid->setModel(m_gridModel);
    m_grid->viewport()->installEventFilter(this);

    // Takes the grid's place while the user writes a caption.
    m_captionEditor = new CaptionEditor(m_model, this);
    m_captionEditor->hide();

    m_status = new QLabel(this);
    m_status->setObjectName(QStringLiteral("status"));
    m_status->setForegroundRole(QPalette::PlaceholderText);
    m_status->setTextInteractionFlags(Qt::NoTextInteraction);
    // The line is fitted to the width it gets, never the other way round.
    m_status->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    m_status->setMinimumWidth(1);
    m_status->installEventFilter(this);

    m_progressTicker = new QTimer(this);
    m_progressTicker->setInterval(40);
    // Runs only while the size is unknown: redraws the sweeping bar.
    connect(m_progressTicker, &QTimer::timeout, this,
            [this] { m_gridModel->setInsertProgress(m_gridModel->insertPendingId(), -1); });

    auto* top = new QHBoxLayout;
    top->addWidget(m_search, 1);
    top->addWidget(m_addButton);
    top->addWidget(m_menuButton);
    auto* bottom = new QHBoxLayout;
    bottom->addWidget(m_status, 1);
    bottom->addWidget(new QSizeGrip(this), 0, Qt::AlignBottom | Qt::AlignRight);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(10, 10, 10, 4);
    layout->setSpacing(6);
    layout->addLayout(top);
    layout->addWidget(m_tabs);
    layout->addWidget(m_grid, 1);
    layout->addWidget(m_captionEditor, 1);
    layout->addLayout(bottom);

    m_toast = new Toast(this);

    // Model → view.
    connect(&m_model, &PickerModel::statusChanged, this, &PickerPanel::refreshStatus);
    connect(&m_model, &PickerModel::placeholderChanged, this,
            [this] { m_search->setPlaceholderText(m_model.placeholder()); });
    connect(&m_model, &PickerModel::queryChanged, this, [this] {
        if (m_search->text() != m_model.query())
            m_search->setText(m_model.query());
    });
    connect(&m_model, &PickerModel::tabChanged, this, &PickerPanel::syncTab);
    connect(&m_model, &PickerModel::selectedChanged, this, &PickerPanel::syncSelection);
    connect(&m_model, &PickerModel::resultsChanged, this, &PickerPanel::syncSelection);
    connect(&m_model, &PickerModel::collectionListChanged, this, &PickerPanel::syncSelection);
    connect(&m_model, &PickerModel::focusRequested, this, [this] { m_search->setFocus(); });
    connect(&m_model, &PickerModel::captionChanged, this, &PickerPanel::syncCaption);

    // View → model.
    connect(m_search, &QLineEdit::textEdited, &m_model, &PickerModel::searchTextEdited);
    connect(m_tabs, &QTabBar::currentChanged, this, [this](int tab) {
        if (tab != int(m_model.tab()))
            m_model.switchTab(PickerModel::Tab(tab));
    });
    connect(m_grid, &QListView::clicked, this,
            [this](const QModelIndex& index) { m_model.select(index.row()); });
    connect(m_grid, &QListView::doubleClicked, this, [this](const QModelIndex& index) {
        m_model.select(index.row());
        m_model.insertSelected();
    });
    connect(m_grid->verticalScrollBar(), &QScrollBar::valueChanged, this,
            &PickerPanel::requestMoreIfNeeded);
    connect(grid, &ResultsGrid::dragRequested, this,
            [this](const QModelIndex& index, const QPixmap& image, QPoint hotSpot) {
                const int row = index.row();
                if (row < 0 || row >= m_model.results().size())
                    return;
                m_model.select(row);
                emit dragRequested(m_model.results().at(row), m_grid->viewport(), image, hotSpot);
            });

    // WORKAROUND: QWidget::isActiveWindow() can stay false after a hide/show cycle under
    // some window managers although the window has the keyboard; the focus window is reliable.
    connect(qGuiApp, &QGuiApplication::focusWindowChanged, this,
            &PickerPanel::onFocusWindowChanged);

    refreshStatus();
    m_search->setPlaceholderText(m_model.placeholder());
    syncTab();
    resize(storedSize());
}

PickerPanel::~PickerPanel() = default;

QSize PickerPanel::storedSize() {
    const auto width = DebugFlags::settings().integer(widthKey);
    const auto height = DebugFlags::settings().integer(heightKey);
    if (!width || !height || *width < 200 || *height < 200)
        return defaultSize;
    return QSize(int(*width), int(*height));
}

void PickerPanel::placeOnScreen() {
    // The screen the user is looking at: the one with the pointer.
    const QScreen* screen = QGuiApplication::screenAt(QCursor::pos());
    if (!screen)
        screen = QGuiApplication::primaryScreen();
    const QRect area = screen->availableGeometry();
    QSize size = storedSize().boundedTo(area.size() - QSize(40, 40));
    resize(size);
    move(area.left() + (area.width() - size.width()) / 2,
         area.top() + (area.height() - size.height()) / 4);
}

void PickerPanel::present() {
    placeOnScreen();
    m_hadKeyboard = false;
    if (m_windowToast)
        m_windowToast->hide();
    show();
    raise();
    activateWindow();
    m_search->setFocus(Qt::ActiveWindowFocusReason);
    m_search->selectAll();
    syncSelection();
}

void PickerPanel::syncTab() {
    const QSignalBlocker block(m_tabs);
    m_tabs->setCurrentIndex(int(m_model.tab()));
    m_addButton->setVisible(m_mineActions && m_model.tab() == PickerModel::Tab::mine);
}

void PickerPanel::enableMineActions(std::function<bool(const QMimeData*)> takesPaste) {
    m_mineActions = true;
    m_takesPaste = std::move(takesPaste);
    setAcceptDrops(true);
    // A drop anywhere on the panel adds to the library, the search field and the grid
    // included (an icon-mode list view takes drops of its own).
    m_search->setAcceptDrops(false);
    m_grid->setAcceptDrops(false);
    m_grid->viewport()->setAcceptDrops(false);
    syncTab();
}

std::optional<Meme> PickerPanel::selectedMineItem() const {
    if (!m_mineActions || m_model.tab() != PickerModel::Tab::mine)
        return std::nullopt;
    std::optional<Meme> item = m_model.selectedItem();
    if (!item || !item->isMine())
        return std::nullopt;
    return item;
}

bool PickerPanel::acceptsDrop(const QDropEvent* event) const {
    // Our own results dragged back onto the panel are no new items.
    if (!m_mineActions || event->source() == m_grid->viewport())
        return false;
    const QMimeData* data = event->mimeData();
    return data->hasUrls() || data->hasImage() || data->hasText() ||
           std::any_of(data->formats().cbegin(), data->formats().cend(),
                       [](const QString& f) { return f.startsWith(QLatin1String("image/")); });
}

void PickerPanel::dragEnterEvent(QDragEnterEvent* event) {
    if (!acceptsDrop(event))
        return;
    event->setDropAction(Qt::CopyAction);
    event->accept();
}

void PickerPanel::dragMoveEvent(QDragMoveEvent* event) {
    if (!acceptsDrop(event))
        return;
    event->setDropAction(Qt::CopyAction);
    event->accept();
}

void PickerPanel::dropEvent(QDropEvent* event) {
    if (!acceptsDrop(event))
        return;
    event->setDropAction(Qt::CopyAction);
    event->accept();
    emit mineDrop(event->mimeData());
}

void PickerPanel::showMineMenu(QPoint globalPos, const QModelIndex& index) {
    m_model.select(index.row());
    const std::optional<Meme> item = selectedMineItem();
    if (!item)
        return;
    QMenu menu(this);
    menu.addAction(QStringLiteral("Edit label…"), this,
                   [this, meme = *item] { emit mineLabelRequested(meme); });
    menu.addAction(QStringLiteral("Remove from my images…"), this,
                   [this, meme = *item] { emit mineRemoveRequested(meme); });
    m_menuOpen = true;
    menu.exec(globalPos);
    m_menuOpen = false;
}

void PickerPanel::syncSelection() {
    const int row = m_model.selected();
    if (row < 0 || row >= m_gridModel->rowCount()) {
        m_grid->clearSelection();
        return;
    }
    const QModelIndex index = m_gridModel->index(row);
    m_grid->selectionModel()->setCurrentIndex(index, QItemSelectionModel::ClearAndSelect);
    m_grid->scrollTo(index);
    requestMoreIfNeeded();
}

void PickerPanel::syncCaption() {
    const bool editing = m_model.caption().has_value();
    if (editing == !m_captionEditor->isHidden())
        return;
    m_tabs->setVisible(!editing);
    m_grid->setVisible(!editing);
    m_status->setVisible(!editing);
    // The caption's lines take the keys; the query stays as it was for the way back.
    m_search->setEnabled(!editing);
    m_captionEditor->setVisible(editing);
}

void PickerPanel::updateColumns() {
    // The width the view lays cells out in (the always-present scroll bar already taken off).
    const int width = m_grid->maximumViewportSize().width();
    // It starts a new row when a cell would reach the last pixel, so the cells of a full
    // row must leave that pixel free.
    const int usable = width - 1;
    const int columns = qMax(1, usable / minimumCell);
    const int cell = qMax(1, usable / columns);
    m_delegate->setCellSize(QSize(cell, cell));
    m_grid->setGridSize(QSize(cell, cell));
    m_model.setColumns(columns);
}

int PickerPanel::layoutColumns() const {
    const int count = m_gridModel->rowCount();
    if (count < 2)
        return m_model.columns();
    const int top = m_grid->visualRect(m_gridModel->index(0)).top();
    int inFirstRow = 1;
    while (inFirstRow < count && m_grid->visualRect(m_gridModel->index(inFirstRow)).top() == top)
        ++inFirstRow;
    // A single short row does not tell how many cells a row holds.
    return inFirstRow < count ? inFirstRow : m_model.columns();
}

void PickerPanel::refreshStatus() {
    const QString text = m_model.status();
    m_status->setToolTip(DrawnSigns::plainFallback(text, m_status->font()));
    // Key hints are cut between hints; a sentence (an empty tab's advice) wraps instead.
    if (!text.contains(separator)) {
        m_status->setWordWrap(true);
        DrawnSigns::setText(m_status, text);
        return;
    }
    m_status->setWordWrap(false);
    m_status->setTextFormat(Qt::PlainText);
    m_status->setText(
        elideAtSeparators(text, m_status->fontMetrics(), m_status->contentsRect().width()));
}

void PickerPanel::setInsertProgress(const QString& id, double fraction) {
    m_gridModel->setInsertProgress(id, fraction);
    if (!id.isEmpty() && fraction < 0)
        m_progressTicker->start();
    else
        m_progressTicker->stop();
}

void PickerPanel::requestMoreIfNeeded() {
    const QRect viewport = m_grid->viewport()->rect();
    QModelIndex last = m_grid->indexAt(viewport.bottomRight() - QPoint(2, 2));
    if (!last.isValid())
        last = m_gridModel->index(m_gridModel->rowCount() - 1);
    if (last.isValid())
        m_model.loadMoreIfNeeded(last.row());
}

bool PickerPanel::eventFilter(QObject* watched, QEvent* event) {
    if (watched == m_search) {
        if (event->type() == QEvent::KeyPress)
            return handleKey(static_cast<QKeyEvent*>(event));
    } else if (watched == m_status) {
        if (event->type() == QEvent::Resize)
            refreshStatus();
    } else if (event->type() == QEvent::ContextMenu) {
        const auto* menuEvent = static_cast<QContextMenuEvent*>(event);
        if (const QModelIndex index = m_grid->indexAt(menuEvent->pos()); index.isValid()) {
            showMineMenu(menuEvent->globalPos(), index);
            return true;
        }
    } else if (event->type() == QEvent::Resize) {
        // The grid's viewport (the other object watched; the search field's filter is set
        // before the grid exists). It gets its real width only after the panel's resize (on
        // first show it is not laid out yet then) and loses some to the scroll bar: the
        // columns follow it.
        updateColumns();
    }
    return QWidget::eventFilter(watched, event);
}

bool PickerPanel::handleKey(QKeyEvent* event) {
    const Qt::KeyboardModifiers mods = event->modifiers() & ~Qt::KeypadModifier;
    switch (event->key()) {
    case Qt::Key_Left:
        // Inside text the caret moves; the grid only takes the arrow at the edges.
        if (!m_search->text().isEmpty() && m_search->cursorPosition() > 0)
            return false;
        m_model.moveBy(-1);
        return true;
    case Qt::Key_Right:
        if (!m_search->text().isEmpty() && m_search->cursorPosition() < m_search->text().size())
            return false;
        m_model.moveBy(1);
        return true;
    case Qt::Key_Up:
    case Qt::Key_Down: {
        // The view's own rows, not a width division that can disagree with it.
        const int columns = layoutColumns();
        m_model.setColumns(columns);
        m_model.moveBy(event->key() == Qt::Key_Up ? -columns : columns);
        return true;
    }
    case Qt::Key_Tab:
        m_model.nextTab();
        return true;
    case Qt::Key_Backtab:
        m_model.previousTab();
        return true;
    case Qt::Key_Return:
    case Qt::Key_Enter:
        m_model.insertSelected();
        return true;
    case Qt::Key_Escape:
        if (!m_model.handleEscape())
            hide();
        return true;
    case Qt::Key_D:
        if (mods == Qt::ControlModifier) {
            m_model.toggleFavoriteOfSelected();
            return true;
        }
        return false;
    case Qt::Key_E:
        if (mods == Qt::ControlModifier) {
            m_model.beginCaption();
            return true;
        }
        return false;
    case Qt::Key_V:
        // An image or emoji on the clipboard goes to the library; text is typed as usual.
        if (mods == Qt::ControlModifier && m_mineActions && m_takesPaste) {
            const QMimeData* data = QGuiApplication::clipboard()->mimeData();
            if (m_takesPaste(data)) {
                emit minePaste(data);
                return true;
            }
        }
        return false;
    case Qt::Key_Delete:
        // Deleting the text after the caret comes first.
        if (mods == Qt::NoModifier && m_search->cursorPosition() == m_search->text().size()) {
            if (const std::optional<Meme> item = selectedMineItem()) {
                emit mineRemoveRequested(*item);
                return true;
            }
        }
        return false;
    case Qt::Key_F2:
        if (const std::optional<Meme> item = selectedMineItem()) {
            emit mineLabelRequested(*item);
            return true;
        }
        return false;
    default:
        return false;
    }
}

void PickerPanel::setDragging(bool on) {
    m_dragging = on;
    // A target may have taken the keyboard although the drop did not land.
    if (!on && isVisible() && QGuiApplication::focusWindow() != windowHandle()) {
        activateWindow();
        m_search->setFocus();
    }
}

void PickerPanel::onFocusWindowChanged(QWindow* window) {
    // A drag passes over other programs' windows, some of which take the focus.
    if (!isVisible() || m_dragging)
        return;
    // The Mine tab stays while the user picks pictures in another program to drop here.
    if (m_mineActions && m_model.tab() == PickerModel::Tab::mine) {
        if (window && window == windowHandle())
            m_hadKeyboard = true;
        return;
    }
    if (window && window == windowHandle()) {
        m_hadKeyboard = true;
        return;
    }
    // Clicking elsewhere dismisses the picker, but not our own ⋯ menu or a dialog of ours,
    // and not the shuffle of focus while the window manager is still handing it over.
    if (m_hadKeyboard && !m_menuOpen && !QApplication::activePopupWidget() &&
        !QApplication::activeModalWidget())
        hide();
}

void PickerPanel::showToast(const QString& text, Toast::Kind kind, int ms) {
    if (isVisible()) {
        m_toast->showMessage(text, kind, ms);
        return;
    }
    if (!m_windowToast)
        m_windowToast = std::make_unique<Toast>(nullptr);
    m_windowToast->setAnchor(frameGeometry());
    m_windowToast->showMessage(text, kind, ms);
}

void PickerPanel::hideEvent(QHideEvent* event) {
    QWidget::hideEvent(event);
    m_toast->hide();
    // A caption left unfinished is dropped; the panel opens on the results next time.
    m_model.cancelCaption();
    // Saved once on hide rather than on every step of a resize drag.
    if (size() != storedSize()) {
        DebugFlags::settings().set(widthKey, width());
        DebugFlags::settings().set(heightKey, height());
    }
    emit dismissed();
}

void PickerPanel::resizeEvent(QResizeEvent* event) {
    QWidget::resizeEvent(event);
    updateColumns();
}

void PickerPanel::paintEvent(QPaintEvent*) {
    // A frameless window draws its own edge.
    QPainter painter(this);
    painter.fillRect(rect(), palette().color(QPalette::Window));
    painter.setPen(palette().color(QPalette::Mid));
    painter.drawRect(rect().adjusted(0, 0, -1, -1));
}

void PickerPanel::popUpMenu() {
    if (!m_buildMenu)
        return;
    QMenu menu(this);
    m_buildMenu(&menu);
    m_menuOpen = true;
    menu.exec(m_menuButton->mapToGlobal(QPoint(0, m_menuButton->height())));
    m_menuOpen = false;
    if (isVisible()) {
        activateWindow();
        m_search->setFocus();
    }
}

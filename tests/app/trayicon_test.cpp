// SPDX-License-Identifier: MIT
#include "menutitles.h"
#include "support/appondesktop.h"
#include "telemetry/metrics.h"

#include <QRegularExpression>
#include <QSignalSpy>
#include <QStyleHints>
#include <QSystemTrayIcon>

namespace {

// A freedesktop (XEmbed) system tray on the test display, as a desktop panel provides.
// Ready once it owns the tray selection, which is also what Qt looks for.
bool startTrayHost(Desktop::Program& tray, QString* why) {
    if (!XvfbSession::available(QStringLiteral("trayer"))) {
        *why = QStringLiteral("trayer is not installed");
        return false;
    }
    tray.process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    tray.process.start(QStringLiteral("trayer"),
                       {QStringLiteral("--edge"), QStringLiteral("top"), QStringLiteral("--align"),
                        QStringLiteral("right"), QStringLiteral("--widthtype"),
                        QStringLiteral("request"), QStringLiteral("--height"), QStringLiteral("32"),
                        QStringLiteral("--SetDockType"), QStringLiteral("true")});
    *why = QStringLiteral("trayer did not claim the tray selection");
    return QTest::qWaitFor([] { return QSystemTrayIcon::isSystemTrayAvailable(); }, 10000);
}

// One window as the X server sees it.
struct XWindowInfo {
    bool viewable = false;
    QRect geometry; // in root coordinates
    QString parent;
    QString root;
};

std::optional<XWindowInfo> xwininfo(WId window) {
    const QString id = QStringLiteral("0x%1").arg(window, 0, 16);
    QByteArray attributes;
    QByteArray tree;
    if (!XvfbSession::run(QStringLiteral("xwininfo"), {QStringLiteral("-id"), id}, &attributes) ||
        !XvfbSession::run(QStringLiteral("xwininfo"),
                          {QStringLiteral("-children"), QStringLiteral("-id"), id}, &tree))
        return std::nullopt;
    const auto field = [](const QByteArray& text, const char* name) {
        const QRegularExpression pattern(QStringLiteral("%1:\\s*(\\S+)").arg(QLatin1String(name)));
        return pattern.match(QString::fromUtf8(text)).captured(1);
    };
    XWindowInfo info;
    info.viewable = field(attributes, "Map State") == QLatin1String("IsViewable");
    info.geometry = QRect(field(attributes, "Absolute upper-left X").toInt(),
                          field(attributes, "Absolute upper-left Y").toInt(),
                          field(attributes, "Width").toInt(), field(attributes, "Height").toInt());
    info.parent = field(tree, "Parent window id");
    info.root = field(tree, "Root window id");
    return info;
}

// The window Qt's XEmbed tray support creates for the icon.
QWidget* trayIconWindow() {
    for (QWidget* widget : QApplication::topLevelWidgets())
        if (widget->objectName() == QLatin1String("QSystemTrayIconSys"))
            return widget;
    return nullptr;
}

QMenu* openPopupMenu() {
    return qobject_cast<QMenu*>(QApplication::activePopupWidget());
}

// Right-clicks the tray icon where the X server has it now and returns the menu that opens.
// A click can miss while the tray host settles (it re-docks icons once it has announced
// itself), so it clicks again, each time a double-click interval after the last: a quicker
// second press would be taken as a double click.
QMenu* rightClickTrayIcon(QPoint* clickedAt) {
    const int interval = QGuiApplication::styleHints()->mouseDoubleClickInterval() + 100;
    const auto menuOpen = [] { return openPopupMenu() && openPopupMenu()->isVisible(); };
    const bool opened = QTest::qWaitFor(
        [&] {
            const QWidget* icon = trayIconWindow();
            const std::optional<XWindowInfo> info = icon ? xwininfo(icon->winId()) : std::nullopt;
            if (!info || !info->viewable)
                return false;
            *clickedAt = info->geometry.center();
            return Desktop::click(*clickedAt, 3) && QTest::qWaitFor(menuOpen, interval);
        },
        10000);
    return opened ? openPopupMenu() : nullptr;
}

bool closeMenuWithEscape() {
    return Desktop::key("Escape") &&
           QTest::qWaitFor([] { return openPopupMenu() == nullptr; }, 5000);
}

// The metrics log's lines, without their time, as the user would read them.
QString loggedEvents() {
    QStringList lines;
    for (const nlohmann::json& event : TestEnv::loggedEvents())
        lines.append(QString::fromStdString(event.dump()));
    return lines.join(u'\n');
}

class TrayIcon : public AppOnTheDesktop {
protected:
    void SetUp() override {
        AppOnTheDesktop::SetUp();
        QFile::remove(Metrics::url());
    }
};

} // namespace

TEST_F(TrayIcon, IconSitsInTheTrayAndRightClickOpensTheCurrentMenu) {
    Desktop::Program tray;
    QString why;
    if (!startTrayHost(tray, &why))
        GTEST_SKIP() << why.toStdString();
    startApp();

    // The icon's window is reparented into the tray host and shown there.
    QWidget* icon = nullptr;
    std::optional<XWindowInfo> info;
    ASSERT_TRUE(QTest::qWaitFor(
        [&] {
            icon = trayIconWindow();
            info = icon ? xwininfo(icon->winId()) : std::nullopt;
            return info && info->viewable && info->parent != info->root &&
                   !info->geometry.isEmpty();
        },
        10000))
        << "the tray host did not embed the icon";
    // Start-up logged where the icon is.
    const QRegularExpression statusItem(QStringLiteral(
        R"({"event":"status_item","frame":"-?\d+,-?\d+ \d+x\d+","hidden":false,"notch":false})"));
    EXPECT_TRUE(statusItem.match(loggedEvents()).hasMatch()) << loggedEvents().toStdString();

    // With a tray the panel opens without the hidden-icon guidance.
    QSignalSpy shown(&panel(), &PanelController::shown);
    panel().show();
    ASSERT_EQ(shown.count(), 1);
    EXPECT_FALSE(panel().panel()->findChild<Toast*>()->isVisible());
    panel().hide();

    QPoint click;
    QMenu* menu = rightClickTrayIcon(&click);
    ASSERT_NE(menu, nullptr) << "right-clicking the icon opened no menu";
    // The menu's items and their order are the app menu's own test; here it is that menu.
    EXPECT_EQ(titles(menu).last(), QStringLiteral("Quit"));
    EXPECT_EQ(checked(submenu(menu, QStringLiteral("Image cache limit"))), QStringList{"500 MB"});
    // It opens at the icon: a corner of the menu sits at the pointer.
    EXPECT_TRUE(menu->geometry().adjusted(-4, -4, 4, 4).contains(click))
        << "menu at " << menu->geometry().x() << "," << menu->geometry().y() << ", click at "
        << click.x() << "," << click.y();
    ASSERT_TRUE(closeMenuWithEscape()) << "Escape did not close the tray menu";

    // Opened again, it shows a setting changed in between, and each item once.
    DebugFlags::setCacheMB(2000);
    menu = rightClickTrayIcon(&click);
    ASSERT_NE(menu, nullptr);
    EXPECT_EQ(checked(submenu(menu, QStringLiteral("Image cache limit"))), QStringList{"2000 MB"});
    EXPECT_EQ(titles(menu).count(QStringLiteral("Quit")), 1);
    ASSERT_TRUE(closeMenuWithEscape());
}

TEST_F(TrayIcon, WithoutATrayThePanelSaysWhereTheMenuWent) {
    // A tray host from an earlier test may still be going away.
    ASSERT_TRUE(QTest::qWaitFor([] { return !QSystemTrayIcon::isSystemTrayAvailable(); }, 10000));
    startApp();
    EXPECT_EQ(trayIconWindow(), nullptr);

    panel().show();
    const Toast* toast = panel().panel()->findChild<Toast*>();
    ASSERT_TRUE(QTest::qWaitFor([&] { return toast->isVisible(); }, 5000));
    EXPECT_EQ(toast->text(), QStringLiteral("Your desktop shows no tray icons, so the Orvane icon "
                                            "is hidden. Use ⋯ in the panel for the menu."));

    // Start-up logged the hidden icon, and that pasting for the user is possible (XTEST).
    const QString events = loggedEvents();
    EXPECT_TRUE(events.contains(
        QStringLiteral(R"({"event":"status_item","frame":"","hidden":true,"notch":false})")))
        << events.toStdString();
    EXPECT_TRUE(events.contains(QStringLiteral(R"({"event":"accessibility","trusted":true})")))
        << events.toStdString();
}

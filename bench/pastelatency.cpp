// SPDX-License-Identifier: MIT
// Measures how long a paste takes, on a private X display with the app in-process, a small
// catalog from orvane-server and the desktop tests' paste target in front:
//   Enter -> Ctrl+V delivered to the target, image already cached;
//   Enter -> image on the clipboard, image downloaded first.
//   orvane-paste-latency [--runs 20]
#include "app/appdelegate.h"
#include "app/panelcontroller.h"
#include "catalog/memestore.h"
#include "insert/paster.h"
#include "insert/pastetarget.h"
#include "search/pickermodel.h"
#include "support/catalogfixture.h"
#include "support/testenv.h"
#include "support/xvfbsession.h"

#include <QApplication>
#include <QTemporaryDir>
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

namespace {

// The clock the paste target stamps its lines with.
double monotonicMs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return double(now.tv_sec) * 1000.0 + double(now.tv_nsec) / 1e6;
}

void report(const char* what, std::vector<double> ms) {
    std::sort(ms.begin(), ms.end());
    const size_t n = ms.size();
    const double median = n % 2 ? ms[n / 2] : (ms[n / 2 - 1] + ms[n / 2]) / 2;
    std::printf("paste latency (median of %zu): %s: %.1f ms (min %.1f, max %.1f)\n", n, what,
                median, ms.front(), ms.back());
}

int fail(const QString& why) {
    std::fprintf(stderr, "orvane-paste-latency: %s\n", qPrintable(why));
    return 1;
}

} // namespace

int main(int argc, char** argv) {
    int runs = 20;
    for (int i = 1; i + 1 < argc; i += 2)
        if (!std::strcmp(argv[i], "--runs"))
            runs = std::atoi(argv[i + 1]);
    if (runs < 1) {
        std::fprintf(stderr, "usage: orvane-paste-latency [--runs N]\n");
        return 2;
    }
    QTemporaryDir root;
    TestEnv::usePrivateFolders(root.path());
    XvfbSession xvfb;
    QString why;
    if (!xvfb.start(&why))
        return fail(why);
    qputenv("QT_QPA_PLATFORM", "xcb");
    QApplication application(argc, argv);

    const QString catalogRoot = TestEnv::freshDir();
    CatalogFixture::writeCatalog(catalogRoot, 3, 0);
    CatalogFixture server;
    if (!server.start(QStringLiteral(ORVANE_SERVER_BINARY), catalogRoot, &why))
        return fail(why);
    TestEnv::installConfig({{QStringLiteral("MEME_SERVER"), server.url().toString()}});
    enableAccessibility();
    PasteTarget target;
    if (!target.start())
        return fail(QStringLiteral("the paste target did not come up"));

    AppDelegate app{CommandLine{}};
    app.start();
    PickerModel& model = app.pickerModel();
    PanelController& panel = app.panelController();
    if (!QTest::qWaitFor([&] { return model.hasIndex(); }, 15000))
        return fail(QStringLiteral("no catalog"));
    if (!panel.paster().isTrusted())
        return fail(QStringLiteral("the X server has no XTEST extension"));

    double enterAt = 0;
    double writtenAt = 0;
    QObject::connect(&model, &PickerModel::insertRequested, [&] { enterAt = monotonicMs(); });
    QObject::connect(&panel.paster(), &Paster::written, [&] { writtenAt = monotonicMs(); });
    int finished = 0;
    QObject::connect(&panel.paster(), &Paster::finished, [&] { ++finished; });
    // Opens the panel, searches, presses Enter and waits for the paste to land and end;
    // returns when the target received it.
    const auto pasteOnce = [&]() -> std::optional<double> {
        const qsizetype pastes = target.pastes().size();
        const int ends = finished;
        if (!Desktop::key("ctrl+m") ||
            !QTest::qWaitFor([&] { return panel.panelHasKeyboard(); }, 5000) ||
            !Desktop::type(QStringLiteral("cat")) ||
            !QTest::qWaitFor([&] { return !model.results().isEmpty(); }, 5000) ||
            !Desktop::key("Return") ||
            !QTest::qWaitFor([&] { return target.pastes().size() > pastes && finished > ends; },
                             10000) ||
            !QTest::qWaitFor([&] { return !panel.isInserting(); }, 5000))
            return std::nullopt;
        return target.pastes().last().value(QStringLiteral("monotonic_ms")).toDouble();
    };

    if (!pasteOnce()) // caches the image
        return fail(QStringLiteral("the first paste did not arrive"));
    std::vector<double> delivered;
    for (int i = 0; i < runs; ++i) {
        const std::optional<double> at = pasteOnce();
        if (!at)
            return fail(QStringLiteral("paste %1 did not arrive").arg(i + 1));
        delivered.push_back(*at - enterAt);
    }
    std::vector<double> onClipboard;
    for (int i = 0; i < runs; ++i) {
        app.memeStore().clearCache();
        if (!pasteOnce())
            return fail(QStringLiteral("uncached paste %1 did not arrive").arg(i + 1));
        onClipboard.push_back(writtenAt - enterAt);
    }
    report("Enter -> Ctrl+V delivered, cached", delivered);
    report("Enter -> image on the clipboard, uncached", onClipboard);
    return 0;
}

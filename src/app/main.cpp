// SPDX-License-Identifier: MIT
#include "app/appdelegate.h"
#include "app/benchcommand.h"
#include "app/benchprefetch.h"
#include "app/captioncommands.h"
#include "app/collectionsearchcommand.h"
#include "app/commandline.h"
#include "app/deletedatatest.h"
#include "app/querycommand.h"
#include "app/quitsignals.h"
#include "app/singleinstance.h"
#include "app/startupbench.h"
#include "app/usagetest.h"
#include "base/memorytrim.h"
#include "buildinfo.h"

#include <QApplication>
#include <QGuiApplication>
#include <QTextStream>
#include <memory>

namespace {

int runOneShot(const CommandLine& cl, std::chrono::steady_clock::time_point launched) {
    QTextStream out(stdout);
    if (cl.bench)
        return runRankingBench(out);
    if (cl.startupBench)
        return runStartupBench(out, launched);
    if (cl.benchPrefetch)
        return runPrefetchBench(out);
    if (cl.usageTest)
        return runUsageTest(out);
    if (cl.captionTest)
        return runCaptionTest(out);
    if (cl.deleteDataTest)
        return runDeleteDataTest(out);
    if (!cl.renderCaption.isEmpty()) {
        QTextStream err(stderr);
        return runRenderCaption(cl.renderCaption[0], cl.renderCaption[1], cl.renderCaption[2],
                                cl.renderCaption[3], err);
    }
    if (cl.hasQuery)
        return runQueryCommand(cl.query, out);
    if (cl.hasCollectionQuery)
        return runCollectionSearchCommand(cl.collectionQuery, out);
    for (const QString& line : configReport())
        out << line << Qt::endl;
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    const auto launched = std::chrono::steady_clock::now();
    MemoryTrim::limitArenas();
    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments.append(QString::fromLocal8Bit(argv[i]));
    const CommandLine cl = CommandLine::parse(arguments);
    if (!cl.unknown.isEmpty()) {
        QTextStream err(stderr);
        err << "orvane: unknown argument " << cl.unknown.first() << Qt::endl
            << Qt::endl
            << usageText();
        return 2;
    }
    if (cl.help || cl.version) {
        QTextStream(stdout) << (cl.help ? usageText()
                                        : QStringLiteral("Orvane %1\n").arg(BuildInfo::Version));
        return 0;
    }

    if (cl.needsFonts()) {
        // Text needs a GUI application; without a display the offscreen platform draws it.
        if (qEnvironmentVariableIsEmpty("DISPLAY") &&
            qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY"))
            qputenv("QT_QPA_PLATFORM", "offscreen");
        QGuiApplication app(argc, argv);
        QGuiApplication::setApplicationName(QStringLiteral("Orvane"));
        return runOneShot(cl, launched);
    }
    if (cl.isOneShot()) {
        // One-shot modes run without a GUI platform, so they work over SSH and in CI.
        QCoreApplication app(argc, argv);
        QCoreApplication::setApplicationName(QStringLiteral("Orvane"));
        return runOneShot(cl, launched);
    }

    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Orvane"));
    QApplication::setApplicationDisplayName(QStringLiteral("Orvane"));
    QApplication::setDesktopFileName(QStringLiteral("orvane"));
    // A tray app: closing a window never ends it; "Quit" in the menu does.
    QApplication::setQuitOnLastWindowClosed(false);
    // A second launch opens the running copy's picker and ends.
    SingleInstance instance;
    switch (instance.claim()) {
    case SingleInstance::Claim::forwarded:
        return 0;
    case SingleInstance::Claim::failed:
        return 1;
    case SingleInstance::Claim::owned:
    case SingleInstance::Claim::noBus:
        break;
    }
    const QuitSignals quitSignals;
    AppDelegate delegate(cl);
    QObject::connect(&instance, &SingleInstance::showRequested, &delegate,
                     [&delegate] { delegate.showPanel(); });
    delegate.start();
    return app.exec();
}

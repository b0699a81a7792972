// SPDX-License-Identifier: MIT
#include "app/appdelegate.h"
#include "app/benchcommand.h"
#include "app/benchprefetch.h"
#include "app/commandline.h"
#include "app/querycommand.h"
#include "app/quitsignals.h"
#include "app/usagetest.h"

#include <QApplication>
#include <QTextStream>
#include <memory>

namespace {

int runOneShot(const CommandLine& cl) {
    QTextStream out(stdout);
    if (cl.bench)
        return runRankingBench(out);
    if (cl.benchPrefetch)
        return runPrefetchBench(out);
    if (cl.usageTest)
        return runUsageTest(out);
    if (cl.hasQuery)
        return runQueryCommand(cl.query, out);
    for (const QString& line : configReport())
        out << line << Qt::endl;
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments.append(QString::fromLocal8Bit(argv[i]));
    const CommandLine cl = CommandLine::parse(arguments);
    for (const QString& arg : cl.unknown)
        QTextStream(stderr) << "orvane: ignoring unknown argument " << arg << Qt::endl;

    if (cl.isOneShot()) {
        // One-shot modes run without a GUI platform, so they work over SSH and in CI.
        QCoreApplication app(argc, argv);
        QCoreApplication::setApplicationName(QStringLiteral("Orvane"));
        return runOneShot(cl);
    }

    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Orvane"));
    QApplication::setApplicationDisplayName(QStringLiteral("Orvane"));
    QApplication::setDesktopFileName(QStringLiteral("orvane"));
    // A tray app: closing a window never ends it; "Quit" in the menu does.
    QApplication::setQuitOnLastWindowClosed(false);
    const QuitSignals quitSignals;
    AppDelegate delegate(cl);
    delegate.start();
    return app.exec();
}

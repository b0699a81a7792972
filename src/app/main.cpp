// SPDX-License-Identifier: MIT
#include "app/commandline.h"

#include <QCoreApplication>
#include <QTextStream>

int main(int argc, char** argv) {
    // One-shot modes run without a GUI platform, so they work over SSH and in CI.
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("Orvane"));
    const CommandLine cl = CommandLine::parse(QCoreApplication::arguments());

    QTextStream out(stdout);
    for (const QString& arg : cl.unknown)
        QTextStream(stderr) << "orvane: ignoring unknown argument " << arg << Qt::endl;
    for (const QString& line : configReport())
        out << line << Qt::endl;
    return 0;
}

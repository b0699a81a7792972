// SPDX-License-Identifier: MIT
// A child process for the kill test: learninghelper FOLDER API_BASE records three events,
// starts their upload and waits to be killed.
#include "telemetry/learning.h"

#include <QCoreApplication>
#include <QStringList>

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() != 3)
        return 2;
    Learning::Options options;
    options.folder = args[1];
    options.enabled = [] { return true; };
    options.apiBase = [base = args[2]] { return QUrl(base); };
    options.installID = [] { return QStringLiteral("kill-test"); };
    options.appKey = [] { return std::optional<QString>(); };
    Learning learning(options);
    for (const char* id : {"a", "b", "c"})
        learning.recordPick(QStringLiteral("q"), {}, QString::fromLatin1(id),
                            QStringLiteral("paste"));
    learning.flush();
    return app.exec();
}

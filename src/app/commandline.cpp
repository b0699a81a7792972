// SPDX-License-Identifier: MIT
#include "app/commandline.h"

#include "catalog/debugflags.h"

CommandLine CommandLine::parse(const QStringList& arguments) {
    CommandLine cl;
    for (qsizetype i = 1; i < arguments.size(); ++i) {
        const QString& a = arguments[i];
        if (a == QLatin1String("--print-config")) {
            cl.printConfig = true;
        } else if (a == QLatin1String("--bench")) {
            cl.bench = true;
        } else if (a == QLatin1String("--bench-prefetch")) {
            cl.benchPrefetch = true;
        } else if (a == QLatin1String("--usage-test")) {
            cl.usageTest = true;
        } else if (a == QLatin1String("--show")) {
            cl.show = true;
        } else if (a == QLatin1String("--query") && i + 1 < arguments.size()) {
            cl.hasQuery = true;
            cl.query = arguments[++i];
        } else {
            cl.unknown.append(a);
        }
    }
    return cl;
}

QStringList configReport() {
    return {QStringLiteral("files: ") + DebugFlags::serverURL().toString(),
            QStringLiteral("api: ") + DebugFlags::apiURL().toString(),
            QStringLiteral("cloud api: ") +
                (DebugFlags::hasCloudAPI() ? QStringLiteral("true") : QStringLiteral("false"))};
}

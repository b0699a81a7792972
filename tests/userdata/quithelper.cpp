// SPDX-License-Identifier: MIT
// A resident process with user data, wired for quitting the way the app is.
//   quithelper FILE pick ID   records one pick, prints "recorded", runs until told to quit.
//   quithelper FILE storm     records a pick and saves it at once, over and over, printing
//                             "saved N" after the N-th save, until killed.
#include "app/quitsignals.h"
#include "userdata/userdata.h"

#include <QCoreApplication>
#include <QTimer>
#include <cstdio>

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() < 3)
        return 2;
    const QuitSignals quitSignals;
    UserData data(args[1]);
    QObject::connect(&app, &QCoreApplication::aboutToQuit, &data, &UserData::flush);

    if (args[2] == QLatin1String("pick") && args.size() == 4) {
        QTimer::singleShot(0, [&] {
            data.recordPick(args[3], QStringLiteral("quit test"));
            std::printf("recorded\n");
            std::fflush(stdout);
        });
    } else if (args[2] == QLatin1String("storm")) {
        QTimer* storm = new QTimer(&app);
        int n = 0;
        QObject::connect(storm, &QTimer::timeout, [&] {
            data.recordPick(QStringLiteral("m%1").arg(n), QString());
            data.flush();
            std::printf("saved %d\n", ++n);
            std::fflush(stdout);
        });
        storm->start(0);
    } else {
        return 2;
    }
    return app.exec();
}

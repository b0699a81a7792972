// SPDX-License-Identifier: MIT
#include "app/usagetest.h"

#include "userdata/userdata.h"

#include <QTemporaryDir>

int runUsageTest(QTextStream& out) {
    QTemporaryDir dir;
    UserData data(dir.filePath(QStringLiteral("userdata.json")));
    const auto line = [&](const char* label) {
        out << label << ": recents " << data.recents().join(QLatin1Char(',')) << " | most used "
            << data.mostUsedIDs(2, 200).join(QLatin1Char(',')) << Qt::endl;
    };
    line("loaded");
    const bool startedEmpty = data.recents().isEmpty();
    for (const char* id : {"m_00001", "m_00002", "m_00003", "m_00002", "m_00004", "m_00002"})
        data.recordPick(QString::fromLatin1(id), QStringLiteral("cat"));
    line("after 6 picks");
    const bool picked =
        data.recents() == QStringList{QStringLiteral("m_00002"), QStringLiteral("m_00004"),
                                      QStringLiteral("m_00003"), QStringLiteral("m_00001")} &&
        data.mostUsedIDs(2, 200) == QStringList{QStringLiteral("m_00002")};
    data.clearHistory();
    line("after clear");
    const bool cleared = data.recents().isEmpty() && data.mostUsedIDs(1, 200).isEmpty();
    out << "usage-test: " << (startedEmpty && picked && cleared ? "ok" : "FAILED") << Qt::endl;
    return startedEmpty && picked && cleared ? 0 : 1;
}

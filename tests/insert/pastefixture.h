// SPDX-License-Identifier: MIT
// Shared by the paste tests: the app on a private display with a catalog server, programs
// to paste into, and xclip to set and read the clipboard.
#pragma once

#include "catalog/debugflags.h"
#include "catalog/memestore.h"
#include "insert/paster.h"
#include "pastetarget.h"
#include "support/appondesktop.h"

#include <QCryptographicHash>
#include <QFile>
#include <QJsonArray>
#include <QJsonObject>
#include <QSignalSpy>

namespace pastetest {

using Desktop::clipboardAs;
using Desktop::key;

inline QString writeFile(const QString& name, const QByteArray& bytes) {
    const QString path = TestEnv::freshDir() + QLatin1Char('/') + name;
    TestEnv::writeFile(path, bytes);
    return path;
}
inline QByteArray sha256(const QByteArray& bytes) {
    return QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex();
}

inline QStringList formatsOf(const QJsonObject& paste) {
    QStringList formats;
    for (const QJsonValue& v : paste.value(QStringLiteral("formats")).toArray())
        formats.append(v.toString());
    return formats;
}

class PasteOnTheDesktop : public AppOnTheDesktop {
protected:
    void SetUp() override {
        AppOnTheDesktop::SetUp();
        if (IsSkipped() || !serveCatalog(3, 2, imageSize))
            return;
        enableAccessibility();
        startApp();
        ASSERT_TRUE(QTest::qWaitFor([&] { return app->pickerModel().hasIndex(); }, 15000));
        ASSERT_TRUE(paster().isTrusted()) << "the X server has no XTEST extension";
    }

    Paster& paster() { return panel().paster(); }

    // The catalog's images; a fixture that looks at what arrives may want them larger.
    QSize imageSize{64, 64};

    // Opens the panel over the program in front, searches and presses Enter on the first
    // result; returns the id pasted.
    QString pasteFirstResult(const char* query = "cat") {
        if (!panelOpensWithKeyboard())
            return {};
        Desktop::type(QLatin1String(query));
        PickerModel& model = app->pickerModel();
        if (!QTest::qWaitFor(
                [&] { return model.query() == QLatin1String(query) && !model.results().isEmpty(); },
                5000))
            return {};
        const QString id = model.results().first().id;
        key("Return");
        return id;
    }
    // Waits until the paste under way has finished and the panel takes Enter again.
    bool pasteEnds(QSignalSpy& finished, qsizetype count = 1) {
        return QTest::qWaitFor([&] { return finished.size() >= count; }, 10000) &&
               QTest::qWaitFor([&] { return !panel().isInserting(); }, 5000);
    }

    QByteArray cachedPNG(const QString& id) {
        for (const Meme& meme : app->pickerModel().results())
            if (meme.id == id)
                return TestEnv::readFile(
                    app->memeStore().cachedFullURL(meme).value_or(QUrl()).toLocalFile());
        return {};
    }
};

} // namespace pastetest

using namespace pastetest;

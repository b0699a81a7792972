// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QStringList>

// The one-shot modes and switches orvane understands.
struct CommandLine {
    bool printConfig = false;
    bool show = false;
    bool bench = false;
    bool startupBench = false;
    bool benchPrefetch = false;
    bool usageTest = false;
    bool captionTest = false;
    bool deleteDataTest = false;
    // --render-caption IN TOP BOTTOM OUT
    QStringList renderCaption;
    bool help = false;
    bool version = false;
    QString query; // --query TEXT
    bool hasQuery = false;
    QString collectionQuery; // --search-collections TEXT
    bool hasCollectionQuery = false;
    // Arguments orvane does not know (or a --query without its text): a usage error.
    QStringList unknown;

    static CommandLine parse(const QStringList& arguments);
    // True when the mode prints and exits, so no display is needed.
    bool isOneShot() const {
        return printConfig || hasQuery || hasCollectionQuery || bench || startupBench ||
               benchPrefetch || usageTest || deleteDataTest || needsFonts();
    }
    // One-shot modes that draw text, so they need a GUI application (any platform will do).
    bool needsFonts() const { return captionTest || !renderCaption.isEmpty(); }
};

// The text of --help, also printed to stderr after a usage error.
QString usageText();
// The lines of --print-config: catalog server, API base, and whether a cloud API is set.
QStringList configReport();

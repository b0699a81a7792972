// SPDX-License-Identifier: MIT
#pragma once

#include "base/serialexecutor.h"

#include <QObject>
#include <QStringList>
#include <QTimer>
#include <QUrl>
#include <functional>
#include <optional>

class QNetworkAccessManager;

// Opt-in usage learning: each insertion of a catalog item becomes one event (the query, the
// ids shown, the pick), queued in events_pending.jsonl and uploaded in batches to the API's
// "v1/events". A batch is moved to events_inflight.jsonl before it is sent and deleted only
// after an HTTP 200, so a failed upload or a crash never loses it (at-least-once delivery).
//
// The setting is read afresh at every call, so turning it off stops recording and uploading
// at once; what is already queued stays for later. All file work runs on the serial
// "learning" queue; the upload itself runs on the thread that owns this object.
class Learning : public QObject {
    Q_OBJECT
public:
    static constexpr int flushIntervalMs = 60 * 1000;
    static constexpr int shownLimit = 12;

    struct Options {
        QString folder;                // where the two files live
        std::function<bool()> enabled; // the user's opt-in, read at each call
        std::function<QUrl()> apiBase; // "v1/events" is resolved against it
        std::function<QString()> installID;
        std::function<std::optional<QString>()> appKey;
        int uploadTimeoutMs = 60 * 1000;
    };

    // Creates the folder.
    explicit Learning(Options options, QObject* parent = nullptr);
    // The process's own: the data folder, the shareUsage setting and the API configuration.
    static Options defaultOptions();
    ~Learning() override;

    QString pendingPath() const;
    QString inflightPath() const;

    // Flushes every minute from now on, and once at once.
    void start();
    // One insertion. `shown` is the full result list in display order; ids of the user's own
    // items ("g_…") are never reported, and a pick of one makes no event.
    void recordPick(const QString& query, const QStringList& shown, const QString& picked,
                    const QString& method);
    // Sends the in-flight batch, or the pending events as a new one.
    void flush();
    // Blocks until the queued file work is done. For tests and shutdown.
    void waitForIdle();

signals:
    // An upload finished: `delivered` when the server answered 200 (the batch is deleted).
    void uploadFinished(bool delivered, int events);

private:
    void upload(const QByteArray& body, int events);

    Options m_options;
    SerialExecutor m_queue{QStringLiteral("learning")};
    QTimer m_timer;
    QNetworkAccessManager* m_network = nullptr;
    bool m_uploading = false;
};

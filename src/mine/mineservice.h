// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/catalogjson.h"
#include "mine/minelibrary.h"

#include <QImage>
#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>
#include <atomic>
#include <memory>
#include <optional>

class OcrEngine;
class QMimeData;
class SerialExecutor;

// The user's own library as the app uses it, on the GUI thread. Every write runs in order on
// one background thread; the words on new images are read on a second one, with one
// Tesseract engine made the first time it is needed, so neither ever blocks the GUI. Results
// come back to the GUI thread, which alone holds the list of items.
class MineService : public QObject {
    Q_OBJECT
public:
    using Source = MineLibrary::Source;

    // Batches of at least this many files say how far they got while they run.
    static constexpr int progressFrom = 5;

    explicit MineService(QString root = MineLibrary::defaultRoot(), QObject* parent = nullptr);
    // Finishes the write at hand and drops the rest; nothing waits for reading words.
    ~MineService() override;

    // Reads the library, then reads the words on items that were not read yet.
    void load();
    bool isLoaded() const { return m_loaded; }

    // Local files (a drop, the file chooser): in order, one notice at the end; a batch of
    // progressFrom or more files also tells its progress.
    void addFiles(const QStringList& paths, Source source);
    // Encoded image bytes or a decoded image from a drop or the clipboard.
    void addData(const QByteArray& bytes, Source source);
    void addImage(const QImage& image, Source source);
    // Text dropped or pasted: each emoji in it becomes an item; anything else is refused with
    // a notice, and nothing is added.
    void addText(const QString& text);
    // What a drop or the clipboard offers, best first: local files, encoded image bytes, a
    // decoded image, emoji text. `mime` is read at once and may go away afterwards.
    void addMimeData(const QMimeData* mime, Source source);
    // Whether addMimeData would find something to add in `mime` (plain text is no image).
    static bool offersItems(const QMimeData* mime);
    void setLabel(const QString& id, const QString& label);
    void remove(const QString& id);

    // Newest first.
    const QList<MineLibrary::Record>& records() const { return m_records; }
    MemeList items() const;
    std::optional<MineLibrary::Record> record(const QString& id) const;
    const MineLibrary& library() const { return *m_library; }
    // Items whose words are still to be read (or being read).
    int pendingReads() const { return m_pendingReads; }

    // Blocks until the writes and reads posted so far are done; for tests and benchmarks.
    void waitForIdle();

signals:
    // The whole list, newest first, each time it changed (coalesced).
    void itemsChanged(const MemeList& items);
    // A line for the user: an add's outcome or a batch's progress, or a `failure`.
    void notice(const QString& text, bool failure);
    // New items were stored; `ids` newest first. Sent before the notice of their batch.
    void added(const QStringList& ids);
    // The words on `id` were read and stored.
    void wordsRead(const QString& id);

private:
    struct Batch;
    void postAdd(const std::shared_ptr<Batch>& batch,
                 std::function<MineLibrary::Added(MineLibrary&)> add, const QString& name);
    void finishBatch(const std::shared_ptr<Batch>& batch);
    void stored(const MineLibrary::Record& record);
    void replace(const MineLibrary::Record& record);
    void queueRead(const MineLibrary::Record& record);
    void publishSoon();
    void publishNow();

    std::unique_ptr<MineLibrary> m_library;
    QList<MineLibrary::Record> m_records;
    bool m_loaded = false;
    bool m_publishPending = false;
    int m_pendingReads = 0;
    // Read by the worker threads: set once on destruction.
    std::shared_ptr<std::atomic<bool>> m_stopping;
    std::unique_ptr<OcrEngine> m_ocr; // used on m_reader's thread only
    // Destroyed first (reverse order), so no job outlives what it uses.
    std::unique_ptr<SerialExecutor> m_writer;
    std::unique_ptr<SerialExecutor> m_reader;
};

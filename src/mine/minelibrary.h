// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/catalogjson.h"

#include <QByteArray>
#include <QDateTime>
#include <QImage>
#include <QList>
#include <QString>
#include <functional>
#include <optional>
#include <variant>

class OcrEngine;

// The user's own images and emoji, kept only on this computer: one folder per item below
// the library's root ($XDG_DATA_HOME/Glimmet/Mine), named after its id ("g_" and a random
// suffix), holding the image as the user gave it (re-encoded only when its format is not one
// other programs take), a thumbnail and item.json.
//
// A new item is written into a hidden ".new-…" folder and renamed into place, and a record
// is replaced atomically, so a crash leaves either the whole item or a hidden leftover that
// the next load removes. A folder that does not read back (edited by hand, half deleted) is
// skipped and left as it is: it may still hold the user's picture.
//
// Everything blocks on the disk and the image codecs: use it from one background thread at a
// time (reads may come from others).
class MineLibrary {
public:
    struct Record {
        QString id;
        QString label;  // what the user calls it; editable
        QString source; // "file", "drop", "paste" or "emoji"
        QDateTime added;
        QString file;  // image file name inside the item's folder
        QString thumb; // thumbnail file name inside the item's folder
        qint64 bytes = 0;
        int width = 0;
        int height = 0;
        // Words read from the image; none until they were read.
        std::optional<QString> ocr;
        QString emoji;     // the character, for emoji
        QString emojiName; // its Unicode name, lower case

        friend bool operator==(const Record&, const Record&) = default;
    };
    enum class Source { file, drop, paste, emoji };
    // The new item, or why nothing was added (a sentence fragment: "is not an image").
    using Added = std::variant<Record, QString>;
    struct Loaded {
        QList<Record> records; // newest first
        QStringList skipped;   // folder names that did not read back
    };

    static constexpr qint64 maxFileBytes = 100'000'000;
    static constexpr qint64 maxPixels = 50'000'000;
    static constexpr int thumbSide = 256;
    static constexpr int maxLabelChars = 200;

    explicit MineLibrary(QString root);
    // $XDG_DATA_HOME/Glimmet/Mine
    static QString defaultRoot();
    const QString& root() const { return m_root; }

    // Every item that reads back, newest first; removes unfinished writes of earlier runs.
    Loaded load();
    std::optional<Record> record(const QString& id) const;

    // A copy of the image file at `path`. The label starts as the file's name.
    Added addFile(const QString& path, Source source);
    // Encoded image bytes (a drop or the clipboard offering "image/png" and the like).
    Added addData(const QByteArray& bytes, Source source, const QString& label = {});
    // A decoded image (what a program put on the clipboard as a picture), kept as PNG.
    Added addImage(const QImage& image, Source source, const QString& label = {});
    // One emoji character (as Emoji::split gives it), drawn with the colour emoji font.
    Added addEmoji(const QString& emoji);

    // Both return the updated record; none when the item is gone or cannot be written.
    std::optional<Record> setLabel(const QString& id, const QString& label);
    std::optional<Record> setOcr(const QString& id, const QString& words);
    // Deletes the item's folder. False when it is not there or could not be deleted.
    bool remove(const QString& id);

    // The words Tesseract reads on the image at `path` with some confidence, in reading
    // order and separated by spaces; empty when there are none.
    static QString readWords(const QString& path, OcrEngine& engine);

    QString folder(const QString& id) const;
    QString imagePath(const Record& record) const;
    // The item as the picker shows it: label in `description`, words read in `ocr_text`,
    // the emoji's name in `keywords` and the character in `character`; images as file URLs.
    Meme toMeme(const Record& record) const;

    static QByteArray encodeRecord(const Record& record);
    static std::optional<Record> decodeRecord(const QByteArray& json);

private:
    struct Prepared {
        QByteArray image;
        QString extension;
        QImage decoded;
    };
    Added store(const Prepared& prepared, Source source, const QString& label,
                const QString& emoji = {}, const QString& emojiName = {});
    std::optional<Record> rewrite(const QString& id, const std::function<void(Record&)>& change);
    static std::variant<Prepared, QString> prepare(const QByteArray& bytes);

    QString m_root;
};

// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QUrl>

// Who produced an item's image references. Only the program's own local libraries
// (imported collections, the user's "g_" items) may point at files on this computer.
enum class ImageOrigin { remote, local };

// Where one image of an item (its `thumb` or its `full`) can be had.
struct ImageLocation {
    enum class Kind { missing, localFile, remote };
    Kind kind = Kind::missing;
    QString localPath; // kind localFile
    QUrl url;          // kind remote
    QString fileName;  // last path component; empty when missing

    bool isMissing() const { return kind == Kind::missing; }
    bool isRemote() const { return kind == Kind::remote; }
    bool isLocalFile() const { return kind == Kind::localFile; }
    // The file name without its last extension ("Foo.JPG" → "Foo").
    QString baseName() const;
    // The last extension, lower-cased ("Foo.JPG" → "jpg"); empty when there is none.
    QString suffix() const;
};

// Turns an image reference from a catalog record into a location.
//
// A "file://" reference is honoured only for ImageOrigin::local; from a remote document it
// is a missing image, so a server can never make the program read or paste a local file.
// Anything else is a path below `base`, taken literally component by component ("%2e" stays
// three characters). "." is dropped and ".." steps back, but a reference that would climb
// above `base`, contains a backslash or has no file name is missing: a catalog can only name
// files on its own server, below its own base.
namespace ImageSource {
ImageLocation locate(const QUrl& base, const QString& reference, ImageOrigin origin);
} // namespace ImageSource

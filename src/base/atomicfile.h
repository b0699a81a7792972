// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>

// Replaces the file at `path` with `data` as a whole: readers see the old file or the new
// one, never a half-written one. Creates missing parent folders. Returns false on failure.
bool writeFileAtomically(const QString& path, const QByteArray& data);

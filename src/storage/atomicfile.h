#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

// Whole-file writes that a reader never sees half done: the bytes go to a temporary file beside
// the target, are flushed to disk, and the temporary file then takes the target's place. The
// result is readable and writable by its owner only, since everything we write holds either
// API keys or conversations.
namespace AtomicFile {

// Returns nothing on success, or the system's description of why the write failed; the old
// file, if any, is then left whole.
std::optional<QString> write(const QString &path, const QByteArray &bytes);

// Makes an existing file readable by its owner only. Returns false when that failed.
bool restrictToOwner(const QString &path);

} // namespace AtomicFile

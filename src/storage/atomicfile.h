#pragma once

#include <QByteArray>
#include <QIODevice>
#include <QString>

#include <functional>
#include <optional>

// Whole-file writes that a reader never sees half done: the bytes go to a temporary file beside
// the target, are flushed to disk, and the temporary file then takes the target's place. The
// result is readable and writable by its owner only, since everything we write holds either
// API keys or conversations.
namespace AtomicFile {

// Returns nothing on success, or the system's description of why the write failed; the old
// file, if any, is then left whole.
std::optional<QString> write(const QString &path, const QByteArray &bytes);
// The same, with the content written piece by piece by produce, which returns false as soon as a
// write to the device fails.
std::optional<QString> write(const QString &path, const std::function<bool(QIODevice &)> &produce);

// The time stamp in the name of something kept aside ("20250114-093012"), in local time: copies of an
// unreadable history and of an unreadable provider list are named alike.
QString asideStamp();

// Makes an existing file readable by its owner only. Returns false when that failed.
bool restrictToOwner(const QString &path);

} // namespace AtomicFile

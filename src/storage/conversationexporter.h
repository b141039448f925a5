#pragma once

#include "model/conversation.h"

#include <QString>

#include <optional>

class FileDialogs;

// One conversation as a Markdown transcript, written to a file the user picks.
namespace ConversationExporter {

// The document: title, an information line (local "yyyy-MM-dd HH:mm" of updatedAt, then the
// provider name and model when a provider name is given), then each message under its heading.
QString markdown(const Conversation &conversation, const std::optional<QString> &providerName,
                 const std::optional<QString> &model);

// A file-name stem: each of / \ : ? % * | " < > becomes "-", white space is trimmed from both
// ends, and an empty result becomes "conversation".
QString sanitizedFileName(const QString &name);

// Asks for a place with a save dialog and writes the transcript there atomically. Returns nothing
// on success or cancel, or "Export failed: …" with the reason.
std::optional<QString> exportTranscript(const Conversation &conversation, const std::optional<QString> &providerName,
                                        const std::optional<QString> &model, FileDialogs &dialogs);

} // namespace ConversationExporter

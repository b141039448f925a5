#pragma once

#include "model/conversation.h"
#include "model/provider.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <optional>

class ConversationStore;
class FileDialogs;
class ProviderStore;

namespace Json {
class Value;
class Writer;
} // namespace Json

// The whole configuration, every provider with its API key and every conversation, in one
// pretty-printed JSON file with sorted keys, and back.
namespace ConfigArchive {

struct Payload
{
    qint64 version = 1;
    QList<Provider> providers;
    QList<Conversation> conversations;

    friend bool operator==(const Payload &, const Payload &) = default;
};

// The archive's bytes: pretty, sorted keys, escaped slashes.
QByteArray encode(const Payload &payload);

// Asks for a place with a save dialog and writes a snapshot of both stores there (taken before
// the dialog opens), owner-only. Returns nothing on success or cancel, or "Export failed: …".
std::optional<QString> exportConfig(const ProviderStore &providers, const ConversationStore &conversations,
                                    FileDialogs &dialogs);

// Asks for a file with an open dialog and merges it into both stores by id. A file that cannot be
// read or whose any part fails to decode changes nothing and returns "Import failed: …", and so
// does a history that could not be saved. The providers are saved in the background, however many
// there are: a failure to save them comes later, through the provider store's lastSaveErrorChanged().
std::optional<QString> importConfig(ProviderStore &providers, ConversationStore &conversations, FileDialogs &dialogs);

} // namespace ConfigArchive

// All three keys are required on decode; the version is read but not checked.
void toJson(Json::Writer &w, const ConfigArchive::Payload &payload);
bool fromJson(const Json::Value &v, ConfigArchive::Payload &out, QString &error);

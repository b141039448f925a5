#include "storage/configarchive.h"

#include "model/jsoncoding.h"
#include "storage/atomicfile.h"
#include "storage/conversationstore.h"
#include "storage/filedialogs.h"
#include "storage/providerstore.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>

using namespace JsonCoding;

namespace ConfigArchive {

QByteArray encode(const Payload &payload)
{
    return encodeJson(payload, Json::WriteOptions::prettySorted());
}

std::optional<QString> exportConfig(const ProviderStore &providers, const ConversationStore &conversations,
                                    FileDialogs &dialogs)
{
    Payload payload;
    payload.version = 1;
    payload.providers = providers.providers();
    payload.conversations = conversations.conversations();

    SaveDialogRequest request;
    request.title = QCoreApplication::translate("ConfigArchive", "Export Config");
    request.message =
        QCoreApplication::translate("ConfigArchive", "Includes API keys in plain text — keep this file safe.");
    request.suggestedName = QStringLiteral("verbolt-config.json");
    request.nameFilters = {QCoreApplication::translate("ConfigArchive", "JSON (*.json)")};
    const std::optional<QString> path = dialogs.saveFileName(request);
    if (!path || path->isEmpty())
        return std::nullopt;

    if (const auto error = AtomicFile::write(*path, encode(payload)))
        return QStringLiteral("Export failed: ") + *error;
    return std::nullopt;
}

std::optional<QString> importConfig(ProviderStore &providers, ConversationStore &conversations, FileDialogs &dialogs)
{
    OpenDialogRequest request;
    request.title = QCoreApplication::translate("ConfigArchive", "Import Config");
    request.nameFilters = {QCoreApplication::translate("ConfigArchive", "JSON (*.json)")};
    const std::optional<QString> path = dialogs.openFileName(request);
    if (!path || path->isEmpty())
        return std::nullopt;

    // A device or a pipe could be read for ever (or block until something writes to it).
    const QFileInfo info(*path);
    if (info.exists() && !info.isFile())
        return QStringLiteral("Import failed: ") +
               QCoreApplication::translate("ConfigArchive", "%1 is not a regular file.").arg(*path);
    QFile file(*path);
    if (!file.open(QIODevice::ReadOnly))
        return QStringLiteral("Import failed: ") + file.errorString();
    const QByteArray bytes = file.readAll();
    if (file.error() != QFileDevice::NoError)
        return QStringLiteral("Import failed: ") + file.errorString();

    QString error;
    const auto payload = decodeJson<Payload>(bytes, &error);
    if (!payload)
        return QStringLiteral("Import failed: ") + error;

    providers.merge(payload->providers);
    // An archive of providers alone leaves the history as it is, and does not wait on its save.
    if (payload->conversations.isEmpty())
        return std::nullopt;
    conversations.merge(payload->conversations);
    // An import is a save the user can repeat: a failure is told, not dropped.
    conversations.waitForSaved();
    if (const auto error = conversations.lastSaveError())
        return QStringLiteral("Import failed: ") + *error;
    return std::nullopt;
}

} // namespace ConfigArchive

void toJson(Json::Writer &w, const ConfigArchive::Payload &payload)
{
    w.beginObject();
    w.key(QLatin1StringView("version"));
    w.integer(payload.version);
    w.key(QLatin1StringView("providers"));
    toJson(w, payload.providers);
    w.key(QLatin1StringView("conversations"));
    toJson(w, payload.conversations);
    w.endObject();
}

bool fromJson(const Json::Value &v, ConfigArchive::Payload &out, QString &error)
{
    if (!v.isObject()) {
        error = QStringLiteral("Expected an object for the configuration");
        return false;
    }
    ConfigArchive::Payload payload;
    const Json::Value version = v["version"];
    if (!version.isValid()) {
        error = missingKey("version");
        return false;
    }
    const auto number = version.toInt64();
    if (!version.isNumber() || !number) {
        error = wrongType("version", "a whole number");
        return false;
    }
    payload.version = *number;

    if (!readList(v, "providers", payload.providers, error) ||
        !readList(v, "conversations", payload.conversations, error))
        return false;
    out = std::move(payload);
    return true;
}

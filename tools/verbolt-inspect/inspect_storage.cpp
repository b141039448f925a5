// Subcommands over the stores and the exports: store, new-chat, transcript, filename,
// archive-export, archive-import, decode archive.
#include "inspect.h"
#include "model/jsoncoding.h"
#include "storage/configarchive.h"
#include "storage/conversationexporter.h"
#include "storage/conversationstore.h"
#include "storage/filedialogs.h"
#include "storage/keyring.h"
#include "storage/providerstore.h"

void Inspect::useKeyring(ProviderStore &providers)
{
    // Long enough for a keyring that starts on demand or asks to be unlocked; a keyring that never
    // answers leaves the keys the file holds.
    constexpr int keyringWaitMs = 30000;
    providers.useKeyring(new Keyring);
    providers.waitForKeys(keyringWaitMs);
}

namespace {

// Answers every dialog with the path given on the command line.
class FixedAnswerDialogs final : public FileDialogs
{
public:
    explicit FixedAnswerDialogs(QString path)
        : m_path(std::move(path))
    {}
    std::optional<QString> saveFileName(const SaveDialogRequest &) override { return m_path; }
    std::optional<QString> openFileName(const OpenDialogRequest &) override { return m_path; }

private:
    QString m_path;
};

QByteArray optionalIdJson(const std::optional<QUuid> &id)
{
    if (!id)
        return QByteArrayLiteral("null");
    return '"' + JsonCoding::uuidText(*id).toLatin1() + '"';
}

// Printed a conversation at a time, messages as stored: a large history is never held twice.
int store(const QStringList &args)
{
    if (!args.isEmpty())
        return Inspect::usage(QStringLiteral("store takes no arguments"));
    ProviderStore providers;
    Inspect::useKeyring(providers);
    const ConversationStore conversations;
    Inspect::printRaw("{\"providers\":" + encodeJson(providers.providers()) +
                      ",\"selectedProviderID\":" + optionalIdJson(providers.selectedID()) + ",\"conversations\":[");
    bool first = true;
    for (const Conversation &conversation : conversations.conversations()) {
        Inspect::printRaw((first ? QByteArray() : QByteArrayLiteral(",")) + encodeStored(conversation));
        first = false;
    }
    Inspect::printLine("],\"selectedConversationID\":" + optionalIdJson(conversations.selectedID()) + '}');
    return 0;
}

int newChat(const QStringList &args)
{
    if (!Inspect::checkOptions(args, {QStringLiteral("--provider-id")}))
        return 2;
    std::optional<QUuid> providerID;
    if (const auto text = Inspect::option(args, QStringLiteral("--provider-id"))) {
        providerID = JsonCoding::parseUuid(*text);
        if (!providerID)
            return Inspect::usage(QStringLiteral("--provider-id needs a UUID"));
    }
    ConversationStore conversations;
    Inspect::printLine(encodeJson(conversations.newChat(providerID)));
    return 0;
}

int transcript(const QStringList &args)
{
    if (!Inspect::checkOptions(args, {QStringLiteral("--provider-name"), QStringLiteral("--model")}))
        return 2;
    const auto providerName = Inspect::option(args, QStringLiteral("--provider-name"));
    const auto model = Inspect::option(args, QStringLiteral("--model"));
    const Json::Document doc = Inspect::readStdinJson();
    Conversation conversation;
    QString error;
    if (!fromJson(doc.root(), conversation, error))
        return Inspect::fail(error);
    Inspect::printRaw(ConversationExporter::markdown(conversation, providerName, model).toUtf8());
    return 0;
}

int filename(const QStringList &args)
{
    if (!args.isEmpty())
        return Inspect::usage(QStringLiteral("filename takes no arguments"));
    QByteArray input = Inspect::readStdin();
    if (input.endsWith('\n'))
        input.chop(1);
    Inspect::printRaw(ConversationExporter::sanitizedFileName(QString::fromUtf8(input)).toUtf8());
    return 0;
}

std::optional<QString> fileArgument(const QStringList &args)
{
    if (!Inspect::checkOptions(args, {QStringLiteral("--file")}))
        return std::nullopt;
    const auto file = Inspect::option(args, QStringLiteral("--file"));
    if (!file)
        Inspect::usage(QStringLiteral("--file is required"));
    return file;
}

int finish(const std::optional<QString> &failure)
{
    if (failure)
        return Inspect::fail(*failure);
    Inspect::printLine(QByteArrayLiteral("{}"));
    return 0;
}

int archiveExport(const QStringList &args)
{
    const auto file = fileArgument(args);
    if (!file)
        return 2;
    ProviderStore providers;
    Inspect::useKeyring(providers);
    const ConversationStore conversations;
    FixedAnswerDialogs dialogs(*file);
    return finish(ConfigArchive::exportConfig(providers, conversations, dialogs));
}

int archiveImport(const QStringList &args)
{
    const auto file = fileArgument(args);
    if (!file)
        return 2;
    // Imported keys go where the other keys live.
    ProviderStore providers;
    Inspect::useKeyring(providers);
    ConversationStore conversations;
    FixedAnswerDialogs dialogs(*file);
    return finish(ConfigArchive::importConfig(providers, conversations, dialogs));
}

int decodeArchive(const QStringList &)
{
    const Json::Document doc = Inspect::readStdinJson();
    ConfigArchive::Payload payload;
    QString error;
    if (!fromJson(doc.root(), payload, error))
        return Inspect::fail(error);
    Inspect::printLine(ConfigArchive::encode(payload));
    return 0;
}

} // namespace

VERBOLT_INSPECT_COMMAND("store", store);
VERBOLT_INSPECT_COMMAND("new-chat", newChat);
VERBOLT_INSPECT_COMMAND("transcript", transcript);
VERBOLT_INSPECT_COMMAND("filename", filename);
VERBOLT_INSPECT_COMMAND("archive-export", archiveExport);
VERBOLT_INSPECT_COMMAND("archive-import", archiveImport);
VERBOLT_INSPECT_DECODER("archive", decodeArchive);

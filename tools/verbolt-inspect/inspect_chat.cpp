// The chat view model's subcommand: turn.
#include "chat/chatviewmodel.h"
#include "inspect.h"
#include "model/jsoncoding.h"
#include "storage/conversationstore.h"
#include "storage/providerstore.h"

#include <QEventLoop>

namespace {

std::optional<Conversation> storedConversation(const ConversationStore &chats, const std::optional<QUuid> &id)
{
    const Conversation *found = id ? chats.find(*id) : nullptr;
    if (!found)
        return std::nullopt;
    return *found;
}

// One turn as a main window runs it: the store's selected conversation (a new one when none is
// selected), the provider store's selected provider, and the view model in between.
int turn(const QStringList &args)
{
    if (!Inspect::checkOptions(args, {QStringLiteral("--text"), QStringLiteral("--conversation")}))
        return 2;
    const auto text = Inspect::option(args, QStringLiteral("--text"));
    if (!text)
        return Inspect::usage(QStringLiteral("turn needs --text"));
    std::optional<QUuid> conversationID;
    if (const auto raw = Inspect::option(args, QStringLiteral("--conversation"))) {
        conversationID = JsonCoding::parseUuid(*raw);
        if (!conversationID)
            return Inspect::usage(QStringLiteral("--conversation needs a UUID"));
    }

    ProviderStore providers;
    Inspect::useKeyring(providers);
    ConversationStore chats;
    if (conversationID) {
        if (!storedConversation(chats, conversationID))
            return Inspect::fail(QStringLiteral("No conversation has the id ") + JsonCoding::uuidText(*conversationID));
        chats.setSelectedID(conversationID);
    }

    ChatViewModel chat;
    chat.setStore(&chats);
    chat.activate(chats.selected());
    if (!chats.selectedID())
        chat.activate(chats.newChat(providers.selectedID()));

    QEventLoop loop;
    chat.setOnStreamEnd([&] {
        if (!chat.isStreaming())
            loop.quit();
    });
    chat.setInput(*text);
    chat.send(providers.selected());
    if (chat.isStreaming())
        loop.exec();

    Json::Writer w;
    w.beginObject();
    w.key(QLatin1StringView("messages"));
    toJson(w, chat.messages());
    w.key(QLatin1StringView("errorText"));
    if (const auto error = chat.errorText())
        w.string(*error);
    else
        w.null();
    w.key(QLatin1StringView("conversation"));
    if (const auto stored = storedConversation(chats, chats.selectedID()))
        toJson(w, *stored);
    else
        w.null();
    w.endObject();
    Inspect::printLine(w.data());
    return 0;
}

} // namespace

VERBOLT_INSPECT_COMMAND("turn", turn);

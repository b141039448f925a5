// Subcommands over the records: title, decode message|usage|provider|conversation.
#include "inspect.h"
#include "model/conversation.h"
#include "model/jsoncoding.h"
#include "model/provider.h"

namespace {

template<typename T>
int decodeRecord(const QStringList &)
{
    const Json::Document doc = Inspect::readStdinJson();
    T record;
    QString error;
    if (!fromJson(doc.root(), record, error))
        return Inspect::fail(error);
    Inspect::printLine(encodeJson(record));
    return 0;
}

int title(const QStringList &args)
{
    if (!args.isEmpty())
        return Inspect::usage(QStringLiteral("title takes no arguments"));
    const Json::Document doc = Inspect::readStdinJson();
    QList<ChatMessage> messages;
    QString error;
    if (!fromJson(doc.root(), messages, error))
        return Inspect::fail(error);
    const auto derived = Conversation::derivedTitle(messages);
    Json::Writer w;
    if (derived)
        w.string(*derived);
    else
        w.null();
    Inspect::printLine(w.data());
    return 0;
}

} // namespace

VERBOLT_INSPECT_COMMAND("title", title);
VERBOLT_INSPECT_DECODER("message", decodeRecord<ChatMessage>);
VERBOLT_INSPECT_DECODER("usage", decodeRecord<TokenUsage>);
VERBOLT_INSPECT_DECODER("provider", decodeRecord<Provider>);
VERBOLT_INSPECT_DECODER("conversation", decodeRecord<Conversation>);

// Subcommands that talk to a provider over the network: chat, fetch-models, and the offline
// halves of the model list service, models-request and models-parse.
#include "inspect.h"
#include "model/jsoncoding.h"
#include "transport/chatstream.h"
#include "transport/modelsfetch.h"
#include "transport/modelsservice.h"

#include <QEventLoop>

namespace {

// Reads {"provider": P} and, when messages is given, {"messages": [M...]} from stdin.
std::optional<int> readInput(Provider &provider, QList<ChatMessage> *messages)
{
    const Json::Document doc = Inspect::readStdinJson();
    QString error;
    if (!doc.root().isObject())
        return Inspect::fail(messages ? QStringLiteral("Expected an object with \"provider\" and \"messages\"")
                                      : QStringLiteral("Expected an object with \"provider\""));
    if (!fromJson(doc.root()["provider"], provider, error))
        return Inspect::fail(JsonCoding::prefixed(QStringLiteral("provider"), error));
    if (messages && !fromJson(doc.root()["messages"], *messages, error))
        return Inspect::fail(JsonCoding::prefixed(QStringLiteral("messages"), error));
    return std::nullopt;
}

QByteArray modelList(const QStringList &models)
{
    Json::Writer w;
    w.beginObject();
    w.key(QLatin1StringView("models"));
    w.beginArray();
    for (const QString &model : models)
        w.string(model);
    w.endArray();
    w.endObject();
    return w.take();
}

QByteArray eventLine(const ChatEvent &event)
{
    Json::Writer w;
    w.beginObject();
    if (event.kind == ChatEvent::Kind::delta) {
        w.key(QLatin1StringView("delta"));
        w.string(event.text);
    } else {
        w.key(QLatin1StringView("usage"));
        toJson(w, event.usage);
    }
    w.endObject();
    return w.take();
}

int chat(const QStringList &args)
{
    if (!Inspect::checkOptions(args, {QStringLiteral("--cancel-after")}))
        return 2;
    std::optional<int> cancelAfter;
    if (const auto raw = Inspect::option(args, QStringLiteral("--cancel-after"))) {
        bool ok = false;
        cancelAfter = raw->toInt(&ok);
        if (!ok || *cancelAfter < 0)
            return Inspect::usage(QStringLiteral("--cancel-after needs a whole number of events"));
    }
    Provider provider;
    QList<ChatMessage> messages;
    if (const auto failed = readInput(provider, &messages))
        return *failed;

    QEventLoop loop;
    int events = 0;
    ChatStream *stream = ChatService().stream(provider, messages, &loop);
    QObject::connect(stream, &ChatStream::eventReceived, &loop, [&](const ChatEvent &event) {
        Inspect::printLine(eventLine(event));
        if (cancelAfter && ++events == *cancelAfter)
            stream->cancel();
    });
    QObject::connect(stream, &ChatStream::finished, &loop, [&](const std::optional<ServiceError> &error) {
        Json::Writer w;
        w.beginObject();
        w.key(QLatin1StringView("end"));
        w.string(QLatin1StringView(error ? "error" : "normal"));
        if (error) {
            w.key(QLatin1StringView("error"));
            w.string(errorDescription(*error));
        }
        w.endObject();
        Inspect::printLine(w.data());
        loop.quit();
    });
    if (cancelAfter && *cancelAfter == 0)
        stream->cancel();
    loop.exec();
    return 0;
}

int fetchModels(const QStringList &args)
{
    if (!args.isEmpty())
        return Inspect::usage(QStringLiteral("fetch-models takes no arguments"));
    Provider provider;
    if (const auto failed = readInput(provider, nullptr))
        return *failed;

    QEventLoop loop;
    ModelsFetch::Result result;
    ModelsFetch *running = ModelsService().fetchModels(provider, &loop);
    QObject::connect(running, &ModelsFetch::finished, &loop, [&](const ModelsFetch::Result &outcome) {
        result = outcome;
        loop.quit();
    });
    loop.exec();
    if (const auto *error = std::get_if<ServiceError>(&result))
        return Inspect::fail(errorDescription(*error));
    Inspect::printLine(modelList(std::get<QStringList>(result)));
    return 0;
}

int modelsRequest(const QStringList &args)
{
    if (!args.isEmpty())
        return Inspect::usage(QStringLiteral("models-request takes no arguments"));
    Provider provider;
    if (const auto failed = readInput(provider, nullptr))
        return *failed;
    const auto built = ModelsService::makeRequest(provider);
    if (const auto *failure = std::get_if<ChatServiceError>(&built))
        return Inspect::fail(failure->errorDescription());
    Inspect::printLine(Inspect::describeRequest(std::get<HttpRequest>(built)));
    return 0;
}

int modelsParse(const QStringList &args)
{
    if (!Inspect::checkOptions(args, {QStringLiteral("--status")}))
        return 2;
    const auto raw = Inspect::option(args, QStringLiteral("--status"));
    bool ok = false;
    const int status = raw ? raw->toInt(&ok) : 0;
    if (!ok)
        return Inspect::usage(QStringLiteral("models-parse needs --status N"));
    const auto parsed = ModelsService::parseResponse(status, Inspect::readStdin());
    if (const auto *failure = std::get_if<ChatServiceError>(&parsed))
        return Inspect::fail(failure->errorDescription());
    Inspect::printLine(modelList(std::get<QStringList>(parsed)));
    return 0;
}

} // namespace

VERBOLT_INSPECT_COMMAND("chat", chat);
VERBOLT_INSPECT_COMMAND("fetch-models", fetchModels);
VERBOLT_INSPECT_COMMAND("models-request", modelsRequest);
VERBOLT_INSPECT_COMMAND("models-parse", modelsParse);

// One whole turn at full speed: the 20,000-token reply streamed over loopback in pieces of about
// four characters, through the chat view model into the transcript and the conversation file.
// The provider runs on a thread of its own so that the main thread's CPU time is the client's.
#include "chat/chatviewmodel.h"
#include "harness.h"
#include "providerthread.h"
#include "storage/conversationstore.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QFile>
#include <QTemporaryDir>

#include <cstdio>
#include <ctime>
#include <vector>

namespace {

struct TurnFigures
{
    int updates = 0;
    double mainCpu = 0;
    double processCpu = 0;
    double wallMs = 0;
    qsizetype replyLength = 0;
};

// Each turn starts from an empty conversation file, so every run saves the same amount.
TurnFigures runTurn(const QString &storeFile, const Provider &provider)
{
    QFile::remove(storeFile);
    ConversationStore store(storeFile);
    ChatViewModel chat;
    chat.setStore(&store);
    chat.activate(store.newChat(provider.id));

    TurnFigures figures;
    QString lastContent;
    QObject::connect(&chat, &ChatViewModel::messagesChanged, &chat, [&] {
        const QList<ChatMessage> &messages = chat.messages();
        if (messages.isEmpty() || messages.last().role != ChatRole::assistant)
            return;
        if (messages.last().content != lastContent) {
            lastContent = messages.last().content;
            ++figures.updates;
        }
    });
    QEventLoop loop;
    chat.setOnStreamEnd([&] {
        if (!chat.isStreaming())
            loop.quit();
    });

    QElapsedTimer wall;
    wall.start();
    const double mainStart = Bench::threadCpuSeconds();
    const double processStart = Bench::processCpuSeconds();
    chat.setInput(QStringLiteral("Write the long answer."));
    chat.send(provider);
    loop.exec();
    figures.mainCpu = Bench::threadCpuSeconds() - mainStart;
    figures.processCpu = Bench::processCpuSeconds() - processStart;
    figures.wallMs = double(wall.nsecsElapsed()) / 1e6;
    figures.replyLength = chat.messages().last().content.size();
    if (chat.errorText())
        std::fprintf(stderr, "bench_chat: the turn failed: %s\n", qPrintable(*chat.errorText()));
    return figures;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);

    QFile file(Bench::longReplyFile());
    if (!file.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "bench_chat: cannot read %s\n", qPrintable(file.fileName()));
        return 1;
    }
    MockProviderOptions options;
    options.reply = QString::fromUtf8(file.readAll());
    const qsizetype tokens = MockProvider::tokens(options.reply, options.charactersPerToken).size();

    Bench::ProviderThread providerThread(options);
    if (!providerThread.isListening()) {
        std::fprintf(stderr, "bench_chat: the provider cannot listen\n");
        return 1;
    }
    const Provider provider = providerThread.provider();

    QTemporaryDir dir;
    const QString storeFile = dir.filePath(QStringLiteral("conversations.json"));

    int status = 0;
    runTurn(storeFile, provider); // warm-up
    std::vector<double> updates, mainCpu, processCpu, wall;
    for (int run = 0; run < 7; ++run) {
        const TurnFigures f = runTurn(storeFile, provider);
        if (f.replyLength != options.reply.size()) {
            std::fprintf(stderr, "bench_chat: the reply arrived incomplete (%lld of %lld)\n",
                         static_cast<long long>(f.replyLength), static_cast<long long>(options.reply.size()));
            status = 1;
        }
        updates.push_back(f.updates);
        mainCpu.push_back(f.mainCpu);
        processCpu.push_back(f.processCpu);
        wall.push_back(f.wallMs);
    }
    const double perThousand = 1000.0 / double(tokens);
    Bench::report("chat turn: tokens streamed", double(tokens), "tokens");
    Bench::report("chat turn: transcript updates (median)", Bench::median(updates), "updates");
    Bench::report("chat turn: main-thread CPU per 1k tokens", Bench::median(mainCpu) * 1000 * perThousand, "ms");
    Bench::report("chat turn: process CPU per 1k tokens (+provider)", Bench::median(processCpu) * 1000 * perThousand,
                  "ms");
    Bench::report("chat turn: wall time", Bench::median(wall), "ms");

    return status;
}

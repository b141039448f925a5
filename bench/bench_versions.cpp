// Versions of a conversation's turns, at the sizes the window must stay quick with: switching the
// version of a reply, and of an early prompt (which swaps the rest of the conversation), in a
// conversation of 1,000 messages with 50 versions, on the main thread with a real transcript; and
// loading the 50 MB history (the shared generator's) before and after versions are added to a tenth
// of its conversations.
#include "chat/chatviewmodel.h"
#include "harness.h"
#include "model/jsoncoding.h"
#include "model/versions.h"
#include "storage/conversationstore.h"
#include "storage/historyfile.h"
#include "ui/scrollcontroller.h"
#include "ui/transcriptview.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QSaveFile>
#include <QTemporaryDir>

#include <cstdio>

namespace {

QList<ChatMessage> longConversation(int messages, int versions)
{
    QList<ChatMessage> list;
    for (int i = 0; i < messages; ++i) {
        const bool user = i % 2 == 0;
        list.append(
            ChatMessage(user ? ChatRole::user : ChatRole::assistant,
                        user ? QStringLiteral("Question %1: how does the cache behave?").arg(i)
                             : QStringLiteral("Answer %1 with **Markdown**, `code` and a list:\n\n- one\n- two").arg(i),
                        user ? std::nullopt : std::optional(TokenUsage{100, 50, 150})));
    }
    // 50 versions of the last reply, and of the prompt in the middle with the 500 messages after it.
    const qsizetype middle = messages / 2;
    for (int v = 1; v < versions; ++v) {
        // Each later version of the prompt has a short branch of its own: the prompt and one reply.
        list = MessageVersioning::addVersion(
            list, middle, ChatMessage(ChatRole::user, QStringLiteral("Edited question, take %1").arg(v)));
        list.append(ChatMessage(ChatRole::assistant, QStringLiteral("Reply to take %1").arg(v)));
    }
    list = MessageVersioning::showVersion(list, middle, 0);
    for (int v = 1; v < versions; ++v)
        list = MessageVersioning::addVersion(list, list.size() - 1,
                                             ChatMessage(ChatRole::assistant, QStringLiteral("Retry %1").arg(v)));
    return list;
}

// Every tenth conversation gets three more versions of its last reply and one of its first prompt.
QList<Conversation> withVersions(QList<Conversation> list)
{
    for (qsizetype c = 0; c < list.size(); c += 10) {
        QList<ChatMessage> messages = list.at(c).messages;
        if (messages.size() < 2)
            continue;
        for (int v = 0; v < 3; ++v) {
            ChatMessage retry = messages.last();
            retry.id = QUuid::createUuid();
            retry.content = QStringLiteral("Another take. ") + retry.content;
            retry.versions = nullptr;
            messages = MessageVersioning::addVersion(messages, messages.size() - 1, retry);
        }
        qsizetype firstUser = 0;
        while (firstUser < messages.size() && messages.at(firstUser).role != ChatRole::user)
            ++firstUser;
        if (firstUser < messages.size()) {
            messages = MessageVersioning::addVersion(messages, firstUser,
                                                     ChatMessage(ChatRole::user, QStringLiteral("Rephrased question")));
            messages.append(ChatMessage(ChatRole::assistant, QStringLiteral("A reply to the rephrased question.")));
            messages = MessageVersioning::showVersion(messages, firstUser, 0);
        }
        list[c].messages = messages;
    }
    return list;
}

double loadMs(const QString &path, qsizetype &loaded)
{
    return Bench::medianMs(5, [&] {
        ConversationStore store(path);
        loaded = store.conversations().size();
    });
}

} // namespace

int main(int argc, char *argv[])
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    QTemporaryDir dir;
    if (!dir.isValid())
        return 1;

    // Switching, on the main thread, with a transcript bound to the view model.
    ConversationStore store(dir.filePath(QStringLiteral("switch.json")));
    const Conversation conversation = store.newChat(std::nullopt);
    store.updateMessages(conversation.id, longConversation(1000, 50));
    ChatViewModel chat;
    chat.setStore(&store);
    ScrollController scroll;
    TranscriptView view(&chat, &scroll);
    view.resize(900, 700);
    view.show();
    chat.activate(store.selected());
    QCoreApplication::processEvents();
    Bench::report("messages shown", double(chat.messages().size()), "");
    Bench::report("versions of the last reply", double(MessageVersioning::versionCount(chat.messages().last())), "");

    int target = 0;
    const double replySwitch = Bench::medianMs(21, [&] {
        chat.showVersion(chat.messages().size() - 1, target = (target + 7) % 50);
        QCoreApplication::processEvents();
    });
    Bench::report("switch a reply's version (aim: 16)", replySwitch, "ms");
    const qsizetype middle = 500;
    // Back and forth between the long original branch and one of the short ones.
    int take = 0;
    target = 0;
    const double promptSwitch = Bench::medianMs(21, [&] {
        target = target == 0 ? 1 + (take++ % 49) : 0;
        chat.showVersion(middle, target);
        QCoreApplication::processEvents();
    });
    Bench::report("switch a prompt's version, rest swapped (aim: 16)", promptSwitch, "ms");
    store.waitForSaved();

    // Loading the history, without and with versions.
    const QString plain = dir.filePath(QStringLiteral("plain.json"));
    if (!Bench::generateHistory(plain)) {
        std::fprintf(stderr, "bench_versions: no history generator in %s\n", qPrintable(Bench::dataDir()));
        return 1;
    }
    const HistoryFile::ReadResult read = HistoryFile::read(plain);
    const QString versioned = dir.filePath(QStringLiteral("versions.json"));
    {
        QSaveFile file(versioned);
        if (!file.open(QIODevice::WriteOnly) || file.write(encodeJson(withVersions(read.conversations))) < 0 ||
            !file.commit())
            return 1;
    }
    Bench::report("history without versions", double(QFile(plain).size()) / 1e6, "MB");
    Bench::report("history with versions on a tenth", double(QFile(versioned).size()) / 1e6, "MB");
    qsizetype loaded = 0;
    const double plainLoad = loadMs(plain, loaded);
    Bench::report("load without versions", plainLoad, "ms");
    const double versionedLoad = loadMs(versioned, loaded);
    Bench::report("load with versions", versionedLoad, "ms");
    Bench::report("conversations loaded", double(loaded), "");
    Bench::report("load with / without versions", versionedLoad / plainLoad, "x");
    return 0;
}

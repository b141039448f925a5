#include "chat/chatviewmodel.h"
#include "loopbackserver.h"
#include "mockprovider.h"
#include "model/json.h"
#include "storage/conversationstore.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

namespace {

// A clock that moves on by `step` seconds each time it is read. The view model reads it once
// per streamed fragment, so `step` is how far apart the fragments arrive.
struct SteppingClock
{
    double now = 1000;
    double step = 0;
};

Provider provider(const QString &baseURL, ProviderWire wire = ProviderWire::openAI,
                  const QString &key = QStringLiteral("sk-test"))
{
    Provider p;
    p.id = QUuid::createUuid();
    p.name = QStringLiteral("Loopback");
    p.wire = wire;
    p.baseURL = baseURL;
    p.model = QStringLiteral("m");
    p.apiKey = key;
    return p;
}

QByteArray openAIDelta(const QByteArray &text)
{
    return R"(data: {"choices":[{"delta":{"content":")" + text + "\"}}]}\n\n";
}

// Every content the reply took in turn: one entry per transcript update of the reply's text.
class ReplyRecorder
{
public:
    explicit ReplyRecorder(ChatViewModel &vm)
    {
        QObject::connect(&vm, &ChatViewModel::messagesChanged, &vm, [this, &vm] {
            const QList<ChatMessage> &messages = vm.messages();
            if (messages.isEmpty() || messages.last().role != ChatRole::assistant)
                return;
            const ChatMessage &reply = messages.last();
            if (reply.id != m_replyID) {
                m_replyID = reply.id;
                m_content = reply.content;
                return;
            }
            if (reply.content != m_content)
                updates.append(m_content = reply.content);
        });
    }
    QStringList updates;

private:
    QUuid m_replyID;
    QString m_content;
};

QList<ChatMessage> storedMessages(const ConversationStore &store, const QUuid &id)
{
    for (const Conversation &c : store.conversations()) {
        if (c.id == id)
            return c.messages;
    }
    return {};
}

} // namespace

class tst_ChatViewModel final : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void guards_data();
    void guards();
    void sendWhileStreaming_isIgnored();
    void send_savesUserMessageAndSendsEverythingButThePlaceholder();
    void throttle_data();
    void throttle();
    void usage_data();
    void usage();
    void endings_data();
    void endings();
    void stop_keepsAndSavesPartialReply();
    void stopThenSendAtOnce_savesStoppedReplyFirst();
    void activateOtherDuringStream_leavesFirstWithUserMessage();
    void storeGone_keepsTranscriptInMemory();
    void destroyedDuringStream_endsQuietly();

private:
    // Runs one turn and waits for its end.
    bool runTurn(const QString &text, const std::optional<Provider> &p);

    QTemporaryDir m_home;
    std::unique_ptr<ConversationStore> m_store;
    std::unique_ptr<ChatViewModel> m_vm;
    std::unique_ptr<LoopbackServer> m_server;
    SteppingClock m_clock;
    Conversation m_conversation;
    int m_streamEnds = 0;
};

void tst_ChatViewModel::initTestCase()
{
    QVERIFY(m_home.isValid());
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(m_home.filePath(QStringLiteral("config"))));
    qputenv("XDG_DATA_HOME", QFile::encodeName(m_home.filePath(QStringLiteral("data"))));
}

void tst_ChatViewModel::init()
{
    static int run = 0;
    m_store = std::make_unique<ConversationStore>(m_home.filePath(QStringLiteral("c%1.json").arg(++run)));
    m_server = std::make_unique<LoopbackServer>();
    QVERIFY(m_server->listen());
    m_clock = SteppingClock{1000, 1}; // fragments far apart unless a test says otherwise
    m_streamEnds = 0;
    m_vm = std::make_unique<ChatViewModel>();
    m_vm->setClock([clock = &m_clock] { return std::exchange(clock->now, clock->now + clock->step); });
    m_vm->setStore(m_store.get());
    m_vm->setOnStreamEnd([this] { ++m_streamEnds; });
    m_conversation = m_store->newChat(std::nullopt);
    m_vm->activate(m_conversation);
    m_streamEnds = 0;
}

void tst_ChatViewModel::cleanup()
{
    m_vm.reset();
    m_server.reset();
    m_store.reset();
}

bool tst_ChatViewModel::runTurn(const QString &text, const std::optional<Provider> &p)
{
    const int endsBefore = m_streamEnds;
    m_vm->setInput(text);
    m_vm->send(p);
    if (!m_vm->isStreaming())
        return false;
    return QTest::qWaitFor([&] { return m_streamEnds > endsBefore && !m_vm->isStreaming(); }, 10000);
}

void tst_ChatViewModel::guards_data()
{
    QTest::addColumn<QString>("input");
    QTest::addColumn<bool>("withProvider");
    QTest::addColumn<bool>("withConversation");
    QTest::addColumn<std::optional<QString>>("errorText");

    QTest::newRow("blank input") << QStringLiteral(" \n\t  \n") << true << true << std::optional<QString>();
    QTest::newRow("no provider") << QStringLiteral("hi") << false << true
                                 << std::optional<QString>(QStringLiteral("Pick a provider first (Settings ⌘,)."));
    QTest::newRow("no conversation") << QStringLiteral("hi") << true << false << std::optional<QString>();
}

// A refused send changes nothing but the error, keeps the composer's text and reaches no provider.
void tst_ChatViewModel::guards()
{
    QFETCH(QString, input);
    QFETCH(bool, withProvider);
    QFETCH(bool, withConversation);
    QFETCH(std::optional<QString>, errorText);

    if (!withConversation)
        m_vm->activate(std::nullopt);
    const QList<ChatMessage> before = m_vm->messages();
    const auto p = withProvider ? std::optional<Provider>(provider(m_server->url(QStringLiteral("/v1")).toString()))
                                : std::nullopt;
    m_vm->setInput(input);
    m_vm->send(p);

    QCOMPARE(m_vm->errorText(), errorText);
    QCOMPARE(m_vm->input(), input);
    QCOMPARE(m_vm->messages(), before);
    QVERIFY(!m_vm->isStreaming());
    QTest::qWait(50);
    QCOMPARE(m_server->connectionCount(), 0);
    QVERIFY(storedMessages(*m_store, m_conversation.id).isEmpty());

    if (errorText) {
        // The next send that gets through clears the error.
        m_server->setResponse(LoopbackResponse::eventStream({openAIDelta("ok"), "data: [DONE]\n\n"}));
        QVERIFY(runTurn(input, provider(m_server->url(QStringLiteral("/v1")).toString())));
        QCOMPARE(m_vm->errorText(), std::nullopt);
    }
}

void tst_ChatViewModel::sendWhileStreaming_isIgnored()
{
    LoopbackResponse silent;
    silent.neverAnswer = true;
    m_server->setResponse(silent);
    const Provider p = provider(m_server->url(QStringLiteral("/v1")).toString());
    m_vm->setInput(QStringLiteral("first"));
    m_vm->send(p);
    QVERIFY(m_vm->isStreaming());
    QTRY_COMPARE(m_server->requests().size(), 1);

    m_vm->setInput(QStringLiteral("second"));
    m_vm->send(p);
    QCOMPARE(m_vm->messages().size(), 2);
    QCOMPARE(m_vm->input(), QStringLiteral("second"));
    QTest::qWait(50);
    QCOMPARE(m_server->connectionCount(), 1);
}

void tst_ChatViewModel::send_savesUserMessageAndSendsEverythingButThePlaceholder()
{
    Conversation earlier = m_conversation;
    earlier.messages = {ChatMessage(ChatRole::system, QStringLiteral("be brief")),
                        ChatMessage(ChatRole::user, QStringLiteral("q")),
                        ChatMessage(ChatRole::assistant, QStringLiteral("a"), TokenUsage{1, 2, 3})};
    m_vm->activate(earlier);

    QList<ChatMessage> storedAtRequest;
    connect(m_server.get(), &LoopbackServer::requestReceived, this,
            [&] { storedAtRequest = storedMessages(*m_store, m_conversation.id); });
    m_server->setResponse(LoopbackResponse::eventStream({"data: [DONE]\n\n"}));
    QVERIFY(runTurn(QStringLiteral("  word  "), provider(m_server->url(QStringLiteral("/v1")).toString())));

    QCOMPARE(m_vm->input(), QString());
    const QList<ChatMessage> messages = m_vm->messages();
    QCOMPARE(messages.size(), 5);
    QCOMPARE(messages.at(3).role, ChatRole::user);
    QCOMPARE(messages.at(3).content, QStringLiteral("word"));
    QCOMPARE(messages.at(3).usage, std::nullopt);
    // The file held the user's message before the provider was asked, and the title came from it.
    QCOMPARE(storedAtRequest, messages.first(4));
    QCOMPARE(m_store->conversations().first().title, QStringLiteral("q"));

    Json::Parser parser;
    const QList<Json::Value> sent = parser.parse(m_server->requests().first().body)["messages"].elements();
    QStringList contents;
    for (const Json::Value &m : sent)
        contents.append(m["content"].toString());
    QCOMPARE(contents, (QStringList{QStringLiteral("be brief"), QStringLiteral("q"), QStringLiteral("a"),
                                    QStringLiteral("word")}));
}

void tst_ChatViewModel::throttle_data()
{
    QTest::addColumn<double>("secondsBetweenFragments");
    QTest::addColumn<QStringList>("updates");

    // Pending text with no later fragment waits for the end of the reply: there is no timer.
    QTest::newRow("three within 10 ms") << 0.003 << QStringList{QStringLiteral("abc")};
    QTest::newRow("60 ms apart") << 0.06
                                 << QStringList{QStringLiteral("a"), QStringLiteral("ab"), QStringLiteral("abc")};
    QTest::newRow("30 ms apart") << 0.03 << QStringList{QStringLiteral("ab"), QStringLiteral("abc")};
}

void tst_ChatViewModel::throttle()
{
    QFETCH(double, secondsBetweenFragments);
    QFETCH(QStringList, updates);

    m_server->setResponse(
        LoopbackResponse::eventStream({openAIDelta("a"), openAIDelta("b"), openAIDelta("c"), "data: [DONE]\n\n"}, 5));
    m_clock.step = secondsBetweenFragments;
    ReplyRecorder recorder(*m_vm);
    QVERIFY(runTurn(QStringLiteral("go"), provider(m_server->url(QStringLiteral("/v1")).toString())));
    QCOMPARE(recorder.updates, updates);
    QCOMPARE(storedMessages(*m_store, m_conversation.id).last().content, QStringLiteral("abc"));
}

void tst_ChatViewModel::usage_data()
{
    QTest::addColumn<ProviderWire>("wire");
    QTest::addColumn<QList<QByteArray>>("body"); // empty: the mock provider's own stream
    QTest::addColumn<bool>("hasTotal");

    QTest::newRow("anthropic: prompt, then completion") << ProviderWire::anthropic << QList<QByteArray>() << false;
    QTest::newRow("openAI: one usage chunk") << ProviderWire::openAI << QList<QByteArray>() << true;
    QTest::newRow("openAI: prompt, then completion and total")
        << ProviderWire::openAI
        << QList<QByteArray>{openAIDelta("x"),
                             R"(data: {"choices":[],"usage":{"prompt_tokens":7}})"
                             "\n\n",
                             R"(data: {"choices":[],"usage":{"completion_tokens":5,"total_tokens":12}})"
                             "\n\n",
                             "data: [DONE]\n\n"}
        << true;
}

// Counts reported piecemeal add up on the reply without erasing one another, and are saved.
void tst_ChatViewModel::usage()
{
    QFETCH(ProviderWire, wire);
    QFETCH(QList<QByteArray>, body);
    QFETCH(bool, hasTotal);

    MockProvider mock;
    QVERIFY(mock.listen());
    if (!body.isEmpty())
        mock.server().setResponse(LoopbackResponse::eventStream(body));
    QVERIFY(runTurn(QStringLiteral("count me"), provider(mock.baseURL(), wire)));

    const ChatMessage reply = m_vm->messages().last();
    QVERIFY(reply.usage.has_value());
    QVERIFY(reply.usage->promptTokens.has_value());
    QVERIFY(reply.usage->completionTokens.has_value());
    QCOMPARE(reply.usage->totalTokens.has_value(), hasTotal);
    if (body.isEmpty())
        QCOMPARE(reply.content, mock.options().reply);
    QCOMPARE(storedMessages(*m_store, m_conversation.id).last(), reply);
    QCOMPARE(m_store->conversations().first().title, QStringLiteral("count me"));
}

void tst_ChatViewModel::endings_data()
{
    QTest::addColumn<LoopbackResponse>("response");
    QTest::addColumn<QString>("baseURL"); // empty: the loopback server
    QTest::addColumn<QString>("key");
    QTest::addColumn<std::optional<QString>>("reply"); // nullopt: no reply left in the transcript
    QTest::addColumn<QString>("errorStart");           // empty: no error

    const QString key = QStringLiteral("sk-test");
    LoopbackResponse unauthorized = LoopbackResponse::text(401, "{\"error\":\n\"bad key\"}\n");
    LoopbackResponse dropped =
        LoopbackResponse::eventStream({openAIDelta("par"), openAIDelta("tial"), openAIDelta("x")});
    dropped.framing = LoopbackResponse::Framing::contentLength;
    dropped.dropAfterPieces = 2;

    QTest::newRow("HTTP error before any text")
        << unauthorized << QString() << key << std::optional<QString>()
        << QStringLiteral("Provider returned HTTP 401: {\"error\":\"bad key\"}");
    QTest::newRow("missing key") << LoopbackResponse() << QString() << QString() << std::optional<QString>()
                                 << QStringLiteral(
                                        "No API key set for this provider. Open Settings and paste your key.");
    QTest::newRow("invalid base URL") << LoopbackResponse() << QStringLiteral("  ") << key << std::optional<QString>()
                                      << QStringLiteral("The provider Base URL is empty or invalid.");
    QTest::newRow("transfer cut after some text")
        << dropped << QString() << key << std::optional<QString>(QStringLiteral("partial")) << QStringLiteral("?");
    QTest::newRow("normal end without text") << LoopbackResponse::eventStream({"data: [DONE]\n\n"}) << QString() << key
                                             << std::optional<QString>(QString()) << QString();
}

// However a reply ends, the transcript in memory and in the file agree, and the window hears of it once.
void tst_ChatViewModel::endings()
{
    QFETCH(LoopbackResponse, response);
    QFETCH(QString, baseURL);
    QFETCH(QString, key);
    QFETCH(std::optional<QString>, reply);
    QFETCH(QString, errorStart);

    m_server->setResponse(response);
    const QString base = baseURL.isNull() ? m_server->url(QStringLiteral("/v1")).toString() : baseURL;
    QVERIFY(runTurn(QStringLiteral("hello"), provider(base, ProviderWire::openAI, key)));

    QCOMPARE(m_streamEnds, 1);
    if (errorStart.isEmpty()) {
        QCOMPARE(m_vm->errorText(), std::nullopt);
    } else {
        QVERIFY(m_vm->errorText().has_value());
        // A transfer failure is worded by the network stack; only its presence is ours to check.
        if (errorStart != u"?")
            QCOMPARE(*m_vm->errorText(), errorStart);
    }
    const QList<ChatMessage> messages = m_vm->messages();
    QCOMPARE(messages.size(), reply ? 2 : 1);
    QCOMPARE(messages.first().content, QStringLiteral("hello"));
    if (reply) {
        QCOMPARE(messages.last().role, ChatRole::assistant);
        QCOMPARE(messages.last().content, *reply);
    }
    QCOMPARE(storedMessages(*m_store, m_conversation.id), messages);
}

void tst_ChatViewModel::stop_keepsAndSavesPartialReply()
{
    m_server->setHandler([](const LoopbackRequest &) {
        LoopbackResponse r = LoopbackResponse::eventStream({openAIDelta("a"), openAIDelta("b"), openAIDelta("never")});
        r.pieces[2].delayMs = 60000;
        return r;
    });
    m_vm->setInput(QStringLiteral("long one"));
    m_vm->send(provider(m_server->url(QStringLiteral("/v1")).toString()));
    QTRY_COMPARE(m_vm->messages().last().content, QStringLiteral("ab"));

    m_vm->stop();
    QVERIFY(!m_vm->isStreaming());
    QCOMPARE(m_streamEnds, 1);
    QTRY_COMPARE(m_streamEnds, 2);
    QCOMPARE(m_vm->messages().last().content, QStringLiteral("ab"));
    QCOMPARE(m_vm->errorText(), std::nullopt);
    QCOMPARE(storedMessages(*m_store, m_conversation.id), m_vm->messages());
}

void tst_ChatViewModel::stopThenSendAtOnce_savesStoppedReplyFirst()
{
    int request = 0;
    m_server->setHandler([&request](const LoopbackRequest &) {
        if (++request == 1) {
            LoopbackResponse r = LoopbackResponse::eventStream({openAIDelta("cut"), openAIDelta("never")});
            r.pieces[1].delayMs = 60000;
            return r;
        }
        return LoopbackResponse::eventStream({openAIDelta("whole"), "data: [DONE]\n\n"});
    });
    const Provider p = provider(m_server->url(QStringLiteral("/v1")).toString());
    m_vm->setInput(QStringLiteral("one"));
    m_vm->send(p);
    QTRY_COMPARE(m_vm->messages().last().content, QStringLiteral("cut"));

    // By the time the second request arrives the stopped reply has wound down; the second turn
    // must be streaming still, with the stopped reply's end already reported.
    std::optional<std::pair<bool, int>> atSecondRequest;
    connect(m_server.get(), &LoopbackServer::requestReceived, this,
            [&] { atSecondRequest = std::pair(m_vm->isStreaming(), m_streamEnds); });
    m_vm->stop();
    QVERIFY(runTurn(QStringLiteral("two"), p));
    QCOMPARE(atSecondRequest, std::optional(std::pair(true, 2)));

    QStringList contents;
    for (const ChatMessage &m : m_vm->messages())
        contents.append(m.content);
    QCOMPARE(contents, (QStringList{QStringLiteral("one"), QStringLiteral("cut"), QStringLiteral("two"),
                                    QStringLiteral("whole")}));
    QVERIFY(!m_vm->isStreaming());
    QCOMPARE(m_streamEnds, 3); // stop, the stopped reply's end, the second reply's end
    QCOMPARE(storedMessages(*m_store, m_conversation.id), m_vm->messages());
}

void tst_ChatViewModel::activateOtherDuringStream_leavesFirstWithUserMessage()
{
    const Conversation other = m_store->newChat(std::nullopt);
    m_server->setHandler([](const LoopbackRequest &) {
        LoopbackResponse r = LoopbackResponse::eventStream({openAIDelta("a"), openAIDelta("never")});
        r.pieces[1].delayMs = 60000;
        return r;
    });
    m_vm->setInput(QStringLiteral("first question"));
    m_vm->send(provider(m_server->url(QStringLiteral("/v1")).toString()));
    QTRY_COMPARE(m_vm->messages().last().content, QStringLiteral("a"));

    m_vm->setInput(QStringLiteral("draft"));
    m_vm->activate(other);
    QCOMPARE(m_vm->messages(), other.messages);
    QCOMPARE(m_vm->input(), QStringLiteral("draft"));
    QVERIFY(!m_vm->isStreaming());
    QTest::qWait(50); // the cut-off reply's end step runs meanwhile

    QCOMPARE(m_streamEnds, 1);
    QCOMPARE(m_vm->messages(), other.messages);
    const QList<ChatMessage> first = storedMessages(*m_store, m_conversation.id);
    QCOMPARE(first.size(), 1);
    QCOMPARE(first.last().content, QStringLiteral("first question"));
    QVERIFY(storedMessages(*m_store, other.id).isEmpty());

    // With nothing shown, sends are ignored until a conversation is activated.
    m_vm->activate(std::nullopt);
    QVERIFY(m_vm->messages().isEmpty());
}

void tst_ChatViewModel::storeGone_keepsTranscriptInMemory()
{
    m_server->setResponse(LoopbackResponse::eventStream({openAIDelta("still here"), "data: [DONE]\n\n"}));
    m_vm->setInput(QStringLiteral("hello"));
    m_vm->send(provider(m_server->url(QStringLiteral("/v1")).toString()));
    m_store.reset();
    QVERIFY(!m_vm->store());
    QTRY_COMPARE(m_streamEnds, 1);
    QCOMPARE(m_vm->messages().size(), 2);
    QCOMPARE(m_vm->messages().last().content, QStringLiteral("still here"));
}

// A window closed mid-reply takes its view model along; the transfer must not call back into it.
void tst_ChatViewModel::destroyedDuringStream_endsQuietly()
{
    m_server->setHandler([](const LoopbackRequest &) {
        LoopbackResponse r = LoopbackResponse::eventStream({openAIDelta("a"), openAIDelta("b")});
        r.pieces[1].delayMs = 100;
        return r;
    });
    m_vm->setInput(QStringLiteral("bye"));
    m_vm->send(provider(m_server->url(QStringLiteral("/v1")).toString()));
    QTRY_COMPARE(m_vm->messages().last().content, QStringLiteral("a"));
    m_vm.reset();
    QTest::qWait(200);
    QCOMPARE(m_streamEnds, 0);
    QCOMPARE(storedMessages(*m_store, m_conversation.id).size(), 1);
}

QTEST_GUILESS_MAIN(tst_ChatViewModel)
#include "tst_chatviewmodel.moc"

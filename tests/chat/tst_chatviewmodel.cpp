#include "chat/chatviewmodel.h"
#include "loopbackserver.h"
#include "model/json.h"
#include "model/jsoncoding.h"
#include "model/versions.h"
#include "storage/conversationstore.h"
#include "storagetestsupport.h"

#include <QTest>

#include <memory>

using namespace Qt::StringLiterals;
using StorageTest::contents;

namespace {

QByteArray delta(const QByteArray &text)
{
    return R"(data: {"choices":[{"delta":{"content":")" + text + "\"}}]}\n\n";
}

// The pieces go out at once, except the last one, which waits delayMs.
LoopbackResponse stalling(const QList<QByteArray> &pieces, int delayMs = 60000)
{
    LoopbackResponse response = LoopbackResponse::eventStream(pieces);
    response.pieces.last().delayMs = delayMs;
    return response;
}

// How many messages the list holds, hidden versions included, counting each copy.
qsizetype countAll(const QList<ChatMessage> &messages)
{
    return encodeJson(messages).count("\"id\":");
}

struct TurnCase
{
    LoopbackResponse response = {};
    QStringList transcript;
    QString error = {}; // "?": worded by the network stack
    std::optional<TokenUsage> usage = {};
};

enum class Interruption { stopped, otherConversation, viewModelGone, storeGone };

} // namespace

Q_DECLARE_METATYPE(TurnCase)
Q_DECLARE_METATYPE(Interruption)

class tst_ChatViewModel final : public QObject
{
    Q_OBJECT

    Provider loopback() const
    {
        const QString url = m_server->url(u"/v1"_s).toString();
        return {QUuid::createUuid(), {}, ProviderWire::openAI, url, u"m"_s, {}, u"sk-test"_s};
    }
    void start(const QString &text, const std::optional<Provider> &p)
    {
        m_vm->setInput(text);
        m_vm->send(p);
    }
    // Runs one turn and waits for its end.
    bool runTurn(const QString &text, const Provider &p)
    {
        const int endsBefore = m_streamEnds;
        start(text, p);
        return m_vm->isStreaming() &&
               QTest::qWaitFor([&] { return m_streamEnds > endsBefore && !m_vm->isStreaming(); }, 10000);
    }
    QList<ChatMessage> stored(const QUuid &id) const
    {
        const Conversation *c = m_store->find(id);
        return c ? c->messages.list() : QList<ChatMessage>();
    }
    // The contents of the messages the nth request sent.
    QStringList sent(qsizetype request) const
    {
        Json::Parser parser;
        QStringList all;
        for (const Json::Value &m : parser.parse(m_server->requests().at(request).body)["messages"].elements())
            all.append(m["content"].toString());
        return all;
    }
    // Answers the requests with these responses in turn, and any later ones with the last.
    void serveInTurn(const QList<LoopbackResponse> &responses)
    {
        m_server->setHandler([responses, next = qsizetype(0)](const LoopbackRequest &) mutable {
            return responses.at(std::min(next++, responses.size() - 1));
        });
    }
    // A window on the store, showing the selected conversation. The view model reads the clock once
    // per fragment; each reading moves it on by m_step.
    std::unique_ptr<ChatViewModel> window()
    {
        auto other = std::make_unique<ChatViewModel>();
        other->setClock([this] { return std::exchange(m_now, m_now + m_step); });
        other->setStore(m_store.get());
        other->activate(m_store->selected());
        return other;
    }

    StorageTest::Profile m_profile;
    std::unique_ptr<ConversationStore> m_store;
    std::unique_ptr<ChatViewModel> m_vm;
    std::unique_ptr<LoopbackServer> m_server;
    double m_now = 0;
    double m_step = 0; // how far apart, in seconds, the fragments of a reply arrive
    Conversation m_conversation;
    int m_streamEnds = 0;

private slots:
    void init()
    {
        static int run = 0;
        m_store = std::make_unique<ConversationStore>(m_profile.root() + u"/c%1.json"_s.arg(++run));
        m_server = std::make_unique<LoopbackServer>();
        QVERIFY(m_server->listen());
        m_now = 1000;
        m_step = 1;
        m_conversation = m_store->newChat(std::nullopt);
        m_vm = window();
        m_streamEnds = 0;
        m_vm->setOnStreamEnd([this] { ++m_streamEnds; });
    }
    void cleanup()
    {
        m_vm.reset();
        m_server.reset();
        m_store.reset();
    }

    void refused_data()
    {
        QTest::addColumn<QString>("action"); // send, regenerate or edit
        QTest::addColumn<int>("index");      // of the message edited
        QTest::addColumn<QString>("text");   // sent, or the edited text
        QTest::addColumn<QString>("state");  // besides the first turn: no provider, no conversation, streaming
        QTest::addColumn<bool>("error");

        const QString send = u"send"_s, regenerate = u"regenerate"_s, edit = u"edit"_s, none;
        QTest::newRow("send blank input") << send << 0 << u" \n\t  \n"_s << none << false;
        QTest::newRow("send without provider") << send << 0 << u"hi"_s << u"no provider"_s << true;
        QTest::newRow("send without conversation") << send << 0 << u"hi"_s << u"no conversation"_s << false;
        QTest::newRow("send while a reply streams") << send << 0 << u"second"_s << u"streaming"_s << false;
        QTest::newRow("regenerate without provider") << regenerate << 0 << none << u"no provider"_s << true;
        QTest::newRow("regenerate while a reply streams") << regenerate << 0 << none << u"streaming"_s << false;
        QTest::newRow("regenerate after the question") << regenerate << 0 << none << u"question only"_s << false;
        QTest::newRow("edit without provider") << edit << 0 << u"x"_s << u"no provider"_s << true;
        QTest::newRow("edit while a reply streams") << edit << 0 << u"x"_s << u"streaming"_s << false;
        QTest::newRow("edit a reply") << edit << 1 << u"x"_s << none << false;
        QTest::newRow("edit to blank") << edit << 0 << u" \n"_s << none << false;
        QTest::newRow("edit out of range") << edit << 7 << u"x"_s << none << false;
    }
    // A refused send, regenerate or edit changes nothing but the error, keeps the composer's text and
    // reaches no provider; the next turn that gets through clears the error.
    void refused()
    {
        QFETCH(QString, action);
        QFETCH(int, index);
        QFETCH(QString, text);
        QFETCH(QString, state);
        QFETCH(bool, error);

        m_server->setResponse(LoopbackResponse::eventStream({delta("r")}));
        QVERIFY(runTurn(u"q"_s, loopback()));
        if (state == u"streaming") {
            m_server->setResponse(LoopbackResponse::silent());
            start(u"first"_s, loopback());
            QTRY_COMPARE(m_server->requests().size(), 2);
        } else if (state == u"no conversation") {
            m_vm->activate(std::nullopt);
        } else if (state == u"question only") {
            Conversation asked = m_conversation;
            asked.messages = {ChatMessage(ChatRole::user, u"q"_s)};
            m_vm->activate(asked);
        }
        const QList<ChatMessage> before = m_vm->messages();
        const QList<ChatMessage> storedBefore = stored(m_conversation.id);
        const int connections = m_server->connectionCount();
        const std::optional<Provider> p = state == u"no provider" ? std::nullopt : std::optional(loopback());
        const QString input = action == u"send" ? text : u"draft"_s;
        m_vm->setInput(input);
        if (action == u"send")
            m_vm->send(p);
        else if (action == u"regenerate")
            m_vm->regenerate(p);
        else
            m_vm->editAndResend(index, text, p);

        QCOMPARE(m_vm->errorText(),
                 error ? std::optional(u"Pick a provider first (Settings Ctrl+,)."_s) : std::nullopt);
        QCOMPARE(m_vm->input(), input);
        QCOMPARE(m_vm->messages(), before);
        QCOMPARE(m_vm->isStreaming(), state == u"streaming");
        QTest::qWait(50);
        QCOMPARE(m_server->connectionCount(), connections);
        QCOMPARE(stored(m_conversation.id), storedBefore);

        if (error) {
            m_server->setResponse(LoopbackResponse::eventStream({delta("ok")}));
            QVERIFY(runTurn(u"next"_s, loopback()));
            QCOMPARE(m_vm->errorText(), std::nullopt);
        }
    }

    void throttle_data()
    {
        QTest::addColumn<double>("secondsBetweenFragments");
        QTest::addColumn<QStringList>("updates");
        // Pending text with no later fragment waits for the end of the reply: there is no timer.
        QTest::newRow("four within 10 ms") << 0.003 << QStringList{u"abcd"_s};
        QTest::newRow("60 ms apart") << 0.06 << QStringList{u"a"_s, u"ab"_s, u"abc"_s, u"abcd"_s};
        // The interval runs from the last update shown, not from the start of the reply.
        QTest::newRow("30 ms apart") << 0.03 << QStringList{u"ab"_s, u"abcd"_s};
    }
    void throttle()
    {
        QFETCH(double, secondsBetweenFragments);
        QFETCH(QStringList, updates);

        m_server->setResponse(LoopbackResponse::eventStream({delta("a"), delta("b"), delta("c"), delta("d")}, 5));
        m_step = secondsBetweenFragments;
        QStringList seen; // each text the reply showed, in turn
        connect(m_vm.get(), &ChatViewModel::messagesChanged, this, [&] {
            const QString shown = m_vm->messages().last().content;
            if (m_vm->messages().last().role == ChatRole::assistant && !shown.isEmpty() && !seen.endsWith(shown))
                seen.append(shown);
        });
        QVERIFY(runTurn(u"go"_s, loopback()));
        QCOMPARE(seen, updates);
        QCOMPARE(stored(m_conversation.id).last().content, u"abcd"_s);
    }

    void turn_data()
    {
        QTest::addColumn<TurnCase>("row");
        LoopbackResponse dropped = LoopbackResponse::eventStream({delta("par"), delta("tial"), delta("x")});
        dropped.framing = LoopbackResponse::Framing::contentLength;
        dropped.dropAfterPieces = 2;
        const QString hello = u"hello"_s;

        QTest::newRow("HTTP error before any text")
            << TurnCase{.response = LoopbackResponse::text(401, "{\"error\":\n\"bad key\"}\n"),
                        .transcript = {hello},
                        .error = u"Provider returned HTTP 401: {\"error\":\"bad key\"}"_s};
        QTest::newRow("transfer cut after some text")
            << TurnCase{.response = dropped, .transcript = {hello, u"partial"_s}, .error = u"?"_s};
        QTest::newRow("normal end without text") << TurnCase{
            .response = LoopbackResponse::eventStream({"data: [DONE]\n\n"}), .transcript = {hello, QString()}};
        // Counts reported piecemeal add up on the reply without erasing one another.
        QTest::newRow("openAI usage: prompt, then completion and total")
            << TurnCase{.response = LoopbackResponse::eventStream(
                            {delta("x"), "data: {\"usage\":{\"prompt_tokens\":7}}\n\n",
                             "data: {\"choices\":[],\"usage\":{\"completion_tokens\":5,\"total_tokens\":12}}\n\n"}),
                        .transcript = {hello, u"x"_s},
                        .usage = TokenUsage{7, 5, 12}};
    }
    // A turn saves the user's message before the provider is asked, sends the whole history but not
    // the reply's placeholder, and however the reply ends, the transcript in memory and in the file
    // agree and the window hears of it once.
    void turn()
    {
        QFETCH(TurnCase, row);
        Conversation earlier = m_conversation;
        earlier.messages = {ChatMessage(ChatRole::system, u"be brief"_s), ChatMessage(ChatRole::user, u"q"_s),
                            ChatMessage(ChatRole::assistant, u"a"_s, TokenUsage{1, 2, 3})};
        m_vm->activate(earlier);
        m_streamEnds = 0;
        QList<ChatMessage> storedAtRequest;
        connect(m_server.get(), &LoopbackServer::requestReceived, this,
                [&] { storedAtRequest = stored(m_conversation.id); });
        m_server->setResponse(row.response);
        QVERIFY(runTurn(u"  hello  "_s, loopback()));

        QCOMPARE(m_streamEnds, 1);
        QCOMPARE(m_vm->errorText().has_value(), !row.error.isEmpty());
        if (!row.error.isEmpty() && row.error != u"?")
            QCOMPARE(*m_vm->errorText(), row.error);
        const QList<ChatMessage> messages = m_vm->messages();
        QCOMPARE(contents(messages), QStringList({u"be brief"_s, u"q"_s, u"a"_s}) + row.transcript);
        QCOMPARE(messages.at(3).usage, std::nullopt);
        QCOMPARE(messages.last().usage, row.usage);
        QCOMPARE(stored(m_conversation.id), messages);
        QCOMPARE(storedAtRequest, messages.first(4));
        QCOMPARE(m_vm->input(), QString());
        QCOMPARE(sent(0), contents(messages.first(4)));
    }

    void stopThenSendAtOnce_keepsAndSavesStoppedReplyFirst()
    {
        serveInTurn({stalling({delta("cut"), delta("never")}), LoopbackResponse::eventStream({delta("whole")})});
        start(u"one"_s, loopback());
        QTRY_COMPARE(m_vm->messages().last().content, u"cut"_s);

        // Stopping ends streaming at once; the stopped reply's end follows once its transfer has wound
        // down, which must be before the next turn's request goes out.
        std::optional<std::pair<bool, int>> atSecondRequest;
        connect(m_server.get(), &LoopbackServer::requestReceived, this,
                [&] { atSecondRequest = std::pair(m_vm->isStreaming(), m_streamEnds); });
        m_vm->stop();
        QVERIFY(!m_vm->isStreaming());
        QCOMPARE(m_streamEnds, 1);
        QVERIFY(runTurn(u"two"_s, loopback()));
        QCOMPARE(atSecondRequest, std::optional(std::pair(true, 2)));

        QCOMPARE(contents(m_vm->messages()), (QStringList{u"one"_s, u"cut"_s, u"two"_s, u"whole"_s}));
        QCOMPARE(m_vm->errorText(), std::nullopt);
        QCOMPARE(m_streamEnds, 3);
        QCOMPARE(stored(m_conversation.id), m_vm->messages());
    }

    void interruptedMidReply_data()
    {
        QTest::addColumn<Interruption>("interruption");
        QTest::addColumn<bool>("regenerating");
        QTest::addColumn<int>("streamEnds");
        QTest::addColumn<QStringList>("shown"); // by the view model, if it is still there
        QTest::addColumn<QStringList>("saved"); // in the store, if it is still there

        const QStringList asked{u"first question"_s, u"a"_s}, none;
        using I = Interruption;
        // Switching ends the reply as a Stop does, and what arrived is saved where it belongs.
        QTest::newRow("other conversation shown") << I::otherConversation << false << 2 << none << asked;
        // A window closed mid-reply keeps what arrived, and the transfer never calls back into it.
        QTest::newRow("view model destroyed") << I::viewModelGone << false << 0 << none << asked;
        QTest::newRow("store destroyed: the transcript in memory goes on")
            << I::storeGone << false << 1 << QStringList{u"first question"_s, u"ab"_s} << none;
        // A regenerate cut off keeps what arrived as a version beside the first reply.
        QTest::newRow("regenerating, stopped") << I::stopped << true << 2 << asked << asked;
        QTest::newRow("regenerating, other conversation shown") << I::otherConversation << true << 2 << none << asked;
        QTest::newRow("regenerating, view model destroyed") << I::viewModelGone << true << 0 << none << asked;
    }
    void interruptedMidReply()
    {
        QFETCH(Interruption, interruption);
        QFETCH(bool, regenerating);
        QFETCH(int, streamEnds);
        QFETCH(QStringList, shown);
        QFETCH(QStringList, saved);

        const Conversation other = m_store->newChat(std::nullopt);
        const LoopbackResponse cut =
            stalling({delta("a"), "data: {\"usage\":{\"prompt_tokens\":7}}\n\n", delta("b")}, 100);
        if (regenerating) {
            m_server->setResponse(LoopbackResponse::eventStream({delta("whole")}));
            QVERIFY(runTurn(u"first question"_s, loopback()));
            m_server->setResponse(cut);
            m_streamEnds = 0;
            m_vm->regenerate(loopback());
        } else {
            m_server->setResponse(cut);
            start(u"first question"_s, loopback());
        }
        QTRY_COMPARE(m_vm->messages().last().content, u"a"_s);
        m_vm->setInput(u"draft"_s);
        if (interruption == Interruption::stopped) {
            m_vm->stop();
        } else if (interruption == Interruption::otherConversation) {
            m_vm->activate(other);
            QVERIFY(!m_vm->isStreaming());
        } else if (interruption == Interruption::viewModelGone) {
            m_vm.reset();
        } else {
            m_store.reset();
        }
        QTRY_COMPARE(m_streamEnds, streamEnds);
        QTest::qWait(200); // past the delayed piece

        QCOMPARE(m_streamEnds, streamEnds);
        if (m_vm) {
            QCOMPARE(contents(m_vm->messages()), shown);
            QCOMPARE(m_vm->input(), u"draft"_s);
        }
        if (m_store) {
            QCOMPARE(contents(stored(m_conversation.id)), saved);
            if (saved.size() == 2)
                QCOMPARE(stored(m_conversation.id).last().usage, std::optional(TokenUsage{7, {}, {}}));
            if (regenerating) {
                const QList<ChatMessage> versions = stored(m_conversation.id);
                QCOMPARE(MessageVersioning::versionCount(versions.last()), 2);
                QCOMPARE(MessageVersioning::showVersion(versions, 1, 0).last().content, u"whole"_s);
            }
            QVERIFY(stored(other.id).isEmpty());
        }
    }

    // A second window on the conversation shows the reply another streams as it grows, whether it was
    // opened before or during the reply, and never saves that reply itself.
    void otherViewModel_showsReplyAsItGrows()
    {
        LoopbackResponse slow = LoopbackResponse::eventStream({delta("a"), delta("b"), "data: [DONE]\n\n"});
        slow.pieces[1].delayMs = 300;
        slow.pieces[2].delayMs = 300;
        m_server->setResponse(slow);
        const auto before = window();
        start(u"q"_s, loopback());
        QTRY_COMPARE(m_vm->messages().last().content, u"a"_s);
        QCOMPARE(contents(before->messages()), (QStringList{u"a"_s}));

        const auto opened = window();
        QCOMPARE(contents(opened->messages()), (QStringList{u"q"_s, u"a"_s}));
        QTRY_COMPARE(contents(opened->messages()), (QStringList{u"q"_s, u"ab"_s}));
        QCOMPARE(opened->messages().last().id, m_vm->messages().last().id);
        QVERIFY(opened->messages().last().id != m_vm->messages().first().id);

        QTRY_VERIFY(!m_vm->isStreaming());
        QCOMPARE(contents(stored(m_conversation.id)), (QStringList{u"q"_s, u"ab"_s}));
        QVERIFY(m_store->liveReplies(m_conversation.id).isEmpty());
    }

    void systemPrompt_data()
    {
        QTest::addColumn<QStringList>("start"); // "s:" marks a system message
        QTest::addColumn<QString>("text");
        QTest::addColumn<QStringList>("result");
        QTest::newRow("added in front") << QStringList{u"q"_s} << u"be brief"_s << QStringList{u"s:be brief"_s, u"q"_s};
        QTest::newRow("changed in place")
            << QStringList{u"s:old"_s, u"q"_s} << u"new\nlines"_s << QStringList{u"s:new\nlines"_s, u"q"_s};
        QTest::newRow("blank removes") << QStringList{u"s:old"_s, u"q"_s} << u" \n"_s << QStringList{u"q"_s};
        // Only a system message at the very start is the prompt.
        QTest::newRow("a later system message is not it")
            << QStringList{u"q"_s, u"s:mid"_s} << u"p"_s << QStringList{u"s:p"_s, u"q"_s, u"s:mid"_s};
    }
    // The system prompt is the first message: set, changed in place (same id) or removed, and saved
    // at once.
    void systemPrompt()
    {
        QFETCH(QStringList, start);
        QFETCH(QString, text);
        QFETCH(QStringList, result);
        Conversation c = m_conversation;
        for (const QString &word : start) {
            const bool system = word.startsWith(u"s:");
            c.messages.append(ChatMessage(system ? ChatRole::system : ChatRole::user, system ? word.mid(2) : word));
        }
        m_store->updateMessages(c.id, c.messages);
        m_vm->activate(c);
        m_vm->setSystemPrompt(text);
        QStringList shown;
        for (const ChatMessage &m : m_vm->messages())
            shown.append((m.role == ChatRole::system ? u"s:"_s : QString()) + m.content);
        QCOMPARE(shown, result);
        QCOMPARE(stored(c.id), m_vm->messages());
        if (start.first().startsWith(u"s:") && result.first().startsWith(u"s:"))
            QCOMPARE(m_vm->messages().first().id, c.messages.first().id);
    }

    // Regenerating and resending make versions: what is sent is the path before the new message,
    // nothing earlier is lost in memory or in the file, and switching versions is saved too.
    void versions_regenerateEditAndSwitch()
    {
        QList<LoopbackResponse> replies;
        for (const QByteArray reply : {"r1", "r2", "r2b", "r1b"})
            replies.append(LoopbackResponse::eventStream({delta(reply)}));
        serveInTurn(replies << LoopbackResponse::text(500, "down"));
        QVERIFY(runTurn(u"q1"_s, loopback()));
        QVERIFY(runTurn(u"q2"_s, loopback()));
        QVERIFY(m_vm->canRegenerate());

        const int endsBefore = m_streamEnds;
        m_vm->regenerate(loopback());
        QVERIFY(m_vm->isStreaming() && !m_vm->canRegenerate());
        QTRY_VERIFY(m_streamEnds > endsBefore && !m_vm->isStreaming());
        QCOMPARE(contents(m_vm->messages()), (QStringList{u"q1"_s, u"r1"_s, u"q2"_s, u"r2b"_s}));
        QCOMPARE(MessageVersioning::versionCount(m_vm->messages().last()), 2);
        QCOMPARE(stored(m_conversation.id), m_vm->messages());
        QCOMPARE(sent(2), (QStringList{u"q1"_s, u"r1"_s, u"q2"_s}));

        m_vm->editAndResend(0, u"  q1b \n"_s, loopback());
        QVERIFY(m_vm->isStreaming());
        QTRY_VERIFY(!m_vm->isStreaming());
        QCOMPARE(contents(m_vm->messages()), (QStringList{u"q1b"_s, u"r1b"_s}));
        QCOMPARE(MessageVersioning::versionCount(m_vm->messages().first()), 2);

        m_vm->showVersion(0, 0);
        QCOMPARE(contents(m_vm->messages()), (QStringList{u"q1"_s, u"r1"_s, u"q2"_s, u"r2b"_s}));
        m_vm->showVersion(3, 0);
        QCOMPARE(contents(stored(m_conversation.id)), (QStringList{u"q1"_s, u"r1"_s, u"q2"_s, u"r2"_s}));
        QCOMPARE(m_server->requests().size(), 4);

        // A regenerate that fails with nothing shows again the version the user was looking at, not
        // merely the newest.
        m_vm->regenerate(loopback());
        QTRY_VERIFY(!m_vm->isStreaming());
        QVERIFY(m_vm->errorText());
        QCOMPARE(contents(stored(m_conversation.id)), (QStringList{u"q1"_s, u"r1"_s, u"q2"_s, u"r2"_s}));
        QCOMPARE(MessageVersioning::versionCount(stored(m_conversation.id).last()), 2);
    }

    // A regenerate in one window shows in another in the old reply's place, never beside it; a turn
    // sent there meanwhile is kept, and the old reply is saved once, as a hidden version.
    void twoViewModels_regenerateWhileTheOtherSends_savesEachMessageOnce()
    {
        serveInTurn({LoopbackResponse::eventStream({delta("one")}), stalling({delta("two"), "data: [DONE]\n\n"}, 300),
                     stalling({delta("other reply"), "data: [DONE]\n\n"}, 600)});
        QVERIFY(runTurn(u"q"_s, loopback()));
        const auto other = window();
        m_vm->regenerate(loopback());
        QTRY_COMPARE(contents(other->messages()), (QStringList{u"q"_s, u"two"_s}));
        QCOMPARE(other->messages().last().id, m_vm->messages().last().id);
        QVERIFY(!other->canRegenerate());

        other->setInput(u"meanwhile"_s);
        other->send(loopback());
        QVERIFY(other->isStreaming());
        QTRY_VERIFY_WITH_TIMEOUT(!m_vm->isStreaming() && !other->isStreaming(), 10000);
        const QList<ChatMessage> saved = stored(m_conversation.id);
        QCOMPARE(contents(saved), (QStringList{u"q"_s, u"two"_s, u"meanwhile"_s, u"other reply"_s}));
        QCOMPARE(contents(MessageVersioning::showVersion(saved, 1, 0)), (QStringList{u"q"_s, u"one"_s}));
        QCOMPARE(countAll(saved), MessageVersioning::allIDs(saved).size());
    }

    void twoViewModels_editWhileTheOtherStreams_data()
    {
        QTest::addColumn<bool>("otherEndsFirst");
        QTest::newRow("the other reply ends first") << true;
        QTest::newRow("the resent reply ends first") << false;
    }
    // A prompt edited and resent in one window while another streams a reply after it: the other
    // window's turn goes with the old version, whole and once, whichever reply ends first.
    void twoViewModels_editWhileTheOtherStreams()
    {
        QFETCH(bool, otherEndsFirst);
        const int otherDelay = otherEndsFirst ? 200 : 700;
        const int editDelay = otherEndsFirst ? 700 : 200;
        serveInTurn({LoopbackResponse::eventStream({delta("one")}),
                     stalling({delta("second "), delta("reply")}, otherDelay),
                     stalling({delta("edited reply"), "data: [DONE]\n\n"}, editDelay)});
        QVERIFY(runTurn(u"q"_s, loopback()));
        const auto other = window();
        other->setInput(u"second"_s);
        other->send(loopback());
        // This window takes in the other's saved prompt (its window reloads on a save) and its reply.
        m_vm->activate(m_store->selected());
        QTRY_COMPARE(contents(m_vm->messages()), (QStringList{u"q"_s, u"one"_s, u"second"_s, u"second "_s}));

        m_vm->editAndResend(0, u"q edited"_s, loopback());
        QVERIFY(m_vm->isStreaming());
        QTRY_VERIFY_WITH_TIMEOUT(!m_vm->isStreaming() && !other->isStreaming(), 10000);
        QCOMPARE(contents(m_vm->messages()), (QStringList{u"q edited"_s, u"edited reply"_s}));
        const QList<ChatMessage> saved = stored(m_conversation.id);
        QCOMPARE(contents(saved), (QStringList{u"q edited"_s, u"edited reply"_s}));
        QCOMPARE(contents(MessageVersioning::showVersion(saved, 0, 0)),
                 (QStringList{u"q"_s, u"one"_s, u"second"_s, u"second reply"_s}));
        QCOMPARE(countAll(saved), MessageVersioning::allIDs(saved).size());
    }
};

QTEST_GUILESS_MAIN(tst_ChatViewModel)
#include "tst_chatviewmodel.moc"

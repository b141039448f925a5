#include "ui/replyannouncer.h"
#include "uitestsupport.h"

#include <QAccessible>
#include <QApplication>
#include <QElapsedTimer>
#include <qpa/qplatformaccessibility.h>
#include <qpa/qplatformintegration.h>

#include <private/qguiapplication_p.h>

using namespace Qt::StringLiterals;

namespace {

struct Heard
{
    qint64 atMs;
    QString text;
};

QElapsedTimer sinceStart;
QList<Heard> heard;

// What a screen reader is told: a notification becoming shown, named by its text.
void listen(QAccessibleEvent *event)
{
    if (event->type() != QAccessible::ObjectShow)
        return;
    QAccessibleInterface *iface = event->accessibleInterface();
    if (iface && iface->role() == QAccessible::Notification)
        heard.append({sinceStart.elapsed(), iface->text(QAccessible::Name)});
}

QString paragraph(int i)
{
    return u"Paragraph %1 tells a **long** story. It has two sentences, and the second one is long enough "
           "to take a while to stream in over the network, as replies do."_s.arg(i);
}

} // namespace

// A screen reader hears the reply that streams into the active window, paced and in whole
// paragraphs, and its end; it hears nothing from a window the user is not in.
class tst_ReplyAnnouncer final : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        sinceStart.start();
        // No platform turns accessibility on by itself without a reader on the bus; the test is
        // the reader, as Qt's own accessibility tests are.
        if (!readers())
            QSKIP("this platform has no accessibility");
        QAccessible::installUpdateHandler(listen);
    }
    void init()
    {
        readers()->setActive(true);
        ReplyAnnouncer::setEnabled(true);
        heard.clear();
        m_t = std::make_unique<UiTest::StreamedTranscript>();
        QVERIFY(m_t->server.listen());
        m_t->view.announcer()->setIntervalMs(intervalMs);
        m_t->view.show();
        m_t->view.activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(&m_t->view));
    }
    void cleanup() { m_t.reset(); }

    // While a long reply streams, each announcement is whole paragraphs, in order and none twice,
    // at least the interval apart; its end brings the paragraphs not yet told, then the first
    // paragraph and the word count, so that every paragraph is heard.
    void longReplyIsToldInParagraphsThenSummed()
    {
        QList<QByteArray> pieces;
        QStringList paragraphs;
        for (int i = 1; i <= 8; ++i) {
            const QString p = paragraph(i);
            paragraphs.append(p);
            // Each paragraph arrives in two halves, the cut inside a sentence.
            pieces.append(UiTest::deltaEvent(p.left(50)));
            pieces.append(UiTest::deltaEvent(p.mid(50) + u"\n\n"_s));
        }
        m_t->send(pieces, 120);
        QTRY_VERIFY_WITH_TIMEOUT(!m_t->chat.isStreaming(), 30'000);
        QTRY_VERIFY_WITH_TIMEOUT(!heard.isEmpty() && heard.last().text.contains(u"Reply complete"_s), 10'000);

        QStringList shown;
        for (const QString &p : std::as_const(paragraphs))
            shown.append(QString(p).remove(u"**"_s));
        QVERIFY2(heard.size() >= 3, qPrintable(QString::number(heard.size())));
        QStringList told;
        for (const Heard &h : std::as_const(heard))
            told.append(h.text.split(u'\n'));
        const qsizetype words = shown.join(u' ').split(u' ', Qt::SkipEmptyParts).size();
        QCOMPARE(told.takeLast(), u"Reply complete, %1 words."_s.arg(words));
        QCOMPARE(told.takeLast(), shown.first());
        QCOMPARE(told, shown);
        for (qsizetype i = 1; i < heard.size(); ++i) {
            const qint64 gap = heard.at(i).atMs - heard.at(i - 1).atMs;
            QVERIFY2(gap >= intervalMs, qPrintable(QString::number(gap)));
        }
    }

    // A short reply is told once, when it ends, as it is shown; an error with its own text. Nothing
    // is heard from a window the user left, with the setting off, or with no reader.
    void endOfReply_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("reply");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<QString>("silencedBy");
        const QString reply = u"Hello from the **mock**.\n\n- one\n- two"_s;
        QTest::newRow("short reply") << 200 << reply << u"Hello from the mock.\n\u2022 one\n\u2022 two"_s << QString();
        QTest::newRow("code is named, not read")
            << 200 << u"Run this:\n```sh\nls\n```"_s << u"Run this:\nCode, sh, 1 line."_s << QString();
        // Link addresses make the Markdown long; what is shown is short, so it is told once, whole.
        const QString link = u"[the page](https://example.com/%1)"_s.arg(QString(300, u'a'));
        QTest::newRow("long Markdown, short text") << 200 << u"See %1.\n\nThen %1.\n\nDone."_s.arg(link)
                                                   << u"See the page.\nThen the page.\nDone."_s << QString();
        QTest::newRow("error") << 500 << QString() << QString() << QString();
        QTest::newRow("another window is active") << 200 << reply << QString() << u"inactive"_s;
        QTest::newRow("setting off") << 200 << reply << QString() << u"setting"_s;
        QTest::newRow("no screen reader") << 200 << reply << QString() << u"reader"_s;
    }
    void endOfReply()
    {
        QFETCH(int, status);
        QFETCH(QString, reply);
        QFETCH(QString, expected);
        QFETCH(QString, silencedBy);
        QWidget other;
        if (silencedBy == u"inactive"_s) {
            other.show();
            other.activateWindow();
            QVERIFY(QTest::qWaitForWindowActive(&other));
        } else if (silencedBy == u"setting"_s) {
            ReplyAnnouncer::setEnabled(false);
        } else if (silencedBy == u"reader"_s) {
            readers()->setActive(false);
        }
        if (status == 200) {
            // A paragraph at a time, so that a reply wrongly told in parts would be.
            QList<QByteArray> pieces;
            const QStringList paragraphs = reply.split(u"\n\n"_s);
            for (qsizetype i = 0; i < paragraphs.size(); ++i)
                pieces.append(
                    UiTest::deltaEvent(paragraphs.at(i) + (i + 1 < paragraphs.size() ? u"\n\n"_s : QString())));
            m_t->send(pieces, 150);
        } else {
            m_t->send({}, 0,
                      LoopbackResponse::text(status, "{\"error\":{\"message\":\"overloaded\"}}", "application/json"));
        }
        QTRY_VERIFY_WITH_TIMEOUT(!m_t->chat.isStreaming(), 30'000);
        if (!silencedBy.isEmpty()) {
            QTest::qWait(3 * intervalMs);
            QVERIFY(heard.isEmpty());
            return;
        }
        QTRY_COMPARE_WITH_TIMEOUT(heard.size(), 1, 10'000);
        if (status != 200) {
            QVERIFY(m_t->chat.errorText());
            expected = *m_t->chat.errorText();
        }
        QCOMPARE(heard.first().text, expected);
        // Nothing follows.
        QTest::qWait(3 * intervalMs);
        QCOMPARE(heard.size(), 1);
    }

private:
    static constexpr int intervalMs = 300;

    static QPlatformAccessibility *readers() { return QGuiApplicationPrivate::platformIntegration()->accessibility(); }

    StorageTest::Profile m_profile;
    std::unique_ptr<UiTest::StreamedTranscript> m_t;
};

QTEST_MAIN(tst_ReplyAnnouncer)
#include "tst_replyannouncer.moc"

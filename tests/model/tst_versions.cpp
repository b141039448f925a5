#include "model/jsoncoding.h"
#include "model/versions.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <QTest>

using namespace Qt::StringLiterals;
using namespace MessageVersioning;

namespace {

// A transcript written as "role:text" words, "u:" user, "a:" assistant, "s:" system; ids follow the
// text, so the same word is the same message.
QList<ChatMessage> path(const QStringList &words)
{
    QList<ChatMessage> messages;
    for (const QString &word : words) {
        const ChatRole role = word.startsWith(u"u:")   ? ChatRole::user
                              : word.startsWith(u"s:") ? ChatRole::system
                                                       : ChatRole::assistant;
        messages.append(ChatMessage(role, word.mid(2), std::nullopt, QUuid::createUuidV5(QUuid(), word.toUtf8())));
    }
    return messages;
}

QStringList words(const QList<ChatMessage> &messages)
{
    QStringList all;
    for (const ChatMessage &m : messages)
        all.append(m.content);
    return all;
}

// Each step: "add <index> <word>" makes a new version, "append <word>" continues the path shown,
// "show <index> <target>" switches; after each, the path shown and the switcher at index.
struct Step
{
    QString action;
    QStringList shown;
    std::pair<int, int> switcher = {0, 0}; // version (1-based) and count of the message the step names
};

QList<ChatMessage> apply(const QList<ChatMessage> &messages, const QString &action, qsizetype &index)
{
    const QStringList parts = action.split(u' ');
    if (parts[0] == u"append") {
        index = messages.size();
        return messages + path({parts[1]});
    }
    index = parts[1].toInt();
    if (parts[0] == u"add")
        return addVersion(messages, index, path({parts[2]}).first());
    return showVersion(messages, index, parts[2].toInt());
}

} // namespace

Q_DECLARE_METATYPE(QList<Step>)

class tst_Versions final : public QObject
{
    Q_OBJECT

private slots:
    void steps_data()
    {
        QTest::addColumn<QStringList>("start");
        QTest::addColumn<QList<Step>>("steps");
        const QStringList turn = {u"s:be brief"_s, u"u:q1"_s, u"a:r1"_s, u"u:q2"_s, u"a:r2"_s};

        QTest::newRow("regenerate the last reply twice, then walk back")
            << turn
            << QList<Step>{{u"add 4 a:r2b"_s, {u"be brief"_s, u"q1"_s, u"r1"_s, u"q2"_s, u"r2b"_s}, {2, 2}},
                           {u"add 4 a:r2c"_s, {u"be brief"_s, u"q1"_s, u"r1"_s, u"q2"_s, u"r2c"_s}, {3, 3}},
                           {u"show 4 0"_s, {u"be brief"_s, u"q1"_s, u"r1"_s, u"q2"_s, u"r2"_s}, {1, 3}},
                           {u"show 4 1"_s, {u"be brief"_s, u"q1"_s, u"r1"_s, u"q2"_s, u"r2b"_s}, {2, 3}}};
        // An edited prompt takes the rest of the conversation with it, and brings it back.
        QTest::newRow("edit an early prompt, continue, switch back and forth")
            << turn
            << QList<Step>{{u"add 1 u:q1b"_s, {u"be brief"_s, u"q1b"_s}, {2, 2}},
                           {u"append a:r1b"_s, {u"be brief"_s, u"q1b"_s, u"r1b"_s}, {1, 1}},
                           {u"show 1 0"_s, {u"be brief"_s, u"q1"_s, u"r1"_s, u"q2"_s, u"r2"_s}, {1, 2}},
                           {u"show 1 1"_s, {u"be brief"_s, u"q1b"_s, u"r1b"_s}, {2, 2}}};
        // Versions further down a hidden branch are kept while another branch is shown.
        QTest::newRow("nested versions survive switching above them")
            << turn
            << QList<Step>{{u"add 4 a:r2b"_s, {u"be brief"_s, u"q1"_s, u"r1"_s, u"q2"_s, u"r2b"_s}, {2, 2}},
                           {u"add 1 u:q1b"_s, {u"be brief"_s, u"q1b"_s}, {2, 2}},
                           {u"show 1 0"_s, {u"be brief"_s, u"q1"_s, u"r1"_s, u"q2"_s, u"r2b"_s}, {1, 2}},
                           {u"show 4 0"_s, {u"be brief"_s, u"q1"_s, u"r1"_s, u"q2"_s, u"r2"_s}, {1, 2}}};
        QTest::newRow("out of range changes nothing")
            << turn
            << QList<Step>{{u"show 4 1"_s, {u"be brief"_s, u"q1"_s, u"r1"_s, u"q2"_s, u"r2"_s}, {1, 1}},
                           {u"show 9 0"_s, {u"be brief"_s, u"q1"_s, u"r1"_s, u"q2"_s, u"r2"_s}, {0, 0}}};
    }
    // After every step the path shown is right, nothing ever made is lost (every message made is in
    // the shown path or a hidden version), and the stored form reads back the same while a reader
    // that ignores versions sees exactly the path shown.
    void steps()
    {
        QFETCH(QStringList, start);
        QFETCH(QList<Step>, steps);
        QList<ChatMessage> messages = path(start);
        QSet<QUuid> made;
        for (const ChatMessage &m : messages)
            made.insert(m.id);
        for (const Step &step : steps) {
            qsizetype index = 0;
            messages = apply(messages, step.action, index);
            for (const ChatMessage &m : path({step.action.section(u' ', -1)}))
                if (!step.action.startsWith(u"show"))
                    made.insert(m.id);
            QCOMPARE(words(messages), step.shown);
            if (index < messages.size()) {
                QCOMPARE(versionIndex(messages.at(index)) + 1, step.switcher.first);
                QCOMPARE(versionCount(messages.at(index)), step.switcher.second);
            }
            QCOMPARE(allIDs(messages), made);

            const QByteArray json = encodeJson(messages);
            QCOMPARE(decodeJson<QList<ChatMessage>>(json), std::optional(messages));
            QStringList seenByOldReader;
            for (const QJsonValue &v : QJsonDocument::fromJson(json).array())
                seenByOldReader.append(v.toObject().value(u"content"_s).toString());
            QCOMPARE(seenByOldReader, step.shown);
        }
    }
};

QTEST_GUILESS_MAIN(tst_Versions)
#include "tst_versions.moc"

#include "model/jsoncoding.h"
#include "model/versions.h"
#include "storagetestsupport.h"

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

// Each step: "add <index> <word>" makes a new version, "append <word>" continues the path shown,
// "show <index> <target>" switches; after the colon, the path shown and "(version/count)" of the
// message the step names, the version 1-based.
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

class tst_Versions final : public QObject
{
    Q_OBJECT

private slots:
    void steps_data()
    {
        QTest::addColumn<QStringList>("steps");
        QTest::newRow("regenerate the last reply twice, then walk back")
            << QStringList{u"add 4 a:r2b: brief q1 r1 q2 r2b (2/2)"_s, u"add 4 a:r2c: brief q1 r1 q2 r2c (3/3)"_s,
                           u"show 4 0: brief q1 r1 q2 r2 (1/3)"_s, u"show 4 1: brief q1 r1 q2 r2b (2/3)"_s};
        // An edited prompt takes the rest of the conversation with it, and brings it back.
        QTest::newRow("edit an early prompt, continue, switch back and forth")
            << QStringList{u"add 1 u:q1b: brief q1b (2/2)"_s, u"append a:r1b: brief q1b r1b (1/1)"_s,
                           u"show 1 0: brief q1 r1 q2 r2 (1/2)"_s, u"show 1 1: brief q1b r1b (2/2)"_s};
        // Versions further down a hidden branch are kept while another branch is shown.
        QTest::newRow("nested versions survive switching above them")
            << QStringList{u"add 4 a:r2b: brief q1 r1 q2 r2b (2/2)"_s, u"add 1 u:q1b: brief q1b (2/2)"_s,
                           u"show 1 0: brief q1 r1 q2 r2b (1/2)"_s, u"show 4 0: brief q1 r1 q2 r2 (1/2)"_s};
        QTest::newRow("out of range changes nothing")
            << QStringList{u"show 4 1: brief q1 r1 q2 r2 (1/1)"_s, u"show 9 0: brief q1 r1 q2 r2 (0/0)"_s};
    }
    void steps()
    {
        QFETCH(QStringList, steps);
        QList<ChatMessage> messages = path({u"s:brief"_s, u"u:q1"_s, u"a:r1"_s, u"u:q2"_s, u"a:r2"_s});
        QSet<QUuid> made;
        for (const ChatMessage &m : messages)
            made.insert(m.id);
        for (const QString &step : steps) {
            const QString action = step.section(u": "_s, 0, 0);
            QStringList shown = step.section(u": "_s, 1).split(u' ');
            const QString switcher = shown.takeLast();
            qsizetype index = 0;
            messages = apply(messages, action, index);
            for (const ChatMessage &m : path({action.section(u' ', -1)}))
                if (!action.startsWith(u"show"))
                    made.insert(m.id);
            QCOMPARE(StorageTest::contents(messages), shown);
            if (index < messages.size()) {
                QCOMPARE(u"(%1/%2)"_s.arg(versionIndex(messages.at(index)) + 1).arg(versionCount(messages.at(index))),
                         switcher);
            }
            QCOMPARE(allIDs(messages), made);

            const QByteArray json = encodeJson(messages);
            QCOMPARE(decodeJson<QList<ChatMessage>>(json), std::optional(messages));
            QStringList seenByOldReader;
            for (const QJsonValue &v : QJsonDocument::fromJson(json).array())
                seenByOldReader.append(v.toObject().value(u"content"_s).toString());
            QCOMPARE(seenByOldReader, shown);
        }
    }
};

QTEST_GUILESS_MAIN(tst_Versions)
#include "tst_versions.moc"

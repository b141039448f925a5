#include "model/json.h"

#include <QRandomGenerator>
#include <QTest>

#include <cstring>
#include <limits>

using namespace Qt::StringLiterals;

class tst_Json : public QObject
{
    Q_OBJECT

private slots:
    void randomDoublesRoundTrip();
    void integersAtTheLimits_data();
    void integersAtTheLimits();
    void stringsRoundTrip_data();
    void stringsRoundTrip();
    void writerLayouts();
    void rejectsWhatIsNotOneDocument_data();
    void rejectsWhatIsNotOneDocument();
    void lookupOnNonObjectsIsInvalid();
    void releasesBuffersAHugeInputGrew();
};

// The shortest form of a double must still read back to the very same bits; the records check
// which form that is.
void tst_Json::randomDoublesRoundTrip()
{
    QRandomGenerator rng(42);
    for (int i = 0; i < 2000; ++i) {
        double value;
        const quint64 bits = rng.generate64();
        std::memcpy(&value, &bits, sizeof value);
        if (!std::isfinite(value))
            continue;
        const QByteArray text = Json::formatDouble(value);
        const auto doc = Json::Document::parse(text);
        QVERIFY2(doc, text.constData());
        QCOMPARE(doc->root().toDouble(), value);
    }
}

void tst_Json::integersAtTheLimits_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<std::optional<qint64>>("value");
    const std::optional<qint64> none;
    QTest::newRow("max") << QByteArray("9223372036854775807") << std::optional(std::numeric_limits<qint64>::max());
    QTest::newRow("min") << QByteArray("-9223372036854775808") << std::optional(std::numeric_limits<qint64>::min());
    QTest::newRow("max + 1") << QByteArray("9223372036854775808") << none;
    QTest::newRow("min - 1") << QByteArray("-9223372036854775809") << none;
    QTest::newRow("far beyond") << QByteArray("123456789012345678901234567890") << none;
    QTest::newRow("whole double") << QByteArray("12.0") << std::optional<qint64>(12);
    QTest::newRow("exponent") << QByteArray("1e3") << std::optional<qint64>(1000);
    QTest::newRow("fraction") << QByteArray("12.5") << none;
    QTest::newRow("2^63 as double") << QByteArray("9.223372036854775808e18") << none;
    QTest::newRow("string") << QByteArray("\"12\"") << none;
    QTest::newRow("null") << QByteArray("null") << none;
}
// Each literal shares its document with the largest count, which must stay exact beside it.
void tst_Json::integersAtTheLimits()
{
    QFETCH(QByteArray, text);
    QFETCH(std::optional<qint64>, value);
    const auto doc = Json::Document::parse(QByteArray("[" + text + ",9223372036854775807]"));
    QVERIFY(doc);
    const auto items = doc->root().elements();
    QCOMPARE(items[0].toInt64(), value);
    QCOMPARE(items[1].toInt64(), std::numeric_limits<qint64>::max());
    if (value) {
        Json::Writer w;
        w.integer(*value);
        QCOMPARE(Json::Document::parse(w.data())->root().toInt64(), value);
    }
    if (text.front() != '"' && text.front() != 'n')
        QCOMPARE(items[0].toDouble(), text.toDouble());
}

void tst_Json::stringsRoundTrip_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QByteArray>("compact"); // as the compact writer escapes it
    QTest::newRow("empty") << QString() << QByteArray(R"("")");
    // Rows long enough that the sixteen-unit scan meets what needs escaping, not only unit by unit.
    QTest::newRow("controls") << u"a\u0001b\u001fc\td\ne\rf\bg\fh and more"_s
                              << QByteArray(R"("a\u0001b\u001fc\td\ne\rf\bg\fh and more")");
    QTest::newRow("slash, quote, backslash")
        << u"https://api.example.com/v1 say \"hi\" to C:\\path\\with\\many\\parts"_s
        << QByteArray(R"("https:\/\/api.example.com\/v1 say \"hi\" to C:\\path\\with\\many\\parts")");
    QTest::newRow("accents") << u"crème brûlée, Ærø, Ελληνικά"_s << QByteArray("\"crème brûlée, Ærø, Ελληνικά\"");
    QTest::newRow("emoji (surrogate pair)")
        << u"👩‍💻 and 🇪🇺"_s << QByteArray("\"👩‍💻 and 🇪🇺\"");
    QTest::newRow("nul inside") << QString(u"a"_s + QChar(0) + u"b"_s) << QByteArray(R"("a\u0000b")");
}
// A string reads back as written, with or without the slash escape.
void tst_Json::stringsRoundTrip()
{
    QFETCH(QString, text);
    QFETCH(QByteArray, compact);
    Json::Writer w, plain(Json::WriteOptions{false, false, false});
    w.string(text);
    plain.string(text);
    QCOMPARE(w.data(), compact);
    QCOMPARE(plain.data(), QByteArray(compact).replace("\\/", "/"));
    for (const QByteArray &written : {w.data(), plain.data()}) {
        const auto doc = Json::Document::parse(written);
        QVERIFY2(doc, written.constData());
        QCOMPARE(doc->root().toString(), text);
    }
}

// The pretty layout sorts keys at every depth; the compact one, which keeps the order of writing,
// is checked with the records.
void tst_Json::writerLayouts()
{
    const auto write = [](Json::WriteOptions options) {
        Json::Writer w(options);
        w.beginObject();
        w.key(QLatin1StringView("version"));
        w.integer(-3);
        w.key(QLatin1StringView("providers"));
        w.beginArray();
        w.beginObject();
        w.key(QLatin1StringView("name"));
        w.number(0.5);
        w.key(QLatin1StringView("baseURL"));
        w.boolean(false);
        w.key(QLatin1StringView("cachedModels"));
        w.beginArray();
        w.endArray();
        w.endObject();
        w.null();
        w.endArray();
        w.key(QLatin1StringView("empty"));
        w.beginObject();
        w.endObject();
        w.endObject();
        return w.data();
    };
    QCOMPARE(write(Json::WriteOptions::prettySorted()), QByteArray("{\n"
                                                                   "  \"empty\" : {},\n"
                                                                   "  \"providers\" : [\n"
                                                                   "    {\n"
                                                                   "      \"baseURL\" : false,\n"
                                                                   "      \"cachedModels\" : [],\n"
                                                                   "      \"name\" : 0.5\n"
                                                                   "    },\n"
                                                                   "    null\n"
                                                                   "  ],\n"
                                                                   "  \"version\" : -3\n"
                                                                   "}"));
}

void tst_Json::rejectsWhatIsNotOneDocument_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("empty") << QByteArray();
    QTest::newRow("garbage") << QByteArray("not json");
    QTest::newRow("two documents") << QByteArray("{} {}");
    QTest::newRow("truncated") << QByteArray("[1, 2");
    QTest::newRow("invalid utf-8 in string") << QByteArray("\"\xff\xfe\"");
    QTest::newRow("overlong utf-8") << QByteArray("\"\xc0\xaf\"");
    QTest::newRow("trailing comma") << QByteArray("[1,]");
}
void tst_Json::rejectsWhatIsNotOneDocument()
{
    QFETCH(QByteArray, bytes);
    QString error;
    QVERIFY(!Json::Document::parse(bytes, &error));
    QVERIFY(!error.isEmpty());
}

void tst_Json::lookupOnNonObjectsIsInvalid()
{
    const auto doc = Json::Document::parse(R"([{"a":{"b":1}}, "s", 2])");
    QVERIFY(doc);
    const Json::Value root = doc->root();
    const auto items = root.elements();
    QCOMPARE(root.size(), 3);
    QCOMPARE(items[0]["a"]["b"].toInt64(), qint64(1));
    for (const Json::Value &missing : {root["a"], items[0]["a"]["c"], items[1]["a"], items[2]["a"]["b"]})
        QVERIFY(!missing.isValid());
}

void tst_Json::releasesBuffersAHugeInputGrew()
{
    Json::Parser parser;
    const QByteArray huge = "\"" + QByteArray(8 * 1024 * 1024, 'x') + "\"";
    QCOMPARE(parser.parse(huge).stringUtf8().size(), huge.size() - 2);
    QVERIFY(parser.capacity() >= huge.size());
    parser.releaseBuffersAbove(1024 * 1024);
    QVERIFY(parser.capacity() <= 1024 * 1024);
    QCOMPARE(parser.parse(R"({"a":[1]})")["a"].size(), 1);
    // Buffers within the bound are kept for the next input.
    const qsizetype small = parser.capacity();
    parser.releaseBuffersAbove(1024 * 1024);
    QCOMPARE(parser.capacity(), small);
}

QTEST_GUILESS_MAIN(tst_Json)
#include "tst_json.moc"

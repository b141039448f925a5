#include "model/json.h"

#include <QRandomGenerator>
#include <QTest>

#include <cstring>
#include <limits>

class tst_Json : public QObject
{
    Q_OBJECT

private slots:
    void doublesReadBackExactly_data();
    void doublesReadBackExactly();
    void randomDoublesRoundTrip();
    void integersAtTheLimits_data();
    void integersAtTheLimits();
    void hugeLiteralLeavesOtherCountsExact();
    void stringsRoundTrip_data();
    void stringsRoundTrip();
    void escapes();
    void prettySortedSortsEveryDepth();
    void compactKeepsInsertionOrder();
    void rejectsWhatIsNotOneDocument_data();
    void rejectsWhatIsNotOneDocument();
    void lookupOnNonObjectsIsInvalid();
    void releasesBuffersAHugeInputGrew();
};

void tst_Json::doublesReadBackExactly_data()
{
    QTest::addColumn<double>("value");
    QTest::addColumn<QByteArray>("text");
    QTest::newRow("whole date") << 725760000.0 << QByteArray("725760000");
    QTest::newRow("half second") << 725760000.5 << QByteArray("725760000.5");
    QTest::newRow("tenth") << 0.1 << QByteArray("0.1");
    QTest::newRow("sub-microsecond date") << 754567890.123456789 << QByteArray("754567890.1234568");
    QTest::newRow("negative") << -1.25 << QByteArray("-1.25");
    QTest::newRow("huge") << 1e300 << QByteArray("1e+300");
}

void tst_Json::doublesReadBackExactly()
{
    QFETCH(double, value);
    QFETCH(QByteArray, text);
    QCOMPARE(Json::formatDouble(value), text);
    const auto doc = Json::Document::parse(text);
    QVERIFY(doc);
    QCOMPARE(doc->root().toDouble(), value);
}

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
    QTest::addColumn<bool>("fits");
    QTest::addColumn<qint64>("value");
    const qint64 max = std::numeric_limits<qint64>::max();
    const qint64 min = std::numeric_limits<qint64>::min();
    QTest::newRow("max") << QByteArray("9223372036854775807") << true << max;
    QTest::newRow("min") << QByteArray("-9223372036854775808") << true << min;
    QTest::newRow("max + 1") << QByteArray("9223372036854775808") << false << qint64(0);
    QTest::newRow("min - 1") << QByteArray("-9223372036854775809") << false << qint64(0);
    QTest::newRow("far beyond") << QByteArray("123456789012345678901234567890") << false << qint64(0);
    QTest::newRow("zero") << QByteArray("0") << true << qint64(0);
    QTest::newRow("whole double") << QByteArray("12.0") << true << qint64(12);
    QTest::newRow("exponent") << QByteArray("1e3") << true << qint64(1000);
    QTest::newRow("fraction") << QByteArray("12.5") << false << qint64(0);
    QTest::newRow("2^63 as double") << QByteArray("9.223372036854775808e18") << false << qint64(0);
    QTest::newRow("string") << QByteArray("\"12\"") << false << qint64(0);
    QTest::newRow("null") << QByteArray("null") << false << qint64(0);
    QTest::newRow("bool") << QByteArray("true") << false << qint64(0);
}

void tst_Json::integersAtTheLimits()
{
    QFETCH(QByteArray, text);
    QFETCH(bool, fits);
    QFETCH(qint64, value);
    const auto doc = Json::Document::parse(text);
    QVERIFY(doc);
    const auto parsed = doc->root().toInt64();
    QCOMPARE(parsed.has_value(), fits);
    if (fits) {
        QCOMPARE(*parsed, value);
        Json::Writer w;
        w.integer(value);
        const auto back = Json::Document::parse(w.data());
        QCOMPARE(back->root().toInt64(), parsed);
    }
}

void tst_Json::hugeLiteralLeavesOtherCountsExact()
{
    const auto doc =
        Json::Document::parse("[9223372036854775807, 123456789012345678901234567890, \"99999999999999999999\"]");
    QVERIFY(doc);
    const auto items = doc->root().elements();
    QCOMPARE(items[0].toInt64(), std::numeric_limits<qint64>::max());
    QVERIFY(!items[1].toInt64());
    QCOMPARE(items[1].toDouble(), 1.2345678901234568e29);
    QCOMPARE(items[2].toString(), QStringLiteral("99999999999999999999"));
}

void tst_Json::stringsRoundTrip_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("empty") << QString();
    QTest::newRow("ascii") << QStringLiteral("hello");
    QTest::newRow("controls") << QStringLiteral("a\u0001b\u001fc\td\ne\rf\bg\fh");
    QTest::newRow("quote and backslash") << QStringLiteral("say \"hi\" C:\\path\\");
    QTest::newRow("slashes") << QStringLiteral("https://api.example.com/v1");
    QTest::newRow("accents") << QStringLiteral("crème brûlée, Ærø, Ελληνικά");
    QTest::newRow("emoji (surrogate pair)") << QStringLiteral("👩‍💻 and 🇪🇺");
    QTest::newRow("nul inside") << QString(QStringLiteral("a") + QChar(0) + QStringLiteral("b"));
}

void tst_Json::stringsRoundTrip()
{
    QFETCH(QString, text);
    for (const auto options : {Json::WriteOptions::compact(), Json::WriteOptions::prettySorted()}) {
        Json::Writer w(options);
        w.beginArray();
        w.string(text);
        w.endArray();
        const auto doc = Json::Document::parse(w.data());
        QVERIFY2(doc, w.data().constData());
        QCOMPARE(doc->root().elements().value(0).toString(), text);
    }
}

void tst_Json::escapes()
{
    Json::Writer w;
    w.string(QStringLiteral("a/b\"c\\d\n\u0001é"));
    QCOMPARE(w.data(), QByteArray("\"a\\/b\\\"c\\\\d\\n\\u0001\xc3\xa9\""));

    Json::Writer plain(Json::WriteOptions{false, false, false});
    plain.string(QStringLiteral("a/b"));
    QCOMPARE(plain.data(), QByteArray("\"a/b\""));
}

void tst_Json::prettySortedSortsEveryDepth()
{
    Json::Writer w(Json::WriteOptions::prettySorted());
    w.beginObject();
    w.key(QLatin1StringView("version"));
    w.integer(1);
    w.key(QLatin1StringView("providers"));
    w.beginArray();
    w.beginObject();
    w.key(QLatin1StringView("name"));
    w.string(QStringLiteral("A"));
    w.key(QLatin1StringView("baseURL"));
    w.string(QStringLiteral("https://x/v1"));
    w.key(QLatin1StringView("cachedModels"));
    w.beginArray();
    w.endArray();
    w.endObject();
    w.endArray();
    w.key(QLatin1StringView("conversations"));
    w.beginArray();
    w.endArray();
    w.key(QLatin1StringView("empty"));
    w.beginObject();
    w.endObject();
    w.endObject();

    const QByteArray expected = "{\n"
                                "  \"conversations\" : [],\n"
                                "  \"empty\" : {},\n"
                                "  \"providers\" : [\n"
                                "    {\n"
                                "      \"baseURL\" : \"https:\\/\\/x\\/v1\",\n"
                                "      \"cachedModels\" : [],\n"
                                "      \"name\" : \"A\"\n"
                                "    }\n"
                                "  ],\n"
                                "  \"version\" : 1\n"
                                "}";
    QCOMPARE(w.data(), expected);
}

void tst_Json::compactKeepsInsertionOrder()
{
    Json::Writer w;
    w.beginObject();
    w.key(QLatin1StringView("z"));
    w.beginArray();
    w.integer(-3);
    w.number(0.5);
    w.boolean(false);
    w.null();
    w.endArray();
    w.key(QLatin1StringView("a"));
    w.beginObject();
    w.endObject();
    w.endObject();
    QCOMPARE(w.data(), QByteArray(R"({"z":[-3,0.5,false,null],"a":{}})"));
}

void tst_Json::rejectsWhatIsNotOneDocument_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("empty") << QByteArray();
    QTest::newRow("garbage") << QByteArray("not json");
    QTest::newRow("two documents") << QByteArray("{} {}");
    QTest::newRow("truncated") << QByteArray("[1, 2");
    QTest::newRow("invalid utf-8 in string") << QByteArray("\"\xff\xfe\"");
    QTest::newRow("lone surrogate escape is fine but raw overlong is not") << QByteArray("\"\xc0\xaf\"");
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
    QVERIFY(!root["a"].isValid());
    const auto items = root.elements();
    QCOMPARE(items.size(), 3);
    QCOMPARE(items[0]["a"]["b"].toInt64(), qint64(1));
    QVERIFY(!items[0]["a"]["c"].isValid());
    QVERIFY(!items[1]["a"].isValid());
    QVERIFY(!items[2]["a"]["b"].isValid());
    QCOMPARE(root.size(), 3);
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

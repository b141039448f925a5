#include "rowfile.h"

#include "model/json.h"

#include <QFile>

QList<QStringList> readRowFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QList<QStringList> rows;
    int number = 0;
    while (!file.atEnd()) {
        const QByteArray line = file.readLine().trimmed();
        ++number;
        if (!line.startsWith('['))
            continue;
        const auto doc = Json::Document::parse(line);
        if (!doc) {
            rows.append({QStringLiteral("unreadable line %1").arg(number)});
            continue;
        }
        QStringList cells;
        for (const Json::Value &cell : doc->root().elements())
            cells.append(cell.isString() ? cell.toString() : QString());
        rows.append(cells);
    }
    return rows;
}

QList<QStringList> readTextRowFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QList<QStringList> rows;
    for (const QString &line : QString::fromUtf8(file.readAll()).split(u'\n')) {
        if (line.contains(QStringLiteral(" | ")))
            rows.append(line.split(QStringLiteral(" | ")));
    }
    return rows;
}

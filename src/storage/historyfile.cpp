#include "storage/historyfile.h"

#include "model/jsoncoding.h"
#include "storage/atomicfile.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <sys/stat.h>

namespace HistoryFile {

namespace {

Stamp stampOf(const struct stat &st)
{
    return {true, st.st_dev, st.st_ino, st.st_size, qint64(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec};
}

// The whole file as it is at one moment, with room after it for the parser's padding.
std::optional<QByteArray> readStable(QFile &file, Stamp &stamp)
{
    struct stat before = {};
    if (::fstat(file.handle(), &before) != 0)
        return std::nullopt;
    // One byte more than expected tells a file that grew meanwhile from one that did not.
    const qsizetype expected = qsizetype(before.st_size);
    QByteArray bytes;
    bytes.reserve(expected + 1 + Json::parsePadding);
    bytes.resize(expected + 1);
    qsizetype used = 0;
    while (used < bytes.size()) {
        const qint64 got = file.read(bytes.data() + used, bytes.size() - used);
        if (got < 0)
            return std::nullopt;
        if (got == 0)
            break;
        used += qsizetype(got);
    }
    if (used != expected)
        return std::nullopt;
    bytes.resize(used);
    struct stat after = {};
    if (::fstat(file.handle(), &after) != 0)
        return std::nullopt;
    stamp = stampOf(after);
    if (!(stampOf(before) == stamp))
        return std::nullopt;
    return bytes;
}

bool sameContent(const QString &a, const QString &b)
{
    QFile fa(a);
    QFile fb(b);
    if (fa.size() != fb.size() || !fa.open(QIODevice::ReadOnly) || !fb.open(QIODevice::ReadOnly))
        return false;
    constexpr qint64 block = 1 << 20;
    while (!fa.atEnd()) {
        const QByteArray pa = fa.read(block);
        if (pa.isEmpty() || pa != fb.read(block))
            return false;
    }
    return fb.atEnd();
}

} // namespace

Stamp stampOf(const QString &path)
{
    struct stat st = {};
    if (::stat(QFile::encodeName(path).constData(), &st) != 0)
        return {};
    return stampOf(st);
}

ReadResult read(const QString &path)
{
    ReadResult result;
    QFile file(path);
    // A few attempts only: a file rewritten without pause is then simply unreadable this time.
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered)) {
            result.stamp = stampOf(path);
            result.status = result.stamp.exists ? ReadResult::Status::Unreadable : ReadResult::Status::Missing;
            return result;
        }
        std::optional<QByteArray> bytes = readStable(file, result.stamp);
        file.close();
        if (!bytes)
            continue;
        QByteArrayView content(*bytes);
        if (content.startsWith("\xEF\xBB\xBF"))
            content = content.sliced(3);
        QString error;
        const auto document = Json::Document::parsePadded(content, &error);
        if (document && fromJson(document->root(), result.conversations, error))
            result.status = ReadResult::Status::Decoded;
        else
            result.status = ReadResult::Status::Unreadable;
        return result;
    }
    result.status = ReadResult::Status::Unreadable;
    result.stamp = stampOf(path);
    return result;
}

std::optional<QString> keepAside(const QString &path, bool allowMove)
{
    const QFileInfo info(path);
    const QDir folder = info.absoluteDir();
    const QString prefix = info.completeBaseName() + QStringLiteral(".unreadable-");
    const QStringList earlier =
        folder.entryList({prefix + QStringLiteral("*.") + info.suffix()}, QDir::Files | QDir::Hidden, QDir::Name);
    for (const QString &name : earlier) {
        if (sameContent(path, folder.filePath(name)))
            return folder.filePath(name);
    }
    const QString stem = folder.filePath(prefix + AtomicFile::asideStamp());
    QString aside;
    for (int n = 1;; ++n) {
        aside = stem + (n == 1 ? QString() : u'-' + QString::number(n)) + u'.' + info.suffix();
        if (!QFileInfo::exists(aside))
            break;
    }
    if (QFile::copy(path, aside)) {
        AtomicFile::restrictToOwner(aside);
        return aside;
    }
    // A file we cannot even read cannot be copied; moving it keeps it just as well.
    if (allowMove && QFile::rename(path, aside))
        return aside;
    return std::nullopt;
}

} // namespace HistoryFile

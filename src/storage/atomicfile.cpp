#include "storage/atomicfile.h"

#include <QDateTime>
#include <QFile>
#include <QSaveFile>

namespace AtomicFile {

static constexpr QFileDevice::Permissions ownerOnly = QFileDevice::ReadOwner | QFileDevice::WriteOwner;

std::optional<QString> write(const QString &path, const QByteArray &bytes)
{
    return write(path, [&](QIODevice &device) { return device.write(bytes) == bytes.size(); });
}

std::optional<QString> write(const QString &path, const std::function<bool(QIODevice &)> &produce)
{
    QSaveFile file(path);
    // Unbuffered: the pieces are large, and a buffer would only copy each of them once more.
    if (!file.open(QIODevice::WriteOnly | QIODevice::Unbuffered))
        return file.errorString();
    // Restricted before the first byte lands, so the content is never readable by others, not
    // even for the moment between the write and the rename.
    file.setPermissions(ownerOnly);
    if (!produce(file)) {
        const QString error = file.errorString();
        file.cancelWriting();
        return error;
    }
    if (!file.commit())
        return file.errorString();
    return std::nullopt;
}

QString asideStamp()
{
    return QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-HHmmss"));
}

bool restrictToOwner(const QString &path)
{
    return QFile::setPermissions(path, ownerOnly);
}

} // namespace AtomicFile

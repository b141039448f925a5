#include "ui/qtfiledialogs.h"

#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QGridLayout>
#include <QLabel>
#include <QStandardPaths>

namespace {

void bringToFront(QWidget *parent)
{
    if (!parent)
        return;
    QWidget *window = parent->window();
    window->raise();
    window->activateWindow();
}

QString startFolder()
{
    const QString documents = QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation);
    return !documents.isEmpty() && QFileInfo(documents).isDir() ? documents : QDir::homePath();
}

// Qt's own dialog rather than the desktop's: only it lets the message sit inside the dialog,
// where the user reads it before choosing (the archive's warning about plain-text keys).
void prepare(QFileDialog &dialog, const QString &message, const QStringList &nameFilters)
{
    dialog.setOption(QFileDialog::DontUseNativeDialog);
    dialog.setWindowModality(Qt::ApplicationModal);
    dialog.setDirectory(startFolder());
    if (!nameFilters.isEmpty())
        dialog.setNameFilters(nameFilters);
    if (message.isEmpty())
        return;
    auto *label = new QLabel(message, &dialog);
    label->setObjectName(QtFileDialogs::messageLabelName);
    label->setTextFormat(Qt::PlainText);
    label->setWordWrap(true);
    if (auto *grid = qobject_cast<QGridLayout *>(dialog.layout()))
        grid->addWidget(label, grid->rowCount(), 0, 1, grid->columnCount());
    else if (dialog.layout())
        dialog.layout()->addWidget(label);
}

std::optional<QString> run(QFileDialog &dialog)
{
    if (dialog.exec() != QDialog::Accepted)
        return std::nullopt;
    const QStringList files = dialog.selectedFiles();
    if (files.isEmpty() || files.first().isEmpty())
        return std::nullopt;
    return files.first();
}

} // namespace

QtFileDialogs::QtFileDialogs(QWidget *parent)
    : m_parent(parent)
{}

std::optional<QString> QtFileDialogs::saveFileName(const SaveDialogRequest &request)
{
    bringToFront(m_parent);
    QFileDialog dialog(m_parent, request.title);
    prepare(dialog, request.message, request.nameFilters);
    dialog.setAcceptMode(QFileDialog::AcceptSave);
    dialog.setFileMode(QFileDialog::AnyFile);
    const QString suffix = QFileInfo(request.suggestedName).suffix();
    if (!suffix.isEmpty())
        dialog.setDefaultSuffix(suffix);
    dialog.selectFile(request.suggestedName);
    return run(dialog);
}

std::optional<QString> QtFileDialogs::openFileName(const OpenDialogRequest &request)
{
    bringToFront(m_parent);
    QFileDialog dialog(m_parent, request.title);
    prepare(dialog, request.message, request.nameFilters);
    dialog.setAcceptMode(QFileDialog::AcceptOpen);
    dialog.setFileMode(QFileDialog::ExistingFile);
    return run(dialog);
}

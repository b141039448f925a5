#include "ui/restoredialog.h"

#include "storage/conversationstore.h"
#include "storage/historyfile.h"

#include <QCoreApplication>
#include <QDialogButtonBox>
#include <QLabel>
#include <QListWidget>
#include <QLocale>
#include <QPointer>
#include <QPushButton>
#include <QThread>
#include <QVBoxLayout>

#include <memory>

using namespace Qt::StringLiterals;

namespace {

// Runs work on a thread of its own; work hands its results over with deliver(), which runs them on
// context's thread unless context is gone by then.
template<class Work>
void inBackground(QObject *context, Work work)
{
    // Delivered through the application object, which outlives the thread: the context may be
    // closed and gone before a result arrives, and is only looked at on its own thread.
    QThread *thread = QThread::create([guard = QPointer<QObject>(context), work] {
        work([guard](auto &&result) {
            QMetaObject::invokeMethod(
                QCoreApplication::instance(),
                [guard, result = std::move(result)] {
                    if (guard)
                        result();
                },
                Qt::QueuedConnection);
        });
    });
    QObject::connect(thread, &QThread::finished, thread, &QObject::deleteLater);
    thread->start(QThread::LowPriority);
}

QString shortDate(QDate date)
{
    return QLocale::c().toString(date, u"MMM d"_s);
}

QString rowText(const HistoryBackups::Copy &copy, const QString &count)
{
    return QLocale::c().toString(copy.date, u"dddd, MMM d, yyyy"_s) + u" — "_s + count;
}

} // namespace

RestoreDialog::RestoreDialog(ConversationStore *chats, QWidget *parent)
    : QDialog(parent)
    , m_chats(chats)
    , m_copies(HistoryBackups::list(chats->fileURL()))
{
    setWindowTitle(u"Restore Conversations"_s);
    auto *intro = new QLabel(u"Each copy is the history as it was at the start of that day. Restoring brings back "
                             "its conversations; nothing you have now is removed."_s,
                             this);
    intro->setWordWrap(true);
    m_list = new QListWidget(this);
    m_list->setObjectName(u"backupCopies"_s);
    m_list->setAccessibleName(u"Copies of the history"_s);
    m_status = new QLabel(this);
    m_status->setObjectName(u"restoreStatus"_s);
    m_status->setWordWrap(true);
    m_buttons = new QDialogButtonBox(QDialogButtonBox::Cancel, this);
    QPushButton *restore = m_buttons->addButton(u"Restore"_s, QDialogButtonBox::AcceptRole);
    restore->setObjectName(u"restoreCopy"_s);
    restore->setEnabled(false);

    auto *layout = new QVBoxLayout(this);
    layout->addWidget(intro);
    layout->addWidget(m_list, 1);
    layout->addWidget(m_status);
    layout->addWidget(m_buttons);
    resize(420, 340);

    if (m_copies.isEmpty())
        m_status->setText(u"No copies yet: the first is kept when the history is saved on a new day."_s);
    m_uncounted = m_copies.size();
    QList<QString> paths;
    for (const HistoryBackups::Copy &copy : std::as_const(m_copies)) {
        m_list->addItem(rowText(copy, u"counting…"_s));
        paths.append(copy.path);
    }
    // One copy after another: each may be as large as the history.
    if (!paths.isEmpty()) {
        inBackground(this, [this, paths](auto deliver) {
            for (qsizetype i = 0; i < paths.size(); ++i) {
                const std::optional<qsizetype> count = HistoryBackups::countConversations(paths.at(i));
                deliver([this, i, count] { handleCount(i, count); });
            }
        });
    }

    connect(m_list, &QListWidget::currentRowChanged, this,
            [this, restore](int row) { restore->setEnabled(row >= 0 && !m_busy); });
    connect(m_list, &QListWidget::itemActivated, this, [this] { restoreCopy(m_list->currentRow()); });
    connect(m_buttons, &QDialogButtonBox::accepted, this, [this] { restoreCopy(m_list->currentRow()); });
    connect(m_buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
}

void RestoreDialog::handleCount(qsizetype index, std::optional<qsizetype> count)
{
    QString text;
    if (!count)
        text = u"cannot be read"_s;
    else
        text = *count == 1 ? u"1 conversation"_s : u"%1 conversations"_s.arg(*count);
    m_list->item(int(index))->setText(rowText(m_copies.at(index), text));
    if (--m_uncounted == 0)
        emit counted();
}

QString RestoreDialog::outcomeText(qsizetype restored, QDate date)
{
    if (restored == 0)
        return u"Nothing to restore from %1: its conversations are all here, as new or newer."_s.arg(shortDate(date));
    if (restored == 1)
        return u"Restored 1 conversation from %1."_s.arg(shortDate(date));
    return u"Restored %1 conversations from %2."_s.arg(restored).arg(shortDate(date));
}

void RestoreDialog::restoreCopy(qsizetype index)
{
    if (m_busy || index < 0 || index >= m_copies.size())
        return;
    m_busy = true;
    m_list->setEnabled(false);
    m_buttons->button(QDialogButtonBox::Cancel)->setEnabled(false);
    for (QAbstractButton *button : m_buttons->buttons()) {
        if (m_buttons->buttonRole(button) == QDialogButtonBox::AcceptRole)
            button->setEnabled(false);
    }
    const HistoryBackups::Copy copy = m_copies.at(index);
    m_status->setText(u"Restoring the copy of %1…"_s.arg(shortDate(copy.date)));
    inBackground(this, [this, copy](auto deliver) {
        auto read = std::make_shared<HistoryFile::ReadResult>(HistoryFile::read(copy.path));
        deliver([this, copy, read] {
            QString note;
            if (read->status != HistoryFile::ReadResult::Status::Decoded)
                note = u"Restore failed: the copy of %1 could not be read."_s.arg(shortDate(copy.date));
            else
                note = outcomeText(m_chats->restore(read->conversations), copy.date);
            m_busy = false;
            emit restored(note);
            accept();
        });
    });
}

#pragma once

#include "storage/historybackups.h"

#include <QDialog>
#include <QList>

class ConversationStore;
class QDialogButtonBox;
class QLabel;
class QListWidget;

// Lists the dated copies of the history with how many conversations each holds, and brings the
// chosen one back into the store (by id: a conversation here that is as new or newer stays as it
// is, nothing is removed). Counting and reading the copies happen on a worker thread, so a large
// history never stalls the window; the dialog stays responsive and can be cancelled meanwhile.
class RestoreDialog final : public QDialog
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(RestoreDialog)

public:
    // chats must outlive the dialog.
    explicit RestoreDialog(ConversationStore *chats, QWidget *parent = nullptr);

    QList<HistoryBackups::Copy> copies() const { return m_copies; }
    // Restores copy i of copies(); the dialog closes once it is done.
    void restoreCopy(qsizetype index);

    // What a restore of date said, in the user's words.
    static QString outcomeText(qsizetype restored, QDate date);

signals:
    // Emitted when a restore ended, with what it did or why it failed.
    void restored(const QString &note);
    // Emitted when every copy has its count (or was found unreadable).
    void counted();

private:
    void handleCount(qsizetype index, std::optional<qsizetype> count);

    ConversationStore *m_chats;
    QList<HistoryBackups::Copy> m_copies;
    qsizetype m_uncounted = 0;
    bool m_busy = false;

    QListWidget *m_list;
    QLabel *m_status;
    QDialogButtonBox *m_buttons;
};

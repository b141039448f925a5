#pragma once

#include "model/provider.h"

#include <QPointer>
#include <QUuid>
#include <QWidget>

#include <memory>
#include <optional>

class ConversationStore;
class FileDialogs;
class ProviderEditor;
class ProviderStore;
class RestoreDialog;
class QLabel;
class QListWidget;
class QMessageBox;
class QPlainTextEdit;
class QPushButton;
class QStackedWidget;
class QToolButton;

// The settings window's content: the provider list with add (from the presets) and remove, the
// editor of the provider picked in the list, and the backup bar that exports and imports the
// whole configuration.
//
// The list's selection is this view's own: it is only seeded from the store's selected provider
// when the view appears with nothing picked, and after an import. The backup bar keeps the
// outcome of the last export or import for as long as the view lives.
class SettingsView final : public QWidget
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(SettingsView)

public:
    // Both stores must outlive the view. Without dialogs the view uses Qt's file dialogs.
    SettingsView(ProviderStore *store, ConversationStore *chats, QWidget *parent = nullptr);
    ~SettingsView() override;

    // Replaces the save and open dialogs the backup bar runs (tests script them). Not owned.
    void setFileDialogs(FileDialogs *dialogs);

    std::optional<QUuid> selection() const { return m_selection; }
    void setSelection(const std::optional<QUuid> &selection);
    std::optional<QString> backupNote() const { return m_backupNote; }
    // The editor on show, or null when the pane shows the empty state.
    ProviderEditor *editor() const;

    // Stores a fresh provider made from the preset and shows it in the editor.
    void addPreset(const Provider &preset);
    // The field of the system prompt new conversations start with; saved as it is typed.
    QPlainTextEdit *defaultSystemPromptField() const { return m_defaultPrompt; }
    // Removes the provider picked in the list and picks the first one left.
    void removeSelected();
    void exportConfig();
    void importConfig();
    // Asks over the settings window whether to import the configuration file at path (a file
    // named when the program was started) and, when the user agrees, imports it as
    // importConfig() would; the outcome goes to the backup note. Does not wait for the answer.
    // A question still open from an earlier call is replaced by the new one.
    void offerImport(const QString &path);
    // The question offerImport() shows while it waits for an answer, or null.
    QMessageBox *importQuestion() const;
    // Opens the list of the history's daily copies; the outcome of a restore becomes the note.
    void showRestore();
    // The restore list while it is open, or null.
    RestoreDialog *restoreDialog() const;

signals:
    // Emitted when the list's selection changes.
    void selectionChanged();

protected:
    void showEvent(QShowEvent *event) override;
    void changeEvent(QEvent *event) override;

private:
    void runImport(FileDialogs &dialogs);
    void rebuildList();
    void showSelection();
    void updateDetail();
    void setBackupNote(const QString &note);
    void seedSelection();
    void applyColours();

    ProviderStore *m_store;
    ConversationStore *m_chats;
    std::unique_ptr<FileDialogs> m_ownDialogs;
    FileDialogs *m_dialogs;
    std::optional<QUuid> m_selection;
    std::optional<QString> m_backupNote;
    bool m_rebuilding = false;

    QListWidget *m_list;
    QToolButton *m_addButton;
    QToolButton *m_removeButton;
    QPushButton *m_exportButton;
    QPlainTextEdit *m_defaultPrompt;
    QStackedWidget *m_detail;
    QWidget *m_emptyState;
    QLabel *m_emptyIcon;
    QLabel *m_emptyText;
    QPointer<ProviderEditor> m_editor;
    QPointer<QMessageBox> m_importQuestion;
    QPointer<RestoreDialog> m_restore;
    QLabel *m_note;
};

#pragma once

#include "model/conversation.h"
#include "storage/historysearch.h"

#include <QList>
#include <QPointer>
#include <QUuid>
#include <QWidget>

#include <optional>

class ConversationListModel;
class ConversationListView;
class ConversationStore;
class HistorySearch;
class ProviderStore;
class QLabel;
class QLineEdit;
class QListView;
class QTimer;
class QToolButton;
class SearchResultsModel;

// The window's left column: the search field, the New Chat button and the list of conversations,
// newest first, with a context menu on each row (Rename, Delete, System Prompt…) and the rename dialog.
//
// Typing in the search field (Ctrl+Shift+F) narrows the list to the conversations that hold every
// typed word, searched off the main thread; Escape clears it and gives the focus back to where it
// was, and an empty field shows the whole list again with the store's selection.
//
// The list follows the store's selection, which every window shares: choosing a row selects that
// conversation everywhere. A right-click opens the row's menu without choosing the row. Reads and writes the two
// stores, which must outlive it.
class ConversationSidebar final : public QWidget
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(ConversationSidebar)

public:
    static constexpr int minimumWidth = 200;
    static constexpr int idealWidth = 240;
    static constexpr int maximumWidth = 320;

    ConversationSidebar(ProviderStore *providers, ConversationStore *chats, QWidget *parent = nullptr);

    QListView *list() const;
    // The last control of the sidebar in Tab order.
    QWidget *lastInFocusChain() const;
    // True while the user moves the list's selection with the keyboard: the focus then stays in
    // the list, so that the next key moves on.
    bool isKeyboardSelecting() const { return m_keyboardSelecting; }

    QLineEdit *searchField() const { return m_searchField; }
    // "3 conversations match", while a search is shown.
    QString searchStatus() const;
    // Whether the list shows search results (the field is not blank).
    bool isSearching() const;
    // Whether the results shown are complete for what the field holds.
    bool isSearchComplete() const;

signals:
    // Emitted when the user is done choosing and wants to type: Return in the list, or New Chat
    // (which may keep the selection it had).
    void composerFocusRequested();
    // Emitted when the user opens a search result: the conversation is selected, and the window
    // shows the typed words found in it, from the first hit in message messageIndex (-1: none).
    void resultChosen(const QString &typed, qsizetype messageIndex);
    // Emitted when the user asks to edit a conversation's system prompt from its row menu.
    void systemPromptRequested(const QUuid &conversationID);
    // Emitted after the user deleted a conversation from its row menu, with the record as it was
    // at that moment and whether it was the one shown, so that the window can offer it back.
    void conversationDeleted(const Conversation &conversation, bool wasSelected);

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;
    void changeEvent(QEvent *event) override;

private:
    void handleListSelection();
    void handleContextMenu(const QPoint &pos);
    void openRenameDialog(const Conversation &conversation);
    void deleteConversation(const QUuid &id);
    void syncListSelection();
    void focusSearch();
    void clearSearch();
    void runSearch();
    void handleSearchResults(const QList<SearchResult> &results);
    void handleSearchFinished();
    // Shows the results found so far. Those that would come into sight are shaped first, in short
    // slices, one at each turn, so that no turn both shapes and draws a screenful of new rows.
    void showFound();
    // The width of each row once the list holds that many.
    int rowWidth(int rows) const;
    void syncSearchStatus();
    void applyColours();

    ProviderStore *m_providers;
    ConversationStore *m_chats;
    ConversationListModel *m_listModel;
    QToolButton *m_newChat;
    ConversationListView *m_list;
    QLineEdit *m_searchField;
    QLabel *m_searchStatus;
    SearchResultsModel *m_results;
    HistorySearch *m_search;
    QTimer *m_rerun;
    // Found but not shown yet, and the list position up to which the rows in sight are shaped.
    QList<SearchResult> m_found;
    int m_preparedTo = 0;
    int m_preparedWidth = 0;
    QTimer *m_showFound;
    QPointer<QWidget> m_returnFocus;
    // The rows shown belong to the previous query until the current one delivers.
    bool m_resultsStale = false;
    std::optional<QUuid> m_renameTarget;
    bool m_syncingList = false;
    bool m_keyboardSelecting = false;
};

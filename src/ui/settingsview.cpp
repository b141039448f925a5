#include "ui/settingsview.h"

#include "storage/configarchive.h"
#include "storage/conversationstore.h"
#include "storage/providerstore.h"
#include "ui/providereditor.h"
#include "ui/qtfiledialogs.h"
#include "ui/replyannouncer.h"
#include "ui/restoredialog.h"
#include "ui/theme.h"

#include <QCheckBox>
#include <QDir>
#include <QEvent>
#include <QFileInfo>
#include <QFontInfo>
#include <QFrame>
#include <QHBoxLayout>
#include <QLabel>
#include <QListWidget>
#include <QMenu>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QShowEvent>
#include <QSignalBlocker>
#include <QSplitter>
#include <QStackedWidget>
#include <QStyledItemDelegate>
#include <QToolButton>
#include <QVBoxLayout>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

constexpr int idRole = Qt::UserRole;

// The warning mark sits at the trailing end of the row, after the name.
class ProviderRowDelegate final : public QStyledItemDelegate
{
public:
    using QStyledItemDelegate::QStyledItemDelegate;

protected:
    void initStyleOption(QStyleOptionViewItem *option, const QModelIndex &index) const override
    {
        QStyledItemDelegate::initStyleOption(option, index);
        option->decorationPosition = QStyleOptionViewItem::Right;
        option->showDecorationSelected = true;
        option->textElideMode = Qt::ElideRight;
    }
    QSize sizeHint(const QStyleOptionViewItem &option, const QModelIndex &index) const override
    {
        return QStyledItemDelegate::sizeHint(option, index) + QSize(0, 8);
    }
    void paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const override
    {
        // Rows sit inset from the list's edges, as a sidebar's rows do.
        QStyleOptionViewItem inset = option;
        inset.rect.adjust(4, 1, -4, -1);
        QStyledItemDelegate::paint(painter, inset, index);
    }
};

QFrame *divider(QWidget *parent)
{
    auto *line = new QFrame(parent);
    line->setFrameShape(QFrame::HLine);
    line->setFrameShadow(QFrame::Sunken);
    return line;
}

} // namespace

SettingsView::SettingsView(ProviderStore *store, ConversationStore *chats, QWidget *parent)
    : QWidget(parent)
    , m_store(store)
    , m_chats(chats)
    , m_ownDialogs(std::make_unique<QtFileDialogs>(this))
    , m_dialogs(m_ownDialogs.get())
{
    // Sidebar: the list, a divider, then add and remove.
    auto *sidebar = new QWidget(this);
    sidebar->setMinimumWidth(180);
    auto *sidebarLayout = new QVBoxLayout(sidebar);
    sidebarLayout->setContentsMargins(0, 0, 0, 0);
    sidebarLayout->setSpacing(0);
    m_list = new QListWidget(sidebar);
    m_list->setObjectName(u"providers"_s);
    m_list->setAccessibleName(u"Providers"_s);
    m_list->setItemDelegate(new ProviderRowDelegate(m_list));
    m_list->setFrameShape(QFrame::NoFrame);
    m_list->setUniformItemSizes(true);
    m_list->setTextElideMode(Qt::ElideRight);
    sidebarLayout->addWidget(m_list, 1);
    sidebarLayout->addWidget(divider(sidebar));

    auto *buttons = new QHBoxLayout;
    buttons->setContentsMargins(6, 6, 6, 6);
    buttons->setSpacing(4);
    m_addButton = new QToolButton(sidebar);
    m_addButton->setObjectName(u"addProvider"_s);
    m_addButton->setIcon(Theme::symbolIcon("plus"_L1, Theme::Color::Primary));
    m_addButton->setAutoRaise(true);
    m_addButton->setPopupMode(QToolButton::InstantPopup);
    m_addButton->setToolTip(u"Add provider"_s);
    m_addButton->setAccessibleName(u"Add provider"_s);
    auto *presets = new QMenu(m_addButton);
    for (const Provider &preset : Provider::presets())
        presets->addAction(preset.name, this, [this, preset] { addPreset(preset); });
    m_addButton->setMenu(presets);
    m_removeButton = new QToolButton(sidebar);
    m_removeButton->setObjectName(u"removeProvider"_s);
    m_removeButton->setIcon(Theme::symbolIcon("minus"_L1, Theme::Color::Primary));
    m_removeButton->setAutoRaise(true);
    m_removeButton->setToolTip(u"Remove provider"_s);
    m_removeButton->setAccessibleName(u"Remove provider"_s);
    buttons->addWidget(m_addButton);
    buttons->addWidget(m_removeButton);
    buttons->addStretch(1);
    sidebarLayout->addLayout(buttons);

    // Detail: the editor, or the hint to add one.
    m_detail = new QStackedWidget(this);
    m_emptyState = new QWidget(m_detail);
    auto *emptyLayout = new QVBoxLayout(m_emptyState);
    emptyLayout->setSpacing(8);
    emptyLayout->addStretch(1);
    m_emptyIcon = new QLabel(m_emptyState);
    m_emptyIcon->setAlignment(Qt::AlignCenter);
    m_emptyText = new QLabel(u"Add a provider with the + button."_s, m_emptyState);
    m_emptyText->setAlignment(Qt::AlignCenter);
    emptyLayout->addWidget(m_emptyIcon);
    emptyLayout->addWidget(m_emptyText);
    emptyLayout->addStretch(1);
    m_detail->addWidget(m_emptyState);

    auto *split = new QSplitter(Qt::Horizontal, this);
    split->setChildrenCollapsible(false);
    split->addWidget(sidebar);
    split->addWidget(m_detail);
    split->setStretchFactor(1, 1);
    split->setSizes({220, 360});

    // Backup bar.
    auto *bar = new QHBoxLayout;
    bar->setContentsMargins(8, 8, 8, 8);
    bar->setSpacing(10);
    m_exportButton = new QPushButton(u"Export Config…"_s, this);
    m_exportButton->setObjectName(u"exportConfig"_s);
    auto *importButton = new QPushButton(u"Import Config…"_s, this);
    importButton->setObjectName(u"importConfig"_s);
    auto *restoreButton = new QPushButton(u"Restore…"_s, this);
    restoreButton->setObjectName(u"restoreHistory"_s);
    restoreButton->setToolTip(u"Bring back conversations from a daily copy of the history"_s);
    m_note = new QLabel(this);
    m_note->setObjectName(u"backupNote"_s);
    m_note->setFont(Theme::font(Theme::TextStyle::Caption));
    m_note->setTextFormat(Qt::PlainText);
    m_note->setMinimumWidth(1); // a long failure text is cut, never widens the window
    m_note->hide();
    // Return belongs to the form's "Save", never to a file dialog.
    for (QPushButton *button : {m_exportButton, importButton, restoreButton})
        button->setAutoDefault(false);
    bar->addWidget(m_exportButton);
    bar->addWidget(importButton);
    bar->addWidget(restoreButton);
    bar->addWidget(m_note, 1);
    bar->addStretch(0);
    // Read at each announcement, so every window follows a change at once.
    auto *announce = new QCheckBox(u"Announce replies"_s, this);
    announce->setObjectName(u"announceReplies"_s);
    announce->setToolTip(u"A screen reader reads replies aloud as they arrive"_s);
    announce->setChecked(ReplyAnnouncer::isEnabled());
    connect(announce, &QCheckBox::toggled, this, [](bool on) { ReplyAnnouncer::setEnabled(on); });
    bar->addWidget(announce);

    // The standing instructions every new conversation starts with; each conversation can change its own.
    auto *promptLabel = new QLabel(u"System prompt for new chats"_s, this);
    promptLabel->setFont(Theme::font(Theme::TextStyle::Caption));
    m_defaultPrompt = new QPlainTextEdit(this);
    m_defaultPrompt->setObjectName(u"defaultSystemPrompt"_s);
    m_defaultPrompt->setAccessibleName(u"System prompt for new chats"_s);
    m_defaultPrompt->setPlaceholderText(u"None"_s);
    m_defaultPrompt->setTabChangesFocus(true);
    m_defaultPrompt->setPlainText(m_chats->defaultSystemPrompt());
    m_defaultPrompt->setFixedHeight(3 * m_defaultPrompt->fontMetrics().lineSpacing() + 12);
    promptLabel->setBuddy(m_defaultPrompt);
    connect(m_defaultPrompt, &QPlainTextEdit::textChanged, this,
            [this] { m_chats->setDefaultSystemPrompt(m_defaultPrompt->toPlainText()); });
    auto *prompt = new QVBoxLayout;
    prompt->setContentsMargins(8, 8, 8, 8);
    prompt->setSpacing(4);
    prompt->addWidget(promptLabel);
    prompt->addWidget(m_defaultPrompt);

    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addWidget(split, 1);
    layout->addWidget(divider(this));
    layout->addLayout(prompt);
    layout->addWidget(divider(this));
    layout->addLayout(bar);

    setTabOrder(m_list, m_addButton);
    setTabOrder(m_addButton, m_removeButton);
    setTabOrder(m_removeButton, m_defaultPrompt);
    setTabOrder(m_defaultPrompt, m_exportButton);

    connect(m_list, &QListWidget::currentItemChanged, this, [this](QListWidgetItem *item) {
        if (m_rebuilding)
            return;
        setSelection(item ? std::optional<QUuid>(item->data(idRole).toUuid()) : std::nullopt);
    });
    connect(m_removeButton, &QToolButton::clicked, this, &SettingsView::removeSelected);
    connect(m_exportButton, &QPushButton::clicked, this, &SettingsView::exportConfig);
    connect(importButton, &QPushButton::clicked, this, &SettingsView::importConfig);
    connect(restoreButton, &QPushButton::clicked, this, &SettingsView::showRestore);
    connect(m_store, &ProviderStore::providersChanged, this, [this] {
        rebuildList();
        updateDetail();
    });
    // Providers are saved in the background, an import's thousands too: a save that fails is told
    // here when it does, whatever the user did last.
    connect(m_store, &ProviderStore::lastSaveErrorChanged, this, [this] {
        if (const std::optional<QString> error = m_store->lastSaveError())
            setBackupNote(*error);
    });

    applyColours();
    rebuildList();
    updateDetail();
}

SettingsView::~SettingsView() = default;

ProviderEditor *SettingsView::editor() const
{
    return m_editor;
}

void SettingsView::setFileDialogs(FileDialogs *dialogs)
{
    m_dialogs = dialogs ? dialogs : m_ownDialogs.get();
}

void SettingsView::setSelection(const std::optional<QUuid> &selection)
{
    if (m_selection == selection)
        return;
    m_selection = selection;
    showSelection();
    updateDetail();
    emit selectionChanged();
}

void SettingsView::addPreset(const Provider &preset)
{
    Provider provider = preset;
    provider.id = QUuid::createUuid();
    provider.cachedModels.clear();
    provider.apiKey.clear();
    m_store->add(provider);
    setSelection(provider.id);
}

void SettingsView::removeSelected()
{
    if (!m_selection)
        return;
    const Provider *found = m_store->find(*m_selection);
    if (!found)
        return;
    m_store->remove(Provider(*found));
    // The first one left, not the neighbour: the list's top is where the eye returns.
    const QList<Provider> &left = m_store->providers();
    setSelection(left.isEmpty() ? std::nullopt : std::optional<QUuid>(left.first().id));
}

void SettingsView::exportConfig()
{
    // A cancelled dialog returns nothing too, and reads as done: nothing was asked of the disk.
    const std::optional<QString> failure = ConfigArchive::exportConfig(*m_store, *m_chats, *m_dialogs);
    setBackupNote(failure.value_or(u"Config exported."_s));
}

void SettingsView::importConfig()
{
    runImport(*m_dialogs);
}

namespace {

// The open dialog's answer when the file is already known.
class ChosenFile final : public FileDialogs
{
public:
    explicit ChosenFile(const QString &path)
        : m_path(path)
    {}

    std::optional<QString> saveFileName(const SaveDialogRequest &) override { return std::nullopt; }
    std::optional<QString> openFileName(const OpenDialogRequest &) override { return m_path; }

private:
    QString m_path;
};

} // namespace

void SettingsView::offerImport(const QString &path)
{
    delete m_importQuestion;
    const QFileInfo file(path);
    auto *question = new QMessageBox(QMessageBox::Question, u"Import Config"_s,
                                     u"Import the providers and conversations in “%1”?"_s.arg(file.fileName()),
                                     QMessageBox::NoButton, window());
    question->setObjectName(u"importQuestion"_s);
    question->setAttribute(Qt::WA_DeleteOnClose);
    question->setTextFormat(Qt::PlainText);
    question->setInformativeText(
        u"The file is in %1. Providers and conversations you already have from the same export are "
        u"replaced by the file's; nothing is deleted."_s.arg(QDir::toNativeSeparators(file.absolutePath())));
    QPushButton *import = question->addButton(u"Import"_s, QMessageBox::AcceptRole);
    question->addButton(QMessageBox::Cancel);
    question->setDefaultButton(import);
    question->setWindowModality(Qt::WindowModal);
    m_importQuestion = question;
    connect(question, &QMessageBox::finished, this, [this, question, import, path] {
        if (question->clickedButton() != import)
            return;
        ChosenFile chosen(path);
        runImport(chosen);
    });
    question->open();
}

QMessageBox *SettingsView::importQuestion() const
{
    return m_importQuestion;
}

void SettingsView::runImport(FileDialogs &dialogs)
{
    const std::optional<QString> failure = ConfigArchive::importConfig(*m_store, *m_chats, dialogs);
    setBackupNote(failure.value_or(u"Config imported."_s));
    // Imported providers may have replaced or joined the list, which the store's notice has rebuilt
    // already; start again from the store's pick.
    m_selection.reset();
    seedSelection();
    showSelection();
    updateDetail();
    emit selectionChanged();
}

void SettingsView::showRestore()
{
    if (m_restore) {
        m_restore->raise();
        m_restore->activateWindow();
        return;
    }
    m_restore = new RestoreDialog(m_chats, this);
    m_restore->setAttribute(Qt::WA_DeleteOnClose);
    connect(m_restore, &RestoreDialog::restored, this, &SettingsView::setBackupNote);
    m_restore->open();
}

RestoreDialog *SettingsView::restoreDialog() const
{
    return m_restore;
}

void SettingsView::seedSelection()
{
    if (m_selection)
        return;
    if (m_store->selectedID())
        m_selection = m_store->selectedID();
    else if (!m_store->providers().isEmpty())
        m_selection = m_store->providers().first().id;
}

void SettingsView::setBackupNote(const QString &note)
{
    m_backupNote = note;
    m_note->setText(note);
    m_note->setToolTip(note);
    m_note->show();
}

void SettingsView::rebuildList()
{
    m_rebuilding = true;
    m_list->clear();
    // The same orange mark on a selected row: the style's generated "selected" look would wash it out.
    const QPixmap mark =
        Theme::symbolIcon("exclamationmark.triangle.fill"_L1, Theme::color(Theme::Color::Orange, palette()))
            .pixmap(m_list->iconSize().isValid() ? m_list->iconSize() : QSize(16, 16), devicePixelRatioF());
    QIcon warning;
    warning.addPixmap(mark, QIcon::Normal);
    warning.addPixmap(mark, QIcon::Selected);
    // One insertion for the whole list, and the rows' details set quietly: a list of thousands of
    // providers inserted row by row, each announced to the view, holds the window for a second.
    const QList<Provider> &providers = m_store->providers();
    QStringList names;
    names.reserve(providers.size());
    for (const Provider &p : providers)
        names.append(p.name);
    m_list->addItems(names);
    QListWidgetItem *current = nullptr;
    {
        const QSignalBlocker quiet(m_list->model());
        for (qsizetype row = 0; row < providers.size(); ++row) {
            const Provider &p = providers.at(row);
            QListWidgetItem *item = m_list->item(int(row));
            item->setData(idRole, p.id);
            if (p.apiKey.isEmpty()) {
                item->setIcon(warning);
                item->setToolTip(u"No API key"_s);
                item->setData(Qt::AccessibleDescriptionRole, u"No API key"_s);
            }
            if (!current && m_selection && p.id == *m_selection)
                current = item;
        }
    }
    if (current)
        m_list->setCurrentItem(current);
    m_list->viewport()->update();
    m_removeButton->setEnabled(m_selection.has_value());
    m_rebuilding = false;
}

void SettingsView::showSelection()
{
    // Only the current row moves: rebuilding a list of thousands of providers on every click
    // would make picking one slow.
    m_rebuilding = true;
    QListWidgetItem *current = nullptr;
    for (int row = 0; m_selection && row < m_list->count(); ++row) {
        if (m_list->item(row)->data(idRole).toUuid() == *m_selection) {
            current = m_list->item(row);
            break;
        }
    }
    if (m_list->currentItem() != current)
        m_list->setCurrentItem(current);
    m_removeButton->setEnabled(m_selection.has_value());
    m_rebuilding = false;
}

void SettingsView::updateDetail()
{
    const bool known = m_selection && m_store->find(*m_selection);
    if (!known) {
        if (m_editor)
            m_editor->deleteLater();
        m_editor = nullptr;
        m_detail->setCurrentWidget(m_emptyState);
        return;
    }
    // A different provider gets a fresh form; the same one keeps what the user is typing.
    if (!m_editor || m_editor->providerID() != *m_selection) {
        if (m_editor)
            m_editor->deleteLater();
        m_editor = new ProviderEditor(m_store, *m_selection, m_detail);
        m_editor->setObjectName(u"providerEditor"_s);
        m_detail->addWidget(m_editor);
        // A new form joins the end of the focus chain; Tab should reach it between the list's
        // buttons and the default system prompt, as it reads on screen.
        QList<QWidget *> form;
        for (QWidget *w = m_editor->nextInFocusChain(); m_editor->isAncestorOf(w); w = w->nextInFocusChain()) {
            if (w->focusPolicy() != Qt::NoFocus)
                form.append(w);
        }
        QWidget *previous = m_removeButton;
        for (QWidget *w : std::as_const(form)) {
            setTabOrder(previous, w);
            previous = w;
        }
        setTabOrder(previous, m_defaultPrompt);
    }
    m_detail->setCurrentWidget(m_editor);
}

void SettingsView::showEvent(QShowEvent *event)
{
    if (!event->spontaneous() && !m_selection) {
        seedSelection();
        if (m_selection) {
            rebuildList();
            updateDetail();
            emit selectionChanged();
        }
    }
    QWidget::showEvent(event);
}

void SettingsView::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::PaletteChange || event->type() == QEvent::ApplicationPaletteChange) {
        applyColours();
        rebuildList();
    }
    QWidget::changeEvent(event);
}

void SettingsView::applyColours()
{
    const int iconSize = QFontInfo(Theme::font(Theme::TextStyle::LargeTitle)).pixelSize();
    m_emptyIcon->setPixmap(Theme::symbolIcon("key.horizontal"_L1, Theme::color(Theme::Color::Secondary, palette()))
                               .pixmap(iconSize, iconSize));
    // Read from this view's palette: a label may not have taken the new palette yet.
    for (QLabel *label : {m_emptyText, m_note}) {
        QPalette own = label->palette();
        own.setColor(QPalette::WindowText, Theme::color(Theme::Color::Secondary, palette()));
        label->setPalette(own);
    }
}

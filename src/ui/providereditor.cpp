#include "ui/providereditor.h"

#include "storage/providerstore.h"
#include "transport/modelsfetch.h"
#include "transport/proxy.h"
#include "ui/theme.h"

#include <QComboBox>
#include <QEvent>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QPointer>
#include <QProgressBar>
#include <QPushButton>
#include <QShowEvent>
#include <QToolButton>
#include <QVBoxLayout>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

QLineEdit *lineEdit(const QString &label, const QString &objectName, QWidget *parent)
{
    auto *edit = new QLineEdit(parent);
    edit->setObjectName(objectName);
    edit->setAccessibleName(label);
    return edit;
}

} // namespace

ProviderEditor::ProviderEditor(ProviderStore *store, const QUuid &providerID, QWidget *parent)
    : QWidget(parent)
    , m_store(store)
    , m_providerID(providerID)
{
    // Section 1: the provider itself and its model list.
    auto *details = new QGroupBox(this);
    auto *form = new QFormLayout(details);
    m_name = lineEdit(u"Name"_s, u"name"_s, details);
    m_wire = new QComboBox(details);
    m_wire->setObjectName(u"wire"_s);
    m_wire->setAccessibleName(u"Type"_s);
    for (ProviderWire wire : allProviderWires())
        m_wire->addItem(displayLabel(wire), rawValue(wire));
    m_baseURL = lineEdit(u"Base URL"_s, u"baseURL"_s, details);
    m_proxy = lineEdit(u"Proxy"_s, u"proxy"_s, details);
    m_proxy->setPlaceholderText(u"System settings"_s);
    m_proxy->setToolTip(u"http://host:port or socks5://host:port; empty uses the system's proxy settings"_s);
    m_proxyPassword = lineEdit(u"Proxy password"_s, u"proxyPassword"_s, details);
    m_proxyPassword->setEchoMode(QLineEdit::Password);
    m_proxyPassword->setPlaceholderText(u"Only if the proxy asks for one"_s);
    m_proxyError = new QLabel(ProviderProxy::formatHint(), details);
    m_proxyError->setObjectName(u"proxyError"_s);
    m_proxyError->setFont(Theme::font(Theme::TextStyle::Caption));
    m_proxyError->setWordWrap(true);
    m_proxyError->setTextFormat(Qt::PlainText);
    m_model = lineEdit(u"Model"_s, u"model"_s, details);
    // URLs and model ids are typed exactly: no completion may change them.
    for (QLineEdit *edit : {m_baseURL, m_proxy, m_model})
        edit->setInputMethodHints(Qt::ImhNoAutoUppercase | Qt::ImhNoPredictiveText | Qt::ImhUrlCharactersOnly);
    form->addRow(u"Name"_s, m_name);
    form->addRow(u"Type"_s, m_wire);
    form->addRow(u"Base URL"_s, m_baseURL);
    form->addRow(u"Proxy"_s, m_proxy);
    form->addRow(m_proxyError);
    form->addRow(u"Proxy password"_s, m_proxyPassword);
    form->addRow(u"Model"_s, m_model);

    auto *fetchRow = new QHBoxLayout;
    m_progress = new QProgressBar(details);
    m_progress->setRange(0, 0); // busy indicator
    m_progress->setTextVisible(false);
    m_progress->setFixedSize(48, 8);
    m_progress->setAccessibleName(u"Fetching models…"_s);
    m_fetchingLabel = new QLabel(u"Fetching models…"_s, details);
    m_fetchingLabel->setFont(Theme::font(Theme::TextStyle::Caption));
    m_fetchButton = new QPushButton(u"Fetch models"_s, details);
    m_fetchButton->setObjectName(u"fetchModels"_s);
    m_chooseButton = new QToolButton(details);
    m_chooseButton->setObjectName(u"chooseModel"_s);
    m_chooseButton->setPopupMode(QToolButton::InstantPopup);
    m_chooseButton->setMenu(new QMenu(m_chooseButton));
    fetchRow->addWidget(m_progress);
    fetchRow->addWidget(m_fetchingLabel);
    fetchRow->addWidget(m_fetchButton);
    fetchRow->addWidget(m_chooseButton);
    fetchRow->addStretch(1);
    form->addRow(fetchRow);
    m_fetchErrorLabel = new QLabel(details);
    m_fetchErrorLabel->setObjectName(u"fetchError"_s);
    m_fetchErrorLabel->setFont(Theme::font(Theme::TextStyle::Caption));
    m_fetchErrorLabel->setWordWrap(true);
    m_fetchErrorLabel->setTextFormat(Qt::PlainText);
    m_fetchErrorLabel->setTextInteractionFlags(Qt::TextSelectableByMouse);
    form->addRow(m_fetchErrorLabel);

    // Section 2: the key, masked.
    auto *keyBox = new QGroupBox(u"API key"_s, this);
    auto *keyLayout = new QVBoxLayout(keyBox);
    m_apiKey = lineEdit(u"API key"_s, u"apiKey"_s, keyBox);
    m_apiKey->setEchoMode(QLineEdit::Password);
    m_apiKey->setPlaceholderText(u"Paste API key"_s);
    m_keyNote = new QLabel(keyBox);
    m_keyNote->setObjectName(u"keyNote"_s);
    m_keyNote->setFont(Theme::font(Theme::TextStyle::Caption));
    m_keyNote->setWordWrap(true);
    showKeyStorage();
    connect(m_store, &ProviderStore::keyStorageChanged, this, &ProviderEditor::showKeyStorage);
    // A key still on its way from the keyring when the form was filled shows up once it is here,
    // unless the user has typed one meanwhile.
    connect(m_store, &ProviderStore::keyReady, this, [this](const QUuid &id) {
        if (id != m_providerID || m_apiKey->isModified() || !m_apiKey->text().isEmpty())
            return;
        if (const Provider *stored = m_store->find(m_providerID))
            m_apiKey->setText(stored->apiKey);
    });
    keyLayout->addWidget(m_apiKey);
    keyLayout->addWidget(m_keyNote);

    // Section 3: save and its confirmation.
    auto *saveBox = new QGroupBox(this);
    auto *saveRow = new QHBoxLayout(saveBox);
    m_saveButton = new QPushButton(u"Save"_s, saveBox);
    m_saveButton->setObjectName(u"save"_s);
    m_saveButton->setDefault(true);
    m_savedIcon = new QLabel(saveBox);
    m_savedLabel = new QLabel(u"Saved"_s, saveBox);
    m_savedLabel->setObjectName(u"savedNote"_s);
    m_savedLabel->setFont(Theme::font(Theme::TextStyle::Callout));
    saveRow->addWidget(m_saveButton);
    saveRow->addWidget(m_savedIcon);
    saveRow->addWidget(m_savedLabel);
    saveRow->addStretch(1);

    auto *layout = new QVBoxLayout(this);
    layout->addWidget(details);
    layout->addWidget(keyBox);
    layout->addWidget(saveBox);
    layout->addStretch(1);

    setTabOrder(m_name, m_wire);
    setTabOrder(m_wire, m_baseURL);
    setTabOrder(m_baseURL, m_proxy);
    setTabOrder(m_proxy, m_proxyPassword);
    setTabOrder(m_proxyPassword, m_model);
    setTabOrder(m_model, m_fetchButton);
    setTabOrder(m_fetchButton, m_chooseButton);
    setTabOrder(m_chooseButton, m_apiKey);
    setTabOrder(m_apiKey, m_saveButton);

    connect(m_fetchButton, &QPushButton::clicked, this, &ProviderEditor::fetchModels);
    connect(m_saveButton, &QPushButton::clicked, this, &ProviderEditor::save);
    // Said once the user leaves the field, not at every key while an address is half typed.
    connect(m_proxy, &QLineEdit::editingFinished, this, &ProviderEditor::checkProxy);
    connect(m_proxy, &QLineEdit::textEdited, this, [this] {
        takeProxyPassword();
        if (ProviderProxy::isValid(m_proxy->text()))
            checkProxy();
    });

    setFetchedModels({});
    setFetching(false);
    setFetchError(std::nullopt);
    setSavedNote(false);
    applyColours();
}

void ProviderEditor::showKeyStorage()
{
    switch (m_store->keyStorage()) {
    case ProviderStore::KeyStorage::Keyring:
        m_keyNote->setText(u"Stored in the desktop keyring."_s);
        break;
    case ProviderStore::KeyStorage::Unknown:
        m_keyNote->setText(u"Looking for the desktop keyring…"_s);
        break;
    case ProviderStore::KeyStorage::SettingsFile:
        m_keyNote->setText(u"Stored in Verbolt's settings file: no keyring is available."_s);
        break;
    }
    m_apiKey->setAccessibleDescription(m_keyNote->text());
}

void ProviderEditor::load()
{
    const Provider *found = m_store->find(m_providerID);
    if (!found)
        return;
    // A copy: the fields' reactions may change the store's list under a pointer into it.
    const Provider stored = *found;
    m_name->setText(stored.name);
    m_wire->setCurrentIndex(m_wire->findData(rawValue(stored.wire)));
    m_baseURL->setText(stored.baseURL);
    m_proxy->setText(stored.proxy);
    m_proxyPassword->clear();
    takeProxyPassword();
    checkProxy();
    m_model->setText(stored.model);
    setFetchedModels(stored.cachedModels);
    m_apiKey->setText(stored.apiKey);
    setSavedNote(false);
}

Provider ProviderEditor::formProvider() const
{
    Provider p;
    p.id = m_providerID;
    p.name = m_name->text();
    p.wire = providerWireFromRaw(m_wire->currentData().toString()).value_or(ProviderWire::openAI);
    p.baseURL = m_baseURL->text();
    p.proxy = ProviderProxy::withPassword(m_proxy->text().trimmed(), m_proxyPassword->text());
    p.model = m_model->text();
    p.cachedModels = m_fetchedModels;
    p.apiKey = m_apiKey->text();
    return p;
}

void ProviderEditor::takeProxyPassword()
{
    const ProviderProxy::SplitPassword split = ProviderProxy::splitPassword(m_proxy->text());
    if (split.password.isEmpty())
        return;
    const int cursor = m_proxy->cursorPosition() - int(m_proxy->text().size() - split.text.size());
    m_proxy->setText(split.text);
    m_proxy->setCursorPosition(std::max(0, cursor));
    m_proxyPassword->setText(split.password);
}

void ProviderEditor::save()
{
    if (!m_store->find(m_providerID))
        return;
    if (!checkProxy()) {
        setSavedNote(false);
        m_proxy->setFocus();
        return;
    }
    m_store->update(formProvider());
    setSavedNote(true);
}

void ProviderEditor::fetchModels()
{
    setFetchError(std::nullopt);
    Provider provider = formProvider();
    provider.apiKey = provider.apiKey.trimmed();
    if (provider.apiKey.isEmpty()) {
        setFetchError(u"Paste your API key first."_s);
        return;
    }
    if (provider.baseURL.trimmed().isEmpty()) {
        setFetchError(u"Set the Base URL first."_s);
        return;
    }

    setFetching(true);
    // The store, not the form, keeps the fetch alive: its result belongs in cachedModels even
    // when the user has moved on to another provider and this form is gone.
    ModelsFetch *fetch = m_modelsService.fetchModels(provider, m_store);
    QPointer<ProviderEditor> form(this);
    ProviderStore *store = m_store;
    const QUuid id = m_providerID;
    connect(fetch, &ModelsFetch::finished, store, [form, store, id](const ModelsFetch::Result &result) {
        if (const auto *ids = std::get_if<QStringList>(&result)) {
            if (form)
                form->setFetchedModels(*ids);
            if (const Provider *stored = store->find(id)) {
                Provider updated = *stored;
                updated.cachedModels = *ids;
                store->update(updated);
            }
            if (form && ids->isEmpty())
                form->setFetchError(u"No models returned."_s);
        } else if (form) {
            form->setFetchError(errorDescription(std::get<ServiceError>(result)));
        }
        if (form)
            form->setFetching(false);
    });
}

void ProviderEditor::setFetchedModels(const QStringList &models)
{
    m_fetchedModels = models;
    QMenu *menu = m_chooseButton->menu();
    menu->clear();
    for (const QString &model : models) {
        menu->addAction(model, this, [this, model] { m_model->setText(model); });
    }
    const QString title = u"Choose (%1)"_s.arg(models.size());
    m_chooseButton->setText(title);
    m_chooseButton->setAccessibleName(title);
    m_chooseButton->setVisible(!m_isFetching && !models.isEmpty());
}

void ProviderEditor::setFetching(bool fetching)
{
    const bool changed = m_isFetching != fetching;
    m_isFetching = fetching;
    m_progress->setVisible(fetching);
    m_fetchingLabel->setVisible(fetching);
    m_fetchButton->setVisible(!fetching);
    m_chooseButton->setVisible(!fetching && !m_fetchedModels.isEmpty());
    if (changed)
        emit isFetchingChanged();
}

void ProviderEditor::setFetchError(const std::optional<QString> &error)
{
    m_fetchError = error;
    m_fetchErrorLabel->setText(error.value_or(QString()));
    m_fetchErrorLabel->setVisible(error.has_value());
}

bool ProviderEditor::checkProxy()
{
    const bool valid = ProviderProxy::isValid(m_proxy->text());
    m_proxyError->setVisible(!valid);
    m_proxy->setAccessibleDescription(valid ? QString() : ProviderProxy::formatHint());
    return valid;
}

void ProviderEditor::setSavedNote(bool saved)
{
    m_savedNote = saved;
    m_savedIcon->setVisible(saved);
    m_savedLabel->setVisible(saved);
}

void ProviderEditor::showEvent(QShowEvent *event)
{
    // Every appearance reloads, but a window coming back from being minimised is not a new one.
    if (!event->spontaneous())
        load();
    QWidget::showEvent(event);
}

void ProviderEditor::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::PaletteChange || event->type() == QEvent::ApplicationPaletteChange)
        applyColours();
    QWidget::changeEvent(event);
}

void ProviderEditor::applyColours()
{
    // Read from this form's palette: a label may not have taken the new palette yet.
    const auto tint = [this](QLabel *label, Theme::Color colour) {
        QPalette own = label->palette();
        own.setColor(QPalette::WindowText, Theme::color(colour, palette()));
        label->setPalette(own);
    };
    tint(m_fetchingLabel, Theme::Color::Secondary);
    tint(m_keyNote, Theme::Color::Secondary);
    tint(m_fetchErrorLabel, Theme::Color::Red);
    tint(m_proxyError, Theme::Color::Red);
    tint(m_savedLabel, Theme::Color::Green);
    m_savedIcon->setPixmap(
        Theme::symbolIcon("checkmark.circle.fill"_L1, Theme::color(Theme::Color::Green, palette())).pixmap(16, 16));
}

#pragma once

#include "model/provider.h"
#include "transport/modelsservice.h"

#include <QStringList>
#include <QUuid>
#include <QWidget>

#include <optional>

class ProviderStore;
class QComboBox;
class QLabel;
class QLineEdit;
class QProgressBar;
class QPushButton;
class QToolButton;

// The form that edits one stored provider: name, wire dialect, base URL, proxy, model and API
// key. A proxy's password is never shown: typed or pasted into the proxy's address, it moves at
// once into the masked "Proxy password" field, and is put back into the address on save. A proxy that is neither empty
// nor http://host:port or socks5://host:port is not saved: the form says what it expects instead. Edits stay in the
// form until "Save" writes them through the store. The form also fetches the provider's model list, offers it as a menu
// that fills the model field, and remembers the list in the stored provider's cachedModels at once (nothing else is
// written before "Save").
//
// An editor belongs to one provider id for its whole life. It reads the stored provider each time
// it is shown, never on later store changes, so a store change cannot overwrite what the user is
// typing. A fetch still running when the editor is destroyed finishes and updates the store.
class ProviderEditor final : public QWidget
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(ProviderEditor)

public:
    // store must outlive the editor.
    ProviderEditor(ProviderStore *store, const QUuid &providerID, QWidget *parent = nullptr);

    QUuid providerID() const { return m_providerID; }

    // Fills the form from the stored provider and hides "Saved"; an unknown id changes nothing.
    void load();
    // Writes the fields exactly as typed (and the offered model list) over the stored provider.
    void save();
    // Asks the provider, as the form describes it with the key trimmed, for its model list.
    void fetchModels();

    // The form's state, for the window that hosts it and for tests.
    Provider formProvider() const;
    QStringList fetchedModels() const { return m_fetchedModels; }
    bool isFetching() const { return m_isFetching; }
    std::optional<QString> fetchError() const { return m_fetchError; }
    bool savedNote() const { return m_savedNote; }

    // The model-list client; tests shorten its time-out.
    void setModelsService(const ModelsService &service) { m_modelsService = service; }

signals:
    // Emitted when a model-list fetch starts or ends.
    void isFetchingChanged();

protected:
    void showEvent(QShowEvent *event) override;
    void changeEvent(QEvent *event) override;

private:
    void setFetchedModels(const QStringList &models);
    void setFetching(bool fetching);
    void setFetchError(const std::optional<QString> &error);
    void setSavedNote(bool saved);
    // Shows or hides the note under the proxy field; true when the field holds a usable proxy.
    bool checkProxy();
    // Moves a password out of the proxy's address into its masked field.
    void takeProxyPassword();
    void applyColours();
    void showKeyStorage();

    ProviderStore *m_store;
    const QUuid m_providerID;
    ModelsService m_modelsService;
    QStringList m_fetchedModels;
    bool m_isFetching = false;
    std::optional<QString> m_fetchError;
    bool m_savedNote = false;

    QLineEdit *m_name;
    QComboBox *m_wire;
    QLineEdit *m_baseURL;
    QLineEdit *m_proxy;
    QLineEdit *m_proxyPassword;
    QLabel *m_proxyError;
    QLineEdit *m_model;
    QLineEdit *m_apiKey;
    QPushButton *m_fetchButton;
    QToolButton *m_chooseButton;
    QProgressBar *m_progress;
    QLabel *m_fetchingLabel;
    QLabel *m_fetchErrorLabel;
    QLabel *m_keyNote;
    QPushButton *m_saveButton;
    QLabel *m_savedIcon;
    QLabel *m_savedLabel;
};

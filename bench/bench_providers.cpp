// Importing a configuration of 10,000 providers with the settings window and a main window open,
// and using the settings list afterwards. Prints the longest time the main thread was held at once
// (the import itself, then each queued step after it), and the cost of picking a row and of adding
// a preset to the long list.
#include "harness.h"
#include "model/jsoncoding.h"
#include "storage/configarchive.h"
#include "storage/conversationstore.h"
#include "storage/filedialogs.h"
#include "storage/providerstore.h"
#include "ui/contentview.h"
#include "ui/mainwindow.h"
#include "ui/settingsview.h"

#include <QAbstractEventDispatcher>
#include <QApplication>
#include <QElapsedTimer>
#include <QListWidget>
#include <QTemporaryDir>

using namespace Qt::StringLiterals;

namespace {

class ChosenFile final : public FileDialogs
{
public:
    explicit ChosenFile(QString path)
        : m_path(std::move(path))
    {}
    std::optional<QString> saveFileName(const SaveDialogRequest &) override { return m_path; }
    std::optional<QString> openFileName(const OpenDialogRequest &) override { return m_path; }

private:
    QString m_path;
};

// The longest single stretch between two returns to the event loop while pending work runs out.
double longestStepMs()
{
    double longest = 0;
    QElapsedTimer step;
    for (int idle = 0; idle < 20;) {
        step.start();
        const bool busy = QCoreApplication::instance()->eventDispatcher()->processEvents(QEventLoop::AllEvents);
        longest = std::max(longest, double(step.nsecsElapsed()) / 1e6);
        idle = busy ? 0 : idle + 1;
    }
    return longest;
}

} // namespace

int main(int argc, char **argv)
{
    QTemporaryDir profile;
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(profile.filePath(u"config"_s)));
    qputenv("XDG_DATA_HOME", QFile::encodeName(profile.filePath(u"data"_s)));
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);

    constexpr int count = 10000;
    ConfigArchive::Payload payload;
    payload.version = 1;
    for (int i = 0; i < count; ++i) {
        Provider p = Provider::presets().at(i % Provider::presets().size());
        p.id = QUuid::createUuid();
        p.name = u"Provider %1"_s.arg(i);
        p.apiKey = u"sk-%1"_s.arg(i);
        payload.providers.append(p);
    }
    const QString archive = profile.filePath(u"config.json"_s);
    QFile file(archive);
    if (!file.open(QIODevice::WriteOnly) || file.write(ConfigArchive::encode(payload)) < 0)
        return 1;
    file.close();

    ProviderStore store;
    ConversationStore chats;
    ChosenFile dialogs(archive);
    MainWindow window(new ContentView(&store, &chats));
    window.resize(1000, 700);
    window.show();
    SettingsView settings(&store, &chats);
    settings.setFileDialogs(&dialogs);
    settings.resize(580, 520);
    settings.show();
    longestStepMs();

    QElapsedTimer timer;
    timer.start();
    settings.importConfig();
    const double importMs = double(timer.nsecsElapsed()) / 1e6;
    const double afterMs = longestStepMs();
    Bench::report("import of 10,000 providers: the call", importMs, "ms");
    Bench::report("  longest step after it", afterMs, "ms");
    Bench::report("  aim: each <= 100", 100, "ms");

    auto *list = settings.findChild<QAbstractItemView *>(u"providers"_s);
    int row = 0;
    const double pickMs = Bench::medianMs(9, [&] {
        row = (row + 1237) % count;
        list->setCurrentIndex(list->model()->index(row, 0));
        longestStepMs();
    });
    Bench::report("pick a row in the 10,000-row list", pickMs, "ms");
    const double addMs = Bench::medianMs(5, [&] {
        settings.addPreset(Provider::presets().first());
        longestStepMs();
    });
    Bench::report("add a preset to the 10,000-row list", addMs, "ms");
    return 0;
}

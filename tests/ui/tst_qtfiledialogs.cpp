#include "ui/qtfiledialogs.h"

#include <QApplication>
#include <QFile>
#include <QFileDialog>
#include <QLabel>
#include <QLineEdit>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <functional>

namespace {

// Runs act on the file dialog once it is open and modal; the dialog call blocks until then.
void whenDialogOpens(QObject *context, std::function<void(QFileDialog *)> act)
{
    QTimer::singleShot(10, context, [context, act] {
        if (auto *dialog = qobject_cast<QFileDialog *>(QApplication::activeModalWidget()))
            act(dialog);
        else
            whenDialogOpens(context, act);
    });
}

// What a user does: goes to the folder, types the name, and presses the accept button.
void choose(QFileDialog *dialog, const QString &path)
{
    const QFileInfo info(path);
    dialog->setDirectory(info.absolutePath());
    if (auto *edit = dialog->findChild<QLineEdit *>(QStringLiteral("fileNameEdit")))
        edit->setText(info.fileName());
    static_cast<QDialog *>(dialog)->accept(); // through QDialog, where it is public
}

} // namespace

class tst_QtFileDialogs : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void save_showsTitleMessageAndSuggestedName();
    void save_addsTheSuffixWhenTyped();
    void open_returnsTheChosenFileOrNothing();

private:
    QTemporaryDir m_dir;
    QWidget m_window;
};

void tst_QtFileDialogs::initTestCase()
{
    QVERIFY(m_dir.isValid());
    // The dialog remembers its history in the preferences: keep that out of the real profile.
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(m_dir.filePath(QStringLiteral("config"))));
    qputenv("XDG_DATA_HOME", QFile::encodeName(m_dir.filePath(QStringLiteral("data"))));
    m_window.show();
}

void tst_QtFileDialogs::save_showsTitleMessageAndSuggestedName()
{
    QtFileDialogs dialogs(&m_window);
    QString title;
    QString message;
    bool messageVisible = false;
    QString suggested;
    QStringList filters;
    const QString target = m_dir.filePath(QStringLiteral("chosen.json"));
    whenDialogOpens(this, [&](QFileDialog *dialog) {
        title = dialog->windowTitle();
        if (auto *label = dialog->findChild<QLabel *>(QtFileDialogs::messageLabelName)) {
            message = label->text();
            messageVisible = label->isVisible();
        }
        if (auto *edit = dialog->findChild<QLineEdit *>(QStringLiteral("fileNameEdit")))
            suggested = edit->text();
        filters = dialog->nameFilters();
        choose(dialog, target);
    });

    const auto chosen =
        dialogs.saveFileName({QStringLiteral("Export Config"),
                              QStringLiteral("Includes API keys in plain text \u2014 keep this file safe."),
                              QStringLiteral("verbolt-config.json"),
                              {QStringLiteral("JSON (*.json)")}});
    QCOMPARE(chosen, std::optional<QString>(target));
    QCOMPARE(title, QStringLiteral("Export Config"));
    QCOMPARE(message, QStringLiteral("Includes API keys in plain text \u2014 keep this file safe."));
    QVERIFY(messageVisible);
    QCOMPARE(suggested, QStringLiteral("verbolt-config.json"));
    QCOMPARE(filters, QStringList{QStringLiteral("JSON (*.json)")});
}

void tst_QtFileDialogs::save_addsTheSuffixWhenTyped()
{
    QtFileDialogs dialogs(&m_window);
    whenDialogOpens(this, [&](QFileDialog *dialog) { choose(dialog, m_dir.filePath(QStringLiteral("notes"))); });
    const auto chosen = dialogs.saveFileName({QStringLiteral("Export Conversation"),
                                              QStringLiteral("Choose where to save the Markdown transcript."),
                                              QStringLiteral("Trip.md"),
                                              {QStringLiteral("Markdown (*.md)")}});
    QCOMPARE(chosen, std::optional<QString>(m_dir.filePath(QStringLiteral("notes.md"))));
}

void tst_QtFileDialogs::open_returnsTheChosenFileOrNothing()
{
    const QString existing = m_dir.filePath(QStringLiteral("backup.json"));
    QFile file(existing);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.close();

    QtFileDialogs dialogs(&m_window);
    QString title;
    QFileDialog::FileMode mode = QFileDialog::AnyFile;
    whenDialogOpens(this, [&](QFileDialog *dialog) {
        title = dialog->windowTitle();
        mode = dialog->fileMode();
        choose(dialog, existing);
    });
    const OpenDialogRequest request{QStringLiteral("Import Config"), QString(), {QStringLiteral("JSON (*.json)")}};
    QCOMPARE(dialogs.openFileName(request), std::optional<QString>(existing));
    QCOMPARE(title, QStringLiteral("Import Config"));
    QCOMPARE(mode, QFileDialog::ExistingFile);

    whenDialogOpens(this, [](QFileDialog *dialog) { dialog->reject(); });
    QCOMPARE(dialogs.openFileName(request), std::nullopt);
}

QTEST_MAIN(tst_QtFileDialogs)
#include "tst_qtfiledialogs.moc"

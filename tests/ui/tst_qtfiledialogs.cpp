#include "ui/qtfiledialogs.h"

#include <QApplication>
#include <QFile>
#include <QFileDialog>
#include <QLabel>
#include <QLineEdit>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

using namespace Qt::StringLiterals;

namespace {

// What an open dialog shows: title, visible message, typed name, name filters and file mode.
using Seen = QStringList;

// Once the file dialog is open and modal, notes what it shows, then acts as a user would: goes to
// the folder of path, types its name and accepts, or cancels when path is empty.
void answerOnceOpen(QObject *context, const QString &path, Seen *seen)
{
    QTimer::singleShot(10, context, [=] {
        auto *dialog = qobject_cast<QFileDialog *>(QApplication::activeModalWidget());
        if (!dialog)
            return answerOnceOpen(context, path, seen);
        auto *edit = dialog->findChild<QLineEdit *>(u"fileNameEdit"_s);
        const auto *label = dialog->findChild<QLabel *>(QtFileDialogs::messageLabelName);
        *seen = {dialog->windowTitle(), label && label->isVisible() ? label->text() : QString(),
                 edit ? edit->text() : QString(), dialog->nameFilters().join(u";;"),
                 QString::number(dialog->fileMode())};
        if (path.isEmpty())
            return dialog->reject();
        dialog->setDirectory(QFileInfo(path).absolutePath());
        if (edit)
            edit->setText(QFileInfo(path).fileName());
        static_cast<QDialog *>(dialog)->accept(); // through QDialog, where it is public
    });
}

} // namespace

class tst_QtFileDialogs : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QWidget m_window;

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        // The dialog remembers its history in the preferences: keep that out of the real profile.
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(m_dir.filePath(u"config"_s)));
        qputenv("XDG_DATA_HOME", QFile::encodeName(m_dir.filePath(u"data"_s)));
        m_window.show();
    }

    void saveAddsTheSuffix_openReturnsTheChoiceOrNothing()
    {
        const SaveDialogRequest request{u"Export Config"_s,
                                        u"Includes API keys in plain text \u2014 keep this file safe."_s,
                                        u"verbolt-config.json"_s,
                                        {u"JSON (*.json)"_s}};
        Seen seen;
        answerOnceOpen(this, m_dir.filePath(u"notes"_s), &seen);
        QCOMPARE(QtFileDialogs(&m_window).saveFileName(request), m_dir.filePath(u"notes.json"_s));
        QCOMPARE(seen, (Seen{request.title, request.message, request.suggestedName, request.nameFilters.first(),
                             QString::number(QFileDialog::AnyFile)}));

        // Opening returns the chosen file, or nothing when cancelled.
        const OpenDialogRequest open{u"Import Config"_s, QString(), {u"JSON (*.json)"_s}};
        const QString existing = m_dir.filePath(u"backup.json"_s);
        QVERIFY(QFile(existing).open(QIODevice::WriteOnly));
        answerOnceOpen(this, existing, &seen);
        QCOMPARE(QtFileDialogs(&m_window).openFileName(open), existing);
        QCOMPARE(seen.first(), open.title);
        QCOMPARE(seen.last(), QString::number(QFileDialog::ExistingFile));
        answerOnceOpen(this, QString(), &seen);
        QCOMPARE(QtFileDialogs(&m_window).openFileName(open), std::nullopt);
    }
};

QTEST_MAIN(tst_QtFileDialogs)
#include "tst_qtfiledialogs.moc"

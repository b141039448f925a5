#pragma once

#include <QDialog>

class QLabel;

// The "About Verbolt" window: the program's name and icon, its version and release day, the Qt
// it was built with and runs on, and its licence. Every line can be selected and copied, so a
// bug report can quote it.
class AboutDialog final : public QDialog
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(AboutDialog)

public:
    explicit AboutDialog(QWidget *parent = nullptr);

    // "Version 0.1, released 2026-11-24".
    static QString versionLine();
    // "Qt 6.4.2", with the version it was built with added when the one it runs on differs.
    static QString qtLine();
    static QString licenceLine();

protected:
    void changeEvent(QEvent *event) override;

private:
    void applyColours();

    QLabel *m_summary;
};

#pragma once

#include "storage/filedialogs.h"

#include <QPointer>
#include <QWidget>

// The save and open dialogs as the windows show them: Qt's own modal file dialog with the
// request's title as the window title and its message in a line under the file list. The parent
// window is brought to the front first. Holds only a guarded pointer to the parent, which may be
// null (the dialog then has no parent).
class QtFileDialogs final : public FileDialogs
{
public:
    explicit QtFileDialogs(QWidget *parent = nullptr);

    std::optional<QString> saveFileName(const SaveDialogRequest &request) override;
    std::optional<QString> openFileName(const OpenDialogRequest &request) override;

    // The object name of the label that shows the request's message.
    static constexpr QLatin1StringView messageLabelName{"fileDialogMessage"};

private:
    QPointer<QWidget> m_parent;
};
